"""Every option: forms, limits, errors, and effect on the request."""

import ctypes
import os
import shutil
import signal
import string
import subprocess
import tempfile

import pytest

from command_line import (SOCKET, SOCKET_OPTION, UUID, UUID_BYTES, ask, entity_decom, exclusion_list, manual_move,
                          refuse, succeeds, upgrade, usage_error, uuid_list)
from harness import (LONG_BITS, RUNNER, TOOL, ZERO_UUID, Outcome, ScriptedDaemon, environment, finish_tool, frame,
                     pause, reply, send, tool)
from request_table import OPTIONS, PRINTED, ROWS, WORK_ITEMS, payload


def recovery_mode(digit):
    return frame(22, ZERO_UUID + digit + bytes(4))


# ---- Every option in every form and place ----

def content(path):
    """The content of the file, or None if it does not exist."""
    if not os.path.exists(path):
        return None
    with open(path, "rb") as file:
        return file.read()


CASES = [option for option in OPTIONS if "line" in option]
TAKERS = [option for option in CASES if option["argument"]]


def option_request(option):
    """The request of the option's command line, and the output of the run when the answer has no payload."""
    row = [row for row in ROWS if row.word == option["line"][0]][-1]  # the row for all objects, if there are two
    return frame(row.code, payload(option["payload"])), b"\n" if row.reply == PRINTED else b""


FORMS = {
    "separate": lambda letter, name, shortest, argument: ["-" + letter, argument],
    "attached": lambda letter, name, shortest, argument: ["-" + letter + argument],
    "long separate": lambda letter, name, shortest, argument: ["--" + name, argument],
    "long attached": lambda letter, name, shortest, argument: ["--" + name + "=" + argument],
    "shortest separate": lambda letter, name, shortest, argument: ["--" + shortest, argument],
    "shortest attached": lambda letter, name, shortest, argument: ["--" + shortest + "=" + argument],
}
FLAG_FORMS = {
    "short": lambda letter, name, shortest, argument: ["-" + letter],
    "long": lambda letter, name, shortest, argument: ["--" + name],
    "shortest": lambda letter, name, shortest, argument: ["--" + shortest],
}
PLACES = {
    "before": lambda line, option: [*option, *line],
    "after": lambda line, option: [*line, *option],
    "after a word": lambda line, option: [*line, "word", *option],
}
COMBINATIONS = [pytest.param(option, form, place, id=f"{option['name']}-{form}-{place}")
                for option in CASES for form in (FORMS if option["argument"] else FLAG_FORMS) for place in PLACES]


@pytest.mark.parametrize("option, form, place", COMBINATIONS)
def test_every_form(option, form, place):
    given = {**FORMS, **FLAG_FORMS}[form](*(option[key] for key in ("letter", "name", "shortest", "sample")))
    words = PLACES[place](option["line"], given)
    request, stdout = option_request(option)
    text = b"abc" if option["letter"] == "o" else b""
    with ScriptedDaemon(send(text)) as plaxd:
        run = tool(*([] if option["letter"] == "s" else [SOCKET_OPTION]), *words, cwd=plaxd.directory)
        written = content(os.path.join(plaxd.directory, "answer"))
    assert (run, plaxd.received, written) == (succeeds(stdout), request, text or None)


def test_flags_share_a_word():
    request = entity_decom(UUID_BYTES, 2, 1)
    assert ask(SOCKET_OPTION, "what-if-entity-decom", "-aed2", "-wu" + UUID) == (succeeds(b"\n"), request)
    assert ask(SOCKET_OPTION, "what-if-entity-decom", "-aweu", UUID, "-d2") == (succeeds(b"\n"), request)


# An argument that looks like an option is still an argument.
@pytest.mark.parametrize("words, json", [
    (["-j=x"], b"=x"), (["-j", "-h"], b"-h"), (["-j", "--"], b"--"), (["-j", "--help"], b"--help"), (["-j", ""], b""),
    (["--json="], b""), (["--json==x"], b"=x"), (["--json", "--json"], b"--json"), (["--json", "-"], b"-"),
    (["-j", b"\xff%s\n"], b"\xff%s\n"), (["-jx", "-jlonger", "-jy"], b"y"),
])
def test_arguments_are_taken_whole(words, json):
    assert ask(SOCKET_OPTION, "fitness-config-set", *words) == (succeeds(), frame(4, json + b"\0"))


# ---- Errors of getopt_long, in its words ----

NAMES = [option["name"] for option in OPTIONS]
# The abbreviations, with the names that each of them can stand for.
ALIKE = {name[:length]: [other for other in NAMES if other.startswith(name[:length])]
         for name in NAMES for length in range(1, len(name)) if name[:length] not in NAMES}
REFUSED = [
    *[(["--" + begun], f"option '--{begun}' is ambiguous; possibilities: " + " ".join(f"'--{name}'" for name in names))
      for begun, names in ALIKE.items() if len(names) > 1],
    (["--u=" + UUID], f"option '--u={UUID}' is ambiguous; possibilities: '--uuid' '--uuid-list'"),
    *[(["-" + option["letter"]], f"option requires an argument -- '{option['letter']}'") for option in TAKERS],
    *[(["--" + option["name"]], f"option '--{option['name']}' requires an argument") for option in TAKERS],
    *[(["--" + option["name"] + "=1"], f"option '--{option['name']}' doesn't allow an argument")
      for option in OPTIONS if option not in TAKERS],
    (["--h=yes"], "option '--help' doesn't allow an argument"),
    (["--o"], "option '--output-path' requires an argument"),
    (["-aej"], "option requires an argument -- 'j'"),
    *[(["-" + letter], f"invalid option -- '{letter}'")
      for letter in string.ascii_letters + "0123456789?:;=+," if letter not in [row["letter"] for row in OPTIONS]],
    (["-aZ"], "invalid option -- 'Z'"),
    (["-a-"], "invalid option -- '-'"),
    (["-1"], "invalid option -- '1'"),
    (["--nonsense"], "unrecognized option '--nonsense'"),
    (["--nonsense=value"], "unrecognized option '--nonsense=value'"),
    (["--Help"], "unrecognized option '--Help'"),
    (["--help-"], "unrecognized option '--help-'"),
    # The empty abbreviation matches every name, in the order of the table.
    (["--="], "option '--=' is ambiguous; possibilities: " + " ".join(f"'--{name}'" for name in NAMES)),
    (["---help"], "unrecognized option '---help'"),
    (["--uuids"], "unrecognized option '--uuids'"),
]


@pytest.mark.parametrize("words, message", REFUSED, ids=[words[0] for words, _ in REFUSED])
def test_refused_by_getopt(words, message):
    assert refuse(SOCKET_OPTION, "stats", *words) == usage_error(f"{TOOL}: {message}\n")


# ---- Numbers ----

# Argument, and its value, or None if it is out of range: for an unsigned long of 64 bits, and for one of 32.
NUMBERS = [
    ("0", 0, 0),
    ("1", 1, 1),
    ("7", 7, 7),
    ("", 0, 0),
    ("abc", 0, 0),
    ("-", 0, 0),
    ("0x10", 0, 0),
    ("010", 10, 10),
    (" \t\n12", 12, 12),
    ("+7", 7, 7),
    ("7up", 7, 7),
    ("1e3", 1, 1),
    ("1.9", 1, 1),
    ("-1", 0xffffffff, 0xffffffff),
    ("2147483648", 0x80000000, 0x80000000),
    ("4294967295", 0xffffffff, 0xffffffff),
    ("4294967296", 0, None),
    ("4294967297", 1, None),
    ("-4294967295", 1, 1),
    ("-4294967296", 0, None),
    ("18446744073709551615", 0xffffffff, None),
    ("18446744073709551616", None, None),
    ("-18446744073709551609", 7, None),
    ("-18446744073709551616", None, None),
    ("9" * 1000, None, None),
    ("0" * 1000 + "5", 5, 5),
]
KEPT = [(text, of64 if LONG_BITS == 64 else of32) for text, of64, of32 in NUMBERS]
each_number = pytest.mark.parametrize("text, kept", KEPT, ids=[text[:24] for text, _ in KEPT])


@each_number
def test_decom_mode(text, kept):
    words = [SOCKET_OPTION, "what-if-entity-decom", "-a", "-d", text]
    if kept is None:
        assert refuse(*words) == usage_error(f"Failed to parse decomMode: {text}\n")
    else:
        assert ask(*words) == (succeeds(b"\n"), entity_decom(mode=kept))


@each_number
def test_reason(text, kept):
    words = [SOCKET_OPTION, "what-if-upgrade", "-l", UUID, "-r", text]
    if kept is None:
        assert refuse(*words) == usage_error(f"Failed to parse reason: {text}\n")
    else:
        assert ask(*words) == (succeeds(b"\n"), upgrade(UUID, 1, reason=kept))


@each_number
def test_timeout(text, kept):
    words = [SOCKET_OPTION, "fix-concats", "-t", text]
    if kept is None:
        assert refuse(*words) == usage_error(f"Failed to parse wait timeout: {text}\n")
    else:
        assert ask(*words) == (succeeds(), frame(13))


# Also the numbers around the largest values of the two modes that have one.
SMALL = [*KEPT, ("2", 2), ("3", 3), ("4", 4), ("5", 5), ("6", 6), ("8", 8)]
SMALL += [("4294967303", 7), ("4294967304", 8)] if LONG_BITS == 64 else [("4294967303", None)]
each_small_number = pytest.mark.parametrize("text, kept", SMALL, ids=[text[:24] for text, _ in SMALL])


@each_small_number
def test_recovery_mode(text, kept):
    words = [SOCKET_OPTION, "enable-plax-recovery-mode", "-m", text]
    if kept is None or kept > 7:
        assert refuse(*words) == usage_error(f"Failed to parse recoveryMode: {text}\n")
    else:
        assert ask(*words) == (succeeds(), recovery_mode(b"%d" % kept))


SHOWN = {0x80000000: "-2147483648", 0xffffffff: "-1"}  # the message prints a signed number


@each_small_number
def test_exclusion_mode(text, kept):
    words = [SOCKET_OPTION, "set-global-exclusion-list", "-x", "", "-X", text]
    if kept is None:
        assert refuse(*words) == usage_error(f"Failed to parse exclusion mode: {text}\n")
    elif kept > 3:
        assert refuse(*words) == usage_error(f"Invalid exclusion mode: {SHOWN.get(kept, kept)}\n")
    else:
        assert ask(*words) == (succeeds(), exclusion_list("", 0, kept))


# -t does not change how long the tool waits, whatever the help text says.
def test_timeout_changes_nothing():
    run, received = ask(SOCKET_OPTION, "-t1", "--timeout=1", "info-proactive-rebalance",
                        steps=[pause(1.3), reply(0, b"late")])
    assert (run, received) == (succeeds(b"late\n"), frame(12))


# ---- UUIDs ----

# The C library's versions differ in a pair that is the prefix of a hexadecimal number, which has no digits.
prefix_is_a_pair = pytest.mark.skipif(
    ctypes.CDLL(None).sscanf(b"0x", b"%2hhx", ctypes.byref(ctypes.c_ubyte())) != 1,
    reason="this C library reads no prefix without digits")


@pytest.mark.parametrize("text, sent", [
    (UUID, UUID),
    ("FEDCBA98-7654-3210-FEDC-BA9876543210", "fedcba98-7654-3210-fedc-ba9876543210"),
    (UUID + "junk", UUID),
    (UUID + "," + UUID, UUID),
    (UUID[:17], "01234567-89ab-cd0e-0000-000000000000"),
    (UUID[:18], "01234567-89ab-cdef-0000-000000000000"),
    (UUID[:19], "01234567-89ab-cdef-0000-000000000000"),
    (UUID[:20], "01234567-89ab-cdef-0000-000000000000"),
    (UUID[:21], "01234567-89ab-cdef-0100-000000000000"),
    (UUID[:22], "01234567-89ab-cdef-0102-000000000000"),
    (UUID[:23], "01234567-89ab-cdef-0123-000000000000"),
    (UUID[:35], "01234567-89ab-cdef-0123-456789abcd0e"),
    ("01234567-89ab-cdefzz", "01234567-89ab-cdef-0000-000000000000"),
    ("01234567-89ab-cdef0123-456789abcdef", "01234567-89ab-cdef-0000-000000000000"),
    ("01234567-89ab-cdef-0123+456789abcdef", "01234567-89ab-cdef-0123-000000000000"),
    (" 01234567-89ab-cdef-0123-456789abcdef", UUID),
    ("1 2 3 4-5 6-7 8", "01020304-0506-0708-0000-000000000000"),
    ("-1+2\n3 4-5 6-7 8", "ff020304-0506-0708-0000-000000000000"),
    ("01234567--9ab-cdef", "01234567-f7ab-cdef-0000-000000000000"),
    ("01234567- 89ab-cdef", UUID[:18] + "-0000-000000000000"),
    ("01234567-\t89ab-\ncdef-\v0123-\f456789abcdef", UUID),
    pytest.param("0x0x0x0x-0x0x-0x0x", "00000000-0000-0000-0000-000000000000", marks=prefix_is_a_pair),
    pytest.param("120x5678-0Xab-cd0x", "12005678-00ab-cd00-0000-000000000000", marks=prefix_is_a_pair),
    pytest.param("120x5678-0Xab-cdef-0x23-450X89ab0xef", "12005678-00ab-cdef-0023-450089ab00ef",
                 marks=prefix_is_a_pair),
])
def test_uuid(text, sent):
    assert ask(SOCKET_OPTION, "info-rebalance", "-u", text) == (succeeds(b"\n"), frame(14, sent.encode()))


CONVERSIONS = [-1, 1, 1, 2, 2, 3, 3, 4, 4, 4, 5, 5, 6, 6, 6, 7, 7]  # of the first 0, 1, 2, ... characters of a UUID


@pytest.mark.parametrize("text, count", [
    *[(UUID[:length], count) for length, count in enumerate(CONVERSIONS)],
    ("zz", 0),
    ("-", 0),
    ("  ", -1),
    ("0123456789abcdef0123456789abcdef", 4),
    ("01234567 89ab-cdef-0123-456789abcdef", 4),
    ("01234567 -89ab-cdef-0123-456789abcdef", 4),
    ("x0x0x0x0-x0x0-x0x0", 0),
    pytest.param("0x1234567-89ab-cdef-0123-456789abcdef", 4, marks=prefix_is_a_pair),
    pytest.param("0x1x2x3x-4x5x-6x7x", 2, marks=prefix_is_a_pair),
    ("{01234567-89ab-cdef-0123-456789abcdef}", 0),
    ("%s%n", 0),
])
def test_uuid_too_short(text, count):
    assert refuse(SOCKET_OPTION, "info-rebalance", "-u", text) == usage_error(
        f"Failed to parse UUID: {text}, length={count}\n")


# ---- UUID lists ----

WRONG_LENGTHS = [1, 35, 37, 38, 72, 74, 1000, 94718, 94720, 100000, 131071]


@pytest.mark.parametrize("option", ["-l", "-n", "-x"])
@pytest.mark.parametrize("length", WRONG_LENGTHS)
def test_list_of_a_wrong_length(option, length):
    uuids = "x" * length
    assert refuse(SOCKET_OPTION, "stats", option, uuids) == usage_error(f"Invalid UUID: {uuids}\n")


def test_empty_uuid_list():
    assert refuse(SOCKET_OPTION, "what-if-upgrade", "-l", "") == usage_error("Invalid UUID: \n")


# The tool checks only the length.
LISTS = [
    (uuid_list(1), 1),
    (uuid_list(2), 2),
    (uuid_list(3), 3),
    ("x" * 36, 1),
    ("," * 73, 2),
    (b"\xff" * 36, 1),
    (uuid_list(2559), 2559),
]
LONGEST_LISTS = [(uuid_list(2560), 2560), ("y" * 94719, 2560)]
name_by_count = dict(ids=lambda value: str(value) if isinstance(value, int) else type(value).__name__)
each_list = pytest.mark.parametrize("uuids, count", LISTS, **name_by_count)


@pytest.mark.parametrize("uuids, count", LISTS + LONGEST_LISTS, **name_by_count)
def test_uuid_list(uuids, count):
    assert ask(SOCKET_OPTION, "what-if-upgrade", "-l", uuids) == (succeeds(b"\n"), upgrade(uuids, count))


@each_list
def test_destination_list(uuids, count):
    assert ask(SOCKET_OPTION, "component-manual-move", "-u", UUID, "-n", uuids) == (
        succeeds(), manual_move(uuids, count))


@each_list
def test_exclusion_list(uuids, count):
    assert ask(SOCKET_OPTION, "component-manual-move", "-u", UUID, "-x", uuids) == (
        succeeds(), manual_move("", 0, uuids, count))
    assert ask(SOCKET_OPTION, "set-global-exclusion-list", "-x", uuids) == (succeeds(), exclusion_list(uuids, count))


@pytest.mark.parametrize("option, message", [
    ("-n", "Destination list is longer than max limit\n"),
    ("-x", "Exclusion list is longer than max limit\n"),
])
@pytest.mark.parametrize("entries", [2560, 2561, 3500])
def test_list_above_the_limit(option, message, entries):
    assert refuse(SOCKET_OPTION, "stats", option, uuid_list(entries)) == usage_error(message)


# Planning for only a part of the list would be wrong: the run stops, without the help text.
@pytest.mark.parametrize("entries", [2561, 3500])
def test_uuid_list_above_the_limit(entries):
    run = refuse(SOCKET_OPTION, "what-if-upgrade", "-l", uuid_list(entries))
    assert run == Outcome(b"", b"UUID list is longer than max limit\n", -signal.SIGABRT)


# ---- Texts and names ----

@pytest.mark.parametrize("length", [0, 1, 4095, 4096])
def test_file_path(length):
    path = "p" * length
    assert ask(SOCKET_OPTION, "update-plaxdb", "-f", path) == (succeeds(), frame(20, path.encode() + b"\0"))


@pytest.mark.parametrize("length", [4097, 4098, 131071])
def test_file_path_too_long(length):
    assert refuse(SOCKET_OPTION, "stats", "-f", "p" * length) == usage_error(
        "File path is longer than the max path length")


@pytest.mark.parametrize("name, number", WORK_ITEMS.items())
def test_every_work_item(name, number):
    sent = b"%d" % number + bytes(4 - len(str(number)))
    assert ask(SOCKET_OPTION, "enable-workitem", "-i", name) == (succeeds(), frame(24, sent))
    assert ask(SOCKET_OPTION, "disable-workitem", "-iMOVE", "-i", name) == (succeeds(), frame(25, sent))


NEAR_NAMES = [near for name in WORK_ITEMS for near in (name.lower(), name.capitalize(), name + "X", " " + name)]


@pytest.mark.parametrize("name", [
    "", " ", "NONE", "UNKNOWN", "1", "4", "22", "CHANGE-PENDING", "%s%n", "MOV", *NEAR_NAMES,
])
def test_no_work_item(name):
    assert refuse(SOCKET_OPTION, "enable-workitem", "-i", name) == usage_error(
        f"Invalid work-item type name: {name}\n")


# ---- The socket ----

def own_mounts(directory):
    """A prefix for a command that sees the directory as /var/run. Other processes are not affected."""
    script = 'mount --bind "$0" /var/run && exec "$@"'
    return ["unshare", "--user", "--map-root-user", "--mount", "sh", "-c", script, directory]


def has_own_mounts():
    return shutil.which("unshare") and subprocess.run([*own_mounts(tempfile.gettempdir()), "true"], check=False,
                                                      stderr=subprocess.DEVNULL).returncode == 0


@pytest.mark.skipif(not has_own_mounts(), reason="the system allows no mount namespaces")
def test_socket_path_not_given():
    with ScriptedDaemon(reply(0, b"abc")) as plaxd:
        run = finish_tool(subprocess.Popen([*own_mounts(plaxd.directory), *RUNNER, TOOL, "fitness-stats-get"],
                                           stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                           env=environment()))
    assert (run, plaxd.received) == (succeeds(b"abc\n"), frame(6))


# ---- The command line as a whole ----

def test_last_of_each_option_counts():
    run, received = ask("-s", "missing", "-s", SOCKET, "what-if-upgrade", "-d1", "-d2", "-r3", "-r1", "-w", "-w",
                        "-l", UUID)
    assert (run, received) == (succeeds(b"\n"), upgrade(UUID, 1, mode=2, reason=1, wipe=1))
    assert ask(SOCKET_OPTION, "enable-plax-recovery-mode", "-m1", "-m2") == (succeeds(), recovery_mode(b"2"))


# Only the first error is reported.
@pytest.mark.parametrize("words, message", [
    (["-m8", "-X4"], "Failed to parse recoveryMode: 8\n"),
    (["-X4", "-m8"], "Invalid exclusion mode: 4\n"),
    (["-Z", "-m8"], TOOL + ": invalid option -- 'Z'\n"),
    (["-m8", "-Z"], "Failed to parse recoveryMode: 8\n"),
    (["-i4", "-uzz", "-l", "", "nonsense"], "Invalid work-item type name: 4\n"),
    (["nonsense", "-lx"], "Invalid UUID: x\n"),
    (["-u", "zz", "-h"], "Failed to parse UUID: zz, length=0\n"),
])
def test_first_failure_is_reported(words, message):
    assert refuse(SOCKET_OPTION, *words) == usage_error(message)
