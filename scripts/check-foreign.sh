#!/usr/bin/env bash
# Builds the tool for other processors and runs its end-to-end tests on those builds, under Debian's user emulation. The
# frame header is the same on all processors, but the records are not: s390x is big-endian. On i386 an unsigned long has
# 32 bits, although the fields have 64. On arm64 char is unsigned.
#
# usage: check-foreign.sh [ARCHITECTURE...]     arm64, i386 and s390x by default
set -euo pipefail
cd "$(dirname "$0")/.."

# These tests run programs other than the tool, or preload a library of this machine.
not_about_the_tool=(completions fault_injection hardening tables_agree)

check() {
    local architecture=$1 triplet=$2 emulator=$3 byte_order=$4 long_bits=$5
    local ignored=("${not_about_the_tool[@]/%/*}") build=$PWD/build/foreign/$architecture start=$SECONDS
    ignored=("${ignored[@]/#/--ignore-glob=*/test_}")
    cmake -S . -B "$build" -G Ninja --log-level=WARNING -DCMAKE_BUILD_TYPE=Release \
        -DPLAX_BUILD_STANDIN=OFF -DBUILD_TESTING=OFF -DCMAKE_SYSTEM_NAME=Linux \
        "-DCMAKE_SYSTEM_PROCESSOR=${triplet%%-*}" "-DCMAKE_CXX_COMPILER=$triplet-g++"
    cmake --build "$build" --target plax-tool
    PLAX_TOOL=$build/sbin/plax-tool PLAX_TOOL_RUNNER="$emulator -L /usr/$triplet" PLAX_TOOL_CC=$triplet-gcc \
        PLAX_TOOL_BYTE_ORDER=$byte_order PLAX_TOOL_LONG_BITS=$long_bits PYTHONDONTWRITEBYTECODE=1 \
        pytest-3 -q -n 8 --dist loadgroup -p no:cacheprovider tests/end_to_end "${ignored[@]}"
    echo "$architecture: $((SECONDS - start)) s"
}

scripts/install-packages.sh build test foreign
(($#)) || set -- arm64 i386 s390x
for architecture; do
    case $architecture in
    arm64) check arm64 aarch64-linux-gnu qemu-aarch64 little 64 ;;
    i386) check i386 i686-linux-gnu qemu-i386 little 32 ;;
    s390x) check s390x s390x-linux-gnu qemu-s390x big 64 ;;
    *)
        echo "check-foreign.sh: unknown architecture: $architecture" >&2
        exit 2
        ;;
    esac
done
