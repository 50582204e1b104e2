#!/usr/bin/env bash
# Runs the linters, and stops at the first one with findings. The warnings of clang count as a linter. The versions are
# those of Debian 12, as others format and warn differently.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh build test lint

echo "== clang-format"
git ls-files -z '*.h' '*.cpp' '*.c' | xargs -0 clang-format-14 --dry-run -Werror

echo "== shellcheck"
git grep -lzP '^#!/.*\bbash$' -- ':!*.md' | xargs -0 shellcheck

echo "== codespell"
# nd is a macro of the manual pages. The others are words that the tests misspell or cut on purpose.
git ls-files -z | xargs -0 codespell --check-hidden --quiet-level=3 --ignore-words-list=nd,addd,objec,infinit

echo "== mandoc"
mandoc -Tlint -W warning man/*.[0-9]

echo "== allocation"
# The tool allocates only through the safe allocators.
if git grep -nE '\b(malloc|calloc|realloc|strdup)\(' -- cli link requests platform; then
    exit 1
fi

echo "== clang"
cmake --preset debug -DCMAKE_CXX_COMPILER=clang++-14 -DCMAKE_COMPILE_WARNING_AS_ERROR=ON -B build/clang >/dev/null
cmake --build build/clang

echo "== clang-tidy"
run-clang-tidy-14 -quiet -p build/clang >build/clang/tidy.log 2>&1 || {
    cat build/clang/tidy.log
    exit 1
}
