#!/bin/sh
# soak_driver refuses an option it does not know with status 2 and says which,
# as the tools do (a typo such as -secnds would otherwise run for the default
# ten minutes).
#     soak_driver_options_test.sh SOAK_DRIVER
driver="$1"
out=$("$driver" -secnds 5 2>&1)
rc=$?
echo "$out"
[ "$rc" = 2 ] || { echo "FAILED: exit status $rc, not 2"; exit 1; }
echo "$out" | grep -q "unknown option '-secnds'" || { echo "FAILED: the option is not named"; exit 1; }
out=$("$driver" -seconds 5 stray 2>&1)
rc=$?
[ "$rc" = 2 ] || { echo "FAILED: a stray argument: exit status $rc, not 2"; exit 1; }
echo "passed"
