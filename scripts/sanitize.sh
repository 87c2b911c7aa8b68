#!/usr/bin/env bash
# Builds a sanitizer preset and runs its suite:
#   asan  AddressSanitizer + UBSan (no recovery) over every test
#   tsan  ThreadSanitizer over every threaded suite: the bus client, the
#         debug shell, the logging service and the library end to end
# Sanitizer reports go to files under build/<preset>/ (tests capture
# standard error) and are printed at the end; any report fails the run.
# Usage: scripts/sanitize.sh asan|tsan [ctest arguments...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
preset=${1:-}
case "$preset" in
  asan) targets=(); labels=() ;;
  tsan)
    targets=(--target qz_mom_tests kril_tests krilsh kril_serve_helper qz_zlog_tests
             qzcap_integration_tests)
    labels=(-L 'mom|kril|zlog|integration') ;;
  *) echo "usage: scripts/sanitize.sh asan|tsan [ctest arguments...]" >&2; exit 2 ;;
esac
shift
"$root/scripts/install-deps.sh"
cd "$root"
build="$root/build/$preset"
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" -j"$(nproc)" "${targets[@]}"
rm -rf "$build/sanitizer-reports"
mkdir -p "$build/sanitizer-reports"
rc=0
ctest --preset "$preset" -j"$(nproc)" "${labels[@]}" "$@" || rc=$?
if compgen -G "$build/sanitizer-reports/*" >/dev/null; then
  cat "$build"/sanitizer-reports/* >&2
  echo "$preset: sanitizer reports above" >&2
  [ "$rc" -ne 0 ] || rc=1
fi
[ "$rc" -eq 0 ] && echo "$preset: no reports"
exit "$rc"
