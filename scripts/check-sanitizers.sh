#!/usr/bin/env bash
# Runs the tests with checkers that make memory errors and undefined behaviour failures. First checks that each checker
# except AddressSanitizer rejects a faulty program.
#
# MemorySanitizer cannot check the unit tests, the fuzz targets and the stand-in daemon: to it, every byte written by
# code without its instrumentation is unset, and they use the C++ library and GoogleTest, which Debian has no
# instrumented builds of. The tool uses only the C library, whose functions MemorySanitizer knows.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
    cat <<TEXT
usage: scripts/check-sanitizers.sh [--help] [CHECKER...]

Builds and runs the tests under each CHECKER, or under all of them:

  address    all tests with AddressSanitizer and UndefinedBehaviorSanitizer
  thread     the stand-in's tests with ThreadSanitizer
  memory     the tool's end-to-end tests with MemorySanitizer
  valgrind   the core of the end-to-end tests, on the release build, with memcheck
TEXT
}

fail() {
    echo "check-sanitizers.sh: $*" >&2
    exit 1
}

# end_to_end WORKERS TOOL TEST...: runs end-to-end tests with that tool.
end_to_end() {
    local workers=$1 tool=$2
    shift 2
    PLAX_TOOL=$tool pytest-3 -q -n "$workers" --dist loadgroup -p no:cacheprovider "$@"
}

check_address() {
    scripts/test.sh sanitize
}

# ThreadSanitizer starts a thread of its own, and a process with threads cannot enter a user namespace, as an ordinary
# user's rehearsal does.
check_thread() {
    local build=$PWD/build/thread
    cmake --preset thread >/dev/null
    cmake --build --preset thread --target plaxd-standin plax-tool standin-unit-tests completions
    g++ -fsanitize=thread tests/valgrind/race.cpp -o "$build/race"
    ! "$build/race" 2>/dev/null || fail "ThreadSanitizer does not notice a race"
    ctest --preset thread
    PLAXD_STANDIN=$build/bin/plaxd-standin PLAX_COMPLETIONS=$build/completions \
        end_to_end 4 "$build/sbin/plax-tool" -k "not ordinary" tests/end_to_end/test_standin_*.py
}

# Without the replies of gigabytes: MemorySanitizer writes two bytes of its own for each byte.
memory_tests=(callback_block descriptors exchange help options requests rules run streams timeouts)
not_for_memory="not length_above_the_payload and not length_without_any_payload and not does_not_fit_into_memory"

check_memory() {
    local build=$PWD/build/memory
    local flags="-fsanitize=memory -fsanitize-memory-track-origins -fno-sanitize-recover=all -fno-omit-frame-pointer"
    cmake -S . -B "$build" -G Ninja --log-level=WARNING -DCMAKE_BUILD_TYPE=Debug -DBUILD_TESTING=ON \
        -DCMAKE_CXX_COMPILER=clang++ "-DCMAKE_CXX_FLAGS=$flags"
    cmake --build "$build" --target plax-tool hangup
    # shellcheck disable=SC2086
    clang++ $flags tests/valgrind/canary.cpp -o "$build/canary"
    ! "$build/canary" x 2>/dev/null || fail "MemorySanitizer does not notice an unset byte"
    local tests=("${memory_tests[@]/#/tests/end_to_end/test_}")
    PLAX_HANGUP_LIBRARY=$(find "$build" -name libhangup.so) \
        end_to_end 8 "$build/sbin/plax-tool" -k "$not_for_memory" "${tests[@]/%/.py}"
}

# Without the runs that a signal ends, as they release nothing. Memcheck keeps a processor busy: with more runs than
# processors, the tests would time out.
not_for_valgrind="not ends_a_stream"
valgrind_tests=(
    test_callback_block.py
    test_streams.py
    test_run.py::test_argument_index
    test_rules.py::test_fails
    test_exchange.py::test_incomplete_payload_is_reported_and_reads_as_success
    test_exchange.py::test_closing_without_an_answer_reads_as_success
    test_exchange.py::test_failed_payload_receive_reads_as_zeros
    test_exchange.py::test_reply_in_pieces
    test_requests.py::test_entity_decom
    test_requests.py::test_framed_answer
    test_requests.py::test_streamed_answer
    test_requests.py::test_no_answer_is_read
    test_requests.py::test_second_shorter_file_path_keeps_the_tail
    test_requests.py::test_exclusion_lists
    test_requests.py::test_json
    test_requests.py::test_later_json_replaces_the_earlier
    test_requests.py::test_log_level
    test_requests.py::test_longest_move_lists
    test_requests.py::test_paths
    test_requests.py::test_rebalance_words
    test_requests.py::test_recovery_mode
    test_requests.py::test_upgrade_head
    test_requests.py::test_long_upgrade_list
)

check_valgrind() {
    local build=$PWD/build/release logs=$PWD/build/valgrind failed=0
    cmake --preset release >/dev/null
    cmake --build --preset release --target plax-tool
    rm -rf "$logs"
    mkdir -p "$logs/canary" "$logs/runs"
    local memcheck="valgrind -q --error-exitcode=99 --leak-check=full --show-leak-kinds=all --errors-for-leak-kinds=all"
    memcheck+=" --track-fds=yes --suppressions=$PWD/tests/valgrind/process_exit.supp"
    g++ tests/valgrind/canary.cpp -o "$logs/canary/canary"
    # shellcheck disable=SC2086
    ! $memcheck "--log-file=$logs/canary/%p.log" "$logs/canary/canary" x || fail "memcheck does not notice an error"
    ! tests/valgrind/check_logs.py "$logs/canary" >/dev/null || fail "memcheck's logs are not read"
    PLAX_TOOL_RUNNER="$memcheck --log-file=$logs/runs/%p.log" \
        end_to_end "$(nproc)" "$build/sbin/plax-tool" -k "$not_for_valgrind" "${valgrind_tests[@]/#/tests/end_to_end/}" ||
        failed=1
    tests/valgrind/check_logs.py "$logs/runs"
    ((!failed))
}

checkers=(address thread memory valgrind)
chosen=()
while (($#)); do
    case $1 in
    -h | --help) usage && exit 0 ;;
    address | thread | memory | valgrind) chosen+=("$1") ;;
    *) usage >&2 && exit 2 ;;
    esac
    shift
done
((${#chosen[@]})) || chosen=("${checkers[@]}")

scripts/install-packages.sh build test sanitizers
export PYTHONDONTWRITEBYTECODE=1
for checker in "${chosen[@]}"; do
    echo "== $checker"
    "check_$checker"
done
