#!/usr/bin/env bash
# Assembles the 32-bit ARM (armhf) sysroot for the cross build: the packages
# in scripts/packages-armhf.txt and their runtime dependencies, fetched with
# `apt-get download` and unpacked with `dpkg -x`. Nothing is installed into
# the host's package database. The C and C++ runtime come from the cross
# toolchain in /usr/arm-linux-gnueabihf and are not unpacked again.
#
# Usage: scripts/arm-sysroot.sh [DIR]
#   DIR defaults to $ORVO_ARM_SYSROOT, else ${XDG_CACHE_HOME:-$HOME/.cache}/orvo-arm-sysroot.
# A complete sysroot for the same package list is reused as it is.
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
list="$here/packages-armhf.txt"
cache="${XDG_CACHE_HOME:-${HOME:-/tmp}/.cache}"
dir="${1:-${ORVO_ARM_SYSROOT:-$cache/orvo-arm-sysroot}}"
arch=armhf
triplet=arm-linux-gnueabihf
stampfile="$dir/.orvo-sysroot"

mapfile -t wanted < <(sed -e 's/#.*//' -e 's/[[:space:]]//g' "$list" | grep -v '^$')
# The stamp names the package list and the layout version of this script, so a
# longer list in a later change rebuilds the sysroot.
stamp="layout=2 packages=$(printf '%s\n' "${wanted[@]}" | sort | tr '\n' ' ')"

if [ -f "$stampfile" ] && [ "$(head -n1 "$stampfile")" = "$stamp" ]; then
    echo "arm-sysroot: $dir is complete"
    exit 0
fi

if [ "$(id -u)" -eq 0 ]; then sudo=(); else sudo=(sudo); fi
export DEBIAN_FRONTEND=noninteractive

need_update=0
if ! dpkg --print-foreign-architectures | grep -qx "$arch"; then
    echo "arm-sysroot: enabling the $arch architecture for apt (no $arch package gets installed)"
    "${sudo[@]}" dpkg --add-architecture "$arch"
    need_update=1
fi
if ! apt-cache show "libc6:$arch" >/dev/null 2>&1; then
    need_update=1
fi
if [ "$need_update" -eq 1 ]; then
    "${sudo[@]}" apt-get update -q || echo "arm-sysroot: apt-get update reported errors; continuing with the indexes it got" >&2
fi

# Dependency closure of the wanted packages (real packages only: apt-cache
# prints virtual ones in <angle brackets>).
mapfile -t closure < <(
    apt-cache depends --recurse --no-recommends --no-suggests --no-conflicts \
        --no-breaks --no-replaces --no-enhances --no-pre-depends \
        "${wanted[@]/%/:$arch}" |
    grep -v '^[[:space:]<]' | sort -u)

# Left out: what the cross toolchain already provides (an installed
# <name>-armhf-cross package), the compiler's base-files package and
# source-only packages.
skip_re='^(gcc-[0-9]+-base|googletest|libc6|libc6-dev|linux-libc-dev|libgcc-s1|libstdc\+\+6)$'
packages=()
for entry in "${closure[@]}"; do
    name="${entry%%:*}"
    if [[ "$name" =~ $skip_re ]]; then continue; fi
    cross="$(dpkg-query -W -f='${db:Status-Status}' "$name-$arch-cross" 2>/dev/null || true)"
    if [ "$cross" = "installed" ]; then continue; fi
    packages+=("$entry")
done

for pkg in "${wanted[@]}"; do
    if ! printf '%s\n' "${packages[@]}" | grep -qx "$pkg:$arch"; then
        echo "arm-sysroot: $pkg:$arch not found in the apt indexes" >&2
        exit 1
    fi
done

mkdir -p "$(dirname "$dir")"
work="$(mktemp -d "$(dirname "$dir")/.orvo-sysroot.XXXXXX")"
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/debs" "$work/root"
# apt's download sandbox user must be able to write the download directory.
chmod 755 "$work" && chmod 777 "$work/debs"

echo "arm-sysroot: downloading ${#packages[@]} $arch packages"
# As root, apt would drop to its sandbox user, which cannot enter a private
# cache directory; the download itself is the same either way.
sandbox=()
if [ "$(id -u)" -eq 0 ]; then sandbox=(-o APT::Sandbox::User=root); fi
(cd "$work/debs" && apt-get download -q "${sandbox[@]}" "${packages[@]}" </dev/null)

for deb in "$work"/debs/*.deb; do
    dpkg -x "$deb" "$work/root"
done

# Absolute symbolic links would point into the host's file system; make them
# relative to the sysroot.
while IFS= read -r -d '' link; do
    target="$(readlink "$link")"
    case "$target" in
        /*)
            rel="$(realpath -m --relative-to="$(dirname "$link")" "$work/root$target")"
            ln -sfn "$rel" "$link"
            ;;
    esac
done < <(find "$work/root" -type l -print0)

for f in usr/lib/$triplet/libgtest.a usr/lib/$triplet/libgmock.a \
         usr/lib/$triplet/libssl.so usr/lib/$triplet/libcrypto.so \
         usr/lib/$triplet/libcurl.so usr/include/openssl/ssl.h \
         usr/include/$triplet/curl/curl.h usr/include/gtest/gtest.h; do
    if [ ! -e "$work/root/$f" ]; then
        echo "arm-sysroot: $f missing after unpacking" >&2
        exit 1
    fi
done

{
    echo "$stamp"
    for deb in "$work"/debs/*.deb; do
        dpkg-deb -f "$deb" Package Version Architecture | tr '\n' ' '
        echo
    done
} > "$work/root/.orvo-sysroot"

rm -rf "$dir"
mv "$work/root" "$dir"
echo "arm-sysroot: $dir ready (${#packages[@]} packages)"
