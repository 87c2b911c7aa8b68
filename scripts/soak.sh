#!/usr/bin/env bash
# Builds the soak driver ("dev" preset, build/dev) and runs the chaos soak:
# subscriber and reader processes on a private redis-server that is killed
# and restarted RESTARTS times (default 100), and stopped and continued, at
# seeded random moments. Further arguments go to the driver (--seed S to
# repeat a run, --help for the rest). The last line gives the counts; the
# exit status is non-zero when anything was stalled, lost or crashed, or a
# child's descriptors or memory grew past their bound.
# Usage: scripts/soak.sh [RESTARTS] [driver options...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
restarts=100
if [ $# -gt 0 ] && [[ $1 =~ ^[0-9]+$ ]]; then
  restarts=$1
  shift
fi
"$root/scripts/install-deps.sh"
cd "$root"
cmake --preset dev >/dev/null
cmake --build --preset dev --target qzcap_soak -j"$(nproc)"
exec "$root/build/dev/tests/soak/qzcap_soak" run --restarts "$restarts" "$@"
