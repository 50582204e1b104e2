"""The request of each command, and the outcome of each kind of answer."""

import ctypes
import os

import pytest

from command_line import converse, record, tool_named
from harness import LONG_BITS, TOOL, ZERO_UUID, Outcome, ScriptedDaemon, frame, reply, send
from request_table import (CHECKED, COMMANDS, ONE, PRINTED, ROWS, STREAMED, THREE, TWO, UNANSWERED, UUID, UUID_BYTES,
                           name, rows_of)

ULONG_MAX = {64: 18446744073709551615, 32: 4294967295}[LONG_BITS]
SUCCESS = Outcome(b"", b"", 0)


def exchange(words, code, payload, *steps, may_break=False):
    """Runs the tool against a daemon, checks the request, and returns the outcome."""
    run, received = converse(*steps, words=words, may_break=may_break)
    assert received == frame(code, payload)
    return run


def assert_accepted(words, code, payload):
    """The command sends this request, and succeeds when the daemon reports success."""
    is_printed = next(row for row in ROWS if row.code == code).reply == PRINTED
    assert exchange(words, code, payload, reply(0)) == Outcome(b"\n" if is_printed else b"", b"", 0)


def commands_of(*shapes):
    """Code, word and shape of the commands whose payload has one of these shapes."""
    return [(command["code"], command["word"], command["shape"]) for command in COMMANDS if command["shape"] in shapes]


# ---- Every command: its request, and the four kinds of answer. ----

def test_codes_are_dense():
    assert [command["code"] for command in COMMANDS] == list(range(1, len(COMMANDS) + 1))


def failure(text):
    return Outcome(b"", b"Error received: Status 0x00000105: " + text + b"\n", 5)


ANSWERS = {
    "success with payload": (reply(0, b"\nabc "), {PRINTED: Outcome(b"\nabc \n", b"", 0), CHECKED: SUCCESS}),
    "success": (reply(0), {PRINTED: Outcome(b"\n", b"", 0), CHECKED: SUCCESS}),
    "error with payload": (reply(0x105, b"busy"), {PRINTED: failure(b"busy"), CHECKED: failure(b"busy")}),
    "error": (reply(0x105), {PRINTED: failure(b"(null)"), CHECKED: failure(b"(null)")}),
}


@pytest.mark.parametrize("row", rows_of(PRINTED, CHECKED), ids=name)
@pytest.mark.parametrize("answer", ANSWERS)
def test_framed_answer(row, answer):
    words, payload = (row.least, row.least_payload) if "payload" in answer else (row.full, row.full_payload)
    step, outcomes = ANSWERS[answer]
    assert exchange(words, row.code, payload, step) == outcomes[row.reply]


@pytest.mark.parametrize("row", rows_of(UNANSWERED), ids=name)
@pytest.mark.parametrize("step", [reply(0, b"abc"), reply(0), reply(5, b"busy"), reply(5), send(b"text\n")])
def test_no_answer_is_read(row, step):
    assert exchange(row.least, row.code, row.least_payload, step, may_break=True) == SUCCESS
    assert exchange(row.full, row.code, row.full_payload, step, may_break=True) == SUCCESS


@pytest.mark.parametrize("row", rows_of(STREAMED), ids=name)
@pytest.mark.parametrize("answer, text", [(b"some text", b"some text"), (b"", b""),
                                          (frame(5, b"busy"), b""), (b"cut\0off", b"cut"),
                                          (b"\1\1\1\5\1\1\1\4busy", b"\1\1\1\5\1\1\1\4busy")])
def test_streamed_answer(row, answer, text):
    # A stream has no status: a frame in it is text that ends at its first zero byte.
    assert exchange(row.least, row.code, row.least_payload, send(answer)) == Outcome(text, b"", 0)
    assert exchange(row.full, row.code, row.full_payload, send(answer)) == Outcome(text, b"", 0)


# ---- UUIDs ----

@pytest.mark.parametrize("code, word, _shape", commands_of("UUID text"))
@pytest.mark.parametrize("given, sent", [
    (b"ABCDEF01-2345-6789-ABCD-EF0123456789", b"abcdef01-2345-6789-abcd-ef0123456789"),
    (b"aBcDeF01-2345-6789-AbCd-eF0123456789", b"abcdef01-2345-6789-abcd-ef0123456789"),
    (b"ffffffff-ffff-ffff-ffff-ffffffffffff", b"ffffffff-ffff-ffff-ffff-ffffffffffff"),
    (b"80818283-8485-8687-8889-8a8b8c8d8e8f", b"80818283-8485-8687-8889-8a8b8c8d8e8f"),
    (b"0123abcd-4567-89ef", b"0123abcd-4567-89ef-0000-000000000000"),
    (b"0123abcd-4567-89ef-fe", b"0123abcd-4567-89ef-fe00-000000000000"),
    (b"0123abcd-4567-89ef-fedc-ba98765432", b"0123abcd-4567-89ef-fedc-ba9876543200"),
    (b"0123abcd-4567-89ef-fedc-ba9876543210-and-more", UUID),
])
def test_uuid_text(code, word, _shape, given, sent):
    assert_accepted(("-u", given, word), code, sent)


def test_all_does_not_change_the_uuid_in_the_request():
    assert_accepted(("info-rebalance", "-a"), 14, ZERO_UUID)
    assert_accepted(("info-rebalance", "-a", "-u", UUID), 14, UUID)


def test_second_uuid_cut_short_keeps_the_rest_of_the_first():
    assert_accepted(("-u", UUID, "-u", "11111111-2222-3333", "crawler"), 2, b"11111111-2222-3333-fedc-ba9876543210")
    assert_accepted(("-u", UUID, "-u", "11111111-2222-3333-4", "crawler"), 2, b"11111111-2222-3333-04dc-ba9876543210")
    assert_accepted(("-u", UUID, "-u", "11111111-2222-3333-44", "crawler"), 2, b"11111111-2222-3333-44dc-ba9876543210")
    assert_accepted(("-u", UUID, "-u", "11111111-2222-3333-4444-555555555", "crawler"), 2,
                    b"11111111-2222-3333-4444-555555550510")
    assert_accepted(("-u", UUID, "-u", TWO, "crawler"), 2, TWO)


def test_second_uuid_cut_short_in_a_record():
    words = ("-u", UUID, "-u", "11111111-2222-3333", "force-reconfigure-the-object")
    assert_accepted(words, 19, b"\x11\x11\x11\x11\x22\x22\x33\x33\xfe\xdc\xba\x98\x76\x54\x32\x10\0")


# ---- fitness-config-set ----

JSON_TEXTS = [b"", b"{}", b'{"weight": 0.5,\n\t"name": "\xc3\xa9"}', b"not json", b"%s%n\xff", b"{" * 131071]


@pytest.mark.parametrize("json", JSON_TEXTS,
                         ids=["empty", "braces", "lines", "no-json", "odd-bytes", "largest"])
def test_json(json):
    assert_accepted(("-j", json, "fitness-config-set"), 4, json + b"\0")


def test_later_json_replaces_the_earlier():
    assert_accepted(("-j", '{"first": "and longer"}', "-j", "{}", "fitness-config-set"), 4, b"{}\0")
    assert_accepted(("-j", "{}", "-j", '{"second": "and longer"}', "fitness-config-set"), 4,
                    b'{"second": "and longer"}\0')


# ---- log-level ----

@pytest.mark.parametrize("words, sent", [
    (("log-level", "3"), b"3"),
    (("log-level", ""), b""),
    (("log-level", "3", "4"), b"3"),
    (("log-level", "verbose and more"), b"verbose and more"),
    (("log-level", "-a", "3"), b"3"),
    (("-a", "log-level", "-u", UUID, "-o", "4", "5"), b"5"),
    (("--", "log-level", "-1"), b"-1"),
    (("log-level", "--", "--all"), b"--all"),
    (("log-level", "log-level"), b"log-level"),
    (("log-level", b"9" * 131071), b"9" * 131071),
], ids=["digit", "empty", "two-words", "blanks", "option-between", "options-around", "minus-one", "long-option-word",
        "its-own-word", "largest"])
def test_log_level(words, sent):
    assert_accepted(words, 7, sent)


@pytest.mark.parametrize("words", [("log-level",), ("-a", "log-level"), ("log-level", "-u", UUID), ("log-level", "--")])
def test_log_level_without_a_level(words):
    assert_accepted(words, 7, os.fsencode(TOOL))


def test_log_level_sends_the_name_that_the_program_was_started_by(tmp_path):
    with ScriptedDaemon(reply(0)) as plaxd:
        assert tool_named(tmp_path, "7", "-s", plaxd.path, "log-level") == SUCCESS
    assert plaxd.received == frame(7, b"7")


# ---- start-proactive-rebalance ----

def rebalance(*words, before=()):
    return (*before, "start-proactive-rebalance", *words)


@pytest.mark.parametrize("words, values", [
    ((), (86400, 0.3, 1800, 14913081)),
    (("1",), (1, 0.3, 1800, 14913081)),
    (("1", "0.5"), (1, 0.5, 1800, 14913081)),
    (("1", "0.5", "2"), (1, 0.5, 2, 14913081)),
    (("1", "0.5", "2", "3"), (1, 0.5, 2, 3)),
    (("1", "0.5", "2", "3", "4"), (1, 0.5, 2, 3)),
    (("1", "0.5", "2", "3", "4", "5"), (1, 0.5, 2, 3)),
    (("3600", "0.3", "default", "1024"), (3600, 0.3, 1800, 1024)),
    (("default",), (86400, 0.3, 1800, 14913081)),
    (("default", "default", "default", "default"), (86400, 0.3, 1800, 14913081)),
    (("default", "0.5", "2", "3"), (86400, 0.5, 2, 3)),
    (("1", "default", "2", "3"), (1, 0.3, 2, 3)),
    (("1", "0.5", "2", "default"), (1, 0.5, 2, 14913081)),
    (("", "", "", ""), (86400, 0.3, 1800, 14913081)),
    (("", "0.5", "", "3"), (86400, 0.5, 1800, 3)),
    (("0", "0", "0", "0"), (0, 0.0, 0, 0)),
    (("1", "7", "2", "3"), (1, 7.0, 2, 3)),
    (("1 9", "0.5 8", "2 7", "3 6"), (1, 0.5, 2, 3)),
    (("-a", "1", "-u", UUID, "0.5", "-e", "2"), (1, 0.5, 2, 14913081)),
])
def test_rebalance_words(words, values):
    assert_accepted(rebalance(*words), 10, record("QdQQ", *values))


def test_rebalance_without_words_reads_none(tmp_path):
    with ScriptedDaemon(reply(0)) as plaxd:
        assert tool_named(tmp_path, "7", "-s", plaxd.path, "-o", "8", "start-proactive-rebalance") == SUCCESS
    assert plaxd.received == frame(10, record("QdQQ", 86400, 0.3, 1800, 14913081))


INTEGERS = [
    ("0", 0), ("7", 7), ("+7", 7), ("00012", 12), ("010", 10), ("0x10", 0), ("0x", 0), ("0b11", 0),
    ("0" * 1000 + "7", 7),
    (" 7", 7), ("\t\n\v\f\r 7", 7), (" +7", 7), ("7 ", 7), ("12abc", 12), ("1,5", 1), ("1_000", 1), ("3.9", 3),
    ("1e3", 1),
    ("4294967295", 4294967295), ("4294967296", {64: 4294967296, 32: ULONG_MAX}[LONG_BITS]),
    ("9223372036854775808", {64: 9223372036854775808, 32: ULONG_MAX}[LONG_BITS]),
    ("18446744073709551615", ULONG_MAX), ("18446744073709551616", ULONG_MAX), ("9" * 5000, ULONG_MAX),
    ("-1", ULONG_MAX), (" -1", ULONG_MAX), ("-0", 0),
    ("-5", {64: 18446744073709551611, 32: 4294967291}[LONG_BITS]),
    ("-4294967295", {64: 18446744069414584321, 32: 1}[LONG_BITS]),
    ("-4294967296", {64: 18446744069414584320, 32: ULONG_MAX}[LONG_BITS]),
    ("-18446744073709551615", {64: 1, 32: ULONG_MAX}[LONG_BITS]),
    ("-18446744073709551616", ULONG_MAX), ("-" + "9" * 5000, ULONG_MAX),
]
NOT_INTEGERS = ["", " ", "\t\n", "default", "Default", "d7", "x7", "+", "-", "+-7", "-+7", "--7", "- 7", "+ 7", ".5",
                "inf", "nan", "e3", "'7", "\u0667", b"\xa07"]


def first_letters(value):
    return str(value)[:24] if isinstance(value, (str, bytes)) else None


@pytest.mark.parametrize("word, value", INTEGERS, ids=first_letters)
def test_rebalance_integers(word, value):
    # The leading "--" lets words begin with a minus sign.
    assert_accepted(rebalance(word, "0.5", word, word, before=("--",)), 10, record("QdQQ", value, 0.5, value, value))


@pytest.mark.parametrize("word", NOT_INTEGERS, ids=first_letters)
def test_rebalance_not_integers(word):
    assert_accepted(rebalance(word, "0.5", word, word, before=("--",)), 10, record("QdQQ", 86400, 0.5, 1800, 14913081))


INFINITY, MINUS_INFINITY = 0x7ff0000000000000, 0xfff0000000000000
NOT_A_NUMBER, MINUS_NOT_A_NUMBER = 0x7ff8000000000000, 0xfff8000000000000
DOUBLES = [
    ("0", 0), ("0.3", 0x3fd3333333333333), ("1", 0x3ff0000000000000), ("-1", 0xbff0000000000000),
    ("-0", 0x8000000000000000),
    ("+0.5", 0x3fe0000000000000), ("-0.5", 0xbfe0000000000000), (".5", 0x3fe0000000000000), ("+.5", 0x3fe0000000000000),
    ("5.", 0x4014000000000000), (" 0.5", 0x3fe0000000000000), ("\t\n\v\f\r 0.5", 0x3fe0000000000000),
    ("0.5 ", 0x3fe0000000000000),
    ("0.5abc", 0x3fe0000000000000), ("0.5.5", 0x3fe0000000000000), ("1,5", 0x3ff0000000000000),
    ("5e-1", 0x3fe0000000000000),
    ("5E-1x", 0x3fe0000000000000), ("1e3", 0x408f400000000000), ("1e+3", 0x408f400000000000),
    (".05e1", 0x3fe0000000000000),
    ("0x10", 0x4030000000000000), ("0x.8", 0x3fe0000000000000), ("0x1p-2", 0x3fd0000000000000),
    ("0X1.8P1", 0x4008000000000000),
    ("-0x8", 0xc020000000000000), ("0.1", 0x3fb999999999999a), ("0." + "3" * 1000, 0x3fd5555555555555),
    ("1.7976931348623157e308", 0x7fefffffffffffff), ("2.2250738585072014e-308", 0x0010000000000000), ("4.9e-324", 1),
    ("1e400", INFINITY), ("-1e400", MINUS_INFINITY), ("1e-400", 0), ("-1e-400", 0x8000000000000000),
    ("9" * 5000, INFINITY),
    ("inf", INFINITY), ("INF", INFINITY), ("+inf", INFINITY), ("-inf", MINUS_INFINITY), ("infinity", INFINITY),
    ("-InFiNiTy", MINUS_INFINITY), (" inf", INFINITY), ("infx", INFINITY),
    ("infinityx", INFINITY),
    ("nan", NOT_A_NUMBER), ("NaN", NOT_A_NUMBER), ("-nan", MINUS_NOT_A_NUMBER), ("nanx", NOT_A_NUMBER),
    ("nan()", NOT_A_NUMBER),
]
# sscanf reads the longest prefix that a number could have, and fails if that prefix is no number. So "infinite" and
# "0x" leave the default, while strtod would read "inf" and "0". The C library's versions differ in "1e" and "0x.".
NOT_DOUBLES = ["", " ", "default", "DEFAULT", "x", ".", "-.", "+", "-", "+-1", "--1", "- 1", "e5", ".e5", "0x", "0xg",
               "in", "infi", "-infi", "INFINIT", "infinite", "infix", "i", "n", "na", "-na", "\u0660.5", ",5", "$1"]


@pytest.mark.parametrize("word, bits", DOUBLES, ids=first_letters)
def test_rebalance_doubles(word, bits):
    assert_accepted(rebalance("1", word, "2", "3", before=("--",)), 10, record("QQQQ", 1, bits, 2, 3))


@pytest.mark.parametrize("word", NOT_DOUBLES, ids=first_letters)
def test_rebalance_not_doubles(word):
    assert_accepted(rebalance("1", word, "2", "3", before=("--",)), 10, record("QQQQ", 1, 0x3fd3333333333333, 2, 3))


def bits_in_the_c_library(word):
    bits = ctypes.c_uint64(0x3fd3333333333333)
    ctypes.CDLL(None).sscanf(os.fsencode(word), b"%lf", ctypes.byref(bits))
    return bits.value


# The C library's versions differ in nan with an open parenthesis or a number in parentheses, and in prefixes and
# exponents without digits.
@pytest.mark.parametrize("word, bits", [
    ("nan(", NOT_A_NUMBER), ("nan(1)", NOT_A_NUMBER), ("-nan(0x7)", MINUS_NOT_A_NUMBER),
    ("0x.", 0), ("-0X.", 0x8000000000000000), ("0x.g", 0), ("1e", 0x3ff0000000000000), ("-5E+x", 0xc014000000000000),
], ids=first_letters)
def test_rebalance_doubles_of_some_c_libraries(word, bits):
    if bits_in_the_c_library(word) != bits:
        pytest.skip("this C library reads another number")
    assert_accepted(rebalance("1", word, "2", "3", before=("--",)), 10, record("QQQQ", 1, bits, 2, 3))


# ---- what-if-entity-decom ----

@pytest.mark.parametrize("options, uuid, mode, durability", [
    (("-a",), b"\0" * 16, 0, b"\0"),
    (("-u", UUID), UUID_BYTES, 0, b"\0"),
    (("-u", UUID, "-d", "1"), UUID_BYTES, 1, b"\0"),
    (("-u", UUID, "-e"), UUID_BYTES, 0, b"\x01"),
    (("-a", "-e", "-e", "-d", "16909060"), b"\0" * 16, 0x01020304, b"\x01"),
    (("-a", "-d", "4294967295"), b"\0" * 16, 0xffffffff, b"\0"),
    (("-a", "-d", "-2"), b"\0" * 16, 0xfffffffe, b"\0"),
    (("-a", "-d", "2", "-d", "1"), b"\0" * 16, 1, b"\0"),
    (("-a", "-d", "evacAllData"), b"\0" * 16, 0, b"\0"),
    (("-a", "-w", "-r", "3"), b"\0" * 16, 0, b"\0"),
])
def test_entity_decom(options, uuid, mode, durability):
    payload = uuid + record("I", mode) + durability + b"\0\0\0"
    assert_accepted((*options, "what-if-entity-decom"), 16, payload)


# ---- what-if-upgrade ----

def assert_upgraded(options, payload):
    assert_accepted((*options, "what-if-upgrade"), 17, payload)


@pytest.mark.parametrize("options, uuid, mode, reason, wipe", [
    ((), b"\0" * 16, 0, 0, b"\0"),
    (("-u", UUID), UUID_BYTES, 0, 0, b"\0"),
    (("-d", "2"), b"\0" * 16, 2, 0, b"\0"),
    (("-r", "3"), b"\0" * 16, 0, 3, b"\0"),
    (("-w",), b"\0" * 16, 0, 0, b"\x01"),
    (("-w", "-w", "-r", "16909060", "-d", "84281096"), b"\0" * 16, 0x05060708, 0x01020304, b"\x01"),
    (("-r", "4294967295", "-d", "-1"), b"\0" * 16, 0xffffffff, 0xffffffff, b"\0"),
    (("-r", "3", "-r", "1"), b"\0" * 16, 0, 1, b"\0"),
    (("-e", "-a", "-x", TWO), b"\0" * 16, 0, 0, b"\0"),
])
def test_upgrade_head(options, uuid, mode, reason, wipe):
    payload = uuid + record("II", mode, reason) + wipe + b"\0\0\0" + record("I", 1) + ONE + b"\0"
    assert_upgraded(("-l", ONE, *options), payload)


def test_upgrade_with_two_uuids_is_106_bytes():
    payload = b"\0" * 28 + record("I", 2) + ONE + b"," + TWO + b"\0"
    assert len(payload) == 106
    assert_upgraded(("-l", ONE + b"," + TWO), payload)


def test_upgrade_list_is_sent_as_given():
    upper = b"ABCDEF01-2345-6789-ABCD-EF0123456789"
    assert_upgraded(("-l", upper), b"\0" * 28 + record("I", 1) + upper + b"\0")
    assert_upgraded(("-l", b"?" * 73), b"\0" * 28 + record("I", 2) + b"?" * 73 + b"\0")


def test_second_upgrade_list_replaces_the_first():
    assert_upgraded(("-l", TWO + b"," + THREE, "-l", ONE), b"\0" * 28 + record("I", 1) + ONE + b"\0")
    assert_upgraded(("-l", ONE, "-l", TWO + b"," + THREE), b"\0" * 28 + record("I", 2) + TWO + b"," + THREE + b"\0")


@pytest.mark.parametrize("count", [2559, 2560])
def test_long_upgrade_list(count):
    text = (ONE + b",") * (count - 1) + TWO
    assert_upgraded(("-l", text), b"\0" * 28 + record("I", count) + text + b"\0")


# ---- paths ----

UUID_SIZES = {"File path": 0, "Force reconfigure": 16}  # bytes before the path, all zero without -u
LONGEST_PATH = b"/" + b"p" * 4094 + b"q"


each_path_sender = pytest.mark.parametrize("code, word, shape", commands_of(*UUID_SIZES))


@each_path_sender
@pytest.mark.parametrize("options, path", [
    ((), b""),
    (("-f", ""), b""),
    (("-f", "/a"), b"/a"),
    (("-f", b"odd \xff\n%s path"), b"odd \xff\n%s path"),
    (("-f", LONGEST_PATH[:4095]), LONGEST_PATH[:4095]),
    (("-f", LONGEST_PATH), LONGEST_PATH),
], ids=["none", "empty", "short", "odd-bytes", "4095", "4096"])
def test_paths(code, word, shape, options, path):
    assert_accepted((*options, word), code, bytes(UUID_SIZES[shape]) + path + b"\0")


@each_path_sender
@pytest.mark.parametrize("options, path", [
    (("-f", "/a/long/path", "-f", "/b"), b"/b/long/path"),
    (("-f", "/a/long/path", "-f", ""), b"/a/long/path"),
    (("-f", "/b", "-f", "/a/long/path"), b"/a/long/path"),
    (("-f", "/a/long/path", "-f", "/second", "-f", "/c"), b"/cecond/path"),
    (("-f", LONGEST_PATH, "-f", "/b"), b"/b" + b"p" * 4093 + b"q"),
], ids=["shorter", "empty", "longer", "thrice", "longest-first"])
def test_second_shorter_file_path_keeps_the_tail(code, word, shape, options, path):
    assert_accepted((*options, word), code, bytes(UUID_SIZES[shape]) + path + b"\0")


def test_reconfigure_names_its_object():
    assert_accepted(("-u", UUID, "-f", "/b", "force-reconfigure-the-object"), 19, UUID_BYTES + b"/b\0")
    assert_accepted(("-u", UUID, "force-reconfigure-the-object"), 19, UUID_BYTES + b"\0")


# ---- enable-plax-recovery-mode, get-obj-crawler-state ----

@pytest.mark.parametrize("options, text", [
    (("-u", UUID), UUID + b"0"),
    (("-m", "0"), ZERO_UUID + b"0"), (("-m", "1"), ZERO_UUID + b"1"), (("-m", "2"), ZERO_UUID + b"2"),
    (("-m", "3"), ZERO_UUID + b"3"), (("-m", "4"), ZERO_UUID + b"4"), (("-m", "5"), ZERO_UUID + b"5"),
    (("-m", "6"), ZERO_UUID + b"6"), (("-m", "7"), ZERO_UUID + b"7"),
    (("-m", "abc"), ZERO_UUID + b"0"),
    (("-m", "7", "-m", "2"), ZERO_UUID + b"2"),
    (("-u", UUID, "-m", "6"), UUID + b"6"),
    (("-u", UUID, "-a"), UUID + b"0"),
])
def test_recovery_mode(options, text):
    assert_accepted((*options, "enable-plax-recovery-mode"), 22, text + b"\0\0\0\0")


def test_crawler_state():
    assert_accepted(("-u", UUID, "-m", "7", "get-obj-crawler-state"), 26, UUID + b"0\0\0\0\0")
    assert exchange(("-a", "-a", "get-obj-crawler-state"), 26, ZERO_UUID + b"1\0\0\0\0") == SUCCESS
    assert exchange(("-u", UUID, "-a", "get-obj-crawler-state"), 26, UUID + b"1\0\0\0\0") == SUCCESS


# ---- enable-workitem, disable-workitem ----

@pytest.mark.parametrize("code, word, _shape", commands_of("Work item"))
def test_later_work_item_replaces_the_earlier(code, word, _shape):
    assert_accepted(("-i", "MANUAL_MOVE", "-i", "MOVE", word), code, b"7\0\0\0")


# ---- component-manual-move ----

def assert_moved(options, counts, destinations, exclusions):
    payload = UUID_BYTES + record("II", *counts) + destinations + exclusions
    assert len(payload) == 189464
    assert_accepted(("-u", UUID, *options, "component-manual-move"), 33, payload)


EMPTY = b"\0" * 94720


def test_move_lists():
    assert_moved(("-n", ONE), (1, 0), ONE + b"\0" * 94684, EMPTY)
    assert_moved(("-x", ONE), (0, 1), EMPTY, ONE + b"\0" * 94684)
    assert_moved(("-n", ONE + b"," + TWO), (2, 0), ONE + b"," + TWO + b"\0" * 94647, EMPTY)
    assert_moved(("-x", ONE + b"," + TWO), (0, 2), EMPTY, ONE + b"," + TWO + b"\0" * 94647)


def test_move_lists_are_sent_as_given():
    upper = b"ABCDEF01-2345-6789-ABCD-EF0123456789"
    assert_moved(("-n", upper), (1, 0), upper + b"\0" * 94684, EMPTY)
    assert_moved(("-x", b"?" * 73), (0, 2), EMPTY, b"?" * 73 + b"\0" * 94647)


def test_second_move_list_leaves_nothing_of_the_first():
    assert_moved(("-n", TWO + b"," + THREE, "-n", ONE), (1, 0), ONE + b"\0" * 94684, EMPTY)
    assert_moved(("-x", TWO + b"," + THREE, "-x", ONE), (0, 1), EMPTY, ONE + b"\0" * 94684)
    assert_moved(("-n", (TWO + b",") * 2558 + TWO, "-n", "", "-n", ONE), (1, 0), ONE + b"\0" * 94684, EMPTY)


def test_longest_move_lists():
    text = (ONE + b",") * 2558 + TWO
    assert_moved(("-n", text), (2559, 0), text + b"\0" * 38, EMPTY)
    assert_moved(("-x", text), (0, 2559), EMPTY, text + b"\0" * 38)


# ---- set-global-exclusion-list ----

def assert_excluded(options, mode, count, text):
    payload = record("II", mode, count) + text
    assert len(payload) == 94728
    assert_accepted((*options, "set-global-exclusion-list"), 34, payload)


@pytest.mark.parametrize("options, mode", [((), 0), (("-X", "0"), 0), (("-X", "1"), 1), (("-X", "2"), 2),
                                           (("-X", "3"), 3),
                                           (("-X", "3", "-X", "1"), 1), (("-u", UUID, "-n", TWO), 0)])
def test_exclusion_modes(options, mode):
    assert_excluded(("-x", ONE, *options), mode, 1, ONE + b"\0" * 94684)


def test_exclusion_lists():
    assert_excluded(("-x", ""), 0, 0, EMPTY)
    assert_excluded(("-x", ONE + b"," + TWO), 0, 2, ONE + b"," + TWO + b"\0" * 94647)
    text = (ONE + b",") * 2558 + TWO
    assert_excluded(("-x", text), 0, 2559, text + b"\0" * 38)


def test_longest_destination_list_does_not_reach_the_exclusion_list():
    longest = (TWO + b",") * 2558 + TWO
    assert_excluded(("-x", ONE, "-n", longest), 0, 1, ONE + b"\0" * 94684)


def test_second_exclusion_list_leaves_nothing_of_the_first():
    assert_excluded(("-x", TWO + b"," + THREE, "-x", ONE), 0, 1, ONE + b"\0" * 94684)
    assert_excluded(("-x", (TWO + b",") * 2558 + TWO, "-x", ""), 0, 0, EMPTY)
