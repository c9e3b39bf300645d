#!/usr/bin/env bash
# Checks that every README block marked
#   <!-- begin examples/NAME --> ```lang ... ``` <!-- end examples/NAME -->
# is exactly the file examples/NAME, so the README cannot drift from the
# program that make test builds and runs.
#   readme_example_test.sh SOURCE_DIR
set -euo pipefail
src="$1"
readme="$src/README.md"
work="$(mktemp -d "${TMPDIR:-/tmp}/orvo-readme-test.XXXXXX")"
trap 'rm -rf "$work"' EXIT

files="$(sed -n 's/^<!-- begin \(examples\/[^ ]*\) -->$/\1/p' "$readme")"
[ -n "$files" ] || { echo "readme_example_test: no marked example in $readme" >&2; exit 1; }
status=0
for f in $files; do
    # The lines between the markers, without the opening and closing fence.
    awk -v b="<!-- begin $f -->" -v e="<!-- end $f -->" '
        $0 == b { inside = 1; next }
        $0 == e { inside = 0; next }
        inside' "$readme" | sed '1{/^```/d}' | sed '${/^```$/d}' >"$work/block"
    if diff -u "$src/$f" "$work/block"; then
        echo "readme_example_test: README shows $f unchanged"
    else
        echo "readme_example_test: FAILED: README block differs from $f" >&2
        status=1
    fi
done
exit $status
