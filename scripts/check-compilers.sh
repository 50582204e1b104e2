#!/usr/bin/env bash
# Builds everything, with its tests, with each compiler that Debian 12 has of those that are supported. A warning is a
# failure.
#
# usage: check-compilers.sh [COMPILER...]    g++-11, g++-12, clang++-14 and clang++-19 when none is named
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh build test compilers
(($#)) || set -- g++-11 g++-12 clang++-14 clang++-19
for compiler; do
    echo "== $compiler"
    cmake --preset ci -B "build/compilers/$compiler" -DCMAKE_CXX_COMPILER="$compiler" >/dev/null
    cmake --build "build/compilers/$compiler"
done
