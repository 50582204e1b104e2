"""Runs plaxd-standin for a test, and reads its log.

    with Standin("--answers", path) as plaxd:
        tool("-s", plaxd.path, "fix-concats")
    assert plaxd.entries == [...]

Leaving the `with` block ends the stand-in with SIGTERM and reads its log. `entries` holds the requests in the order of
their connections, without the two values that change between runs, `summary` the last line, and `code` the exit status.
Any message from the stand-in fails the test.
"""

import contextlib
import json
import os
import re
import signal
import socket
import subprocess

from harness import await_state, give_back, take_directory

STANDIN = os.environ["PLAXD_STANDIN"]
PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
EXAMPLES = os.path.join(PROJECT, "standin", "examples")
PATIENCE = 60  # seconds to wait for the end of a stand-in

CLIENT_CLOSED = "client closed"

started = []  # the processes that the current test started


def run_standin(*words, stdin=b""):
    """Runs the stand-in until it ends. Returns status, output and messages. A stand-in that listens is ended."""
    process = subprocess.Popen([STANDIN, *words], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE, bufsize=0)
    first_message = b""
    if words[:1] in (("serve",), ("relay",)):
        first_message = process.stderr.readline()
        if b": listening on " in first_message:
            process.terminate()
    output, messages = process.communicate(stdin, timeout=PATIENCE)
    return process.returncode, output, first_message + messages


def start_standin(*words, stdout=subprocess.DEVNULL, **options):
    """Starts the stand-in. Returns the process as soon as it listens or has ended."""
    # Unbuffered: otherwise bytes that arrive with the first message would be lost.
    process = subprocess.Popen([STANDIN, *words], stdin=subprocess.DEVNULL, stdout=stdout, stderr=subprocess.PIPE,
                               bufsize=0, **options)
    started.append(process)
    process.first_message = process.stderr.readline()
    return process


def kill_leftovers():
    """Kills the processes that the test left running. Returns whether there were any."""
    left = [process for process in started if process.poll() is None]
    for process in left:
        process.kill()
        process.communicate()
    started.clear()
    return bool(left)


def end(process, by=signal.SIGTERM):
    """Ends the stand-in. Returns its status and the messages after the first one."""
    process.send_signal(by)
    _, messages = process.communicate(timeout=PATIENCE)
    return process.returncode, messages


@contextlib.contextmanager
def stopped(process):
    """Stops the process for a while, so that it finds all that has happened meanwhile at once."""
    os.kill(process.pid, signal.SIGSTOP)
    await_state(process.pid, "T")
    yield
    os.kill(process.pid, signal.SIGCONT)


def timeless(log):
    """The lines of a text log, without the values that change between runs."""
    stamp = r"^(# )?\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z "
    return [re.sub(r"\d+\.\d{3} s(?=$| \|)", "T s", re.sub(stamp, r"\1NOW ", line)) for line in log.splitlines()]


def entry(command, code, length, fields=None, *, reply, connection=1, violations=(), warnings=(), outcome="answered",
          ending=CLIENT_CLOSED, fault=None):
    """The expected log entry of a request."""
    expected = {"connection": connection, "command": command, "code": code, "length": length, "fields": fields or {},
                "violations": list(violations), "warnings": list(warnings), "reply": reply, "outcome": outcome,
                "end": ending}
    return {**expected, "fault": fault} if fault else expected


def framed(length, status=0, announced=None):
    """The log's form of a reply with a payload of this length."""
    return {"status": status, "statusHex": f"0x{status:08x}", **named(status),
            "length": length if announced is None else announced, "bytes": length}


def named(status):
    """The log field for the name of the status, if it has one."""
    names = {0: "Success", 0x0bad0001: "Failure", 0x2bad000b: "EAGAIN", 0x2bad0010: "EBUSY", 0x2bad0016: "EINVAL"}
    return {"statusName": names[status]} if status in names else {}


class Standin:
    def __init__(self, *words, command="serve"):
        self.directory = take_directory()
        self.path = self.file("plaxd.uds")
        self.log = self.file("log")
        self.words = (command, "--socket", self.path, "--log", self.log, "--format", "json", *words)
        self.lines = self.entries = self.summary = self.code = None

    def file(self, name, content=None):
        """Writes a file into the stand-in's directory. Returns its path."""
        path = os.path.join(self.directory, name)
        if content is not None:
            with open(path, "wb") as file:
                file.write(content)
        return path

    def answers(self, commands):
        """Writes an answers file for the stand-in, which has not started yet."""
        self.words += ("--answers", self.file("answers.json", json.dumps({"answers": commands}).encode()))
        return self

    def __enter__(self):
        self.process = start_standin(*self.words)
        assert self.process.first_message == f"plaxd-standin: listening on {self.path}\n".encode()
        return self

    def __exit__(self, kind, error, trace):
        self.code, messages = end(self.process)
        with open(self.log, encoding="utf-8") as file:
            self.lines = [json.loads(line) for line in file]
        socket_is_gone = not os.path.exists(self.path)
        give_back(self.directory)
        self.summary = self.lines.pop()["summary"]
        assert self.lines.pop(0)["event"] == "start"
        self.entries = sorted((line for line in self.lines if line["event"] == "end"),
                              key=lambda line: line["connection"])
        for line in self.entries:
            del line["event"]
            assert 0 <= line.pop("seconds") < PATIENCE
            assert line.pop("time").endswith("Z")
        if kind is None:
            assert (messages, socket_is_gone) == (b"", True)

    def connect(self):
        connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        connection.settimeout(PATIENCE)
        connection.connect(self.path)
        return connection

    def exchange(self, request):
        """Sends the bytes, shuts down the sending side, and returns all bytes received."""
        with self.connect() as connection:
            connection.sendall(request)
            connection.shutdown(socket.SHUT_WR)
            return read_all(connection)


def read_all(connection):
    """Reads until the peer closes the connection."""
    data = b""
    while piece := connection.recv(1 << 16):
        data += piece
    return data
