"""After a request without a reply, the run ends without reading, writing or waiting."""

import socket
import time

import pytest

from harness import Outcome, ScriptedDaemon, read, reply, send, stay_silent, tool
from preloading import needs_preloading, preloaded
from request_table import UNANSWERED, name, rows_of

each_unanswered = pytest.mark.parametrize("command", rows_of(UNANSWERED), ids=name)
ENDED = Outcome(b"", b"", 0)


def say_no_more(daemon):
    daemon.connection.shutdown(socket.SHUT_WR)


def expect_reset(daemon):
    """If the tool ends with bytes unread, the daemon sees a reset."""
    try:
        daemon.connection.recv(1)
    except ConnectionResetError:
        daemon.connection.close()
    else:
        raise AssertionError("the tool has read the answer")


@needs_preloading
@each_unanswered
@pytest.mark.parametrize("answer", [reply(0), reply(5, b"busy"), send(b"text"), send(b"x")],
                         ids=["success", "error", "text", "single-byte"])
def test_answer_that_is_there_before_the_request_stays_unread(command, answer):
    request = command.least_request()
    with ScriptedDaemon(answer, say_no_more, read(len(request)), expect_reset, read_request=False) as plaxd:
        run = tool("-s", plaxd.path, *command.least, env=preloaded(PLAX_HANGUP_BEFORE_SEND="1"))
    assert (run, plaxd.received) == (ENDED, request)


@each_unanswered
def test_silence_is_not_waited_for(command):
    with ScriptedDaemon(stay_silent()) as plaxd:
        started = time.monotonic()
        assert tool("-s", plaxd.path, *command.least) == ENDED
    assert time.monotonic() - started < 10


@each_unanswered
def test_output_file_is_not_touched(command, tmp_path):
    kept, absent = tmp_path / "kept", tmp_path / "absent"
    kept.write_bytes(b"as it was")
    for path in (kept, absent):
        with ScriptedDaemon() as plaxd:
            assert tool("-s", plaxd.path, *command.least, "-o", path) == ENDED
    assert (kept.read_bytes(), absent.exists()) == (b"as it was", False)
