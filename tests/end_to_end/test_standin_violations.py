"""Requests that break the protocol, sent by raw sockets. The log names the violations, and the stand-in continues."""

import socket
import struct
import termios

from harness import HOST_ORDER, eventually, frame, queued
from request_table import COMMANDS
from standin_process import Standin, entry, framed, read_all, run_standin
import pytest

UUID = b"01234567-89ab-cdef-0123-456789abcdef"
UUID_TEXT = UUID.decode()
RAW_UUID = bytes.fromhex("0123456789abcdef0123456789abcdef")
ZERO = "00000000-0000-0000-0000-000000000000"
LIST = UUID + b"," + UUID

# The reply to a client that is answered.
QUEUED = frame(0, b"queued")
REFUSAL = frame(0x2bad0016, b"unknown command")


def record(layout, *values):
    return struct.pack(HOST_ORDER + layout, *values)


def broken(request, answer, logged):
    """The request is answered and logged as expected, and with --strict the stand-in exits 1."""
    with Standin("--strict") as plaxd:
        assert plaxd.exchange(request) == answer
        assert plaxd.exchange(frame(2, UUID)) == QUEUED
    after = entry("crawler", 2, 36, {"uuid": UUID_TEXT}, reply=framed(6), connection=2)
    assert plaxd.entries == [logged, after]
    assert (plaxd.code, plaxd.summary["requests"], plaxd.summary["broken"]) == (1, 2, 1)


UNANSWERED = {"outcome": "unanswered", "reply": {"headerBytes": 0}}


@pytest.mark.parametrize("count", range(1, 8))
def test_header_cut_short(count):
    broken(frame(2, UUID)[:count], b"",
           entry("unknown", 0, 0, violations=[f"cut short: {count} of 8 header bytes"], **UNANSWERED))


@pytest.mark.parametrize("count", [0, 1, 35])
def test_payload_cut_short(count):
    broken(frame(2, UUID)[:8 + count], b"",
           entry("crawler", 2, 36, violations=[f"cut short: {count} of 36 payload bytes"], **UNANSWERED))


@pytest.mark.parametrize("code", [0, len(COMMANDS) + 1, 0x01000000, 0xffffffff])
def test_unknown_code(code):
    broken(frame(code, b"abc"), REFUSAL,
           entry("unknown", code, 3, violations=[f"unknown code {code}"], reply=framed(15, 0x2bad0016)))


def test_length_at_the_limit():
    broken(frame(7, b"x" * 1048576) + b"z", frame(0, b"set"),
           entry("log-level", 7, 1048576, {"level": "x" * 1048576}, violations=["1 bytes after the end"],
                 reply=framed(3)))


@pytest.mark.parametrize("length", [1048577, 0xffffffff])
def test_length_above_the_limit(length):
    with Standin() as plaxd, pytest.raises(ConnectionResetError):
        plaxd.exchange(struct.pack(">II", 7, length))
    assert plaxd.entries == [entry("log-level", 7, length, ending="reset by the stand-in",
                                   violations=[f"length {length} is above the limit of 1048576"], **UNANSWERED)]


def test_bytes_after_the_end():
    broken(frame(2, UUID) + b"12345", QUEUED,
           entry("crawler", 2, 36, {"uuid": UUID_TEXT}, violations=["5 bytes after the end"], reply=framed(6)))


def test_bytes_after_the_answer():
    with Standin("--strict") as plaxd:
        with plaxd.connect() as connection:
            connection.sendall(frame(2, UUID))
            assert read_all(connection) == QUEUED
            connection.sendall(frame(2, UUID))
            connection.shutdown(socket.SHUT_WR)
    assert plaxd.entries == [entry("crawler", 2, 36, {"uuid": UUID_TEXT}, violations=["44 bytes after the end"],
                                   reply=framed(6))]
    assert plaxd.code == 1


# Code, payload with one byte too many or too few, required length.
WRONG_LENGTHS = [
    (3, b"x", "0"),
    (2, UUID + b"x", "36"),
    (2, UUID[:-1], "36"),
    (4, b"", "1 to 1048576"),
    (10, b"\0" * 31, "32"),
    (16, b"\0" * 25, "24"),
    (17, b"\0" * 32, "33 to 94752"),
    (17, b"\0" * 94753, "33 to 94752"),
    (19, b"\0" * 16, "17 to 4113"),
    (19, b"\0" * 16 + b"x" * 4097 + b"\0", "17 to 4113"),
    (20, b"", "1 to 4097"),
    (21, b"x" * 4097 + b"\0", "1 to 4097"),
    (22, UUID + b"7\0", "41"),
    (24, b"22\0", "4"),
    (26, UUID + b"1\0", "41"),
    (31, b"0:0:" + UUID + b"\0", "1024"),
    (33, b"\0" * 189463, "189464"),
    (34, b"\0" * 94729, "94728"),
]


def test_wrong_lengths():
    with Standin() as plaxd:
        for code, payload, _ in WRONG_LENGTHS:
            plaxd.exchange(frame(code, payload))
    assert [(line["code"], line["fields"], line["violations"]) for line in plaxd.entries] == [
        (code, {}, [f"length {len(payload)} instead of {due}"]) for code, payload, due in WRONG_LENGTHS]
    assert {line["outcome"] for line in plaxd.entries} == {"answered"}
    assert (plaxd.code, plaxd.summary["broken"]) == (0, len(WRONG_LENGTHS))


def upgrade(count, text, wipe_disk=b"\0", padding=b"\0\0\0"):
    return frame(17, RAW_UUID + record("II", 0, 0) + wipe_disk + padding + record("I", count) + text)


def upgrade_fields(count, entries, wipe_disk=0):
    return {"uuid": UUID_TEXT, "decomMode": 0, "reason": 0, "wipeDisk": wipe_disk, "uuidCount": count,
            "uuidList": entries}


def move(destination_count, destinations, exclusion_count, exclusions):
    return frame(33, RAW_UUID + record("II", destination_count, exclusion_count) + destinations.ljust(94720, b"\0") +
                 exclusions.ljust(94720, b"\0"))


def move_fields(destination_count, destinations, exclusion_count, exclusions):
    return {"uuid": UUID_TEXT, "destinationCount": destination_count, "destinationList": destinations,
            "exclusionCount": exclusion_count, "exclusionList": exclusions}


# Request, fields, violations.
CONTENTS = [
    (frame(2, UUID.upper()), {"uuid": "01234567-89AB-CDEF-0123-456789ABCDEF"}, ["uuid is not the text of a UUID"]),
    (frame(2, b"0" * 36), {"uuid": "0" * 36}, ["uuid is not the text of a UUID"]),
    (frame(4, b"{}"), {"json": "{}"}, ["json has no terminator"]),
    (frame(4, b"{}\0x\0"), {"json": "{}"},
     ["what follows json is not zero at payload byte 3", "json ends after 2 of 4 characters"]),
    (frame(4, b"{}\0\0"), {"json": "{}"}, ["json ends after 2 of 3 characters"]),
    (frame(7, b"3\0"), {"level": "3\0"}, ["level holds a zero byte"]),
    (frame(16, RAW_UUID + record("I", 2) + b"\2\0\0\0"), {"uuid": UUID_TEXT, "decomMode": 2, "ensureDurability": 2},
     ["ensureDurability is 2, neither 0 nor 1"]),
    (frame(16, RAW_UUID + record("I", 2) + b"\1\0\5\0"), {"uuid": UUID_TEXT, "decomMode": 2, "ensureDurability": 1},
     ["the padding after ensureDurability is not zero at payload byte 22"]),
    (frame(16, RAW_UUID + record("I", 2) + b"\1\0\0\5"), {"uuid": UUID_TEXT, "decomMode": 2, "ensureDurability": 1},
     ["the padding after ensureDurability is not zero at payload byte 23"]),
    (upgrade(3, LIST + b"\0"), upgrade_fields(3, [UUID_TEXT] * 2), ["uuidCount is 3, but uuidList has space for 2"]),
    (upgrade(1, b"\0"), upgrade_fields(1, []), ["uuidCount is 1, but uuidList has space for 0"]),
    (upgrade(2, LIST), upgrade_fields(2, [UUID_TEXT] * 2), ["uuidList has no terminator"]),
    (upgrade(1, UUID + b",x\0"), upgrade_fields(1, [UUID_TEXT, "x"]),
     ["uuidList has length 38, which no list of UUIDs has"]),
    (upgrade(1, UUID + b"\0" + UUID + b"\0"), upgrade_fields(1, [UUID_TEXT]),
     ["what follows uuidList is not zero at payload byte 69", "uuidList ends after 36 of 73 characters"]),
    (upgrade(1, UUID + b"\0", wipe_disk=b"\x80"), upgrade_fields(1, [UUID_TEXT], wipe_disk=128),
     ["wipeDisk is 128, neither 0 nor 1"]),
    *[(upgrade(1, UUID + b"\0", padding=b"\0" * before + b"\1" + b"\0" * (2 - before)), upgrade_fields(1, [UUID_TEXT]),
       [f"the padding after wipeDisk is not zero at payload byte {25 + before}"]) for before in range(3)],
    (upgrade(1, UUID[:-1] + b"g\0"), upgrade_fields(1, [UUID_TEXT[:-1] + "g"]),
     ["uuidList entry 1 is not the text of a UUID"]),
    (upgrade(2, UUID + b";" + UUID + b"\0"), upgrade_fields(2, [UUID_TEXT + ";" + UUID_TEXT]),
     ["uuidList entry 1 is not followed by a comma"]),
    (upgrade(3, LIST + b",," + UUID[1:] + b"\0"), upgrade_fields(3, [UUID_TEXT, UUID_TEXT, "", UUID_TEXT[1:]]),
     ["uuidList entry 3 is not the text of a UUID"]),
    (frame(19, RAW_UUID + b"/f"), {"uuid": UUID_TEXT, "filePath": "/f"}, ["filePath has no terminator"]),
    (frame(20, b"/f"), {"filePath": "/f"}, ["filePath has no terminator"]),
    (frame(22, UUID + b"12345"), {"uuid": UUID_TEXT, "recoveryMode": 12345},
     ["recoveryMode has no terminator", "recoveryMode is 12345, which has no meaning"]),
    (frame(22, UUID + b"8\0\0\0\0"), {"uuid": UUID_TEXT, "recoveryMode": 8},
     ["recoveryMode is 8, which has no meaning"]),
    (frame(22, UUID + b"7\0\0\0x"), {"uuid": UUID_TEXT, "recoveryMode": 7},
     ["what follows recoveryMode is not zero at payload byte 40"]),
    (frame(22, UUID + b"+7\0\0\0"), {"uuid": UUID_TEXT, "recoveryMode": "+7"}, ["recoveryMode is not a number"]),
    (frame(22, UUID[:35] + b"\0" * 6), {"uuid": UUID_TEXT[:35], "recoveryMode": ""},
     ["uuid is not the text of a UUID", "recoveryMode is not a number"]),
    (frame(24, b"1234"), {"workItemType": 1234},
     ["workItemType has no terminator", "workItemType is 1234, which has no meaning"]),
    *[(frame(24, number.ljust(4, b"\0")), {"workItemType": int(number)},
       [f"workItemType is {int(number)}, which has no meaning"]) for number in (b"0", b"4", b"23")],
    (frame(25, b"7\0\0\1"), {"workItemType": 7}, ["what follows workItemType is not zero at payload byte 3"]),
    (frame(25, b"\0\0\0\0"), {"workItemType": ""}, ["workItemType is not a number"]),
    (frame(26, UUID + b"2\0\0\0\0"), {"uuid": UUID_TEXT, "all": 2}, ["all is 2, neither 0 nor 1"]),
    (frame(26, UUID + b"00\0\0\0"), {"uuid": UUID_TEXT, "all": 0}, ["all has no terminator", "all has leading zeros"]),
    (frame(26, UUID + b"0\0\0\1\0"), {"uuid": UUID_TEXT, "all": 0},
     ["what travels beyond the field is not zero at payload byte 39"]),
    (frame(31, (b"1:1:" + UUID).ljust(1024, b"\0")), {"event": 1, "entry": 1, "uuid": UUID_TEXT},
     ["entry is 1, which has no meaning"]),
    (frame(31, (b"4:5:" + UUID).ljust(1024, b"\0")), {"event": 4, "entry": 5, "uuid": UUID_TEXT},
     ["event is 4, which has no meaning", "entry is 5, which has no meaning"]),
    (frame(31, b"2".ljust(1024, b"\0")), {"event": 2, "entry": "", "uuid": ""},
     ["entry is not a number", "uuid is not the text of a UUID"]),
    (frame(31, (b"2:2:" + UUID).ljust(1023, b"\0") + b"x"), {"event": 2, "entry": 2, "uuid": UUID_TEXT},
     ["what follows uuid is not zero at payload byte 1023"]),
    (move(2, UUID, 0, b""), move_fields(2, [UUID_TEXT], 0, []),
     ["destinationCount is 2, but destinationList has space for 1"]),
    (move(0, b"", 0, LIST), move_fields(0, [], 0, [UUID_TEXT] * 2),
     ["exclusionCount is 0, but exclusionList has space for 2"]),
    (move(1, UUID + b"\0\0x", 0, b""), move_fields(1, [UUID_TEXT], 0, []),
     ["what follows destinationList is not zero at payload byte 62"]),
    (move(0, b"", 1, UUID + b"\0" + b"x" * 94683), move_fields(0, [], 1, [UUID_TEXT]),
     ["what follows exclusionList is not zero at payload byte 94781"]),
    (move(0, b"", 2560, b",".join([UUID] * 2560) + b","), move_fields(0, [], 2560, [UUID_TEXT] * 2560 + [""]),
     ["exclusionList has no terminator", "exclusionList has length 94720, which no list of UUIDs has"]),
    (move(0, b"", 2, UUID + b" " + UUID), move_fields(0, [], 2, [UUID_TEXT + " " + UUID_TEXT]),
     ["exclusionList entry 1 is not followed by a comma"]),
    (move(2, b"x" * 36 + b"," + b"y" * 36, 0, b""), move_fields(2, ["x" * 36, "y" * 36], 0, []),
     ["destinationList entry 1 is not the text of a UUID"]),
    (frame(34, record("II", 4, 1) + UUID.upper().ljust(94720, b"\0")),
     {"exclusionMode": 4, "exclusionCount": 1, "exclusionList": [UUID_TEXT.upper()]},
     ["exclusionMode is 4, which has no meaning"]),
    (frame(34, record("II", 0, 9) + b"\0" * 94720), {"exclusionMode": 0, "exclusionCount": 9, "exclusionList": []},
     ["exclusionCount is 9, but exclusionList has space for 0"]),
    (frame(34, record("II", 0, 0) + b"\0" * 94719 + b"x"),
     {"exclusionMode": 0, "exclusionCount": 0, "exclusionList": []},
     ["what follows exclusionList is not zero at payload byte 94727"]),
]


@pytest.mark.parametrize("number", range(len(CONTENTS)))
def test_contents(number):
    """A whole request is answered, even if its fields are invalid."""
    request, fields, violations = CONTENTS[number]
    with Standin() as plaxd:
        plaxd.exchange(request)
    line = plaxd.entries[0]
    assert (line["fields"], line["violations"], line["outcome"]) == (fields, violations, "answered")


# Request, warnings. These requests do not break the protocol.
WARNINGS = [
    (frame(2, UUID), []),
    (frame(2, ZERO.encode()), ["uuid is all zeros"]),
    (frame(2, b"01234567-89ab-cdef-0000-000000000000"), ["uuid ends in zeros, as if it were cut off"]),
    (frame(2, b"01234567-89ab-cdef-0123-45670000000a"), []),
    (frame(2, b"01234567-89ab-cdef-0123-456700000000"), ["uuid ends in zeros, as if it were cut off"]),
    (frame(2, b"01234567-89ab-cdef-0123-456780000000"), []),
    (frame(15, ZERO.encode()), []),
    (frame(15, b"01234567-89ab-cdef-0000-000000000000"), ["uuid ends in zeros, as if it were cut off"]),
    (frame(4, b'{"a": [1]}\0'), []),
    (frame(4, b'{"a": [1}\0'), ["json is not JSON"]),
    (frame(4, b"\0"), ["json is not JSON"]),
    (frame(7, b"2"), []),
    (frame(7), ["level is empty"]),
    (frame(7, b"plax-tool"), ["level is the name of the program"]),
    (frame(7, b"/usr/sbin/plax-tool"), ["level is the name of the program"]),
    (frame(7, b"plax-tool2"), []),
    *[(frame(10, record("QdQQ", 1, variance, 1, 1)), warnings) for warnings, variances in [
        ([], (0.0, 0.5, 1.0)),
        (["varianceThreshold is not from 0 to 1"], (-0.1, 1.1, float("inf"), float("-inf"), float("nan")))]
      for variance in variances],
    (frame(16, RAW_UUID + record("I", 2) + b"\1\0\0\0"), []),
    (frame(16, bytes(16) + record("I", 3) + b"\1\0\0\0"),
     ["uuid is all zeros", "decomMode is 3, which has no meaning"]),
    (frame(17, bytes(16) + record("IIII", 2, 3, 0, 1) + UUID + b"\0"), []),
    (frame(17, RAW_UUID[:12] + bytes(4) + record("IIII", 3, 4, 0, 2) + UUID + b"," + ZERO.encode() + b"\0"),
     ["uuid ends in zeros, as if it were cut off", "decomMode is 3, which has no meaning",
      "reason is 4, which has no meaning", "uuidList entry 2 is all zeros"]),
    (frame(19, RAW_UUID + b"/f\0"), []),
    (frame(19, bytes(16) + b"\0"), ["uuid is all zeros", "filePath is empty"]),
    (frame(20, b"/f\0"), []),
    (frame(20, b"f\0"), ["filePath is relative, and the daemon's directory is not the client's"]),
    (frame(21, b"\0"), ["filePath is empty"]),
    (frame(22, UUID + b"0\0\0\0\0"), []),
    (frame(22, ZERO.encode() + b"7\0\0\0\0"), []),
    (frame(22, ZERO.encode() + b"0\0\0\0\0"), ["uuid is all zeros"]),
    (frame(26, UUID + b"0\0\0\0\0"), []),
    (frame(26, ZERO.encode() + b"1\0\0\0\0"), []),
    (frame(26, ZERO.encode() + b"0\0\0\0\0"), ["uuid is all zeros"]),
    (frame(31, (b"1:2:" + UUID).ljust(1024, b"\0")), []),
    (frame(31, (b"0:2:" + UUID).ljust(1024, b"\0")), ["event is 0: no word for it was given"]),
    (frame(31, (b"1:0:" + ZERO.encode()).ljust(1024, b"\0")),
     ["entry is 0: no word for it was given", "uuid is all zeros"]),
    (move(1, UUID, 0, b""), []),
    (frame(33, bytes(16) + record("II", 1, 1) + ZERO.encode().ljust(94720, b"\0") + UUID.ljust(94720, b"\0")),
     ["uuid is all zeros", "destinationList entry 1 is all zeros"]),
    (frame(34, record("II", 3, 0) + bytes(94720)), []),
]


def test_warnings():
    with Standin("--strict") as plaxd:
        for request, _ in WARNINGS:
            plaxd.exchange(request)
    assert [(line["violations"], line["warnings"]) for line in plaxd.entries] == [
        ([], warnings) for _, warnings in WARNINGS]
    assert (plaxd.code, plaxd.summary["broken"], plaxd.summary["warned"]) == (
        0, 0, sum(warnings != [] for _, warnings in WARNINGS))


FINE, WARNED, BROKEN = frame(7, b"2"), frame(7), frame(7, b"\0")


@pytest.mark.parametrize("strict, failed_by", [
    ([], []), (["--strict"], [BROKEN]), (["--strict=violations"], [BROKEN]), (["--strict=warnings"], [WARNED, BROKEN])])
def test_strictness(strict, failed_by):
    for request in (FINE, WARNED, BROKEN):
        with Standin(*strict) as plaxd:
            plaxd.exchange(request)
        code, _, _ = run_standin("decode", *strict, "-", stdin=request)
        assert (plaxd.code, code) == (int(request in failed_by),) * 2


def test_both_as_text():
    assert run_standin("decode", "-", stdin=frame(17, bytes(16) + record("IIII", 9, 8, 0, 3) + b"\0")) == (
        0, f"what-if-upgrade 17 uuid={ZERO} decomMode=9 reason=8 wipeDisk=0 uuidCount=3 uuidList=[] "
           "| BROKEN: uuidCount is 3, but uuidList has space for 0 "
           "| WARNING: decomMode is 9, which has no meaning; reason is 8, which has no meaning\n".encode(), b"")


def test_nobody_asks():
    """A connection that sends no byte is not a request."""
    with Standin("--strict") as plaxd:
        plaxd.connect().close()
    assert (plaxd.entries, plaxd.code, plaxd.summary) == (
        [], 0, {"requests": 0, "broken": 0, "warned": 0, "commands": {}})


def test_client_vanishes_before_its_answer():
    with Standin().answers({"fix-concats": {"delayMs": 300}}) as plaxd:
        with plaxd.connect() as connection:
            connection.sendall(frame(13))
    assert plaxd.entries == [entry("fix-concats", 13, 0, reply={"headerBytes": 0}, outcome="unfinished")]


def test_client_leaves_its_answer_unread():
    with Standin() as plaxd:
        with plaxd.connect() as connection:
            connection.sendall(frame(3))
            assert eventually(lambda: queued(connection, termios.FIONREAD) == 50)
    assert plaxd.entries == [entry("fitness-config-get", 3, 0, reply=framed(42), ending="client reset")]
