"""Makes every check of the harness fail once.

A socket of the test replaces the tool, so that it can misbehave.
"""

import socket
import subprocess
import sys
import threading
import time

import pytest

import harness
from harness import Outcome, ScriptedDaemon, await_taken, await_unread, close, collect, eventually, frame, pause, \
    read, reply, send, send_bytewise, send_in_pieces, stay_silent, tool, wait_for


@pytest.fixture(name="impatient")
def make_harness_impatient(monkeypatch):
    monkeypatch.setattr(harness, "PATIENCE", 0.2)


def connect(plaxd):
    peer = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    peer.connect(plaxd.path)
    return peer


def exchange(plaxd, request, answer_length):
    """Sends the request, returns the answer, and closes the connection."""
    with connect(plaxd) as peer:
        peer.sendall(request)
        return b"".join(iter(lambda: peer.recv(answer_length), b""))


def run_python(program, **options):
    return subprocess.Popen([sys.executable, "-c", program], stdout=subprocess.PIPE, stderr=subprocess.PIPE, **options)


def test_request_and_reply_are_recorded_and_given():
    with ScriptedDaemon(reply(5, b"busy")) as plaxd:
        answer = exchange(plaxd, b"\0\0\0\x12\0\0\0\x03abc", 100)
    assert answer == b"\0\0\0\x05\0\0\0\x04busy"
    assert plaxd.received == b"\0\0\0\x12\0\0\0\x03abc"


def test_bytes_beyond_the_request_are_recorded():
    with ScriptedDaemon() as plaxd:
        exchange(plaxd, b"\0\0\0\x12\0\0\0\x00more", 100)
    assert plaxd.received == b"\0\0\0\x12\0\0\0\x00more"


def test_frame_is_in_network_order():
    assert frame(0x01020304, b"ab") == b"\1\2\3\4\0\0\0\2ab"


def test_missing_connection_fails():
    with pytest.raises(AssertionError):
        with ScriptedDaemon():
            pass


def test_unexpected_connection_fails():
    with pytest.raises(AssertionError):
        with ScriptedDaemon(connections=0) as plaxd:
            connect(plaxd).close()


def test_second_connection_fails():
    with pytest.raises(AssertionError):
        with ScriptedDaemon() as plaxd:
            exchange(plaxd, frame(1), 1)
            connect(plaxd).close()


def test_request_that_is_not_finished_fails():
    with pytest.raises(EOFError):
        with ScriptedDaemon() as plaxd:
            with connect(plaxd) as peer:
                peer.sendall(b"\0\0\0\1\0\0\0\2x")


def test_failed_step_fails():
    with pytest.raises(BrokenPipeError):
        with ScriptedDaemon(pause(0.2), send(b"x")) as plaxd:
            with connect(plaxd) as peer:
                peer.sendall(frame(1))


def test_failed_step_may_be_expected():
    with ScriptedDaemon(pause(0.2), send(b"x"), may_break=True) as plaxd:
        with connect(plaxd) as peer:
            peer.sendall(frame(1))
    assert isinstance(plaxd.error, BrokenPipeError)


def test_event_that_is_never_set_fails(impatient):
    with pytest.raises(TimeoutError):
        with ScriptedDaemon(wait_for(threading.Event())) as plaxd:
            exchange(plaxd, frame(1), 1)


def test_request_that_never_comes_fails(impatient):
    with pytest.raises(TimeoutError):
        with ScriptedDaemon(await_unread(9), read_request=False) as plaxd:
            with connect(plaxd) as peer:
                peer.sendall(frame(1))
                eventually(lambda: plaxd.error)


def test_answer_that_is_never_taken_fails(impatient):
    with pytest.raises(TimeoutError):
        with ScriptedDaemon(send(b"x"), await_taken()) as plaxd:
            with connect(plaxd) as peer:
                peer.sendall(frame(1))
                eventually(lambda: plaxd.error)


def test_bytes_after_a_wait_are_read_separately():
    with ScriptedDaemon(send(b"a"), await_taken(), send(b"b")) as plaxd:
        with connect(plaxd) as peer:
            peer.sendall(frame(1))
            assert [peer.recv(100), peer.recv(100)] == [b"a", b"b"]


def test_connection_that_is_never_closed_fails(impatient):
    with pytest.raises(AssertionError, match="never closed its connection"):
        with ScriptedDaemon(stay_silent()) as plaxd:
            peer = connect(plaxd)
            peer.sendall(frame(1))
    peer.close()


def test_error_of_the_test_itself_is_kept():
    with pytest.raises(ZeroDivisionError):
        with ScriptedDaemon():
            raise ZeroDivisionError


def test_tool_that_does_not_end_fails_and_is_killed(impatient):
    process = run_python("import time; time.sleep(60)")
    with pytest.raises(subprocess.TimeoutExpired):
        harness.finish_tool(process)
    assert process.returncode == -9


def test_outcomes_differ_in_each_part():
    same = Outcome(b"a", b"b", 1)
    assert same == Outcome(b"a", b"b", 1)
    assert same not in (Outcome(b"", b"b", 1), Outcome(b"a", b"", 1), Outcome(b"a", b"b", 0))


def test_exit_code_and_both_outputs_are_those_of_the_tool():
    process = run_python("import sys; sys.stdout.write('o'); sys.stderr.write('e'); sys.exit(7)")
    assert harness.finish_tool(process) == Outcome(b"o", b"e", 7)


def test_environment_of_the_tool_is_plain(monkeypatch):
    monkeypatch.setenv("POSIXLY_CORRECT", "1")
    monkeypatch.setenv("LC_ALL", "de_DE.UTF-8")
    kept = harness.environment(EXTRA="x")
    assert ("POSIXLY_CORRECT" in kept, "LC_ALL" in kept, kept["LANG"], kept["EXTRA"]) == (False, False, "C", "x")


def test_collect_returns_the_bytes_in_time():
    process = run_python("import os, time; os.write(1, b'abc'); time.sleep(0.5); os.write(1, b'def')")
    assert collect(process.stdout, 2) == b"ab"
    assert collect(process.stdout, 4, patience=0.1) == b"c"
    assert collect(process.stdout, 100) == b"def"  # the pipe ended
    harness.finish_tool(process)


def test_eventually_gives_up():
    assert eventually(lambda: True)
    assert not eventually(lambda: False, patience=0.05)


def test_pieces_are_sent_apart():
    with ScriptedDaemon(send_in_pieces(b"abcde", 2, 0.2)) as plaxd:
        with connect(plaxd) as peer:
            peer.sendall(frame(1))
            started = time.monotonic()
            assert [peer.recv(100) for _ in range(4)] == [b"ab", b"cd", b"e", b""]
    assert time.monotonic() - started >= 0.6


def test_bytewise_sends_everything():
    with ScriptedDaemon(send_bytewise(b"abc")) as plaxd:
        assert exchange(plaxd, frame(1), 100) == b"abc"


def test_unread_request_resets_the_connection():
    with ScriptedDaemon(await_unread(8), close(), read_request=False) as plaxd:
        with connect(plaxd) as peer:
            peer.sendall(frame(1))
            with pytest.raises(ConnectionResetError):
                peer.recv(1)
    assert plaxd.received == b""


def test_read_takes_no_more_than_asked():
    with ScriptedDaemon(read(3), close(), read_request=False) as plaxd:
        with connect(plaxd) as peer:
            peer.sendall(frame(1))
            with pytest.raises(ConnectionResetError):
                peer.recv(1)
    assert plaxd.received == b"\0\0\0"


def test_tool_is_the_one_under_test():
    run = tool("no-such-command", stdout=subprocess.DEVNULL)
    assert run == Outcome(None, b"Unrecognized command: no-such-command\n", 1)
