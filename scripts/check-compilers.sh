#!/usr/bin/env bash
# Builds everything, including the tests, with each supported compiler of Debian 12. Warnings are errors.
#
# usage: check-compilers.sh [COMPILER...]    g++-11, g++-12, clang++-14 and clang++-19 by default
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh build test compilers
(($#)) || set -- g++-11 g++-12 clang++-14 clang++-19
for compiler; do
    echo "== $compiler"
    cmake --preset ci -B "build/compilers/$compiler" -DCMAKE_CXX_COMPILER="$compiler" >/dev/null
    cmake --build "build/compilers/$compiler"
done
