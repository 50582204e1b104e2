"""Runs plaxd-standin for a test, and reads its log.

    with Standin("--answers", path) as plaxd:
        tool("-s", plaxd.path, "fix-concats")
    assert plaxd.entries == [...]

Leaving the `with` block ends the stand-in by SIGTERM and reads its log: `entries` holds the requests in the order of
their connections, without the two values that change from run to run, `summary` what stands at the end, and `code` the
exit status. The block fails when the stand-in complains about anything.
"""

import json
import os
import re
import signal
import socket
import subprocess
import tempfile

STANDIN = os.environ["PLAXD_STANDIN"]
PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
EXAMPLES = os.path.join(PROJECT, "standin", "examples")
PATIENCE = 60  # seconds after which a stand-in that should have ended is given up

CLIENT_CLOSED = "client closed"

started = []  # processes, by the test that runs


def run_standin(*words, stdin=b""):
    """Runs the stand-in to its end, and gives its status, its output and its messages. One that listens is ended."""
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
    """Starts the stand-in, and gives the process when it listens, or has ended."""
    # Without a buffer, or what comes with the first message would be lost.
    process = subprocess.Popen([STANDIN, *words], stdin=subprocess.DEVNULL, stdout=stdout, stderr=subprocess.PIPE,
                               bufsize=0, **options)
    started.append(process)
    process.first_message = process.stderr.readline()
    return process


def kill_leftovers():
    """Kills what a failed test has left running, and gives whether there was anything."""
    left = [process for process in started if process.poll() is None]
    for process in left:
        process.kill()
        process.communicate()
    started.clear()
    return bool(left)


def end(process, by=signal.SIGTERM):
    """Ends the stand-in, and gives its status and the messages that came after the first one."""
    process.send_signal(by)
    _, messages = process.communicate(timeout=PATIENCE)
    return process.returncode, messages


def timeless(log):
    """The lines of a log of text, without what changes from run to run."""
    stamp = r"^(# )?\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z "
    return [re.sub(r"\d+\.\d{3} s(?=$| \|)", "T s", re.sub(stamp, r"\1NOW ", line)) for line in log.splitlines()]


def entry(command, code, length, fields=None, *, reply, connection=1, violations=(), warnings=(), outcome="answered",
          ending=CLIENT_CLOSED, fault=None):
    """An entry of the log, as the stand-in should write it."""
    expected = {"connection": connection, "command": command, "code": code, "length": length, "fields": fields or {},
                "violations": list(violations), "warnings": list(warnings), "reply": reply, "outcome": outcome,
                "end": ending}
    return {**expected, "fault": fault} if fault else expected


def framed(length, status=0, announced=None):
    """A reply with so many bytes of payload, as the log tells of it."""
    return {"status": status, "statusHex": f"0x{status:08x}", **named(status),
            "length": length if announced is None else announced, "bytes": length}


def named(status):
    """The name of each status that the tests use and that has one."""
    names = {0: "Success", 0x0bad0001: "Failure", 0x2bad000b: "EAGAIN", 0x2bad0010: "EBUSY", 0x2bad0016: "EINVAL"}
    return {"statusName": names[status]} if status in names else {}


class Standin:
    def __init__(self, *words, command="serve"):
        self.directory = tempfile.TemporaryDirectory(prefix="standin-")
        self.path = self.file("plaxd.uds")
        self.log = self.file("log")
        self.words = (command, "--socket", self.path, "--log", self.log, "--format", "json", *words)
        self.lines = self.entries = self.summary = self.code = None

    def file(self, name, content=None):
        """The path of a file in the stand-in's directory, made with the content given."""
        path = os.path.join(self.directory.name, name)
        if content is not None:
            with open(path, "wb") as file:
                file.write(content)
        return path

    def answers(self, commands):
        """Gives the stand-in, before it is started, an answers file."""
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
        self.directory.cleanup()
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
        """Sends the bytes and no more, and gives all that comes back."""
        with self.connect() as connection:
            connection.sendall(request)
            connection.shutdown(socket.SHUT_WR)
            return read_all(connection)


def read_all(connection):
    """Everything up to the end of what the peer sends."""
    data = b""
    while piece := connection.recv(1 << 16):
        data += piece
    return data
