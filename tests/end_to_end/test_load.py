"""Many runs at once, and streams far larger than the tool's memory. Every answer is checked.

The runs share one stand-in daemon, or a daemon of the test that keeps 500 of them waiting.
"""

import os
import re
import resource
import socket
import struct
import threading
import time
from collections import deque

import pytest

from harness import RUNNER, Outcome, ScriptedDaemon, finish_tool, start_tool, tool, wait_for
from standin_process import Standin

RUNS = 10_000
AT_ONCE = 64
LATE_RUNS = 500
GIB = 1 << 30
MIB_IN_KIB = 1024

# The commands of the runs, by turns, and the stand-in's answers.
ANSWERS = [
    (("fitness-stats-get",), Outcome(b"disk 5b2f9c1e-44d0-4a37-9e8b-c3f1a06d7725: 0.82\n", b"", 0)),
    (("info-rebalance", "-a"), Outcome(b"bytes to move: 0\n", b"", 0)),
    (("what-if-cancel",), Outcome(b"", b"", 0)),
    (("stats",), Outcome(b"objects: 1204\nwork items: 3 active, 17 queued\n", b"", 0)),
    (("refresh-config-opts",), Outcome(b"", b"", 0)),
    (("get-obj-crawler-state", "-a"),
     Outcome(b"6f3c1d52-0a6e-4b9f-8a51-2f7c9be0d314: idle, last visit 41 s ago\n"
             b"b1d7e0a9-93c4-4e1d-9f6a-7d20c5a4e8f1: visiting, 3 of 8 components\n", b"", 0)),
    (("-x", "", "set-global-exclusion-list"), Outcome(b"", b"", 0)),
]


def run_all(path):
    """The outcomes of the runs. The next one starts when the oldest one under way has ended."""
    running = deque()
    for number in range(RUNS + AT_ONCE):
        if number >= AT_ONCE:
            yield finish_tool(running.popleft())
        if number < RUNS:
            running.append(start_tool("-s", path, *ANSWERS[number % len(ANSWERS)][0]))


def test_many_runs():
    with Standin("--strict") as standin:
        right = sum(outcome == ANSWERS[number % len(ANSWERS)][1]
                    for number, outcome in enumerate(run_all(standin.path)))
    assert right == RUNS
    assert standin.code == 0
    assert [entry["connection"] for entry in standin.entries] == list(range(1, RUNS + 1))
    assert {entry["outcome"] for entry in standin.entries} == {"answered"}


def read_exactly(connection, length):
    data = b""
    while len(data) < length:
        piece = connection.recv(length - len(data))
        assert piece, "the tool closed the connection within its request"
        data += piece
    return data


class LateDaemon:
    """Reads a number of requests, then answers each with its own UUID."""

    def __init__(self, directory, runs):
        self.path = str(directory / "plaxd.uds")
        self.runs = runs
        self.headers = []

    def __enter__(self):
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.bind(self.path)
        self.listener.listen(self.runs)
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()
        return self

    def __exit__(self, kind, error, trace):
        self.thread.join(60)
        self.listener.close()
        assert kind is not None or not self.thread.is_alive()

    def _serve(self):
        connections = [self.listener.accept()[0] for _ in range(self.runs)]
        requests = [read_exactly(connection, 44) for connection in connections]
        self.headers = [request[:8] for request in requests]
        time.sleep(2)
        for connection, request in reversed(list(zip(connections, requests))):
            connection.sendall(struct.pack(">II", 0, 36) + request[8:])
            connection.close()


def allow_files(number):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (max(soft, min(number, hard)), hard))


def test_late_daemon(tmp_path):
    allow_files(4 * LATE_RUNS)
    uuids = [f"{number:08x}-0000-0000-0000-000000000000" for number in range(LATE_RUNS)]
    with LateDaemon(tmp_path, LATE_RUNS) as plaxd:
        started = [start_tool("-s", plaxd.path, "-u", uuid, "info-rebalance") for uuid in uuids]
        outcomes = [finish_tool(process) for process in started]
    assert outcomes == [Outcome(uuid.encode() + b"\n", b"", 0) for uuid in uuids]
    assert plaxd.headers == [b"\0\0\0\x0e\0\0\0\x24"] * LATE_RUNS


# Text without zero bytes. Its length is coprime to the sizes of the tool's reads and writes.
BLOCK = bytes(range(1, 252)) * 4177


def stream_of(length):
    def step(daemon):
        for begin in range(0, length, len(BLOCK)):
            daemon.connection.sendall(BLOCK[:length - begin])
    return step


def assert_is_stream(read, length):
    """Reads a stream of this length block by block, and compares it."""
    for begin in range(0, length, len(BLOCK)):
        wanted = BLOCK[:length - begin]
        if read(len(wanted)) != wanted:
            pytest.fail(f"the block at {begin} differs")


def peak_memory(process):
    """The peak resident size of the running process, in KiB."""
    with open(f"/proc/{process.pid}/status", encoding="ascii") as status:
        return int(re.search(r"VmHWM:\s+(\d+) kB", status.read())[1])


def peak_of_printed_stream(length):
    done = threading.Event()
    with ScriptedDaemon(stream_of(length), wait_for(done)) as plaxd:
        process = start_tool("-s", plaxd.path, "stats")
        assert_is_stream(process.stdout.read, length)
        peak = peak_memory(process)
        done.set()
        assert finish_tool(process) == Outcome(b"", b"", 0)
    return peak


def wait_for_size(path, length):
    deadline = time.monotonic() + 300
    while not os.path.exists(path) or os.path.getsize(path) < length:
        assert time.monotonic() < deadline
        time.sleep(0.01)


def peak_of_stream_to_file(length, path):
    done = threading.Event()
    with ScriptedDaemon(stream_of(length), wait_for(done)) as plaxd:
        process = start_tool("-s", plaxd.path, "-o", path, "-a", "get-obj-crawler-state")
        wait_for_size(path, length)
        peak = peak_memory(process)
        done.set()
        assert finish_tool(process) == Outcome(b"", b"", 0)
    with open(path, "rb") as file:
        assert_is_stream(file.read, length)
        assert file.read() == b""
    os.unlink(path)
    return peak


@pytest.mark.skipif(bool(RUNNER), reason="the memory would be the emulator's")
def test_printed_stream_needs_no_more_memory():
    assert peak_of_printed_stream(GIB) - peak_of_printed_stream(1024) <= MIB_IN_KIB


@pytest.mark.skipif(bool(RUNNER), reason="the memory would be the emulator's")
def test_stream_to_file_needs_no_more_memory(tmp_path):
    path = str(tmp_path / "stats")
    assert peak_of_stream_to_file(GIB, path) - peak_of_stream_to_file(1024, path) <= MIB_IN_KIB
