#!/usr/bin/env bash
# Runs a 32-bit ARM program of the cross build under qemu-arm (user mode).
# CTest calls it as the cross-compiling emulator:
#   qemu-arm-run.sh SYSROOT BUILD_DIR PROGRAM [ARGS...]
# The C/C++ runtime comes from the cross toolchain (/usr/arm-linux-gnueabihf),
# OpenSSL, libcurl and friends from SYSROOT, liborvo from BUILD_DIR.
set -euo pipefail

if [ "$#" -lt 3 ]; then
    echo "usage: $0 SYSROOT BUILD_DIR PROGRAM [ARGS...]" >&2
    exit 2
fi
sysroot="$1"
builddir="$2"
shift 2

triplet=arm-linux-gnueabihf
toolchain_root="/usr/$triplet"
libpath="$sysroot/usr/lib/$triplet:$sysroot/lib/$triplet:$builddir"

# qemu-user cannot exec another ARM program by itself (unless the host has
# registered qemu with binfmt_misc, which needs QEMU_LD_PREFIX), so GoogleTest's
# "threadsafe" death tests, which re-execute the test program, cannot work
# here; the "fork" style is used instead. A test that starts another program
# of the build runs it through $ORVO_TEST_EMULATOR (set by the test setup).
exec qemu-arm -L "$toolchain_root" \
    -E "LD_LIBRARY_PATH=$libpath" \
    -E "QEMU_LD_PREFIX=$toolchain_root" \
    -E "GTEST_DEATH_TEST_STYLE=fast" \
    "$@"
