#!/usr/bin/env bash
# Installs every Debian 12 package that building, testing, benchmarking and fuzzing need.
# With --ui also the Qt 6 packages of the screens (KX_BUILD_UI), the X virtual frame buffer
# and the software OpenGL that scripts/screenshots.sh uses.
# Safe to run again: packages already present are left alone.
set -euo pipefail

packages=(
    build-essential cmake ninja-build pkg-config ccache clang libclang-rt-14-dev
    libssl-dev openssl libcurl4-openssl-dev nlohmann-json3-dev libplist-dev libasio-dev
    libfmt-dev libcli11-dev libcpp-httplib-dev libsqlite3-dev libgeoclue-2-dev
    libgtest-dev libgmock-dev libbenchmark-dev
    curl python3 nghttp2-server wrk
    # The GeoClue location source's tests run the real daemon on a private bus.
    geoclue-2.0 dbus-daemon
)
if [ "${1:-}" = "--ui" ]; then
    packages+=(
        qt6-base-dev qt6-base-dev-tools qt6-webengine-dev qt6-webengine-dev-tools qt6-svg-dev
        libqt6svg6 qt6-qpa-plugins libgl1-mesa-dri xvfb xauth fonts-dejavu-core
    )
fi

missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done

if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then
    sudo="sudo"
fi
echo "Installing: ${missing[*]}"
# The package lists are refreshed when they are missing or older than a day.
if [ -z "$(find /var/lib/apt/lists -maxdepth 1 -name '*Packages*' -mtime -1 2>/dev/null | head -n 1)" ]; then
    $sudo apt-get update -qq
fi
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
