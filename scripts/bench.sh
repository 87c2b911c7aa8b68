#!/usr/bin/env bash
# Builds the benchmarks ("bench" preset: Release, in build/bench) and runs them
# against a private redis-server. Arguments go to the program: --smoke for a
# short correctness run, --only=1,3 for some of the six benchmarks. A full run
# exits 2 when a target is missed, 1 when a benchmark could not run.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
cd "$root"
cmake --preset bench >/dev/null
cmake --build --preset bench --target qzcap_bench -j"$(nproc)"
exec "$root/build/bench/bench/qzcap_bench" "$@"
