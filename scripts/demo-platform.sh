#!/bin/bash
# The platform demo: orvo-scm starts the meter service and the meter reader
# from examples/demo_scm.json; the reader finds "meter" through the SCM and
# prints readings. After a few seconds the meter is killed: orvo-scm starts
# it again and the reader reconnects to the new one. The demo ends with what
# an operator sees of it: orvo-ctl list and orvo-ctl info meter; then SIGTERM
# stops everything. Bounded: at most about 30 seconds.
#
#     scripts/demo-platform.sh [build dir, default build/host]
set -euo pipefail
build=${1:-build/host}
root=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
log=$work/orvo-scm.log

cd "$build"
timeout 30 tools/orvo-scm -config "$root/examples/demo_scm.json" -listen 127.0.0.1:0 \
    -store "$work/records" -wdt-ms 1000 -restart-ms 500 > "$log" 2>&1 &
scm=$!
tail -n +1 -f "$log" --pid=$scm &
follow=$!

sleep 4
meter=$(grep -o "registered 'meter' pid [0-9]*" "$log" | head -n 1 | grep -o '[0-9]*$' || true)
if [ -n "$meter" ]; then
    echo "=== demo: killing the meter service (pid $meter) ==="
    kill -KILL "$meter"
fi
sleep 5
# The operator's view of the running platform ends the demo: the SCM's log
# stops here, orvo-scm is stopped quietly afterwards.
kill "$follow" 2>/dev/null || true
wait "$follow" 2>/dev/null || true
scm_addr=$(grep -o 'listening on 127\.0\.0\.1:[0-9]*' "$log" | head -n 1 | cut -d' ' -f3)
status=0
for cmd in "list" "info meter"; do
    echo "=== demo: orvo-ctl $cmd --scm $scm_addr ==="
    # shellcheck disable=SC2086 # cmd is two words on purpose
    tools/orvo-ctl $cmd --scm "$scm_addr" || status=1
done
kill -TERM "$scm"
wait "$scm" || status=$?
grep -q "register 180 = " "$log" || { echo "demo: no reading was exchanged"; exit 1; }
exit $status
