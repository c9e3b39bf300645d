#!/bin/bash
# The long run: orvo-scm starts the meter, the reader and first_service from a
# JSON file that tools/soak_driver writes and rewrites; the driver loads them
# for SOAK_MINUTES (default 10) and judges the run (see its header). Exit
# status: the driver's (0 pass, 1 a fault, named in its summary), 2 when
# orvo-scm did not come up or did not stop cleanly.
#
#     scripts/soak.sh [build dir, default build/host]
#     SOAK_MINUTES=1 scripts/soak.sh           # the short smoke variant
#     SOAK_KEEP=1 scripts/soak.sh              # keep the work directory
set -euo pipefail
build=$(cd "${1:-build/host}" && pwd)
minutes=${SOAK_MINUTES:-10}
seconds=$(awk -v m="$minutes" 'BEGIN { printf "%d", m * 60 }')
work=$(mktemp -d /tmp/orvo-soak.XXXXXX)
scm=""
cleanup() {
    [ -n "$scm" ] && kill -KILL "$scm" 2>/dev/null || true
    if [ -n "${SOAK_KEEP:-}" ]; then echo "soak: work directory $work"; else rm -rf "$work"; fi
}
trap cleanup EXIT
driver=$build/tools/soak_driver
config=$work/scm.json
log=$work/orvo-scm.log

"$driver" -write-config -scm-config "$config" -examples "$build/examples" -journal "$work/first.journal"
echo "soak: $minutes min; orvo-scm output in $log"
"$build/tools/orvo-scm" -config "$config" -listen 127.0.0.1:0 -store "$work/records" \
    -wdt-ms 3000 -restart-ms 500 -poll-ms 500 > "$log" 2>&1 &
scm=$!
port=""
for _ in $(seq 100); do
    port=$(grep -o 'orvo-scm listening on 127.0.0.1:[0-9]*' "$log" | grep -o '[0-9]*$' || true)
    [ -n "$port" ] && break
    sleep 0.1
done
[ -n "$port" ] || { echo "soak: orvo-scm did not come up"; cat "$log"; exit 2; }

status=0
timeout $((seconds + 120)) "$driver" -scm-sap "127.0.0.1:$port" -scm-pid "$scm" -scm-config "$config" \
    -journal "$work/first.journal" -seconds "$seconds" -samples "$work/samples.csv" || status=$?

kill -TERM "$scm"
scm_status=0
wait "$scm" || scm_status=$?
scm=""
echo "soak: orvo-scm: $(grep -c 'applied the pushed configuration' "$log" || true) pushes applied," \
     "$(grep -c "started .*meter_service" "$log" || true) meter starts, exit status $scm_status"
if [ "$scm_status" -ne 0 ]; then
    echo "soak: FAIL: orvo-scm ended with status $scm_status"
    [ "$status" -ne 0 ] || status=2
fi
exit $status
