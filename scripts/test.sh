#!/usr/bin/env bash
# Installs what the build needs, builds the library, tools, examples and tests with
# AddressSanitizer and UndefinedBehaviorSanitizer, and runs every test.
# Usage: scripts/test.sh [preset]   (preset: asan (default), debug, release, tsan)
set -euo pipefail
cd "$(dirname "$0")/.."

preset="${1:-asan}"
scripts/install-deps.sh
cmake --preset "$preset"
cmake --build --preset "$preset"
ctest --preset "$preset"
