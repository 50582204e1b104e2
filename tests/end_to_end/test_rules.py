"""The options and words that each command needs: without them, the tool does not connect."""

import os

import pytest

from command_line import (SOCKET, SOCKET_OPTION, UUID, UUID_BYTES, ask, entity_decom, manual_move, own_program_name,
                          refuse, run_as, succeeds, usage_error)
from harness import LONG_BITS, ZERO_UUID, ScriptedDaemon, frame
from request_table import COMMANDS, OPTIONS, PRINTED, ROWS, name

RULES = {command["word"]: command["rule"] for command in COMMANDS if command["rule"]}
NEEDS = {command["word"]: command["needs"] for command in COMMANDS if command.get("needs")}
NO_UUID = RULES["component-manual-move"]
NO_MOVE_LIST = ("Either destination list(specify with -n/--destination-list) or exclusion list (specify with "
                "-x/--exclusion-list) should be provided \n")
EMPTY_LIST = "Empty destination or exclusion list not allowed."

# Every option that a rule could check by mistake, with a valid argument.
OTHERS = {option["letter"]: "-" + option["letter"] + (option["sample"] or "")
          for option in OPTIONS if option["letter"] not in "hs"}


def all_but(letters):
    return [option for letter, option in OTHERS.items() if letter not in letters]


# ---- Rules for options: the command, the options that it needs, and the message ----

MISSING = [
    *((word, letters, RULES[word]) for word, letters in NEEDS.items()),
    ("component-manual-move", "u", NO_UUID),
    ("component-manual-move", "nx", NO_MOVE_LIST),
    ("component-manual-move", "", NO_MOVE_LIST),  # both are given
]


# Neither words nor other options replace a missing option.
@pytest.mark.parametrize("word, letters, message", MISSING)
def test_fails(word, letters, message):
    assert refuse(SOCKET_OPTION, *all_but(letters), word, UUID, "1") == usage_error(message)


@pytest.mark.parametrize("word", [*NEEDS, "component-manual-move"])
def test_fails_without_options(word):
    assert refuse(SOCKET_OPTION, word) == usage_error(RULES[word])


def assert_passes(code, words, stdout=b""):
    """The tool sends the command, and succeeds when the daemon closes the connection without an answer."""
    run, received = ask(*words)
    assert (run, received[:4]) == (succeeds(stdout), code.to_bytes(4, "big"))


def shown(row):
    """The output of a run when the daemon closes the connection without an answer."""
    return b"\n" if row.reply == PRINTED else b""


@pytest.mark.parametrize("word, letter", [(word, letter) for word, letters in NEEDS.items() for letter in letters])
def test_passes_with_one_of_the_options(word, letter):
    row = [row for row in ROWS if row.word == word][-1 if letter == "a" else 0]
    assert_passes(row.code, [SOCKET_OPTION, word, OTHERS[letter]], shown(row))


# Further words, also those that look like commands, options or numbers, do not make a valid command line fail.
@pytest.mark.parametrize("extra", [[], ["default"], ["default", "-", "default", "crawler", "5", "stats", "", "-1"]],
                         ids=["alone", "a word", "many words"])
@pytest.mark.parametrize("row", ROWS, ids=name)
def test_least_passes(row, extra):
    position = row.least.index(row.word)
    words = [*row.least[:position], "--", *row.least[position:], *extra]
    assert ask(SOCKET_OPTION, *words) == (succeeds(shown(row)), row.least_request())


ENCODED = UUID.encode()
# Further command lines that pass, the payload sent, and the output for an empty answer.
PASSING = [
    (["crawler", "-u", UUID, "-a"], frame(2, ENCODED), b""),
    (["crawler", "-u", ZERO_UUID], frame(2, ZERO_UUID), b""),
    (["what-if-entity-decom", "-u", UUID], entity_decom(UUID_BYTES), b"\n"),
    (["enable-plax-recovery-mode", "-u", UUID], frame(22, ENCODED + b"0\0\0\0\0"), b""),
    (["enable-plax-recovery-mode", "-u", ZERO_UUID], frame(22, ZERO_UUID + b"0\0\0\0\0"), b""),
    (["component-manual-move", "-u", UUID, "-x", UUID], manual_move("", 0, UUID, 1), b""),
    (["component-manual-move", "-u", UUID, "-n", "", "-n", UUID], manual_move(UUID, 1), b""),
]


@pytest.mark.parametrize("words, received, stdout", PASSING,
                         ids=[" ".join(map(os.fsdecode, words)) for words, _, _ in PASSING])
def test_passes(words, received, stdout):
    assert ask(SOCKET_OPTION, *words) == (succeeds(stdout), received)


# The first failed check is reported: the UUID, then which list is given, then whether it is empty.
@pytest.mark.parametrize("options, message", [
    ([], NO_UUID),
    (["-a"], NO_UUID),
    (["-n", UUID], NO_UUID),
    (["-a", "-n", UUID], NO_UUID),
    (["-x", ""], NO_UUID),
    (["-n", UUID, "-x", UUID], NO_UUID),
    (["-u", UUID], NO_MOVE_LIST),
    (["-u", UUID, "-n", UUID, "-x", UUID], NO_MOVE_LIST),
    (["-u", UUID, "-n", "", "-x", ""], NO_MOVE_LIST),
    (["-u", UUID, "-n", UUID, "-x", ""], NO_MOVE_LIST),
    (["-u", UUID, "-n", "", "-x", UUID], NO_MOVE_LIST),
    (["-u", UUID, "-l", UUID], NO_MOVE_LIST),
    (["-u", UUID, "-n", ""], EMPTY_LIST),
    (["-u", UUID, "-x", ""], EMPTY_LIST),
    (["-u", UUID, "-n", UUID, "-n", ""], EMPTY_LIST),
    (["-u", UUID, "-x", UUID, "-x", ""], EMPTY_LIST),
])
def test_manual_move(options, message):
    assert refuse(SOCKET_OPTION, "component-manual-move", *options) == usage_error(message)
    assert refuse(*options, "component-manual-move", SOCKET_OPTION) == usage_error(message)


# ---- The word test of log-level and block-cdb-cb ----

# The largest unsigned long of the host that the tool was built for, and the numbers below and above it.
MAX = {32: "4294967295", 64: "18446744073709551615"}[LONG_BITS]
BELOW = {32: "4294967294", 64: "18446744073709551614"}[LONG_BITS]
ABOVE = {32: "4294967296", 64: "18446744073709551616"}[LONG_BITS]
LARGEST_OF_32_BITS = "4294967295"

WORD_TEST_COMMANDS = [("log-level", 7, RULES["log-level"]), ("block-cdb-cb", 31, RULES["block-cdb-cb"])]
word_test_commands = pytest.mark.parametrize("command, code, message", WORD_TEST_COMMANDS, ids=["log", "block"])

# Long options joined to their arguments, with their index in the table. The first three are left out: their indexes are
# too small for these tests.
INDEXES = [("--" + option["name"] + ("=" + option["sample"] if option["sample"] else ""), index)
           for index, option in enumerate(OPTIONS) if index >= 3]


# The test checks the word whose position is the option's index. An index below the argument count has a word, which
# passes here. An index equal to the count fails, and one above it passes.
@word_test_commands
@pytest.mark.parametrize("option, index", INDEXES, ids=[option.split("=")[0] for option, _ in INDEXES])
def test_word_test_and_argument_count(option, index, command, code, message):
    for count in {max(index - 1, 4), index, index + 1} - {3}:
        words = [SOCKET_OPTION, option, command, *["7"] * (count - 4)]
        if count == index:
            assert refuse(*words) == usage_error(message)
        else:
            assert_passes(code, words)


# The same with a word at one position that does not pass.
@word_test_commands
@pytest.mark.parametrize("option, index", INDEXES[1:], ids=[option.split("=")[0] for option, _ in INDEXES[1:]])
def test_word_test_and_position(option, index, command, code, message):
    for position in {max(index - 1, 4), index, index + 1}:
        words = [SOCKET_OPTION, option, command, *["7"] * 16]
        words[position - 1] = MAX
        if position == index:
            assert refuse(*words) == usage_error(message)
        else:
            assert_passes(code, words)


# Whether the word at position 4 passes.
@word_test_commands
@pytest.mark.parametrize("text, good", [
    (MAX, False), (ABOVE, False), ("9" * 100, False), ("  " + MAX, False), ("+" + MAX, False), (MAX + "x", False),
    ("0" * 100 + MAX, False), (LARGEST_OF_32_BITS, LONG_BITS == 64),
    (BELOW, True), ("0", True), ("3", True), ("", True), ("level", True), ("x" + MAX, True), (" 2 ", True),
    ("0xffffffffffffffff", True), ("ffffffffffffffff", True),
])
def test_word_test(text, good, command, code, message):
    words = [SOCKET_OPTION, "--uuid=" + UUID, command, text]
    if good:
        assert_passes(code, words)
    else:
        assert refuse(*words) == usage_error(message)


# Negative words need "--" before them. The word is at position 6.
@word_test_commands
@pytest.mark.parametrize("text, good", [
    ("-1", False), (" -1", False), ("-1.5", False), ("-" + ABOVE, False),
    ("-2", True), ("-0", True), ("-", True), ("-x", True), ("- 1", True), ("-" + MAX, True),
])
def test_word_test_of_negative_words(text, good, command, code, message):
    words = [SOCKET_OPTION, "--json=x", "--", command, "3", text]
    if good:
        assert_passes(code, words)
    else:
        assert refuse(*words) == usage_error(message)


# Positions count in the argument vector after option parsing, which moves all options to the front. CMD stands for the
# command word.
@word_test_commands
@pytest.mark.parametrize("words, good", [
    # Without a long option: the first argument, which is then never a number.
    ([SOCKET_OPTION, "CMD"], True),
    ([SOCKET_OPTION, "CMD", MAX], True),
    (["CMD", MAX, SOCKET_OPTION], True),
    (["CMD", MAX, "-s", SOCKET], True),
    (["-o", MAX, SOCKET_OPTION, "CMD"], True),
    # --output-path: the first argument too.
    (["--output-path", MAX, SOCKET_OPTION, "CMD", MAX], True),
    ([SOCKET_OPTION, "--output-path", MAX, "CMD", MAX], True),
    # --socket-path: the second.
    (["--socket-path", SOCKET, "CMD", MAX], True),
    (["--socket-path=" + SOCKET, "CMD"], True),
    (["--socket-path=" + SOCKET, "CMD", MAX], True),
    (["--socket-path", MAX, "CMD", "3"], False),
    (["--socket-path", "-1", "CMD", "3"], False),
    (["CMD", "3", "--socket-path", MAX], False),
    (["CMD", MAX, "--socket-path", SOCKET], True),  # the vector is permuted first
    (["CMD", "--socket-path", MAX], False),
    # --timeout: the third.
    (["--timeout=1", "CMD"], False),
    ([SOCKET_OPTION, "--timeout", "1", "CMD"], True),
    (["--timeout=1", "CMD", MAX], False),
    # --uuid: the fourth.
    (["--uuid=" + UUID, "CMD", "3"], False),
    ([SOCKET_OPTION, "--uuid", UUID, "CMD"], True),
    ([SOCKET_OPTION, "--uuid", UUID, "CMD", MAX], True),
    (["--uuid", UUID, "CMD", MAX], False),
    (["--uuid", UUID, "CMD"], False),
    # The last long option counts, also an abbreviated one; short options do not.
    ([SOCKET_OPTION, "--timeout=1", "--uuid-list=" + UUID, "CMD"], False),
    ([SOCKET_OPTION, "--uuid-list=" + UUID, "--timeout=1", "CMD"], True),
    ([SOCKET_OPTION, "--uuid-list=" + UUID, "-t1", "CMD"], False),
    ([SOCKET_OPTION, "-a", "--j=x", "CMD", "7"], False),
    ([SOCKET_OPTION, "--json=x", "-a", "CMD", "7"], False),
    ([SOCKET_OPTION, "--uuid-=" + UUID, "CMD", "7"], False),
    ([SOCKET_OPTION, "--uuid-=" + UUID, "CMD"], True),
    ([SOCKET_OPTION, "-u" + UUID, "-a", "CMD"], True),
    (["CMD", "7", "8", "--json=x", SOCKET_OPTION], False),
    (["CMD", "--json=x", "7", SOCKET_OPTION, "8"], False),
    (["CMD", "7", SOCKET_OPTION, "--", MAX, "--json=x"], True),  # no option after --
])
def test_word_test_position(words, good, command, code, message):
    words = [command if word == "CMD" else word for word in words]
    if good:
        assert_passes(code, words)
    else:
        assert refuse(*words) == usage_error(message)


# The program's own name is not checked.
@own_program_name
def test_word_test_and_program_name():
    with ScriptedDaemon() as plaxd:
        assert run_as(MAX, "-s", plaxd.path, "log-level") == succeeds()
    assert plaxd.received == frame(7, MAX.encode())


def test_word_test_with_the_uuid_apart():
    # A UUID in a separate word moves the level to the position that is checked.
    with_socket = [SOCKET_OPTION, "--uuid", UUID, "log-level", "3"]
    assert ask(*with_socket) == (succeeds(), frame(7, b"3"))
    assert refuse("--uuid", UUID, "log-level", "-s", "missing").stderr == b"connect error: No such file or directory\n"


def test_log_level_with_a_level():
    assert ask(SOCKET_OPTION, "log-level", "3") == (succeeds(), frame(7, b"3"))
    assert ask("--socket-path", SOCKET, "log-level", "3") == (succeeds(), frame(7, b"3"))
    assert ask(SOCKET_OPTION, "log-level", MAX) == (succeeds(), frame(7, MAX.encode()))
    assert ask(SOCKET_OPTION, "log-level", "3", "4") == (succeeds(), frame(7, b"3"))
