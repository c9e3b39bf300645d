#!/usr/bin/env bash
# Installs the Debian packages listed in scripts/packages-host.txt that are not
# installed yet. Does nothing (and needs no network) when all are present.
# Runs as root on a fresh machine, otherwise through sudo.
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
list="${1:-$here/packages-host.txt}"

mapfile -t wanted < <(sed -e 's/#.*//' -e 's/[[:space:]]//g' "$list" | grep -v '^$')

missing=()
for pkg in "${wanted[@]}"; do
    status="$(dpkg-query -W -f='${db:Status-Status}' "$pkg" 2>/dev/null || true)"
    [ "$status" = "installed" ] || missing+=("$pkg")
done

if [ "${#missing[@]}" -eq 0 ]; then
    echo "install-deps: all ${#wanted[@]} packages present"
    exit 0
fi

if [ "$(id -u)" -eq 0 ]; then
    sudo=()
elif command -v sudo >/dev/null 2>&1; then
    sudo=(sudo)
else
    echo "install-deps: missing ${missing[*]}; run as root or install sudo" >&2
    exit 1
fi

echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# A mirror that is half-way through a sync makes update report an error for
# one index while the others are fine; the install below tells whether the
# packages could be found after all.
"${sudo[@]}" apt-get update -q || echo "install-deps: apt-get update reported errors; trying the install anyway" >&2
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}" </dev/null
