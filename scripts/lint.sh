#!/usr/bin/env bash
# Runs the linters; the first finding is a failure. The second compiler's warnings count as a linter.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh build test lint

echo "== clang-format"
git ls-files -z '*.h' '*.cpp' '*.c' | xargs -0 clang-format --dry-run -Werror

echo "== shellcheck"
git grep -lzP "^#!/.*\bbash$" | xargs -0 shellcheck

echo "== clang"
cmake --preset debug -DCMAKE_CXX_COMPILER=clang++ -B build/clang >/dev/null
cmake --build build/clang

echo "== clang-tidy"
run-clang-tidy -quiet -p build/clang >build/clang/tidy.log 2>&1 || {
    cat build/clang/tidy.log
    exit 1
}
