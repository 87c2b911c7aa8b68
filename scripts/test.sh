#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, builds everything and runs every test:
# the threaded suites under ThreadSanitizer (the "tsan" preset),
# then the whole ctest suite of the "dev" preset.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
cd "$root"
cmake --preset dev >/dev/null
cmake --build --preset dev -j"$(nproc)"
"$root/scripts/sanitize.sh" tsan
ctest --preset dev -j"$(nproc)"
