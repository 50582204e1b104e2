"""Connecting: addresses of full size, and listeners that accept late or never."""

import ctypes
import fcntl
import os
import socket
import struct
import tempfile

import pytest

from connecting import fill_backlog, listening
from harness import Outcome, ScriptedDaemon, await_state, finish_tool, frame, reply, start_tool, stop_and_continue, tool

PRINTED = ("info-proactive-rebalance",)
REFUSED = Outcome(b"", b"connect error: Connection refused\n", 1)


# ---- Addresses ----

@pytest.fixture(name="nameless")
def make_nameless_address():
    """The abstract address of 108 zero bytes. The machine has only one, so one test at a time uses it."""
    directory = os.open(tempfile.gettempdir(), os.O_RDONLY)
    fcntl.flock(directory, fcntl.LOCK_EX)
    yield bytes(108)
    os.close(directory)


def test_path_that_is_not_a_socket(tmp_path):
    assert tool("-s", str(tmp_path), *PRINTED) == REFUSED
    file = tmp_path / "file"
    file.touch()
    assert tool("-s", str(file), *PRINTED) == REFUSED


def test_empty_path_is_an_address_of_zero_bytes(nameless):
    assert tool("-s", "", *PRINTED) == REFUSED
    with ScriptedDaemon(reply(0, b"abc"), path=nameless) as plaxd:
        assert tool("-s", "", *PRINTED) == Outcome(b"abc\n", b"", 0)
    assert plaxd.received == frame(12)


def bind_without_terminator(listener, path):
    """Binds to a path that fills the address's 108 bytes. Python's socket module refuses such paths."""
    address = struct.pack("H108s", socket.AF_UNIX, path)
    if ctypes.CDLL(None, use_errno=True).bind(listener.fileno(), address, len(address)) != 0:
        raise OSError(ctypes.get_errno(), "cannot bind")


def test_path_of_108_characters_is_not_reached():
    """The last byte of the tool's address is always zero, so this path cannot be named."""
    with tempfile.TemporaryDirectory(prefix="plaxd-") as directory, socket.socket(socket.AF_UNIX) as listener:
        name = "p" * (107 - len(directory))
        path = f"{directory}/{name}"
        bind_without_terminator(listener, os.fsencode(path))
        listener.listen()
        assert (len(path), os.listdir(directory)) == (108, [name])
        assert tool("-s", path, *PRINTED) == Outcome(b"", b"connect error: No such file or directory\n", 1)


# ---- Listeners that are slow, or end ----

@pytest.mark.parametrize("words, outcome", [
    (PRINTED, Outcome(b"", b"Error received: Connection reset by peer: (null)\n", 104)),
    (("fix-concats",), Outcome(b"", b"Error received: Connection reset by peer: (null)\n", 104)),
    (("stats",), Outcome(b"", b"", 104)),
], ids=["printed", "checked", "streamed"])
def test_listener_that_closes_with_the_tool_in_its_backlog(words, outcome):
    with listening(backlog=16) as (listener, path):
        process = start_tool("-s", path, *words)
        await_state(process.pid, "S")
        listener.close()
        assert finish_tool(process) == outcome


def test_interrupted_connecting_goes_on():
    with listening(backlog=0) as (listener, path), fill_backlog(path) as waiting:
        process = start_tool("-s", path, *PRINTED)
        stop_and_continue(process.pid)
        await_state(process.pid, "S")
        for _ in waiting:
            listener.accept()[0].close()
        with listener.accept()[0] as connection:
            connection.sendall(frame(0, b"abc"))
            assert finish_tool(process) == Outcome(b"abc\n", b"", 0)


def test_unanswered_command_ends_in_the_backlog():
    with listening(backlog=16) as (_, path):
        assert tool("-s", path, "refresh-config-opts") == Outcome(b"", b"", 0)


def test_listener_that_closes_before_there_is_space_in_its_backlog():
    with listening(backlog=0) as (listener, path), fill_backlog(path):
        process = start_tool("-s", path, *PRINTED)
        await_state(process.pid, "S")
        listener.close()
        assert finish_tool(process) == REFUSED
