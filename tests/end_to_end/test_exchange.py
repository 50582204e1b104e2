"""Framed replies, and commands without a reply: output, messages and exit status."""

import os
import signal
import socket
import struct

import pytest

from command_line import INCOMPLETE, UUID, converse
from harness import LONG_BITS, Outcome, ScriptedDaemon, await_unread, close, finish_tool, pause, read, reply, send, \
    send_bytewise, send_in_pieces, start_tool, stay_silent, tool
from request_table import CHECKED, PRINTED, ROWS, UNANSWERED, name, rows_of

RESET = b"Error received: Connection reset by peer: (null)\n"

each_printed = pytest.mark.parametrize("command", rows_of(PRINTED), ids=name)
each_framed = pytest.mark.parametrize("command", rows_of(PRINTED, CHECKED), ids=name)
each_unanswered = pytest.mark.parametrize("command", rows_of(UNANSWERED), ids=name)
each_command = pytest.mark.parametrize("command", ROWS, ids=name)


# malloc fills memory with garbage, so a byte shown without having been written is noticed.
RUBBISH = {"MALLOC_PERTURB_": "85"}


def outcome_of(*steps, words=("info-proactive-rebalance",), env=RUBBISH, **options):
    """Runs the tool against a daemon that does these steps."""
    return converse(*steps, words=words, env=env, **options)[0]


# ---- Every command, by reply class ----

@each_printed
def test_printed_reply_leaves_the_output_file_alone(command, tmp_path):
    kept, absent = tmp_path / "kept", tmp_path / "absent"
    kept.write_bytes(b"as it was")
    for path in (kept, absent):
        assert outcome_of(reply(0, b"abc"), words=(*command.least, "-o", path)) == Outcome(b"abc\n", b"", 0)
    assert (kept.read_bytes(), absent.exists()) == (b"as it was", False)


@each_unanswered
def test_unanswered_command_ends_once_it_is_sent(command):
    with ScriptedDaemon(stay_silent()) as plaxd:
        run = tool("-s", plaxd.path, *command.least)
    assert run == Outcome(b"", b"", 0)
    assert plaxd.received == command.least_request()


@each_unanswered
def test_unanswered_command_ignores_an_answer(command):
    answered_at_once = ScriptedDaemon(reply(5, b"busy"), read_request=False, may_break=True)
    with answered_at_once as plaxd:
        assert tool("-s", plaxd.path, *command.least) == Outcome(b"", b"", 0)


@each_framed
def test_closing_without_an_answer_reads_as_success(command):
    with ScriptedDaemon(close()) as plaxd:
        run = tool("-s", plaxd.path, *command.least)
    assert run == Outcome(b"\n" if command.reply == PRINTED else b"", b"", 0)
    assert plaxd.received == command.least_request()


@each_framed
def test_resetting_without_an_answer(command):
    whole = len(command.least_request())
    with ScriptedDaemon(await_unread(whole), close(), read_request=False) as plaxd:
        assert tool("-s", plaxd.path, *command.least) == Outcome(b"", RESET, 104)


@each_framed
def test_incomplete_payload_is_reported_and_reads_as_success(command):
    run = outcome_of(send(b"\0\0\0\0\0\0\x03\xe8" + b"0123456789"), words=command.least)
    assert run == Outcome(b"\n" if command.reply == PRINTED else b"", INCOMPLETE, 0)


# ---- Statuses and their texts ----

@pytest.mark.parametrize("status, text, code", [
    (0x00000001, b"Status 0x00000001", 0x01),
    (0x000000ff, b"Status 0x000000ff", 0xff),
    (0x00000100, b"Status 0x00000100", 0x00),  # the exit status has 8 bits
    (0x01020304, b"Status 0x01020304", 0x04),
    (0x0bad0000, b"Status 0x0bad0000", 0x00),
    (0x0bad0001, b"Failure", 0x01),
    (0x0bad0002, b"Status 0x0bad0002", 0x02),
    (0x2bad0000, b"Status 0x2bad0000", 0x00),
    (0x2bad0001, b"Operation not permitted", 0x01),
    (0x2bad0002, b"No such file or directory", 0x02),
    (0x2bad000b, b"Resource temporarily unavailable", 0x0b),
    (0x2bad001c, b"No space left on device", 0x1c),
    (0x2bad0068, b"Connection reset by peer", 0x68),
    (0x2bad0085, b"Memory page has hardware error", 0x85),
    (0x2bad0fff, b"Unknown error 4095", 0xff),
    (0x2bad1000, b"Status 0x2bad1000", 0x00),
    (0x7fffffff, b"Status 0x7fffffff", 0xff),
    (0x80000000, b"Status 0x80000000", 0x00),
    (0xffffffff, b"Status 0xffffffff", 0xff),
])
def test_status_of_the_daemon_is_shown_and_becomes_the_exit_status(status, text, code):
    run = outcome_of(send(struct.pack(">II", status, 4) + b"busy"))
    assert run == Outcome(b"", b"Error received: " + text + b": busy\n", code)


def size_and_start(value):
    return f"{len(value)}-bytes-from-{value[:2].hex()}"


@pytest.mark.parametrize("payload, shown", [
    (b"busy", b"busy"),
    (b"busy\0", b"busy"),
    (b"busy\0 and more", b"busy"),
    (b"\0busy", b""),
    (b"\0", b""),
    (b"two\nlines\n", b"two\nlines\n"),
    (b"100 % %s %n %d", b"100 % %s %n %d"),
    (b"\xff\xfe\x80\x01\x7f", b"\xff\xfe\x80\x01\x7f"),
    (b"x" * 70000, b"x" * 70000),
], ids=size_and_start)
def test_error_payload_is_read_as_a_text(payload, shown):
    assert outcome_of(reply(5, payload)) == Outcome(b"", b"Error received: Status 0x00000005: " + shown + b"\n", 5)


# ---- Payloads, unchanged ----

@pytest.mark.parametrize("payload", [
    b"\0", b"\0\0\0", b"a\0b", b"\0abc\0", b"\n", b"abc\n", b"%s%n", bytes(range(256)), bytes(range(256)) * 4096,
    b"\0" * 100000,
], ids=size_and_start)
def test_printed_payload_is_unchanged(payload):
    assert outcome_of(reply(0, payload)) == Outcome(payload + b"\n", b"", 0)


@pytest.mark.parametrize("payload", [b"", b"abc", b"x" * 5000], ids=size_and_start)
def test_printed_payload_is_one_write_and_the_newline_another(payload):
    ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_DGRAM)
    with ours, theirs, ScriptedDaemon(reply(0, payload)) as plaxd:
        run = tool("-s", plaxd.path, "info-proactive-rebalance", stdout=theirs)
        ours.settimeout(10)
        assert run == Outcome(None, b"", 0)
        assert [ours.recv(10000) for _ in range(2)] == [payload, b"\n"]
        ours.setblocking(False)
        with pytest.raises(BlockingIOError):
            ours.recv(1)


# ---- Replies in pieces, cut, too long, or with a wrong length ----

def failed(text, code):
    return Outcome(b"", b"Error received: Status 0x" + text + b": (null)\n", code)


EMPTY_LINE = Outcome(b"\n", b"", 0)
EMPTY_LINE_AND_WARNING = Outcome(b"\n", INCOMPLETE, 0)


@pytest.mark.parametrize("cut, outcome", [
    *[(cut, EMPTY_LINE) for cut in range(8)],
    *[(cut, EMPTY_LINE_AND_WARNING) for cut in range(8, 12)],
    (12, Outcome(b"abcd\n", b"", 0)),
])
def test_reply_cut_at_every_byte(cut, outcome):
    assert outcome_of(send(b"\0\0\0\0\0\0\0\4abcd"[:cut])) == outcome


@pytest.mark.parametrize("cut, outcome", [
    (0, EMPTY_LINE),
    (1, failed(b"05000000", 0)),
    (2, failed(b"05060000", 0)),
    (3, failed(b"05060700", 0)),
    (4, failed(b"05060708", 8)),
    (5, failed(b"05060708", 8)),
    (6, failed(b"05060708", 8)),
    *[(cut, EMPTY_LINE_AND_WARNING) for cut in range(7, 18)],  # the length reads as 256 at 7 bytes, 258 at 8
])
def test_error_reply_cut_at_every_byte(cut, outcome):
    assert outcome_of(send(b"\5\6\7\x08\0\0\1\2busybusybu"[:cut])) == outcome


@pytest.mark.parametrize("cut", range(12))
def test_checked_reply_cut_at_every_byte(cut):
    run = outcome_of(send(b"\0\0\0\0\0\0\0\4abcd"[:cut]), words=("fix-concats",))
    assert run == Outcome(b"", INCOMPLETE if cut >= 8 else b"", 0)


@pytest.mark.parametrize("status, outcome", [
    (b"\0\0\0\0", Outcome(b"abcdefgh\n", b"", 0)),
    (b"\0\0\0\7", Outcome(b"", b"Error received: Status 0x00000007: abcdefgh\n", 7)),
])
@pytest.mark.parametrize("size", [1, 3, 5, 7, 8, 9, 15])
def test_reply_in_pieces(size, status, outcome):
    assert outcome_of(send_in_pieces(status + b"\0\0\0\x08abcdefgh", size, 0.01)) == outcome


def test_long_reply_in_single_bytes():
    payload = bytes(range(256)) * 4
    assert outcome_of(send_bytewise(struct.pack(">II", 0, 1024) + payload)) == Outcome(payload + b"\n", b"", 0)


def test_pause_between_header_and_payload():
    assert outcome_of(send(b"\0\0\0\0\0\0\0\4"), pause(0.3), send(b"abcd")) == Outcome(b"abcd\n", b"", 0)


def test_reply_may_come_before_the_request_is_read():
    with ScriptedDaemon(reply(0, b"abc"), read_request=False) as plaxd:
        run = tool("-s", plaxd.path, "info-proactive-rebalance")
    assert run == Outcome(b"abc\n", b"", 0)
    assert plaxd.received == b"\0\0\0\x0c\0\0\0\0"


@pytest.mark.parametrize("answer, outcome", [
    (b"\0\0\0\0\0\0\0\4abcdefgh", Outcome(b"abcd\n", b"", 0)),
    (b"\0\0\0\0\0\0\0\0abcdefgh", EMPTY_LINE),
    (b"\0\0\0\0\0\0\0\4abcd\0\0\0\5\0\0\0\0", Outcome(b"abcd\n", b"", 0)),
    (b"\0\0\0\x05\0\0\0\4busy and more", Outcome(b"", b"Error received: Status 0x00000005: busy\n", 5)),
    (b"\0\0\0\x05\0\0\0\0busy", failed(b"00000005", 5)),
])
def test_answer_that_is_too_long(answer, outcome):
    assert outcome_of(send(answer)) == outcome


def unless_too_long(length, outcome):
    """On hosts with 32-bit addresses, the longest payloads cannot be allocated."""
    if LONG_BITS == 32 and length >= 0x7fffffff:
        return Outcome(b"", b"PLAX_SafeMalloc:2888: Failed to allocate new memory\n", -signal.SIGABRT)
    return outcome


@pytest.mark.parametrize("length", [11, 12, 0x7fffffff, 0x80000000, 0xfffffffe, 0xffffffff])
@pytest.mark.parametrize("status", [0, 5])
def test_length_above_the_payload(status, length):
    # Without MALLOC_PERTURB_, which would fill gigabytes first.
    run = outcome_of(send(struct.pack(">II", status, length) + b"0123456789"), env={})
    assert run == unless_too_long(length, EMPTY_LINE_AND_WARNING)


@pytest.mark.parametrize("status", [0, 5])
def test_length_without_any_payload(status):
    run = outcome_of(send(struct.pack(">II", status, 0xffffffff)), env={})
    assert run == unless_too_long(0xffffffff, EMPTY_LINE_AND_WARNING)


def test_very_long_payload():
    payload = bytes(range(256)) * ((1 << 18) + 1)
    run = outcome_of(reply(0, payload), env={})
    assert (len(run.stdout), run.stdout == payload + b"\n", run.stderr, run.code) == (len(payload) + 1, True, b"", 0)


# A failed receive reads as a whole payload, so the test needs to send no bytes of it.
@pytest.mark.parametrize("length", [0x4000001, 0x10000000, 0x40000000, 0x7fffffff, 0x80000000, 0xfffffffe, 0xffffffff])
def test_no_length_is_too_long(length):
    steps = (await_unread(8), send(struct.pack(">II", 7, length)), close())
    run = outcome_of(*steps, read_request=False, env={})
    assert run == unless_too_long(length, Outcome(b"", b"Error received: Status 0x00000007: \n", 7))


@pytest.mark.parametrize("status, outcome", [
    (b"\0\0\0\0", Outcome(b"\0\0\0\0\0\n", b"", 0)),
    (b"\0\0\0\5", Outcome(b"", b"Error received: Status 0x00000005: \n", 5)),
])
def test_failed_payload_receive_reads_as_zeros(status, outcome):
    whole_header_then_reset = (await_unread(8), send(status + b"\0\0\0\5"), close())
    assert outcome_of(*whole_header_then_reset, read_request=False) == outcome


def test_reset_within_the_payload_reads_as_incomplete():
    steps = (await_unread(8), send(b"\0\0\0\0\0\0\0\5ab"), close())
    assert outcome_of(*steps, read_request=False) == EMPTY_LINE_AND_WARNING


def test_reset_within_the_header_reads_as_zeros():
    steps = (await_unread(8), send(b"\0\0\0\7"), close())
    assert outcome_of(*steps, read_request=False) == failed(b"00000007", 7)


def test_request_that_is_half_read_before_a_reset():
    assert outcome_of(read(5), await_unread(3), close(), read_request=False) == Outcome(b"", RESET, 104)


# ---- The socket path ----

def padded_path(directory, length):
    """A path of this length below the directory. Creates the directories in between."""
    path = str(directory)
    while length - len(path) > 100:
        path += "/" + "d" * 50
    os.makedirs(path, exist_ok=True)
    return path + "/" + "p" * (length - len(path) - 1)


@pytest.fixture(name="short_directory")
def make_directory_with_a_short_path(tmp_path_factory):
    directory = os.path.join("/tmp", f"plax-{os.getpid()}")
    os.makedirs(directory, exist_ok=True)
    yield directory
    for path, directories, files in os.walk(directory, topdown=False):
        for file in files:
            os.unlink(os.path.join(path, file))
        os.rmdir(path)


@pytest.mark.parametrize("length", [106, 107])
def test_path_that_fits(short_directory, length):
    path = padded_path(short_directory, length)
    with ScriptedDaemon(reply(0, b"abc"), path=path) as plaxd:
        assert tool("-s", path, "info-proactive-rebalance") == Outcome(b"abc\n", b"", 0)
    assert (len(path), plaxd.received) == (length, b"\0\0\0\x0c\0\0\0\0")


@pytest.mark.parametrize("length", [108, 109, 110, 111, 120, 5000])
def test_longer_path_is_cut_to_107_characters(short_directory, length):
    path = padded_path(short_directory, 107)
    with ScriptedDaemon(reply(0, b"abc"), path=path) as plaxd:
        run = tool("-s", path + "x" * (length - 107), "info-proactive-rebalance")
    assert run == Outcome(b"abc\n", b"", 0)
    assert plaxd.received == b"\0\0\0\x0c\0\0\0\0"


def test_path_is_not_cut_below_107_characters(short_directory):
    path = padded_path(short_directory, 107)
    with ScriptedDaemon(connections=0, path=path[:106]):
        assert tool("-s", path, "stats") == Outcome(b"", b"connect error: No such file or directory\n", 1)


@each_command
def test_absent_daemon(command, tmp_path):
    run = tool("-s", tmp_path / "absent", *command.least)
    assert run == Outcome(b"", b"connect error: No such file or directory\n", 1)


def make_file(directory):
    (directory / "file").write_bytes(b"no socket")
    return directory / "file"


def make_stale_socket(directory):
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listener:
        listener.bind(str(directory / "stale"))
        listener.listen()
    return directory / "stale"


@pytest.mark.parametrize("make_path, reason", [
    (make_file, b"Connection refused"),
    (make_stale_socket, b"Connection refused"),
    (lambda directory: directory, b"Connection refused"),
    (lambda directory: directory / "no-directory" / "plaxd.uds", b"No such file or directory"),
    (lambda directory: make_file(directory) / "plaxd.uds", b"Not a directory"),
], ids=["file", "stale-socket", "directory", "absent-directory", "below-a-file"])
def test_path_that_leads_to_no_daemon(make_path, reason, tmp_path):
    run = tool("-s", make_path(tmp_path), "info-proactive-rebalance")
    assert run == Outcome(b"", b"connect error: " + reason + b"\n", 1)


def test_datagram_socket_is_refused(tmp_path):
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as receiver:
        receiver.bind(str(tmp_path / "datagrams"))
        run = tool("-s", tmp_path / "datagrams", "stats")
    assert run == Outcome(b"", b"connect error: Protocol wrong type for socket\n", 1)


def test_last_socket_path_counts(tmp_path):
    with ScriptedDaemon(reply(0, b"abc")) as plaxd:
        run = tool("-s", tmp_path / "absent", "info-proactive-rebalance", "-s", plaxd.path)
    assert run == Outcome(b"abc\n", b"", 0)


# ---- What a run passes on ----

def test_runs_beside_each_other_do_not_meet():
    with ScriptedDaemon(pause(0.3), reply(0, b"first")) as first, ScriptedDaemon(reply(0, b"second")) as second:
        earlier = start_tool("-s", first.path, "info-proactive-rebalance")
        later = tool("-s", second.path, "fitness-stats-get")
        assert (finish_tool(earlier), later) == (Outcome(b"first\n", b"", 0), Outcome(b"second\n", b"", 0))


def test_other_objects_crawler_state_is_printed_for_a_uuid(tmp_path):
    output = tmp_path / "out"
    run = outcome_of(reply(0, b"state"), words=("get-obj-crawler-state", "-u", UUID, "-o", output))
    assert (run, output.exists()) == (Outcome(b"state\n", b"", 0), False)


def test_crawler_state_of_all_objects_goes_to_the_output_file(tmp_path):
    output = tmp_path / "out"
    run = outcome_of(send(b"states"), words=("get-obj-crawler-state", "-u", UUID, "-a", "-o", output))
    assert (run, output.read_bytes()) == (Outcome(b"", b"", 0), b"states")
