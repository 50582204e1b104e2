"""The run from the command word to the exit status."""

import os
import struct
import subprocess

import pytest

from command_line import SOCKET, SOCKET_OPTION, UUID, ask, help_text, refuse, succeeds, usage_error, uuid_list
from harness import TOOL, Outcome, ScriptedDaemon, frame, reply, send, tool

# How the daemon answers a command, and what the tool then prints.
STREAMED = [send(b"abc")], b"abc"
PRINTED = [reply(0, b"abc")], b"abc\n"
CHECKED = [reply(0, b"abc")], b""
UNANSWERED = [], b""

# Every command's code, word, the least options that its rule asks for, and its answer.
COMMANDS = [
    (1, "stats", [], STREAMED),
    (2, "crawler", ["-u", UUID], CHECKED),
    (3, "fitness-config-get", [], PRINTED),
    (4, "fitness-config-set", ["-j", "{}"], CHECKED),
    (5, "fitness-config-reset", [], CHECKED),
    (6, "fitness-stats-get", [], PRINTED),
    (7, "log-level", [], CHECKED),
    (8, "fix-object-immediate", [], CHECKED),
    (9, "get-object-last-operation", [], PRINTED),
    (10, "start-proactive-rebalance", [], CHECKED),
    (11, "stop-proactive-rebalance", [], CHECKED),
    (12, "info-proactive-rebalance", [], PRINTED),
    (13, "fix-concats", [], CHECKED),
    (14, "info-rebalance", ["-u", UUID], PRINTED),
    (15, "resources-to-fix-unhealthy-objects", [], PRINTED),
    (16, "what-if-entity-decom", ["-u", UUID], PRINTED),
    (17, "what-if-upgrade", ["-l", UUID], PRINTED),
    (18, "what-if-cancel", [], CHECKED),
    (19, "force-reconfigure-the-object", [], CHECKED),
    (20, "update-plaxdb", [], CHECKED),
    (21, "replace-plaxdb", [], CHECKED),
    (22, "enable-plax-recovery-mode", ["-m", "1"], CHECKED),
    (23, "get-obj-decom-state", ["-u", UUID], PRINTED),
    (24, "enable-workitem", ["-i", "MOVE"], CHECKED),
    (25, "disable-workitem", ["-i", "MOVE"], CHECKED),
    (26, "get-obj-crawler-state", ["-u", UUID], PRINTED),
    (26, "get-obj-crawler-state", ["-a"], STREAMED),
    (27, "pause-decom-state-progress", [], CHECKED),
    (28, "resume-decom-state-progress", [], CHECKED),
    (29, "start-decom-state-heartbeat", [], CHECKED),
    (30, "pause-failed-delta-entry-processing", [], UNANSWERED),
    (31, "block-cdb-cb", [], UNANSWERED),
    (32, "refresh-config-opts", [], UNANSWERED),
    (33, "component-manual-move", ["-u", UUID, "-n", UUID], CHECKED),
    (34, "set-global-exclusion-list", ["-x", UUID], CHECKED),
]
NO_SUCH_SOCKET = Outcome(b"", b"connect error: No such file or directory\n", 1)


def ids(rows):
    return [" ".join([row[1], *row[2][:1]]) for row in rows]


@pytest.mark.parametrize("code, word, options, answer", COMMANDS, ids=ids(COMMANDS))
def test_every_command(code, word, options, answer):
    steps, printed = answer
    run, received = ask(SOCKET_OPTION, *options, word, steps=steps)
    assert run == succeeds(printed)
    assert struct.unpack(">II", received[:8]) == (code, len(received) - 8)


def test_every_code_is_tried():
    assert sorted({code for code, *_ in COMMANDS}) == list(range(1, 35))
    assert len({word for _, word, *_ in COMMANDS}) == 34


@pytest.mark.parametrize("word", [
    "", " ", "-", "nonsense", "STATS", "Stats", "stat", "statss", "stats ", " stats", "stats\n", "crawler,",
    "fix_concats", "Log-Level", "log-leve", "block-cdb-cB", "set-global-exclusion-lis", "set-global-exclusion-list2",
    "1", "0", "34", "info-", "what-if", "update", "%s%n%s", "x" * 100000,
], ids=lambda word: repr(word[:40]))
def test_unknown_command(word):
    assert refuse(SOCKET_OPTION, word) == usage_error("Unrecognized command: " + word + "\n")
    assert refuse(word, SOCKET_OPTION) == usage_error("Unrecognized command: " + word + "\n")


@pytest.mark.parametrize("word", [row[1] for row in COMMANDS])
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
def test_options_stand_anywhere(words):
    assert ask(*words, steps=[send(b"abc")]) == (succeeds(b"abc"), frame(1))


# The first word after the command word is found behind all options, wherever they stood.
@pytest.mark.parametrize("words, level", [
    ([SOCKET_OPTION, "log-level", "3"], b"3"),
    (["log-level", SOCKET_OPTION, "3"], b"3"),
    (["log-level", "3", SOCKET_OPTION, "4"], b"3"),
    (["-a", "log-level", "-s", SOCKET, "-w", "3", "-e"], b"3"),
    ([SOCKET_OPTION, "--", "log-level", "-3"], b"-3"),
    ([SOCKET_OPTION, "log-level", "--", "-3"], b"-3"),
    (["log-level", SOCKET_OPTION, "--", "--", "3"], b"--"),
    ([SOCKET_OPTION, "log-level", ""], b""),
    ([SOCKET_OPTION, "log-level"], os.fsencode(TOOL)),  # no such word: position 0
    ([SOCKET_OPTION, "log-level", "--"], os.fsencode(TOOL)),
])
def test_argument_index(words, level):
    assert ask(*words) == (succeeds(), frame(7, level))


@pytest.mark.parametrize("status, code, text", [
    (1, 1, b"Status 0x00000001"),
    (0xff, 255, b"Status 0x000000ff"),
    (0x100, 0, b"Status 0x00000100"),
    (0x12345678, 0x78, b"Status 0x12345678"),
    (0xffffffff, 255, b"Status 0xffffffff"),
    (0xbad0001, 1, b"Failure"),
    (0x2bad000b, 11, b"Resource temporarily unavailable"),
])
@pytest.mark.parametrize("word, request_code", [("what-if-cancel", 18), ("info-proactive-rebalance", 12)])
def test_status_of_the_daemon_is_the_exit_status(word, request_code, status, code, text):
    run, received = ask(SOCKET_OPTION, word, steps=[reply(status, b"busy")])
    assert run == Outcome(b"", b"Error received: " + text + b": busy\n", code)
    assert received == frame(request_code)


def test_system_error_is_the_exit_status():
    assert ask(SOCKET_OPTION, "-o", "missing/file", "stats") == (Outcome(b"", b"", 2), frame(1))  # 0x2bad0002


# A connection that cannot be made is no usage error: no help text follows.
@pytest.mark.parametrize("path, message", [
    ("missing", b"connect error: No such file or directory\n"),
    (".", b"connect error: Connection refused\n"),
    ("", b"connect error: Connection refused\n"),  # the system's abstract name of 108 zero bytes
    (SOCKET + "/x", b"connect error: Not a directory\n"),
])
def test_no_connection(path, message):
    assert refuse("-s", path, "stats") == Outcome(b"", message, 1)


# Options, then the command word, then the rule, then the connection: the first that fails is the one reported.
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


# With standard output and standard error in one pipe, everything stands in the order in which it happened.
@pytest.mark.parametrize("words, message", [
    (["nonsense"], b"Unrecognized command: nonsense\n"),
    (["-a"], b"Command string missing\n"),
    (["-Z"], os.fsencode(TOOL) + b": invalid option -- 'Z'\n"),
    (["-X", "4", "stats"], b"Invalid exclusion mode: 4\n"),
    (["enable-workitem"], b"work-item type must be provided (specify with -i/--work-item)\n"),
])
def test_message_comes_before_the_listing(words, message):
    assert refuse(*words, stderr=subprocess.STDOUT) == Outcome(message + help_text(), None, 1)


def test_words_are_not_limited():
    words = ["x" * 100000] * 10
    assert ask(SOCKET_OPTION, "fix-concats", *words) == (succeeds(), frame(13))
    assert ask(SOCKET_OPTION, "-l", uuid_list(2560), "fix-concats", *words) == (succeeds(), frame(13))


# getopt_long reads this variable: options after the command word are then words.
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
