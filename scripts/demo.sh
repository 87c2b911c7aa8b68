#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, builds the library and runs the
# demonstration on the embedded store.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
build="$root/build"
cmake -S "$root" -B "$build" -DQZCAP_BUILD_TESTS=OFF -DQZCAP_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target qzcap_demo krilsh
exec "$build/examples/qzcap_demo" "$@"
