"""The format `commands`: each request as the shell command that sends it, or a comment with the reason."""

import os
import socket
import struct
import threading

from command_line import record
from harness import Outcome, PATIENCE, frame, tool
from namespaces import run_at_default_path
from random_requests import random_requests
from request_table import ONE, ROWS, TWO, UUID_BYTES, name
from standin_process import Standin, end, run_standin, start_standin, timeless
import pytest

U = "0123abcd-4567-89ef-fedc-ba9876543210"
ZERO = "00000000-0000-0000-0000-000000000000"

def decoded(request):
    code, output, messages = run_standin("decode", "--format", "commands", "-", stdin=request)
    assert (code, messages, output[-1:]) == (0, b"", b"\n")
    return os.fsdecode(output[:-1])


@pytest.mark.parametrize("row", ROWS, ids=name)
def test_every_command(row):
    requests = (frame(row.code, row.least_payload), frame(row.code, row.full_payload))
    assert tuple(map(decoded, requests)) == row.shell


def rebalance(real, *numbers):
    return frame(10, record("QdQQ", 1, real, *(numbers or (2, 3))))


@pytest.mark.parametrize("request_bytes, line", [
    (frame(7), "log-level ''"),
    (frame(7, b"plax-tool"), "log-level plax-tool"),
    (frame(7, b"-1"), "-- log-level -1"),
    (frame(7, b"a=b:c,d@e+f%g./h_i-j"), "log-level a=b:c,d@e+f%g./h_i-j"),
    (frame(7, b"it's"), "log-level 'it'\\''s'"),
    (frame(7, b"~ $HOME\t#\"\\"), "log-level '~ $HOME\t#\"\\'"),
    (frame(7, b"two\nlines"), "log-level 'two\nlines'"),
    (frame(7, b"\xff"), "log-level '\udcff'"),
    (frame(4, b"-a\0"), "-j -a fitness-config-set"),
    (rebalance(-0.5), "-- start-proactive-rebalance 1 -0.5 2 3"),
    (rebalance(5e-324), "start-proactive-rebalance 1 5e-324 2 3"),
    (rebalance(float("inf")), "start-proactive-rebalance 1 inf 2 3"),
    (rebalance(float("nan")), "start-proactive-rebalance 1 nan 2 3"),
    (rebalance(1.0, 2**64 - 1, 0), "start-proactive-rebalance 1 1.0 18446744073709551615 0"),
    (frame(26, ZERO.encode() + b"0\0\0\0\0"), f"-u {ZERO} get-obj-crawler-state"),
    (frame(31, (b"0:3:" + U.encode()).ljust(1024, b"\0")), f"-u {U} block-cdb-cb disk"),
    (frame(31, (b"2:0:" + U.encode()).ljust(1024, b"\0")), f"-u {U} block-cdb-cb add"),
    (frame(34, record("II94720s", 0, 1, b"x" * 35 + b",")), f"-x {'x' * 35}, set-global-exclusion-list"),
], ids=range(18))
def test_oddities(request_bytes, line):
    assert decoded(request_bytes) == "plax-tool " + line


@pytest.mark.parametrize("character", "!\"#$&()*;<>?[\\]^`{|}~ \t\r\x7f")
def test_quotes(character):
    assert decoded(frame(7, b"a" + character.encode())) == f"plax-tool log-level 'a{character}'"


def move(destinations, exclusions):
    counts = [(len(entries) + 1) // 37 for entries in (destinations, exclusions)]
    return frame(33, record("16sII94720s94720s", UUID_BYTES, *counts, destinations, exclusions))


@pytest.mark.parametrize("request_bytes, reason", [
    (frame(77), "request: unknown code 77"),
    (b"\0\0\0", "request: cut short: 3 of 8 header bytes"),
    (frame(13) + b"x", "fix-concats: 1 bytes after the end"),
    (frame(4, b"x" * 131072 + b"\0"), "fitness-config-set: json is longer than 131071 bytes"),
    (frame(7, b"x" * 131072), "log-level: level is longer than 131071 bytes"),
    (frame(10, record("QQQQ", 1, 0x7ff0000000000001, 2, 3)),
     "start-proactive-rebalance: varianceThreshold is a NaN that no operand gives"),
    (frame(17, bytes(33)), "what-if-upgrade: uuidList is empty"),
    (frame(22, U.encode() + b"8\0\0\0\0"), "enable-plax-recovery-mode: recoveryMode is 8, which has no meaning"),
    (frame(22, U.encode() + b"05\0\0\0"), "enable-plax-recovery-mode: recoveryMode has leading zeros"),
    (frame(24, b"4\0\0\0"), "enable-workitem: workItemType is 4, which has no meaning"),
    (frame(25, b"23\0\0"), "disable-workitem: workItemType is 23, which has no meaning"),
    (move(b"", b""), "component-manual-move: it needs either a destination or an exclusion list"),
    (move(ONE, TWO), "component-manual-move: it needs either a destination or an exclusion list"),
    (move(b"x" * 94719, b""), "component-manual-move: destinationList is longer than 94718 bytes"),
    (frame(34, record("II94720s", 4, 0, b"")),
     "set-global-exclusion-list: exclusionMode is 4, which has no meaning"),
], ids=range(15))
def test_unsendable(request_bytes, reason):
    assert decoded(request_bytes) == "# plax-tool cannot send this " + reason


def test_log_of_serve(tmp_path):
    path, log = tmp_path / "plaxd.uds", tmp_path / "log"
    process = start_standin("serve", "--socket", str(path), "--log", str(log), "--format", "commands")
    for words in (["fix-concats"], ["log-level", "two words"]):
        assert tool("-s", path, *words) == Outcome(b"", b"", 0)
    assert end(process) == (0, b"")
    assert timeless(log.read_text()) == [
        f"# NOW start: socket {path}",
        "plax-tool fix-concats",
        "plax-tool log-level 'two words'",
        "# NOW summary: 2 requests, 0 broken; fix-concats 1 answered; log-level 1 answered"]


# ---- Round trip: the commands in the log send the logged requests ----


def commands_for(requests, directory, *options):
    """The log of a stand-in that received the requests."""
    path, log = os.path.join(directory, "plaxd.uds"), os.path.join(directory, "log")
    process = start_standin("serve", "--socket", path, "--log", log, "--format", "commands", *options)
    for request in requests:
        with socket.socket(socket.AF_UNIX) as connection:
            connection.connect(path)
            connection.sendall(request.bytes)
            connection.shutdown(socket.SHUT_WR)
            while connection.recv(1 << 16):
                pass
    assert end(process) == (0, b"")
    return log


def receive_all(connection):
    """One whole request, and any bytes after it until the client closes the connection."""
    received = connection.recv(8, socket.MSG_WAITALL)
    received += connection.recv(struct.unpack(">II", received)[1], socket.MSG_WAITALL)
    connection.shutdown(socket.SHUT_WR)
    while piece := connection.recv(1 << 16):
        received += piece
    return received


def capture(listener, captured):
    try:
        while True:
            with listener.accept()[0] as connection:
                captured.append(receive_all(connection))
    except OSError:
        pass  # the listener was shut down


def sent_by(script, directory):
    """The requests that the script sends when its plax-tool connects to a plain listener, in order."""
    os.mkdir(run_directory := os.path.join(directory, "run"))
    os.mkdir(tools := os.path.join(directory, "tools"))
    captured = []
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(path := os.path.join(run_directory, "plaxd.uds"))
        listener.listen(16)
        thread = threading.Thread(target=capture, args=(listener, captured))
        thread.start()
        run = run_at_default_path(path, tools, "sh", "-e", script)
        listener.shutdown(socket.SHUT_RDWR)
        thread.join(PATIENCE)
    assert (run.stdout.strip(b"\n"), run.stderr, run.returncode) == (b"", b"", 0)
    return captured


def test_lines_send_the_same_bytes(tmp_path):
    count = int(os.environ.get("PLAX_RANDOM_REQUESTS", "340"))
    requests = list(random_requests(int(os.environ.get("PLAX_RANDOM_SEED", "1")), count))
    sent = sent_by(commands_for(requests, str(tmp_path)), str(tmp_path))
    rest = iter(sent)
    expected = next(rest, None)
    for request in requests:
        if request.bytes == expected:
            assert request.sendable is not False
            expected = next(rest, None)
        else:
            assert not request.sendable
    assert expected is None
    assert len(sent) >= count * 0.7


def test_lines_are_expectations(tmp_path):
    """What the log has is an expectation that the same requests meet."""
    seed, count = int(os.environ.get("PLAX_RANDOM_SEED", "1")), int(os.environ.get("PLAX_RANDOM_REQUESTS", "340"))
    requests = [request for request in random_requests(seed, count) if request.sendable]
    expected = tmp_path / "expected"
    os.rename(commands_for(requests, str(tmp_path)), expected)
    commands_for(requests, str(tmp_path), "--expect", str(expected))
    assert len(requests) >= count * 0.6
