#!/usr/bin/env bash
# Long fuzzing on the corpus kept in the tree, so that each run starts where
# the earlier ones stopped and what it finds is kept.
#   scripts/fuzz-long.sh BUILD_DIR SECONDS [TARGET...]
# For each target (all by default): fuzz for SECONDS on fuzz/corpus/<target>
# plus fuzz/seeds/<target>, then minimise the kept corpus with -merge=1 (only
# inputs that add coverage stay), append the run to fuzz/runs.tsv and rewrite
# the table of fuzz/README.md with the executions summed per target. A crash,
# leak, sanitizer report or an input slower than 10 s fails the run and is
# kept in BUILD_DIR/artifacts/ (turn it into a test, then into a seed).
set -uo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
root="$(dirname "$here")"
build="$1"
seconds="${2:-600}"
shift 2 || true

if [ "$#" -gt 0 ]; then
    targets=()
    for t in "$@"; do targets+=("$build/fuzz/$t"); done
else
    mapfile -t targets < <(find "$build/fuzz" -maxdepth 1 -type f -name '*_fuzz' -perm -u+x | sort)
fi
[ "${#targets[@]}" -gt 0 ] || { echo "fuzz-long: no fuzz targets built in $build/fuzz"; exit 1; }

runs="$root/fuzz/runs.tsv"
[ -f "$runs" ] || printf 'date\ttarget\tseconds\texecutions\tcorpus_files\n' >"$runs"
mkdir -p "$build/artifacts" "$build/logs"
failed=()
for exe in "${targets[@]}"; do
    name="$(basename "$exe")"
    [ -x "$exe" ] || { echo "fuzz-long: $name not built"; failed+=("$name"); continue; }
    kept="$root/fuzz/corpus/$name"
    fresh="$build/fuzz-long/$name"
    mkdir -p "$kept" "$fresh"
    dirs=("$fresh" "$kept")
    [ -d "$root/fuzz/seeds/$name" ] && dirs+=("$root/fuzz/seeds/$name")
    log="$build/logs/$name-long.log"
    echo "fuzz-long: $name for ${seconds}s"
    if ! "$exe" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
            -artifact_prefix="$build/artifacts/$name-" "${dirs[@]}" </dev/null >"$log" 2>&1; then
        echo "fuzz-long: $name FAILED; last lines of $log:"
        tail -n 40 "$log"
        failed+=("$name")
        continue
    fi
    execs="$(awk '/^stat::number_of_executed_units/ {print $2}' "$log")"
    # Keep only what adds coverage: the old corpus and the new finds merged
    # into an empty directory, which then replaces the kept corpus.
    merged="$build/fuzz-long/$name.merged"
    rm -rf "$merged" && mkdir -p "$merged"
    "$exe" -merge=1 -timeout=10 -rss_limit_mb=2048 "$merged" "$kept" "$fresh" </dev/null >"$log.merge" 2>&1 \
        || { echo "fuzz-long: $name merge failed (see $log.merge)"; failed+=("$name"); continue; }
    rm -rf "$kept" && mv "$merged" "$kept" && rm -rf "$fresh"
    files="$(find "$kept" -type f | wc -l)"
    printf '%s\t%s\t%s\t%s\t%s\n' "$(date -u +%Y-%m-%d)" "$name" "$seconds" "${execs:-0}" "$files" >>"$runs"
    echo "fuzz-long: $name ok (${execs:-?} runs, kept corpus $files files)"
done

# The table of fuzz/README.md between its markers: executions summed over
# every recorded run, per target.
table="$(awk -F'\t' 'NR > 1 { e[$2] += $4; s[$2] += $3; n[$2]++; f[$2] = $5 }
    END { for (t in e) printf "| `%s` | %d | %d | %.0f | %d | %s |\n", t, n[t], s[t], e[t], f[t],
                              (e[t] >= 1e7 ? "met" : "not yet") }' "$runs" | sort)"
readme="$root/fuzz/README.md"
if [ -f "$readme" ]; then
    {
        sed -n '1,/^<!-- fuzz table begin -->$/p' "$readme"
        echo "| target | runs | seconds | executions | corpus files | 10^7 |"
        echo "|---|---:|---:|---:|---:|---|"
        echo "$table"
        sed -n '/^<!-- fuzz table end -->$/,$p' "$readme"
    } >"$readme.new" && mv "$readme.new" "$readme"
fi

if [ "${#failed[@]}" -ne 0 ]; then
    echo "fuzz-long: ${#failed[@]} of ${#targets[@]} targets failed: ${failed[*]}"
    exit 1
fi
echo "fuzz-long: ${#targets[@]} targets ran ${seconds}s each; table in fuzz/README.md"
