#!/usr/bin/env bash
# Builds the benchmarks (Release, in build-bench) and runs them against a
# private redis-server. Arguments go to the program: --smoke for a short
# correctness run, --only=1,3 for some of the four benchmarks.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
build="$root/build-bench"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DQZCAP_BUILD_TESTS=OFF \
  -DQZCAP_BUILD_BENCH=ON >/dev/null
cmake --build "$build" --target qzcap_bench -j"$(nproc)"
exec "$build/bench/qzcap_bench" "$@"
