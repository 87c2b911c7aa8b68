#!/usr/bin/env bash
# Builds the "fuzz" preset (clang, build/fuzz) and runs every libFuzzer target
# for SECONDS each (default 30), starting from a scratch copy of its seeds in
# tests/fuzz/corpus/<target>/: the repository's corpus is never written.
# Fails when a target crashes, naming the input that crashed it.
# Usage: scripts/fuzz.sh [SECONDS]
#   FUZZ_TARGETS="fuzz_mom_key ..."  only these targets
#   FUZZ_KEEP=1                      keep the scratch directory (grown corpora)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-30}
if ! [[ "$seconds" =~ ^[1-9][0-9]*$ ]]; then
  echo "fuzz: SECONDS must be a positive whole number, not '$seconds'" >&2
  exit 2
fi
"$root/scripts/install-deps.sh" clang libclang-rt-dev
cd "$root"
targets=${FUZZ_TARGETS:-$(cd tests/fuzz && ls fuzz_*.cc | sed 's/\.cc$//')}
cmake --preset fuzz >/dev/null
# Only the targets and what they link: the tools are not fuzzed.
cmake --build --preset fuzz -j"$(nproc)" --target $targets
scratch=$(mktemp -d "${TMPDIR:-/tmp}/qzcap-fuzz.XXXXXX")
[ -n "${FUZZ_KEEP:-}" ] || trap 'rm -rf "$scratch"' EXIT

failed=()
for t in $targets; do
  bin="$root/build/fuzz/tests/fuzz/$t"
  seeds="$root/tests/fuzz/corpus/$t"
  if [ ! -x "$bin" ] || [ ! -d "$seeds" ]; then
    echo "fuzz: $t: no target $bin or no seeds $seeds" >&2
    failed+=("$t")
    continue
  fi
  work="$scratch/$t"
  mkdir -p "$work/corpus" "$work/crashes"
  cp -R "$seeds/." "$work/corpus/"
  echo "fuzz: $t for ${seconds}s"
  rc=0
  "$bin" -max_total_time="$seconds" -print_final_stats=1 \
    -artifact_prefix="$work/crashes/" "$work/corpus" >"$work/log" 2>&1 || rc=$?
  grep -E '^(stat::number_of_executed_units|stat::average_exec_per_sec|stat::new_units_added):' \
    "$work/log" | sed "s/^/fuzz: $t: /" || true
  if [ "$rc" -ne 0 ]; then
    # Keep what it takes to reproduce the crash.
    trap - EXIT
    crash=$(ls -1 "$work/crashes/"* 2>/dev/null | head -n 1)
    tail -n 60 "$work/log" >&2
    echo "fuzz: $t failed (exit $rc); crashing input: ${crash:-none written, see $work/log}" >&2
    echo "fuzz: reproduce with $bin ${crash:-}" >&2
    failed+=("$t")
  fi
done

if [ ${#failed[@]} -ne 0 ]; then
  echo "fuzz: FAILED: ${failed[*]}" >&2
  exit 1
fi
echo "fuzz: $(echo $targets | wc -w) targets, ${seconds}s each, no crash"
