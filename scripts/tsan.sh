#!/usr/bin/env bash
# Builds the bus stand-in and its tests with the "tsan" preset (build/tsan)
# and runs them on both stores (needs redis-server). Reports go to files and
# are printed at the end: tests capture stderr.
# Usage: scripts/tsan.sh [gtest arguments...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
build="$root/build/tsan"
cmake --preset tsan >/dev/null
cmake --build --preset tsan -j"$(nproc)" --target qz_mom_tests
rm -f "$build"/tsan-report.*
export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 log_path=$build/tsan-report ${TSAN_OPTIONS:-}"
rc=0
"$build/tests/qz_mom_tests" "$@" || rc=$?
if compgen -G "$build/tsan-report.*" >/dev/null; then
  cat "$build"/tsan-report.* >&2
  [ "$rc" -ne 0 ] || rc=1
fi
[ "$rc" -eq 0 ] && echo "tsan: no reports"
exit "$rc"
