#!/usr/bin/env bash
# Builds the bus stand-in and its tests with ThreadSanitizer in a build
# directory of their own and runs them on both stores (needs redis-server).
# Reports go to files and are printed at the end: tests capture stderr.
# Usage: scripts/tsan.sh [build-dir] [gtest arguments...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="${1:-$root/build-tsan}"
shift || true
flags="-fsanitize=thread -fno-omit-frame-pointer -g -O1"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" \
  -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=thread \
  -DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=thread >/dev/null
cmake --build "$build" -j"$(nproc)" --target qz_mom_tests
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
