#!/usr/bin/env bash
# Screenshots of the Qt screens with the sandbox's sample data, into docs/images/: the inbox,
# a message in the viewer and the subscription lists. Runs the demo's window (scripts/demo.sh
# --gui) under a virtual X server with software OpenGL, so it needs no display.
#
#     scripts/screenshots.sh
set -euo pipefail
cd "$(dirname "$0")/.."

out=$PWD/docs/images
mkdir -p "$out"
export LIBGL_ALWAYS_SOFTWARE=1
# Chromium inside Qt WebEngine refuses its sandbox when run as root.
if [ "$(id -u)" -eq 0 ]; then
    export QTWEBENGINE_DISABLE_SANDBOX=1
fi
export KX_DEMO_GUI_ARGS="--screenshots $out"
xvfb-run -a -s "-screen 0 1280x1024x24" scripts/demo.sh --gui
for name in inbox message lists; do
    [ -s "$out/$name.png" ] || { echo "no $name.png" >&2; exit 1; }
done
echo "Screenshots in docs/images/."
