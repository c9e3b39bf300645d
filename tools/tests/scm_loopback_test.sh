#!/usr/bin/env bash
# orvo-scm listens on loopback unless told otherwise. In a private network
# namespace with a veth pair on 192.0.2.0/24, an SCM started without -listen
# answers on 127.0.0.1:47000 and nowhere else; one told to listen on the
# pair's address is reachable there, which shows the refusal is the SCM's.
#   scm_loopback_test.sh ORVO_SCM_BINARY
set -euo pipefail
scm="$1"
if ! unshare -n true 2>/dev/null; then
    echo "SKIPPED: no private network namespace here (unshare -n refused)"
    exit 77
fi
dir="$(mktemp -d)"
trap 'rm -rf "$dir"' EXIT
echo '{"services": {}}' >"$dir/scm.json"

unshare -n bash -s "$scm" "$dir" <<'INNER'
set -euo pipefail
scm="$1"; dir="$2"; cd "$dir"
ip link set lo up
ip link add v0 type veth peer name v1
ip addr add 192.0.2.1/24 dev v0
ip addr add 192.0.2.2/24 dev v1
ip link set v0 up
ip link set v1 up

# start NAME ARGS...: runs an SCM in the background, waits for its line.
start() {
    local name="$1"; shift
    "$scm" -config scm.json -store "$name.records" "$@" >"$name.out" 2>&1 &
    for _ in $(seq 100); do
        grep -q "listening on" "$name.out" && return 0
        sleep 0.05
    done
    echo "FAIL: $name did not start:"; cat "$name.out"; exit 1
}
reachable() { timeout 5 bash -c "exec 3<>/dev/tcp/$1/$2" 2>/dev/null; }

start default
grep -q "orvo-scm listening on 127.0.0.1:47000" default.out || { echo "FAIL: default.out:"; cat default.out; exit 1; }
reachable 127.0.0.1 47000 || { echo "FAIL: the default SCM is not reachable on 127.0.0.1:47000"; exit 1; }
if reachable 192.0.2.1 47000; then echo "FAIL: the default SCM answers on 192.0.2.1"; exit 1; fi
if reachable 192.0.2.2 47000; then echo "FAIL: the default SCM answers on 192.0.2.2"; exit 1; fi

start pair -listen 192.0.2.1:47001
reachable 192.0.2.1 47001 || { echo "FAIL: an SCM told to listen on 192.0.2.1 is not reachable there"; exit 1; }
kill $(jobs -p) 2>/dev/null || true
wait || true
echo "scm_loopback_test: passed"
INNER
