#!/usr/bin/env bash
# The soak counts what it is meant to count: a short run whose own children
# misbehave on purpose (subscriber 0 stops counting one key after the
# restart and opens a descriptor per reconnection, reader 0 exits with
# status 3) must fail, and its last line must name each fault once.
# Usage: check_detects.sh QZCAP_SOAK
set -uo pipefail
soak=$1
out=$("$soak" run --restarts 1 --subscribers 2 --readers 1 --keys 16 --subcards 2 \
  --pause-share 0 --burst-share 0 --stall-ms 3000 --final-ms 5000 --seed 7 \
  --inject ignore-after-restart,reader-exit,fd-per-reconnect 2>&1)
rc=$?
echo "$out"
logs=$(sed -n 's/^soak: logs kept in //p' <<<"$out")
[ -n "$logs" ] && rm -rf "$logs"

want='^soak: 1 restarts, [1-9][0-9]* stalls, 1 lost subscriptions, 1 lost updates, 1 crashes, fd growth 1, rss growth -?[0-9]+ kB$'
last=$(tail -n 1 <<<"$out")
if ! grep -Eq "$want" <<<"$last"; then
  echo "check_detects: the last line does not count the injected faults: $last" >&2
  exit 1
fi
for said in 'crash: reader 0 .* exited with status 3' \
            'never delivered again .*subscriber 0: global_spec/platform/soak_0 \(bool\)' \
            'final values not delivered .*subscriber 0: global_spec/platform/soak_0 \(bool\)'; do
  if ! grep -Eq "$said" <<<"$out"; then
    echo "check_detects: no line says /$said/" >&2
    exit 1
  fi
done
if [ "$rc" -ne 1 ]; then
  echo "check_detects: exit status $rc, not 1" >&2
  exit 1
fi
echo "check_detects: every injected fault was counted"
