#!/usr/bin/env bash
# Runs clang-tidy with the repository's .clang-tidy over the project's
# sources as the "dev" build compiles them (build/dev/compile_commands.json;
# the generated record code is left out). Prints each finding, then the
# count per file; exits 1 when there is any finding, 2 for a usage error.
# Usage: scripts/tidy.sh [--all | FILE...]
#   (default)  what ships and what the suites share: src/, platform/, tools/,
#              examples/, tests/support/ (about 6 minutes on 2 idle cores)
#   --all      every source of the build, the test suites and benchmarks too
#              (their gtest-heavy sources take about 7 minutes more)
#   TIDY_JOBS=N    clang-tidy processes at once (default 2)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
jobs=${TIDY_JOBS:-2}
if ! [[ "$jobs" =~ ^[1-9][0-9]*$ ]]; then
  echo "tidy: TIDY_JOBS must be a positive whole number, not '$jobs'" >&2
  exit 2
fi
"$root/scripts/install-deps.sh"
cd "$root"
build="$root/build/dev"
db="$build/compile_commands.json"

# The database and the headers generated at build time (records, version).
[ -f "$db" ] || cmake --preset dev >/dev/null
cmake --build --preset dev --target qz_proto -j"$jobs" >/dev/null

all=""
if [ "${1:-}" = "--all" ]; then
  all=1
  shift
fi
if [ $# -gt 0 ]; then
  files=()
  for f in "$@"; do
    path=$(realpath -m "$f")
    grep -qF "\"file\": \"$path\"" "$db" ||
      { echo "tidy: $f is not compiled by the dev build ($db)" >&2; exit 2; }
    files+=("$path")
  done
else
  shipped="^$root/(src|platform|tools|examples|tests/support)/"
  [ -z "$all" ] || shipped="^$root/"
  mapfile -t files < <(sed -n 's/^ *"file": "\(.*\)",\{0,1\}$/\1/p' "$db" |
    grep -E "$shipped" | grep -vF "$build/" | grep -v '\.pb-c\.c$' | sort -u)
fi
[ ${#files[@]} -gt 0 ] || { echo "tidy: no sources in $db" >&2; exit 2; }

logs=$(mktemp -d "${TMPDIR:-/tmp}/qzcap-tidy.XXXXXX")
trap 'rm -rf "$logs"' EXIT
start=$SECONDS
echo "tidy: $(clang-tidy --version | sed -n 's/.*LLVM version \([0-9.]*\).*/\1/p'), ${#files[@]} files, $jobs at a time"

# One log per source; a header's finding shows once however many include it.
printf '%s\0' "${files[@]}" | nice xargs -0 -n 1 -P "$jobs" sh -c '
  log="$1/$(echo "$3" | tr / _).log"
  clang-tidy -p "$2" --quiet "$3" >"$log" 2>&1 || echo "$3" >>"$log.failed"' sh "$logs" "$build" ||
  true

findings=$(cat "$logs"/*.log | grep -E '^/.*:[0-9]+:[0-9]+: (warning|error): ' | sort -u || true)
crashed=()
for f in "$logs"/*.failed; do
  [ -e "$f" ] || continue
  src=$(cat "$f")
  # A non-zero exit without a finding is clang-tidy's own failure.
  if ! grep -qE ': (warning|error): .*\[' "${f%.failed}"; then
    crashed+=("$src")
    sed 's/^/    /' "${f%.failed}" | tail -n 20 >&2
  fi
done

if [ -n "$findings" ]; then
  # Each finding with its context, once.
  cat "$logs"/*.log | awk -v root="$root/" '
    /^\/.*:[0-9]+:[0-9]+: (warning|error): / { keep = !seen[$0]++ }
    /^[0-9]+ warnings? (generated|treated as errors)/ { next }
    keep { sub(root, ""); print }'
  echo "tidy: findings per file:"
  echo "$findings" | sed "s|^$root/||; s|:.*||" | sort | uniq -c | sort -k2 |
    awk '{ printf "  %4d  %s\n", $1, $2 }'
fi
count=$(echo -n "$findings" | grep -c . || true)
echo "tidy: ${#files[@]} files in $((SECONDS - start)) s, $count findings"
if [ ${#crashed[@]} -gt 0 ]; then
  echo "tidy: clang-tidy failed without a finding on: ${crashed[*]}" >&2
  exit 1
fi
[ "$count" -eq 0 ]
