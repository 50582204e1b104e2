"""The stand-in with unusual masks, time zones and limits, closed pipes, full backlogs and slow clients."""

import contextlib
import datetime
import json
import os
import resource
import select
import socket
import stat
import time

import pytest

from connecting import fill_backlog, listening
from harness import Outcome, eventually, frame, tool
from standin_process import PATIENCE, Standin, end, read_all, start_standin, stopped


def mode_of(path):
    return stat.S_IMODE(path.stat().st_mode)


def connect(path):
    connection = socket.socket(socket.AF_UNIX)
    connection.settimeout(10)
    connection.connect(path)
    return connection


# ---- The log ----

@pytest.mark.parametrize("bits, mode", [(0, 0o666), (0o022, 0o644), (0o027, 0o640), (0o777, 0)], ids=oct)
@pytest.mark.parametrize("command", ["serve", "relay"])
def test_log_has_the_mode_that_the_mask_leaves(command, bits, mode, tmp_path):
    log = tmp_path / "log"
    process = start_standin(command, "--socket", str(tmp_path / "plaxd.uds"), "--log", str(log),
                            preexec_fn=lambda: os.umask(bits))
    assert end(process) == (0, b"")
    assert mode_of(log) == mode


def test_log_that_is_there_keeps_its_mode(tmp_path):
    log = tmp_path / "log"
    log.touch()
    log.chmod(0o604)
    assert end(start_standin("serve", "--socket", str(tmp_path / "plaxd.uds"), "--log", str(log))) == (0, b"")
    assert mode_of(log) == 0o604


def utc_now():
    return datetime.datetime.now(datetime.timezone.utc)


@pytest.mark.parametrize("zone", ["XXX-05:30", "XXX+11"])
@pytest.mark.parametrize("style", ["text", "json"])
@pytest.mark.parametrize("command", ["serve", "relay"])
def test_log_tells_the_time_in_utc(command, style, zone, tmp_path, monkeypatch):
    monkeypatch.setenv("TZ", zone)
    path, log = str(tmp_path / "plaxd.uds"), tmp_path / "log"
    before = utc_now()
    process = start_standin(command, "--socket", path, "--log", str(log), "--format", style)
    tool("-s", path, "refresh-config-opts")
    assert end(process) == (0, b"")
    times = [line[:24] if style == "text" else json.loads(line)["time"] for line in log.read_text().splitlines()]
    logged = [datetime.datetime.strptime(text, "%Y-%m-%dT%H:%M:%S.%f%z") for text in times]
    assert len(logged) == (3 if style == "text" else 4)
    assert before - datetime.timedelta(milliseconds=1) <= min(logged) <= max(logged) <= utc_now()


@pytest.mark.parametrize("command", ["serve", "relay"])
def test_log_to_a_closed_pipe(command, tmp_path):
    """If the reader of the log ends, clients are still served, and the lost lines are reported at the end."""
    path = str(tmp_path / "plaxd.uds")
    reader, writer = os.pipe()
    with Standin() as daemon:
        process = start_standin(command, "--socket", path, "--log", "-",
                                *(["--to", daemon.path] if command == "relay" else []), stdout=writer)
        os.close(writer)
        os.close(reader)
        for _ in range(3):
            assert tool("-s", path, "fix-concats") == Outcome(b"", b"", 0)
        assert end(process) == (1, b"plaxd-standin: standard output: Broken pipe: lines of the log are lost\n"
                                   b"plaxd-standin: the log could not be written whole\n")


# ---- Limits ----

def test_soft_limit_of_descriptors_is_raised(tmp_path):
    """A shell's default limit is far below the number of clients in a load test."""
    path = str(tmp_path / "plaxd.uds")
    process = start_standin("serve", "--socket", path,
                            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (16, 256)))
    with contextlib.ExitStack() as stack:
        clients = [stack.enter_context(connect(path)) for _ in range(100)]
        for client in clients:
            client.sendall(frame(13))
        for client in clients:
            assert client.recv(4) == bytes(4)
    assert end(process) == (0, b"")


# ---- Clients of a relay, and a daemon that is slow to accept ----

def numbered_request(number):
    """A request that holds the number of its client."""
    return frame(7, b"%d" % number)


def accept_all(listener, count):
    """Accepts the connections one by one. Returns the request of each."""
    requests = []
    for _ in range(count):
        connection, _ = listener.accept()
        with connection:
            requests.append(read_all(connection))
    return requests


def test_clients_of_a_relay_reach_the_daemon_in_their_order():
    """All clients connect before the relay accepts the first one. The daemon accepts one by one."""
    requests = [numbered_request(number) for number in range(50)]
    with listening(backlog=0) as (listener, path):
        with Standin("--to", path, command="relay") as relay:
            with stopped(relay.process):
                for request in requests:
                    with relay.connect() as client:
                        client.sendall(request)
            assert accept_all(listener, len(requests)) == requests


def test_relay_waits_for_room_in_the_daemons_backlog():
    """The relay tries several times, as each try waits for only a tenth of a second."""
    with listening(backlog=0) as (listener, path), fill_backlog(path) as waiting:
        with Standin("--to", path, command="relay") as relay, relay.connect() as client:
            client.sendall(frame(13))
            assert select.select([client], [], [], 0.7)[0] == []
            for _ in waiting:
                listener.accept()[0].close()
            daemon, _ = listener.accept()
            with daemon:
                assert daemon.recv(100) == frame(13)
                daemon.sendall(frame(0))
                assert client.recv(100) == frame(0)
    assert [line["outcome"] for line in relay.entries] == ["relayed"]


@contextlib.contextmanager
def relayed_pair():
    """Both ends of a connection through a relay."""
    with listening(backlog=16) as (listener, path), Standin("--to", path, command="relay") as relay:
        client = relay.connect()
        daemon, _ = listener.accept()
        daemon.settimeout(PATIENCE)
        with client, daemon:
            client.sendall(frame(13))
            assert daemon.recv(100) == frame(13)
            yield client, daemon


@pytest.mark.parametrize("vanishes", ["client", "daemon"])
def test_peer_of_one_that_has_gone_can_send_no_more(vanishes):
    """The first byte that it sends after the end fails, as without a relay."""
    with relayed_pair() as ends:
        gone, other = ends if vanishes == "client" else reversed(ends)
        gone.close()
        assert other.recv(1) == b""
        with pytest.raises(BrokenPipeError):
            other.send(b"more")


# ---- The duration of a request ----

def timed_end(command, answers, talk, directory):
    """Sends a request for a stream. Returns the result of `talk`, called with the client, and the request's last line."""
    path, log = str(directory / "plaxd.uds"), directory / "log"
    with Standin().answers(answers) as daemon:
        other = ["--to", daemon.path] if command == "relay" else ["--answers", daemon.file("answers.json")]
        process = start_standin(command, "--socket", path, "--log", str(log), "--format", "json", *other)
        with connect(path) as client:
            client.sendall(frame(1))
            result = talk(client)
            assert end(process) == (0, b"")
    return result, json.loads(log.read_text().splitlines()[2])


@pytest.mark.parametrize("command", ["serve", "relay"])
def test_time_ends_with_the_reply(command, tmp_path):
    """The time until a client disconnects does not count."""
    def talk(client):
        assert read_all(client) != b""
        began = time.monotonic()
        time.sleep(1)
        client.close()
        stayed = time.monotonic() - began
        assert eventually(lambda: len((tmp_path / "log").read_text().splitlines()) == 3)
        return stayed

    stayed, line = timed_end(command, {}, talk, tmp_path)
    assert 0 <= line["seconds"] < stayed - 0.5


@pytest.mark.parametrize("command", ["serve", "relay"])
def test_time_of_an_unfinished_reply_counts_to_the_end(command, tmp_path):
    def talk(client):
        assert client.recv(2) == b"ab"
        time.sleep(0.5)

    _, line = timed_end(command, {"stats": {"pieces": [{"text": "ab"}, {"text": "cd", "pauseMs": 86400000}]}}, talk,
                        tmp_path)
    assert line["outcome"] == "unfinished"
    assert 0.5 <= line["seconds"] < PATIENCE
