#!/bin/bash
# The platform demo: orvo-scm starts the meter service and the meter reader
# from examples/demo_scm.json; the reader finds "meter" through the SCM and
# prints readings. After a few seconds the meter is killed: orvo-scm starts
# it again and the reader reconnects to the new one. Then SIGTERM stops
# everything. Bounded: at most about 30 seconds.
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
echo "=== demo: stopping orvo-scm ==="
kill -TERM "$scm"
status=0
wait "$scm" || status=$?
wait "$follow" 2>/dev/null || true
grep -q "register 180 = " "$log" || { echo "demo: no reading was exchanged"; exit 1; }
exit $status
