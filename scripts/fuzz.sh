#!/usr/bin/env bash
# Fuzzes the tool and the stand-in daemon: builds all targets with libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer and runs them one after the other. Each target starts from its corpus of the last run.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
    cat <<TEXT
usage: scripts/fuzz.sh [--help] [--build-dir <directory>] MINUTES [TARGET...]

Fuzzes for MINUTES in total, shared equally by the targets (default: all of them), and prints the executions and the
coverage of each. Exits 1 when it has findings. Copy the input of a finding to fuzz/seeds/<target>, under a name that
says what it shows; the tests replay it from then on.

  -h, --help                print this text
  --build-dir <directory>   build and keep the corpora there (default: build/fuzz in the project)
TEXT
}

fail() {
    echo "fuzz.sh: $*" >&2
    exit 2
}

build=$PWD/build/fuzz
words=()
while (($#)); do
    case $1 in
    -h | --help) usage && exit 0 ;;
    --build-dir)
        (($# >= 2)) || fail "--build-dir needs a directory"
        build=$2
        shift
        ;;
    -*) fail "unknown option: $1" ;;
    *) words+=("$1") ;;
    esac
    shift
done
((${#words[@]})) || fail "how many minutes? (see --help)"
[[ ${words[0]} =~ ^[1-9][0-9]*$ ]] || fail "not a number of minutes: ${words[0]}"
targets=("${words[@]:1}")
if ((${#targets[@]} == 0)); then
    for source in fuzz/*_fuzzer.cpp; do
        target=${source#fuzz/}
        targets+=("${target%_fuzzer.cpp}")
    done
fi
for target in "${targets[@]}"; do
    [[ -f fuzz/${target}_fuzzer.cpp ]] || fail "no such target: $target"
done
seconds=$((words[0] * 60 / ${#targets[@]}))

scripts/install-packages.sh build test fuzz
cmake -S . -B "$build" -G Ninja --log-level=WARNING -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_TESTING=ON \
    -DPLAX_FUZZ=ON -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_CXX_FLAGS="-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer"
cmake --build "$build" --target "${targets[@]/%/-fuzzer}"

# The last number after a label in a log.
figure() {
    grep -oP "$1\K[0-9]+" "$2" | tail -n 1
}

# Runs one target and adds a line to the summary.
fuzz() {
    local target=$1 log=$build/$1.log status=0 dictionary=()
    mkdir -p "$build/corpus/$target" "$build/findings"
    [[ ! -f fuzz/dictionaries/$target ]] || dictionary=("-dict=fuzz/dictionaries/$target")
    echo "== $target: $seconds s"
    UBSAN_OPTIONS=print_stacktrace=1 "$build/bin/$target-fuzzer" "$build/corpus/$target" "fuzz/seeds/$target" \
        "-max_total_time=$seconds" -timeout=30 -print_final_stats=1 "-artifact_prefix=$build/findings/$target-" \
        "${dictionary[@]}" >"$log" 2>&1 || status=$?
    if ((status != 0)); then
        grep -v '^#' "$log" | tail -n 60
        findings+=("$target")
    fi
    summary+=("$(printf '%-14s %12d executions %8d a second, %5d of %5d edges covered' "$target" \
        "$(figure 'stat::number_of_executed_units: *' "$log")" "$(figure 'stat::average_exec_per_sec: *' "$log")" \
        "$(figure ' cov: ' "$log")" "$(figure 'modules +\(' "$log")")")
}

summary=()
findings=()
for target in "${targets[@]}"; do
    fuzz "$target"
done
printf '%s\n' "${summary[@]}"
if ((${#findings[@]})); then
    echo "fuzz.sh: findings in ${findings[*]}: see $build/findings" >&2
    exit 1
fi
