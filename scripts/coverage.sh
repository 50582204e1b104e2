#!/usr/bin/env bash
# Measures how much of the tool's own layers the whole test suite covers: lines, branches, and conditions within
# decisions (MC/DC). Fails if tests/coverage/exceptions.txt lacks a place that is not covered, or lists one that is
# covered.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-packages.sh build test coverage
build=$PWD/build/coverage
rm -rf "$build"
mkdir -p "$build/profiles"
clang++-19 -c tests/coverage/write_profile_on_abort.cpp -o "$build/write_profile_on_abort.o"
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DBUILD_TESTING=ON -DPLAX_BUILD_STANDIN=OFF \
    -DCMAKE_CXX_COMPILER=clang++-19 \
    -DCMAKE_CXX_FLAGS="-fprofile-instr-generate -fcoverage-mapping -fcoverage-mcdc" \
    -DCMAKE_EXE_LINKER_FLAGS="$build/write_profile_on_abort.o" >/dev/null
cmake --build "$build"
LLVM_PROFILE_FILE="$build/profiles/%p-%m.profraw" ctest --test-dir "$build" --output-on-failure

find "$build/profiles" -name '*.profraw' >"$build/profiles.list"
llvm-profdata-19 merge -sparse --failure-mode=all --input-files="$build/profiles.list" -o "$build/merged.profdata"
measured=("$build/sbin/plax-tool" -object "$build/bin/unit-tests" -instr-profile "$build/merged.profdata"
    -compilation-dir "$PWD" "$PWD/cli" "$PWD/link" "$PWD/requests")
llvm-cov-19 report -show-mcdc-summary "${measured[@]}"
llvm-cov-19 export "${measured[@]}" >"$build/coverage.json"
tests/coverage/check_coverage.py "$build/coverage.json" tests/coverage/exceptions.txt
