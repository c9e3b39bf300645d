#!/usr/bin/env bash
# Installs a build into a temporary prefix and checks what a program outside
# the tree sees: the SONAME, a pkg-config build of a consumer program and a
# CMake find_package(orvo) build of the same program.
#   install_test.sh BUILD_DIR CONSUMER_DIR [CXX]
set -euo pipefail

build="$1"
consumer="$2"
cxx="${3:-g++}"

work="$(mktemp -d "${TMPDIR:-/tmp}/orvo-install-test.XXXXXX")"
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"

step() { echo "install_test: $*"; }
fail() { echo "install_test: FAILED: $*" >&2; exit 1; }

step "installing $build into $prefix"
cmake --install "$build" --prefix "$prefix" >"$work/install.log" || { cat "$work/install.log"; fail "cmake --install"; }

lib="$(find "$prefix" -name 'liborvo.so.3.*' -type f | head -n1)"
[ -n "$lib" ] || fail "no liborvo.so.3.* under $prefix"
libdir="$(dirname "$lib")"
[ -L "$libdir/liborvo.so" ] || fail "no liborvo.so link in $libdir"
soname="$(readelf -d "$lib" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')"
[ "$soname" = "liborvo.so.3" ] || fail "SONAME is '$soname', expected liborvo.so.3"
step "SONAME $soname"
[ -f "$prefix/include/orvo/orvo.h" ] || fail "include/orvo/orvo.h not installed"

pcdir="$(dirname "$(find "$prefix" -name orvo.pc | head -n1)")"
[ -f "$pcdir/orvo.pc" ] || fail "orvo.pc not installed"
export PKG_CONFIG_PATH="$pcdir${PKG_CONFIG_PATH:+:$PKG_CONFIG_PATH}"
version="$(pkg-config --modversion orvo)"
[ "$version" = "3.20.0" ] || fail "pkg-config version is '$version'"
flags="$(pkg-config --cflags --libs orvo)"
step "pkg-config: $flags"
# shellcheck disable=SC2086
"$cxx" -std=c++17 -Wall -Wextra -Werror "$consumer/main.cpp" -o "$work/consumer-pc" $flags \
    || fail "pkg-config build of the consumer"
LD_LIBRARY_PATH="$libdir" "$work/consumer-pc" || fail "pkg-config consumer run"
# The program must find the installed library, not the build tree's.
LD_LIBRARY_PATH="$libdir" ldd "$work/consumer-pc" | grep "$libdir/liborvo.so.3" >/dev/null \
    || fail "pkg-config consumer does not load $libdir/liborvo.so.3"

# A project that builds with -DDEBUG (the trace level DEBUG shares the name).
# shellcheck disable=SC2086
"$cxx" -std=c++17 -Wall -Wextra -Werror -DDEBUG=1 "$consumer/main.cpp" -o "$work/consumer-debug" $flags \
    || fail "build of the consumer with -DDEBUG=1"
LD_LIBRARY_PATH="$libdir" "$work/consumer-debug" >/dev/null || fail "consumer built with -DDEBUG=1 run"

# libcurl is loaded only by programs that transfer (liborvo-wan).
if readelf -d "$lib" | grep -q 'NEEDED.*libcurl'; then fail "liborvo links libcurl"; fi
LD_LIBRARY_PATH="$libdir" ldd "$work/consumer-pc" | grep -q libcurl && fail "an orvo-only program loads libcurl"
wanlib="$(find "$prefix" -name 'liborvo-wan.so.3.*' -type f | head -n1)"
[ -n "$wanlib" ] || fail "no liborvo-wan.so.3.* under $prefix"
readelf -d "$wanlib" | grep -q 'NEEDED.*libcurl' || fail "liborvo-wan does not link libcurl"
wanflags="$(pkg-config --cflags --libs orvo-wan)"
step "pkg-config orvo-wan: $wanflags"
# shellcheck disable=SC2086
"$cxx" -std=c++17 -Wall -Wextra -Werror "$consumer/wan_main.cpp" -o "$work/wan-consumer-pc" $wanflags \
    || fail "pkg-config build of the transfer consumer"
LD_LIBRARY_PATH="$libdir" "$work/wan-consumer-pc" || fail "pkg-config transfer consumer run"

# The README's first service, built from the installed prefix with an rpath
# (it must run without LD_LIBRARY_PATH), then run under the installed
# orvo-scm next to a client that sends it one request.
examples="$consumer/../../examples"
# shellcheck disable=SC2086
"$cxx" -std=c++17 -Wall -Wextra -Werror "$examples/first_service.cpp" -o "$work/first_service" \
    $flags -Wl,-rpath,"$libdir" || fail "build of examples/first_service.cpp"
ldd "$work/first_service" | grep "$libdir/liborvo.so.3" >/dev/null \
    || fail "first_service does not find $libdir/liborvo.so.3 through its rpath"
# shellcheck disable=SC2086
"$cxx" -std=c++17 -Wall -Wextra -Werror "$consumer/first_client.cpp" -o "$work/first_client" \
    $flags -Wl,-rpath,"$libdir" || fail "build of the first_service client"
cat >"$work/first.json" <<JSON
{"services": {
  "first": {"start": true, "command": "$work/first_service -scm-sap {scm-sap} -ip 127.0.0.1",
            "config": [{"name": "journal", "type": "text", "value": "$work/first.journal"}]},
  "client": {"start": true, "failure-action": "none", "command": "$work/first_client -scm-sap {scm-sap}"}
}}
JSON
[ -x "$prefix/bin/orvo-scm" ] || fail "orvo-scm not installed"
LD_LIBRARY_PATH="$libdir" "$prefix/bin/orvo-scm" -listen 127.0.0.1:0 -config "$work/first.json" -store "$work/scm.records" \
    >"$work/scm.log" 2>&1 &
scm_pid=$!
for _ in $(seq 600); do
    grep -q "reply ok\|bad reply" "$work/scm.log" && break
    kill -0 "$scm_pid" 2>/dev/null || break
    sleep 0.1
done
kill -TERM "$scm_pid" 2>/dev/null || true
for _ in $(seq 300); do kill -0 "$scm_pid" 2>/dev/null || break; sleep 0.1; done
kill -KILL "$scm_pid" 2>/dev/null && { cat "$work/scm.log"; fail "orvo-scm did not stop within 30 s"; }
wait "$scm_pid" || true
grep -q "reply ok, count 1" "$work/scm.log" || { cat "$work/scm.log"; fail "first_service did not answer the client"; }
grep -q "registered 'first' pid [0-9]* sap 127.0.0.1:[1-9]" "$work/scm.log" \
    || { cat "$work/scm.log"; fail "first_service registered no sap on 127.0.0.1"; }
[ "$(grep -c 'ready at 127.0.0.1:' "$work/scm.log")" = 1 ] \
    || { cat "$work/scm.log"; fail "the service's trace line is not shown exactly once"; }
[ -s "$work/first.journal" ] || fail "first_service wrote no journal"
step "first_service answered under orvo-scm"

cmake -S "$consumer" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_BUILD_TYPE=Release >"$work/cmake.log" 2>&1 \
    || { cat "$work/cmake.log"; fail "find_package(orvo) configure"; }
cmake --build "$work/cmake-build" >"$work/build.log" 2>&1 || { cat "$work/build.log"; fail "find_package(orvo) build"; }
"$work/cmake-build/consumer" || fail "find_package(orvo) consumer run"
"$work/cmake-build/wan_consumer" || fail "find_package(orvo) orvo::wan consumer run"

step "passed"
