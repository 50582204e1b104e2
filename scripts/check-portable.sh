#!/usr/bin/env bash
# Compiles the tool with only POSIX and getopt_long, and without the functions that are newer than glibc 2.28. First
# checks that the compiler rejects programs that break these rules.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh build
build=$PWD/build/portable
mkdir -p "$build"
newer_macros=(MADV_COLD MADV_PAGEOUT MADV_POPULATE_READ MADV_POPULATE_WRITE CLOSE_RANGE_CLOEXEC)

# Functions of this C library that are newer than glibc 2.28.
newer_functions() {
    readelf --wide --dyn-syms "$(c++ -print-file-name=libc.so.6)" |
        sed -nE 's/.* (FUNC|IFUNC) .* ([a-z]\w*)@@?GLIBC_([0-9.]+).*/\3 \2/p' | sort -V |
        awk '!seen[$2]++ { split($1, version, "."); if (version[2] > 28) print $2 }'
}

# All headers come first, as a poisoned name cannot even be declared.
{
    echo "#include <sys/mman.h>"
    grep -rhE '^#include <' cli include link platform requests | sort -u
    printf '#undef %s\n' "${newer_macros[@]}"
    newer_functions | sed 's/^/#pragma GCC poison /'
} >"$build/portable.h"
options=(-U_GNU_SOURCE -D_POSIX_C_SOURCE=200809L -include "$build/portable.h")

for line in "int advice = MADV_POPULATE_WRITE;" "auto *function = close_range;" "auto *function = memrchr;"; do
    if c++ "${options[@]}" -std=c++20 -fsyntax-only -x c++ - <<<"$line" 2>/dev/null; then
        echo "check-portable.sh: not noticed: $line" >&2
        exit 1
    fi
done
c++ "${options[@]}" -std=c++20 -fsyntax-only -x c++ - <<<"int main() {}"

cmake --preset release -B "$build" -DCMAKE_CXX_FLAGS="${options[*]}" >/dev/null
cmake --build "$build" --target plax-tool
