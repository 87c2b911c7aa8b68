#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, builds everything and runs every test:
# the bus client's suite under ThreadSanitizer first (its own build tree),
# then the whole ctest suite of the "dev" preset.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
cd "$root"
cmake --preset dev >/dev/null
cmake --build --preset dev -j"$(nproc)"
"$root/scripts/tsan.sh"
ctest --preset dev -j"$(nproc)"
