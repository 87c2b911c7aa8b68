#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, builds everything and runs every test.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
build="$root/build-test"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc)"
cd "$build"
ctest --output-on-failure -j"$(nproc)" --timeout 300
