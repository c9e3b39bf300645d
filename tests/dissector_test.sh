#!/usr/bin/env bash
# The Lua capture dissector under tshark:
#  1. a capture file in the format orvo-ctl's snoop writes (LINKTYPE_RAW,
#     IPv4 + TCP on 127.0.0.1) holding hand-made frames: every field of the
#     frame, payload and a nested record is checked, a frame split over two
#     segments is reassembled, and malformed records end in an expert note
#     instead of a loop;
#  2. a capture written by orvo-ctl snoop of the meter service while the
#     reader polls it and its configuration is changed;
#  3. a real exchange captured on the loopback (root only): orvo-scm with the
#     meter service and reader of examples/, decoded with "Decode As" on the
#     SCM's port and on the meter's sap port read from its registration.
#
#     tests/dissector_test.sh BUILD-DIR SOURCE-DIR
set -uo pipefail

build="$1"
src="$2"
lua="$build/share/orvo/orvo.lua"
work="$(mktemp -d "${TMPDIR:-/tmp}/orvo-dissector-test.XXXXXX")"
pids=()
cleanup() {
    for p in "${pids[@]}"; do kill -KILL "$p" 2>/dev/null; done
    rm -rf "$work"
}
trap cleanup EXIT

step() { echo "dissector_test: $*"; }
fail() { echo "dissector_test: FAILED: $*" >&2; exit 1; }
[ -f "$lua" ] || fail "$lua not built"
command -v tshark >/dev/null || fail "tshark not installed"

# tshark with the dissector; bounded so a looping script cannot hang the run.
decode() { timeout 60 tshark -X lua_script:"$lua" -n "$@" 2>>"$work/tshark.err"; }

bin() { local h; h="$(echo "$*" | tr -d ' \n')"; printf "$(echo "$h" | sed 's/../\\x&/g')"; }
le32() { printf '%02x%02x%02x%02x' $(($1 & 255)) $(($1 >> 8 & 255)) $(($1 >> 16 & 255)) $(($1 >> 24 & 255)); }
be16() { printf '%04x' "$1"; }
be32() { printf '%08x' "$1"; }

# One pcap record: IPv4 + TCP from port $1 to $2, sequence $3, payload hex $4.
seq_time=0
packet() {
    local payload; payload="$(echo "$4" | tr -d ' \n')"
    local plen=$((${#payload} / 2)) total=$((40 + ${#payload} / 2))
    seq_time=$((seq_time + 1))
    bin "$(le32 $seq_time) $(le32 0) $(le32 $total) $(le32 $total)"
    bin "4500 $(be16 $total) 0000 4000 4006 0000 7f000001 7f000001"
    bin "$(be16 "$1") $(be16 "$2") $(be32 "$3") 00000000 5018 ffff 0000 0000"
    bin "$payload"
    : "$plen"
}

# Frames (hex). A tid prints in cUuid's order: bytes 3 2 1 0 - 5 4 - 7 6 - 8 9 - 10..15.
tid_bytes="00112233 44556677 8899aabb ccddeeff"
tid_text="33221100-5544-7766-8899-AABBCCDDEEFF"
# Record: name="meter", info={n=7, neg=-1, big=uint64 2^40, ok=true,
#         inner={t="abc"}}, when=time 1000 ms.
inner="01 06 74 00 61 62 63 00"                     # t = "abc"
info_child="03 03 6e 00 07  02 09 6e 65 67 00 ff ff ff ff 0f  09 0a 62 69 67 00 80 80 80 80 80 20  0a 04 6f 6b 00 01  06 0f 69 6e 6e 65 72 00 08 $inner"
info_len=$(( $(echo "$info_child" | tr -d ' ' | wc -c) / 2 ))
record="01 0b 6e 61 6d 65 00 6d 65 74 65 72 00  06 $(printf '%02x' $((5 + 1 + info_len))) 69 6e 66 6f 00 $(printf '%02x' $info_len) $info_child  04 0d 77 68 65 6e 00 e8 03 00 00 00 00 00 00"
payload1="07 70 00 00 $tid_bytes $record"                 # SERVICE_INFO, with tid
len1=$(( 6 + $(echo "$payload1" | tr -d ' ' | wc -c) / 2 ))
frame1="04 01 $(le32 $len1) $payload1"
frame2="04 02 0e 00 00 00 01 00 02 00 78 56 34 12"       # type 0x020001, token only
frame3="04 00 0f 00 00 00 56 34 12 00 03 03 6e 00 07"    # unknown type 0x123456, {n=7}
# Malformed: an element whose length runs past the frame, and a record list
# entry claiming more bytes than its element holds; both must stop cleanly.
frame4="04 00 0e 00 00 00 00 70 00 00 03 7f 6e 00"
frame5="04 00 12 00 00 00 01 70 00 00 06 06 72 00 7f 03 03 6e"
f3hex="$(echo "$frame3" | tr -d ' ')"
{
    bin "d4c3b2a1 0200 0400 00000000 00000000 ffff0000 65000000"   # LINKTYPE_RAW
    packet 47000 1 1000 "$frame1"
    s=$((1000 + len1))
    packet 47000 1 $s "$frame2"
    s=$((s + 14))
    packet 47000 1 $s "${f3hex:0:14}"                # frame 3 in two segments
    packet 47000 1 $((s + 7)) "${f3hex:14}"
    s=$((s + 15))
    packet 1 47000 5000 "$frame4"
    packet 1 47000 5014 "$frame5"
} >"$work/raw.pcap"

decode -r "$work/raw.pcap" -Y orvo -T fields -E separator='|' -E occurrence=a -E aggregator=';' \
    -e orvo.type_name -e orvo.tid -e orvo.token -e orvo.element.path -e orvo.element.value \
    >"$work/raw.txt" || { cat "$work/tshark.err"; fail "tshark on the LINKTYPE_RAW file"; }
cat "$work/raw.txt"
expect() { # file, line number, expected line
    local got; got="$(sed -n "$2p" "$1")"
    [ "$got" = "$3" ] || fail "line $2 of the decoded fields: got '$got', expected '$3'"
}
expect "$work/raw.txt" 1 "SERVICE_INFO|$tid_text||name;info;info.n;info.neg;info.big;info.ok;info.inner;info.inner.t;when|meter;7;-1;1099511627776;true;abc;1970-01-01 00:00:01.000 UTC"
expect "$work/raw.txt" 2 "0x020001||0x12345678||"
expect "$work/raw.txt" 3 "0x123456|||n|7"
expect "$work/raw.txt" 4 "TRACE_ON||||"
expect "$work/raw.txt" 5 "TRACE_OFF|||r|"
[ "$(wc -l <"$work/raw.txt")" = 5 ] || fail "expected 5 decoded frames"
decode -r "$work/raw.pcap" -Y orvo.malformed -T fields -e orvo.type_name \
    >"$work/bad.txt"
[ "$(tr '\n' ' ' <"$work/bad.txt")" = "TRACE_ON TRACE_OFF " ] \
    || fail "malformed records not flagged: '$(cat "$work/bad.txt")'"
step "capture file: frame, payload and nested record decoded; malformed records flagged"

# Random payloads behind valid frame headers: tshark must finish on all of them.
# (Hex collected first and written at once: fewer processes on a loaded machine.)
packet_hex() { # like packet, as hex text
    local payload="$4" total=$((40 + ${#4} / 2))
    echo "$(le32 1) $(le32 0) $(le32 $total) $(le32 $total)"
    echo "4500 $(be16 $total) 0000 4000 4006 0000 7f000001 7f000001"
    echo "$(be16 "$1") $(be16 "$2") $(be32 "$3") 00000000 5018 ffff 0000 0000 $payload"
}
random_hex="$(head -c 9000 /dev/urandom | od -An -v -tx1 | tr -d ' \n')"
hex="d4c3b2a1 0200 0400 00000000 00000000 ffff0000 65000000"
s=1
off=0
for i in $(seq 150); do
    n=$((RANDOM % 60 + 1))
    # packet type 0-3, a random type byte, then random record bytes
    frame="04$(printf '%02x' $((i % 4)))$(le32 $((10 + n)))$(printf '%02x' $((RANDOM % 256)))700000${random_hex:$off:$((2 * n))}"
    off=$((off + 2 * n))
    hex+=" $(packet_hex 47000 1 $s "$frame")"
    s=$((s + 10 + n))
done
bin "$hex" >"$work/random.pcap"
decode -r "$work/random.pcap" -Y orvo -T fields -e orvo.type >"$work/random.txt" \
    || fail "tshark did not finish on random records"
[ "$(grep -c . "$work/random.txt")" = 150 ] || fail "not all 150 random frames were decoded"
step "150 frames of random record bytes decoded without a hang or an error"

# 2. A capture written by orvo-ctl snoop: the meter service seen while the
#    reader polls it and an operator changes its configuration.
ctl="$build/tools/orvo-ctl"
[ -x "$ctl" ] || fail "$ctl not built"
sed -e "s|examples/|$build/examples/|" -e 's|"value": 1000|"value": 200|' \
    "$src/examples/demo_scm.json" >"$work/snoop-scm.json"
timeout 60 "$build/tools/orvo-scm" -config "$work/snoop-scm.json" -listen 127.0.0.1:0 \
    -store "$work/snoop-records" >"$work/snoop-scm.log" 2>&1 &
pids+=($!)
snoop_scm=$!
for _ in $(seq 300); do grep -q "register 180 = " "$work/snoop-scm.log" && break; sleep 0.1; done
scm_addr="$(grep -o 'listening on 127\.0\.0\.1:[0-9]*' "$work/snoop-scm.log" | head -n1 | cut -d' ' -f3)"
[ -n "$scm_addr" ] || { cat "$work/snoop-scm.log"; fail "orvo-scm for the snoop did not start"; }
meter_port="$("$ctl" list --scm "$scm_addr" | awk '$1 == "meter" { print $3 }' | cut -d: -f2)"
[ -n "$meter_port" ] || fail "meter not registered with the SCM at $scm_addr"
timeout 60 "$ctl" snoop meter --pcap "$work/snoop.pcap" --scm "$scm_addr" >"$work/snoop.txt" 2>&1 &
pids+=($!)
snoop=$!
for _ in $(seq 300); do grep -q ' 0x20002 ' "$work/snoop.txt" && break; sleep 0.1; done
"$ctl" config meter set tick-ms=300 --scm "$scm_addr" >/dev/null || fail "config set during the snoop"
for _ in $(seq 300); do [ "$(grep -c ' 0x20002 ' "$work/snoop.txt")" -ge 2 ] && break; sleep 0.1; done
kill -INT "$snoop"
wait "$snoop" || fail "orvo-ctl snoop did not end cleanly on SIGINT: $(cat "$work/snoop.txt")"
kill -TERM "$snoop_scm"; wait "$snoop_scm" 2>/dev/null
decode -r "$work/snoop.pcap" -d "tcp.port==$meter_port,orvo" -Y orvo \
    -T fields -E separator='|' -E occurrence=a -E aggregator=';' -e tcp.srcport -e orvo.type_name \
    -e orvo.tid -e orvo.element.path -e orvo.element.value >"$work/snooped.txt" \
    || { cat "$work/tshark.err"; fail "tshark on the snoop capture"; }
# A reading the meter sent (from its sap port) answers a request it received
# (to its sap port) with the same tid.
reading="$(grep "^$meter_port|0x020002|" "$work/snooped.txt" | grep '|register;value|180;[0-9]*$' | head -n1)"
[ -n "$reading" ] || { cat "$work/snooped.txt"; fail "no reading sent by the meter decoded"; }
tid="$(echo "$reading" | cut -d'|' -f3)"
grep -q "^47000|0x020001|$tid|register|180$" "$work/snooped.txt" \
    || { cat "$work/snooped.txt"; fail "no request received by the meter with the reading's tid $tid"; }
# The configuration push nests the new configuration.
decode -r "$work/snoop.pcap" -d "tcp.port==$meter_port,orvo" -T fields -e tcp.dstport -e orvo.type_name \
    -Y 'orvo.element.setting == "config.tick-ms=300"' >"$work/snoop-nested.txt"
grep -qx "$meter_port	SCM_SETCONFIG" "$work/snoop-nested.txt" \
    || { cat "$work/snooped.txt"; fail "the pushed configuration (config.tick-ms = 300) not decoded"; }
step "orvo-ctl snoop capture: request and reading with tid $tid, nested configuration push decoded"

# 3. A real exchange on the loopback.
if [ "$(id -u)" != 0 ]; then
    step "SKIPPED the loopback capture: dumpcap on lo needs root"
    exit 0
fi
port=""
for _ in $(seq 50); do
    p=$((47100 + RANDOM % 800))
    ss -Htan "sport = :$p or dport = :$p" | grep . >/dev/null || { port=$p; break; }
done
[ -n "$port" ] || fail "no free port for the SCM"
timeout 60 dumpcap -q -i lo -f "tcp and host 127.0.0.1" -a duration:50 -w "$work/lo.pcapng" \
    >"$work/dumpcap.log" 2>&1 &
pids+=($!)
dumpcap_pid=$!
for _ in $(seq 100); do grep -q "Capturing on" "$work/dumpcap.log" && break; sleep 0.1; done
sed "s|examples/|$build/examples/|" "$src/examples/demo_scm.json" >"$work/scm.json"
timeout 40 "$build/tools/orvo-scm" -config "$work/scm.json" -listen "127.0.0.1:$port" \
    -store "$work/records" >"$work/scm.log" 2>&1 &
pids+=($!)
scm=$!
for _ in $(seq 300); do grep -q "register 180 = " "$work/scm.log" && break; sleep 0.1; done
kill -TERM "$scm" 2>/dev/null
wait "$scm" 2>/dev/null
sleep 1
kill -INT "$dumpcap_pid" 2>/dev/null
wait "$dumpcap_pid" 2>/dev/null
grep -q "register 180 = " "$work/scm.log" || { cat "$work/scm.log"; fail "the demo services exchanged no reading"; }

fields=(-T fields -E separator='|' -E occurrence=a -E aggregator=';' -e orvo.type_name -e orvo.tid
        -e orvo.element.path -e orvo.element.value)
decode -r "$work/lo.pcapng" -d "tcp.port==$port,orvo" -Y orvo "${fields[@]}" >"$work/scm.txt" \
    || { cat "$work/tshark.err"; fail "tshark on the loopback capture"; }
grep -q '^SCM_REGISTER|' "$work/scm.txt" || fail "no SCM_REGISTER decoded"
# The configuration answer nests the service's configuration record.
decode -r "$work/lo.pcapng" -d "tcp.port==$port,orvo" -T fields -e orvo.type_name \
    -Y 'orvo.element.setting == "config.tick-ms=200"' >"$work/nested.txt"
grep -qx 'SCM_GETCONFIG_ACK' "$work/nested.txt" \
    || { cat "$work/scm.txt"; fail "meter's configuration (config.tick-ms = 200) not decoded"; }
ack_tid="$(grep '^SCM_GETCONFIG_ACK|' "$work/scm.txt" | head -n1 | cut -d'|' -f2)"
[ -n "$ack_tid" ] || fail "SCM_GETCONFIG_ACK has no tid"
grep "^SCM_GETCONFIG|$ack_tid|" "$work/scm.txt" >/dev/null \
    || fail "no SCM_GETCONFIG with the answer's tid $ack_tid"
# The meter's own port from the "sap" of its registration, then its traffic.
sap="$(grep '^SCM_REGISTER|' "$work/scm.txt" | grep -o '127\.0\.0\.1:[0-9]*' | grep -v ":$port\$" | head -n1)"
[ -n "$sap" ] || fail "no sap in the registrations"
step "SCM exchange decoded on port $port; services' saps: $(grep '^SCM_REGISTER|' "$work/scm.txt" | grep -o '127\.0\.0\.1:[0-9]*' | tr '\n' ' ')"
found=0
for s in $(grep '^SCM_REGISTER|' "$work/scm.txt" | grep -o '127\.0\.0\.1:[0-9]*' | sort -u); do
    decode -r "$work/lo.pcapng" -d "tcp.port==${s#*:},orvo" -Y "orvo && tcp.port==${s#*:}" "${fields[@]}" \
        >"$work/meter.txt"
    if grep -q '^0x020002|.*register;value|180;[0-9]' "$work/meter.txt"; then found=1; break; fi
done
[ $found = 1 ] || fail "no meter reading (0x020002 with register 180) decoded on the services' ports"
req_tid="$(grep '^0x020002|' "$work/meter.txt" | head -n1 | cut -d'|' -f2)"
grep -q "^0x020001|$req_tid|register|180" "$work/meter.txt" \
    || fail "the reading's tid $req_tid matches no request"
step "meter request and reading decoded with matching tid $req_tid; passed"
