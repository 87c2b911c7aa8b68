#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, builds everything and runs every test:
# the bus client's suite under ThreadSanitizer first (its own build tree),
# then the whole ctest suite.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
build="$root/build-test"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc)"
"$root/scripts/tsan.sh" "$root/build-test-tsan"
cd "$build"
ctest --output-on-failure -j"$(nproc)" --timeout 300
