#!/usr/bin/env bash
# `make test`: every stage runs even when an earlier one failed, so one run
# shows everything that is broken; the summary at the end names the stages
# and the exit status is non-zero when any failed.
set -uo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$root" || exit 1
make_cmd="${MAKE:-make}"
build="${BUILD:-build}"
fuzz_seconds="${FUZZ_SECONDS:-20}"
logs="$build/test-logs"
mkdir -p "$logs"

names=()
results=()
details=()
times=()

fmt_time() { printf '%dm%02ds' $(($1 / 60)) $(($1 % 60)); }

# stage NAME MAKE-TARGET...: runs the targets, keeps a log, notes the result.
stage() {
    local name="$1"
    shift
    local log="$logs/$name.log"
    echo
    echo "======== $name: make $* ========"
    local start=$SECONDS
    "$make_cmd" --no-print-directory "$@" 2>&1 | tee "$log"
    local rc=${PIPESTATUS[0]}
    local took=$((SECONDS - start))
    local detail
    detail="$(grep -E '^[0-9]+% tests passed' "$log" | tail -n1)"
    if [ -z "$detail" ]; then
        detail="$(grep -E '^fuzz: ' "$log" | tail -n1)"
    fi
    if [ -z "$detail" ] && [ "$rc" -ne 0 ]; then
        detail="configure or build failed (see $log)"
    fi
    names+=("$name")
    times+=("$took")
    details+=("${detail:-}")
    if [ "$rc" -eq 0 ]; then results+=(PASS); else results+=(FAIL); fi
    echo "======== $name: $([ "$rc" -eq 0 ] && echo passed || echo FAILED) in $(fmt_time "$took") ========"
}

total_start=$SECONDS
stage host host-test
stage select select-test
stage install install-test
stage asan asan-test
stage tsan tsan-test
stage arm arm-test
stage fuzz fuzz FUZZ_SECONDS="$fuzz_seconds"
stage bench bench-smoke
# Last: it installs the packages into /usr for a while (and purges them).
stage deb deb-test

passed=0
failed=0
echo
echo "======== make test summary ========"
for i in "${!names[@]}"; do
    printf '  %-8s %-4s %8s  %s\n' "${names[$i]}" "${results[$i]}" "$(fmt_time "${times[$i]}")" "${details[$i]}"
    if [ "${results[$i]}" = PASS ]; then passed=$((passed + 1)); else failed=$((failed + 1)); fi
done
echo "  total time $(fmt_time $((SECONDS - total_start))); logs in $logs/"
echo "stages: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
