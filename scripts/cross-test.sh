#!/usr/bin/env bash
# Builds everything for a 32-bit target of the device ("i386" or "armhf"
# preset, build/<target>) and runs the whole ctest suite under the target's
# emulator, the Redis-store tests included: the 32-bit client talks to the
# host's redis-server. Installs what the target needs when it is missing.
# Usage: scripts/cross-test.sh i386|armhf [ctest arguments...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
case "${1:-}" in
  i386 | armhf) target=$1 ;;
  *)
    echo "usage: $0 i386|armhf [ctest arguments...]" >&2
    exit 2
    ;;
esac
shift
"$root/scripts/install-deps.sh" "$target"
cd "$root"
t0=$(date +%s)
cmake --preset "$target" >/dev/null
cmake --build --preset "$target" -j"$(nproc)"
t1=$(date +%s)
ctest --preset "$target" -j"$(nproc)" "$@"
t2=$(date +%s)
echo "cross-test $target: configure and build $((t1 - t0)) s, tests $((t2 - t1)) s"
