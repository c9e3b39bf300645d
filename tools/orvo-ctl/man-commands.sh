#!/bin/sh
# Writes a help2man include file with one subsection per orvo-ctl command,
# taken from the command's own --help, so the man page describes every
# command's options and cannot drift from them.
#     man-commands.sh ORVO-CTL OUTPUT
set -e
ctl="$1"
out="$2"
{
    echo "[COMMANDS]"
    for c in list info config trace snoop send journal eeprom statusw; do
        echo ".SS $c"
        echo ".nf"
        # roff: a backslash is written twice, a leading dot or quote is escaped
        "$ctl" "$c" --help | sed -e 's/\\/\\\\/g' -e "s/^\([.']\)/\\\\\&\1/"
        echo ".fi"
    done
} >"$out"
