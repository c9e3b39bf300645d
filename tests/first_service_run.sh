#!/usr/bin/env bash
# The README's first service, built against an installed liborvo and run
# under the installed orvo-scm: it registers, takes its configuration, answers
# two notes from first_client with the same transaction id and a growing
# count, keeps them in its journal, and ends with status 0 on SIGTERM.
#   first_service_run.sh PREFIX SOURCE_DIR WORK_DIR [CXX]
set -euo pipefail

prefix="$1"
src="$2"
work="$3"
cxx="${4:-g++}"

step() { echo "first_service: $*"; }
fail() { echo "first_service: FAILED: $*" >&2; [ -f "$work/scm.out" ] && cat "$work/scm.out" >&2; exit 1; }

# The README shows the example whole, between two markers: it must not drift.
readme_copy="$(sed -n '/^<!-- begin examples\/first_service.cpp -->$/,/^<!-- end examples\/first_service.cpp -->$/p' \
    "$src/README.md" | sed -e '1,2d' -e '$d' | sed -e '$d')"
[ "$readme_copy" = "$(cat "$src/examples/first_service.cpp")" ] \
    || fail "README.md's copy of examples/first_service.cpp differs from the file"

libdir="$(dirname "$(find "$prefix" -name 'liborvo.so.3' | head -n1)")"
export PKG_CONFIG_PATH="$libdir/pkgconfig"
for prog in first_service first_client; do
    # shellcheck disable=SC2046
    "$cxx" -std=c++17 -Wall -Wextra -Werror "$src/examples/$prog.cpp" -o "$work/$prog" \
        $(pkg-config --cflags --libs orvo) -Wl,-rpath,"$libdir" || fail "build of $prog"
done
step "built against $prefix with pkg-config (rpath $libdir)"

cat >"$work/scm.json" <<JSON
{"services": {"first": {"start": true, "failure-action": "log",
  "command": "$work/first_service -scm-sap {scm-sap} -journal $work/notes.journal",
  "config": [{"name": "greeting", "type": "text", "value": "hello from the SCM"}]}}}
JSON
"$prefix/bin/orvo-scm" -config "$work/scm.json" -listen 127.0.0.1:0 -store "$work/scm.records" \
    >"$work/scm.out" 2>&1 &
scm=$!
trap 'kill $scm 2>/dev/null || true' EXIT
sap=""
for _ in $(seq 1 200); do
    sap="$(sed -n "s/.*registered 'first' pid [0-9]* sap \([0-9.]*:[0-9]*\).*/\1/p" "$work/scm.out" | head -n1)"
    [ -n "$sap" ] && grep -q "'first' ready" "$work/scm.out" && break
    sleep 0.1
done
[ -n "$sap" ] || fail "first_service did not register"
step "registered at $sap"
answer="$("$work/first_client" -sap "$sap" -note "one")" || fail "first note"
[ "$answer" = "count=1 greeting=hello from the SCM" ] || fail "first answer '$answer'"
answer="$("$work/first_client" -sap "$sap" -note "two")" || fail "second note"
[ "$answer" = "count=2 greeting=hello from the SCM" ] || fail "second answer '$answer'"
kill -TERM $scm
wait $scm || fail "orvo-scm ended with status $?"
trap - EXIT
grep -q "'first' (pid [0-9]*) ended with code 0" "$work/scm.out" || fail "first_service did not end with 0"
[ -s "$work/notes.journal" ] || fail "no journal"
step "passed"
