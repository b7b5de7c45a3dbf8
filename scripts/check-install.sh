#!/usr/bin/env bash
# Installs a built tree into a temporary prefix and builds a consumer against it twice: with
# CMake's find_package and with pkg-config. Usage: scripts/check-install.sh [build directory]
set -euo pipefail
cd "$(dirname "$0")/.."

build="${1:-build/release}"
prefix="$(mktemp -d)"
trap 'rm -rf "$prefix"' EXIT

cmake --install "$build" --prefix "$prefix" > /dev/null
# A sanitized library needs a consumer built with the same sanitizers.
sanitizers="$(sed -n 's/^KX_SANITIZERS:STRING=//p' "$build/CMakeCache.txt")"
flags=""
if [ -n "$sanitizers" ]; then
    flags="-fsanitize=$sanitizers"
fi

cmake -S tests/install/consumer -B "$prefix/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" > /dev/null
cmake --build "$prefix/consumer" > /dev/null
LD_LIBRARY_PATH="$prefix/lib" "$prefix/consumer/consumer" | grep -q '^1.0.8.1 0$'

PKG_CONFIG_PATH="$prefix/lib/pkgconfig" c++ -std=c++20 $flags tests/install/consumer/main.cpp \
    $(PKG_CONFIG_PATH="$prefix/lib/pkgconfig" pkg-config --cflags --libs KXClientFramework) \
    -o "$prefix/consumer-pkgconfig"
LD_LIBRARY_PATH="$prefix/lib" "$prefix/consumer-pkgconfig" | grep -q '^1.0.8.1 0$'
echo "install check: find_package and pkg-config consumers build and run"
