#!/usr/bin/env bash
# Sets up a fresh Debian 12 machine, builds the library as a device would
# ("device" preset, build/device) and runs the demonstration on the embedded
# store. Arguments go to the demonstration (--serve SECONDS, a store URI).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
cd "$root"
cmake --preset device >/dev/null
cmake --build --preset device -j"$(nproc)" --target qzcap_demo krilsh
exec "$root/build/device/examples/qzcap_demo" "$@"
