#!/usr/bin/env bash
# Runs the unit and integration suites of the "dev" build under valgrind's
# memcheck: any memory error, or a definite leak that tests/sanitizers/
# valgrind.supp does not name as deliberate, fails the run.
# Usage: scripts/valgrind.sh [gtest filter]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh" valgrind
cd "$root"
cmake --preset dev >/dev/null
cmake --build --preset dev -j"$(nproc)" --target qzcap_unit_tests qzcap_integration_tests
filter=${1:-*}
rc=0
for suite in qzcap_unit_tests qzcap_integration_tests; do
  log="$root/build/dev/valgrind-$suite.log"
  echo "== valgrind: $suite (log in $log)"
  valgrind --tool=memcheck --leak-check=full --show-leak-kinds=definite \
    --errors-for-leak-kinds=definite --error-exitcode=99 \
    --suppressions="$root/tests/sanitizers/valgrind.supp" --log-file="$log" \
    "$root/build/dev/tests/$suite" --gtest_filter="$filter" --gtest_brief=1 || rc=$?
  grep -E 'ERROR SUMMARY|definitely lost' "$log" | tail -2
done
exit "$rc"
