"""The run from the command word to the exit status."""

import os
import subprocess

import pytest

from command_line import SOCKET, SOCKET_OPTION, USAGE, UUID, ask, refuse, succeeds, usage_error, uuid_list
from harness import TOOL, Outcome, ScriptedDaemon, frame, reply, send, tool
from request_table import ROWS

NO_SUCH_SOCKET = Outcome(b"", b"connect error: No such file or directory\n", 1)


@pytest.mark.parametrize("word", [
    "", " ", "-", "nonsense", "STATS", "Stats", "stat", "statss", "stats ", " stats", "stats\n", "crawler,",
    "fix_concats", "Log-Level", "log-leve", "block-cdb-cB", "set-global-exclusion-lis", "set-global-exclusion-list2",
    "1", "0", "34", "info-", "what-if", "update", "%s%n%s", "x" * 100000,
], ids=lambda word: repr(word[:40]))
def test_unknown_command(word):
    assert refuse(SOCKET_OPTION, word) == usage_error("Unrecognized command: " + word + "\n")
    assert refuse(word, SOCKET_OPTION) == usage_error("Unrecognized command: " + word + "\n")


@pytest.mark.parametrize("word", sorted({row.word for row in ROWS}))
def test_command_words_are_exact(word):
    for near in (word.upper(), word.capitalize(), word + "x", word[:-1]):
        assert refuse(SOCKET_OPTION, near) == usage_error("Unrecognized command: " + near + "\n")


def test_unknown_command_keeps_its_bytes():
    assert refuse(SOCKET_OPTION, b"\xff\x01\xc3") == usage_error(b"Unrecognized command: \xff\x01\xc3\n")


@pytest.mark.parametrize("words", [
    [SOCKET_OPTION], ["-s", "stats"], ["--socket-path", "stats"], ["-a"], ["--"], ["-a", "--"],
    ["-u", UUID, "-x", "", "-n", ""],
])
def test_missing_command(words):
    assert refuse(*words) == usage_error("Command string missing\n")


@pytest.mark.parametrize("words", [
    ["what-if-cancel", "stats"],
    ["what-if-cancel", "nonsense", "-a"],
    ["-a", "what-if-cancel", "-u", UUID, "crawler"],
    ["--", "what-if-cancel"],
    ["what-if-cancel", "--", "stats", "-h"],
    ["-o", "stats", "what-if-cancel"],
    ["-a", "--", "what-if-cancel", "-Z"],
])
def test_first_word_is_the_command(words):
    assert ask(SOCKET_OPTION, *words) == (succeeds(), frame(18))


@pytest.mark.parametrize("words", [["-s", SOCKET, "stats"], ["stats", "-s", SOCKET], ["stats", "x", "-s", SOCKET]])
def test_options_anywhere(words):
    assert ask(*words, steps=[send(b"abc")]) == (succeeds(b"abc"), frame(1))


# The first word after the command word counts, wherever the options are.
@pytest.mark.parametrize("words, level", [
    ([SOCKET_OPTION, "log-level", "3"], b"3"),
    (["log-level", SOCKET_OPTION, "3"], b"3"),
    (["log-level", "3", SOCKET_OPTION, "4"], b"3"),
    (["-a", "log-level", "-s", SOCKET, "-w", "3", "-e"], b"3"),
    ([SOCKET_OPTION, "--", "log-level", "-3"], b"-3"),
    ([SOCKET_OPTION, "log-level", "--", "-3"], b"-3"),
    (["log-level", SOCKET_OPTION, "--", "--", "3"], b"--"),
    ([SOCKET_OPTION, "log-level", ""], b""),
    ([SOCKET_OPTION, "log-level"], os.fsencode(TOOL)),  # no such word: the program's name at position 0
    ([SOCKET_OPTION, "log-level", "--"], os.fsencode(TOOL)),
])
def test_argument_index(words, level):
    assert ask(*words) == (succeeds(), frame(7, level))


def test_system_error_is_the_exit_status():
    assert ask(SOCKET_OPTION, "-o", "missing/file", "stats") == (Outcome(b"", b"", 2), frame(1))  # 0x2bad0002


# The first error is reported: of the options, the command word, the rule, or the connection.
@pytest.mark.parametrize("words, outcome", [
    (["-s", "missing", "nonsense", "-m", "8"], usage_error("Failed to parse recoveryMode: 8\n")),
    (["-s", "missing", "crawler", "-m", "8"], usage_error("Failed to parse recoveryMode: 8\n")),
    (["-s", "missing", "-m", "8"], usage_error("Failed to parse recoveryMode: 8\n")),
    (["-s", "missing", "nonsense"], usage_error("Unrecognized command: nonsense\n")),
    (["-s", "missing", "crawler"], usage_error("UUID must be provided (specify with --uuid)\n")),
    (["-s", "missing", "crawler", "-a"], NO_SUCH_SOCKET),
    (["-s", "missing", "stats"], NO_SUCH_SOCKET),
])
def test_order_of_checks(words, outcome):
    assert refuse(*words) == outcome


# With standard output and standard error in one pipe, the output is in the order in which it was written.
@pytest.mark.parametrize("words, message", [
    (["nonsense"], b"Unrecognized command: nonsense\n"),
    (["-a"], b"Command string missing\n"),
    (["-Z"], os.fsencode(TOOL) + b": invalid option -- 'Z'\n"),
    (["-X", "4", "stats"], b"Invalid exclusion mode: 4\n"),
    (["enable-workitem"], b"work-item type must be provided (specify with -i/--work-item)\n"),
])
def test_message_comes_before_the_listing(words, message):
    assert refuse(*words, stderr=subprocess.STDOUT) == Outcome(message + USAGE, None, 1)


def test_words_are_not_limited():
    words = ["x" * 100000] * 10
    assert ask(SOCKET_OPTION, "fix-concats", *words) == (succeeds(), frame(13))
    assert ask(SOCKET_OPTION, "-l", uuid_list(2560), "fix-concats", *words) == (succeeds(), frame(13))


# With this variable set, getopt_long takes options after the command word as words.
@pytest.mark.parametrize("words, outcome, received", [
    ([SOCKET_OPTION, "log-level", "-h"], succeeds(), frame(7, b"-h")),
    ([SOCKET_OPTION, "fix-concats", "-Z", "--nonsense"], succeeds(), frame(13)),
    ([SOCKET_OPTION, "--", "fix-concats", "-Z"], succeeds(), frame(13)),
    ([SOCKET_OPTION, "crawler", "-a"], usage_error("UUID must be provided (specify with --uuid)\n"), None),
    (["-Z", "fix-concats"], usage_error(TOOL + ": invalid option -- 'Z'\n"), None),
])
def test_posixly_correct(words, outcome, received):
    strict = {"POSIXLY_CORRECT": "1"}
    if received is None:
        assert refuse(*words, env=strict) == outcome
    else:
        assert ask(*words, env=strict) == (outcome, received)


# No other variable changes anything.
def test_environment_is_not_read():
    with ScriptedDaemon(reply(0, b"abc")) as plaxd:
        run = tool("-s", plaxd.path, "fitness-stats-get",
                   env={"PLAXD_SOCKET": "missing", "PLAX_SOCKET": "missing", "HOME": "/missing", "COLUMNS": "20"})
    assert (run, plaxd.received) == (succeeds(b"abc\n"), frame(6))
