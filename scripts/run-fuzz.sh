#!/usr/bin/env bash
# Runs every libFuzzer target of a fuzz build for a fixed time each.
#   scripts/run-fuzz.sh BUILD_DIR SECONDS
# The corpus grows in BUILD_DIR/corpus/<target>; seeds from fuzz/seeds/<target>/
# and the kept corpus fuzz/corpus/<target>/ are read as well. A crash, a leak, a sanitizer report or an input that runs
# longer than 10 s fails the run; the input is kept in BUILD_DIR/artifacts/.
set -uo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
root="$(dirname "$here")"
build="$1"
seconds="${2:-60}"

mapfile -t targets < <(find "$build/fuzz" -maxdepth 1 -type f -name '*_fuzz' -perm -u+x 2>/dev/null | sort)
if [ "${#targets[@]}" -eq 0 ]; then
    echo "fuzz: no fuzz targets built"
    exit 0
fi

mkdir -p "$build/corpus" "$build/artifacts" "$build/logs"
failed=()
for exe in "${targets[@]}"; do
    name="$(basename "$exe")"
    corpus="$build/corpus/$name"
    mkdir -p "$corpus"
    dirs=("$corpus")
    if [ -d "$root/fuzz/seeds/$name" ]; then
        dirs+=("$root/fuzz/seeds/$name")
    fi
    # The corpus long runs keep in the tree (read, never written here).
    if [ -d "$root/fuzz/corpus/$name" ]; then
        dirs+=("$root/fuzz/corpus/$name")
    fi
    log="$build/logs/$name.log"
    echo "fuzz: $name for ${seconds}s"
    if "$exe" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
            -artifact_prefix="$build/artifacts/$name-" "${dirs[@]}" </dev/null >"$log" 2>&1; then
        stats="$(grep -E '^stat::number_of_executed_units' "$log" | awk '{print $2}')"
        echo "fuzz: $name ok (${stats:-?} runs, corpus $(find "$corpus" -type f | wc -l) files)"
    else
        echo "fuzz: $name FAILED; last lines of $log:"
        tail -n 40 "$log"
        failed+=("$name")
    fi
done

if [ "${#failed[@]}" -ne 0 ]; then
    echo "fuzz: ${#failed[@]} of ${#targets[@]} targets failed: ${failed[*]}"
    exit 1
fi
echo "fuzz: all ${#targets[@]} targets ran ${seconds}s without a failure"
