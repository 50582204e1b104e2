"""plaxd-standin relay: passes on every byte and every end of a connection, and logs them."""

import os
import random
import socket
import termios
import threading
import time

from harness import Outcome, ScriptedDaemon, close, eventually, finish_tool, frame, pause, queued, reply, send
from harness import start_tool, stay_silent, tool
from request_table import ROWS
from standin_process import EXAMPLES, PATIENCE, Standin, end, entry, framed, read_all, start_standin, stopped
import pytest

UUID = "01234567-89ab-cdef-0123-456789abcdef"


def relayed(*words):
    """The tool's outcome through a relay, and the log entries of the stand-in and of the relay."""
    with Standin() as daemon:
        with Standin("--to", daemon.path, command="relay") as relay:
            outcome = tool("-s", relay.path, *words)
    return outcome, daemon.entries, relay.entries


def test_log():
    outcome, seen, passed = relayed("info-rebalance", "-u", UUID)
    assert outcome == Outcome(b"bytes to move: 0\n", b"", 0)
    assert seen == [entry("info-rebalance", 14, 36, {"uuid": UUID}, reply=framed(16))]
    # Both close as soon as they have all bytes, so either can be first.
    assert passed[0].pop("end") in ("client closed", "daemon closed")
    expected = entry("info-rebalance", 14, 36, {"uuid": UUID}, reply=framed(16), outcome="relayed")
    assert passed == [{key: value for key, value in expected.items() if key != "end"}]


def test_time_taken(tmp_path):
    log = tmp_path / "log"
    with ScriptedDaemon(pause(0.5), reply(0), stay_silent()) as daemon:
        path = str(tmp_path / "relay.uds")
        process = start_standin("relay", "--socket", path, "--log", str(log), "--to", daemon.path)
        assert tool("-s", path, "fix-concats").code == 0
        assert end(process) == (0, b"")
    start, _, seconds = log.read_text().splitlines()[1].rpartition(", ")
    assert start[24:] == " #1 fix-concats 13 | status 0x00000000, 0 bytes | relayed, client closed"
    assert 0.5 <= float(seconds.removesuffix(" s")) < 10


@pytest.mark.parametrize("answers", ["healthy.json", "bad-day.json"])
def test_tool_sees_no_difference(answers):
    """Every command has the same output and status with and without the relay."""
    with Standin("--answers", os.path.join(EXAMPLES, answers)) as daemon:
        direct = [tool("-s", daemon.path, *row.least) for row in ROWS]
    with Standin("--answers", os.path.join(EXAMPLES, answers)) as daemon:
        with Standin("--strict", "--to", daemon.path, command="relay") as relay:
            through = [tool("-s", relay.path, *row.least) for row in ROWS]
    assert through == direct
    assert [line["fields"] for line in relay.entries] == [line["fields"] for line in daemon.entries]
    assert (relay.code, {line["outcome"] for line in relay.entries}) == (0, {"relayed"})


def test_broken_request_is_passed_and_logged():
    request = frame(24, b"7\0x") + b"more"
    with ScriptedDaemon(reply(5, b"no"), stay_silent()) as daemon:
        with Standin("--strict", "--to", daemon.path, command="relay") as relay:
            assert relay.exchange(request) == frame(5, b"no")
    assert daemon.received == request
    assert relay.entries == [
        entry("enable-workitem", 24, 3, violations=["length 3 instead of 4", "4 bytes after the end"],
              reply=framed(2, 5), outcome="relayed", ending="client closed")]
    assert relay.code == 1


def test_request_above_the_limit_is_passed():
    request = frame(7, b"x" * 1048577)
    with ScriptedDaemon(reply(0), stay_silent()) as daemon:
        with Standin("--to", daemon.path, command="relay") as relay:
            assert relay.exchange(request) == frame(0)
    assert daemon.received == request
    assert relay.entries == [
        entry("log-level", 7, 1048577, violations=["length 1048577 is above the limit of 1048576"], reply=framed(0),
              outcome="relayed", ending="client closed")]


class RawDaemon:
    """Listens on a path, and gives the test both ends of connections through a relay."""

    def __init__(self, directory):
        self.path = str(directory / "raw.uds")

    def __enter__(self):
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.bind(self.path)
        self.listener.listen(16)
        self.relay = Standin("--to", self.path, command="relay").__enter__()
        return self

    def pair(self):
        client = self.relay.connect()
        daemon, _ = self.listener.accept()
        daemon.settimeout(60)
        return client, daemon

    def __exit__(self, kind, error, trace):
        self.relay.__exit__(kind, error, trace)
        self.listener.close()


@pytest.fixture(name="raw")
def raw_daemon(tmp_path):
    with RawDaemon(tmp_path) as daemon:
        yield daemon


def send_randomly(connection, data, seed):
    """Sends the data in pieces of random sizes with random pauses, and shuts this direction down."""
    chance = random.Random(seed)
    position = 0
    while position < len(data):
        size = chance.choice([1, 7, 100, 5000, 70000])
        connection.sendall(data[position:position + size])
        position += size
        time.sleep(chance.choice([0, 0, 0, 0.001]))
    connection.shutdown(socket.SHUT_WR)


@pytest.mark.parametrize("seed", range(8))
def test_byte_for_byte_in_both_directions(seed, raw):
    chance = random.Random(seed)
    up = frame(7, chance.randbytes(chance.randrange(500000)))
    down = frame(0, chance.randbytes(chance.randrange(1500000)))
    client, daemon = raw.pair()
    with client, daemon:
        senders = [threading.Thread(target=send_randomly, args=args)
                   for args in ((client, up, seed), (daemon, down, seed + 100))]
        received = [None, None]

        def receive(index, connection):
            received[index] = read_all(connection)
        receivers = [threading.Thread(target=receive, args=args) for args in ((0, daemon), (1, client))]
        for thread in senders + receivers:
            thread.start()
        for thread in senders + receivers:
            thread.join(60)
    assert (received[0] == up, received[1] == down) == (True, True)


def test_bytes_pass_at_once(raw):
    """Single bytes pass in both directions; the relay does not wait for more."""
    client, daemon = raw.pair()
    with client, daemon:
        for byte in frame(13) + b"abc":
            client.sendall(bytes([byte]))
            assert daemon.recv(10) == bytes([byte])
            daemon.sendall(bytes([byte ^ 0xff]))
            assert client.recv(10) == bytes([byte ^ 0xff])


def test_half_close_of_the_client(raw):
    client, daemon = raw.pair()
    with client, daemon:
        client.sendall(frame(13))
        client.shutdown(socket.SHUT_WR)
        assert read_all(daemon) == frame(13)
        daemon.sendall(b"still answered")
        daemon.close()
        assert read_all(client) == b"still answered"


def test_half_close_of_the_daemon(raw):
    client, daemon = raw.pair()
    with client, daemon:
        daemon.sendall(b"first")
        daemon.shutdown(socket.SHUT_WR)
        assert read_all(client) == b"first"
        client.sendall(b"still heard")
        client.close()
        assert read_all(daemon) == b"still heard"


def test_reset_by_the_daemon(raw):
    """The daemon closes with unread bytes. The bytes that it sent arrive, then the reset."""
    client, daemon = raw.pair()
    with client, daemon:
        client.sendall(frame(13))
        daemon.sendall(b"before")
        assert client.recv(6) == b"before"
        daemon.close()
        with pytest.raises(ConnectionResetError):
            client.recv(1)


def test_reset_by_the_client(raw):
    client, daemon = raw.pair()
    with client, daemon:
        client.sendall(frame(13))
        assert daemon.recv(8) == frame(13)
        daemon.sendall(b"unread")
        assert eventually(lambda: queued(client, termios.FIONREAD) == 6)
        client.close()
        with pytest.raises(ConnectionResetError):
            daemon.recv(1)


def test_orderly_close_is_no_reset(raw):
    """Both sides have read everything, so both see an end and not a reset."""
    client, daemon = raw.pair()
    with client, daemon:
        client.sendall(frame(13))
        assert daemon.recv(8) == frame(13)
        daemon.sendall(frame(0))
        assert client.recv(8) == frame(0)
        daemon.close()
        assert client.recv(1) == b""


def test_vanished_client(raw):
    """A daemon that keeps answering a client that has ended gets an error."""
    client, daemon = raw.pair()
    with daemon:
        client.sendall(frame(1))
        assert daemon.recv(8) == frame(1)
        client.close()

        def sending_fails():
            try:
                daemon.send(b"more")
            except BrokenPipeError:
                return True
            return False
        assert eventually(sending_fails)


def test_receiver_that_takes_no_more(raw):
    """If the daemon shuts down its receiving side, the client's send fails, also through a relay."""
    client, daemon = raw.pair()
    with client, daemon:
        daemon.shutdown(socket.SHUT_RD)

        def sending_fails():
            try:
                client.send(b"more")
            except BrokenPipeError:
                return True
            return False
        assert eventually(sending_fails)


def test_slow_reader_gets_everything(raw):
    """Bytes sent faster than they are read wait in the sockets, not in the relay's memory."""
    data = bytes(range(256)) * 40000
    client, daemon = raw.pair()
    with client, daemon:
        client.sendall(frame(1))
        assert daemon.recv(8) == frame(1)
        taken = 0
        daemon.settimeout(1)
        with pytest.raises(TimeoutError):
            while taken < len(data):
                taken += daemon.send(data[taken:taken + (1 << 16)])
        daemon.settimeout(60)
        sender = threading.Thread(target=lambda: (daemon.sendall(data[taken:]), daemon.close()))
        sender.start()
        assert read_all(client) == data
        sender.join(60)


def test_no_daemon(tmp_path):
    """The relay cannot refuse a client that has connected; it resets the connection."""
    with Standin("--to", str(tmp_path / "none"), command="relay") as relay:
        assert tool("-s", relay.path, "fix-concats") == Outcome(
            b"", b"Error received: Connection reset by peer: (null)\n", 0x68)
    assert relay.entries == [entry("fix-concats", 13, 0, reply={"headerBytes": 0}, outcome="unreachable",
                                   ending="no daemon: No such file or directory")]


def test_daemon_that_dies_and_comes_back(tmp_path):
    path = str(tmp_path / "plaxd.uds")
    with Standin("--to", path, command="relay") as relay:
        first = start_standin("serve", "--socket", path)
        codes = [tool("-s", relay.path, "fix-concats").code]
        first.kill()
        first.communicate()
        codes.append(tool("-s", relay.path, "fix-concats").code)
        second = start_standin("serve", "--socket", path)
        codes.append(tool("-s", relay.path, "fix-concats").code)
        end(second)
    assert codes == [0, 0x68, 0]
    assert [line["outcome"] for line in relay.entries] == ["relayed", "unreachable", "relayed"]


def test_end_of_the_relay():
    """A relay ends on a signal without waiting for a silent daemon."""
    with ScriptedDaemon(stay_silent()) as daemon:
        with Standin("--to", daemon.path, command="relay") as relay:
            waiting = start_tool("-s", relay.path, "fix-concats")
            assert eventually(lambda: daemon.received == frame(13))
        assert finish_tool(waiting) == Outcome(b"", b"", 0)
    assert relay.entries == [entry("fix-concats", 13, 0, reply={"headerBytes": 0}, outcome="unfinished",
                                   ending="ended by the relay's end")]


def test_end_of_the_relay_loses_no_request():
    """A client that needs no answer ends at once. Its bytes still reach the daemon."""
    with Standin() as daemon:
        with Standin("--to", daemon.path, command="relay") as relay:
            with stopped(relay.process):
                for _ in range(20):
                    with relay.connect() as client:
                        client.sendall(frame(32))
                relay.process.terminate()
            relay.process.wait(PATIENCE)  # a second signal could cut its log short
    assert [(line["command"], line["outcome"], line["end"]) for line in relay.entries] == [
        ("refresh-config-opts", "relayed", "client closed")] * 20
    assert [line["command"] for line in daemon.entries] == ["refresh-config-opts"] * 20


def test_end_of_the_relay_waits_for_no_stuck_daemon(tmp_path):
    """A daemon that stops reading does not keep the bytes of an ended client forever."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as stuck:
        stuck.bind(str(tmp_path / "stuck.uds"))
        stuck.listen(1)
        with Standin("--to", str(tmp_path / "stuck.uds"), command="relay") as relay:
            with relay.connect() as client:
                client.sendall(frame(7, b"x" * 300000))
    assert [(line["command"], line["outcome"], line["end"]) for line in relay.entries] == [
        ("log-level", "unfinished", "ended by the relay's end")]


def test_daemon_that_answers_unasked():
    with ScriptedDaemon(send(frame(0, b"early")), close(), read_request=False) as daemon:
        with Standin("--to", daemon.path, command="relay") as relay:
            with relay.connect() as client:
                assert read_all(client) == frame(0, b"early")
    assert (relay.entries, relay.summary["requests"]) == ([], 0)
