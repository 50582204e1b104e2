"""Start and end of the stand-in: which sockets it replaces, which files it removes, and its messages."""

import ctypes
import json
import os
import signal
import socket
import stat
import struct
import subprocess

from binaries import is_sanitized
from harness import Outcome, frame, tool
from standin_process import PATIENCE, STANDIN, Standin, end, run_standin, start_standin, stopped, timeless
import pytest


@pytest.fixture(name="path")
def socket_path(tmp_path):
    return str(tmp_path / "plaxd.uds")


def leave_stale_socket(path):
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listener:
        listener.bind(path)


def mode_of(path):
    return stat.S_IMODE(os.stat(path).st_mode)


@pytest.mark.parametrize("by", [signal.SIGTERM, signal.SIGINT])
@pytest.mark.parametrize("command", ["serve", "relay"])
def test_signals_end_it(by, command, path):
    process = start_standin(command, "--socket", path)
    assert mode_of(path) == 0o600
    assert end(process, by) == (0, b"")
    assert os.listdir(os.path.dirname(path)) == []


def test_interrupts_are_heard_in_the_background(path):
    """A shell without job control starts background programs with SIGINT ignored."""
    process = subprocess.Popen(["sh", "-c", 'trap "" INT; exec "$@"', "sh", STANDIN, "serve", "--socket", path],
                               stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    process.stderr.readline()
    assert end(process, signal.SIGINT) == (0, b"")


@pytest.mark.parametrize("mask", [0, 0o022, 0o777])
@pytest.mark.parametrize("command", ["serve", "relay"])
@pytest.mark.parametrize("options, mode", [([], 0o600), (["660"], 0o660), (["0666"], 0o666), (["0"], 0),
                                           (["777"], 0o777)])
def test_mode_is_the_one_asked_for_whatever_the_mask(options, mode, command, mask, path):
    before = os.umask(mask)
    try:
        process = start_standin(command, "--socket", path, *(f"--socket-mode={text}" for text in options))
    finally:
        os.umask(before)
    assert mode_of(path) == mode
    assert end(process) == (0, b"")


def test_socket_is_made_with_its_mode(path):
    """The mode never changes after the file is created, so there is no time at which others could connect."""
    c_library = ctypes.CDLL(None)
    made, changed = 0x100, 0x4  # IN_CREATE, IN_ATTRIB
    with open(c_library.inotify_init(), "rb", buffering=0) as watch:
        c_library.inotify_add_watch(watch.fileno(), os.path.dirname(path).encode(), made | changed)
        process = start_standin("serve", "--socket", path, "--socket-mode", "640")
        events = watch.read(4096)
        assert end(process) == (0, b"")
    _, what, _, length = struct.unpack_from("iIII", events)
    assert (what, len(events)) == (made, 16 + length)


def test_stale_socket_is_replaced(path):
    leave_stale_socket(path)
    process = start_standin("serve", "--socket", path)
    assert tool("-s", path, "fix-concats") == Outcome(b"", b"", 0)
    assert end(process) == (0, b"")
    assert not os.path.exists(path)


def test_live_daemon_is_left_alone(path):
    process = start_standin("serve", "--socket", path)
    refusal = (1, b"", f"plaxd-standin: {path}: a daemon already listens there\n".encode())
    assert run_standin("serve", "--socket", path) == refusal
    assert run_standin("relay", "--socket", path) == refusal
    assert tool("-s", path, "fix-concats") == Outcome(b"", b"", 0)
    assert end(process) == (0, b"")


def test_live_daemon_with_a_full_queue_is_left_alone(path):
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listener:
        listener.bind(path)
        listener.listen(0)
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as client:
            client.connect(path)
            assert run_standin("serve", "--socket", path) == (
                1, b"", f"plaxd-standin: {path}: a daemon already listens there\n".encode())


def test_relay_to_itself_is_refused(path):
    assert run_standin("relay", "--socket", path, "--to", path) == (
        1, b"", f"plaxd-standin: {path}: a relay to itself\n".encode())


def test_relay_goes_to_the_daemon_of_the_node():
    assert run_standin("relay", "--socket", "/var/run/plaxd.uds") == (
        1, b"", b"plaxd-standin: /var/run/plaxd.uds: a relay to itself\n")


def test_relay_ends_while_it_waits_for_a_daemon_with_a_full_queue(tmp_path, path):
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listener:
        listener.bind(path)
        listener.listen(0)
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as client:
            client.connect(path)
            with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as waiting:
                with Standin("--to", path, command="relay") as relay:
                    waiting.connect(relay.path)
                    waiting.sendall(frame(13))
    assert [(line["outcome"], line["end"]) for line in relay.entries] == [
        ("unreachable", "no daemon: Resource temporarily unavailable")]


@pytest.mark.parametrize("make", [lambda path: open(path, "wb").close(), os.mkdir,
                                  lambda path: os.symlink("nowhere", path)])
def test_other_files_are_left_alone(make, path):
    make(path)
    before = os.lstat(path)
    assert run_standin("serve", "--socket", path) == (
        1, b"", f"plaxd-standin: {path}: exists and is not a socket\n".encode())
    assert os.lstat(path) == before


def test_socket_of_another_is_not_removed(path):
    process = start_standin("serve", "--socket", path)
    os.unlink(path)
    leave_stale_socket(path)
    assert end(process) == (0, b"")
    assert os.path.exists(path)


def test_removed_directory(tmp_path):
    """There is no socket to remove, and the log still gets its summary."""
    directory = tmp_path / "directory"
    directory.mkdir()
    process = start_standin("serve", "--socket", str(directory / "s"), stdout=subprocess.PIPE)
    os.unlink(directory / "s")
    directory.rmdir()
    process.terminate()
    log, messages = process.communicate(timeout=PATIENCE)
    assert timeless(log.decode()) == [f"NOW start: socket {directory}/s", "NOW summary: 0 requests, 0 broken"]
    assert (messages, process.returncode) == (b"", 0)


def test_path_lengths(tmp_path):
    longest = str(tmp_path / "x") + "x" * (107 - len(str(tmp_path / "x")))
    assert end(start_standin("serve", "--socket", longest)) == (0, b"")
    too_long = longest + "x"
    refusal = (1, b"", f"plaxd-standin: {too_long}: a socket's path has 1 to 107 bytes\n".encode())
    assert run_standin("serve", "--socket", too_long) == refusal
    assert run_standin("relay", "--socket", str(tmp_path / "plaxd.uds"), "--to", too_long) == refusal
    assert os.listdir(tmp_path) == []


def test_missing_directory(tmp_path):
    path = str(tmp_path / "none" / "plaxd.uds")
    assert run_standin("serve", "--socket", path) == (
        1, b"", f"plaxd-standin: {path}: No such file or directory\n".encode())


@pytest.mark.parametrize("attempt", range(5))
def test_two_start_at_once(attempt, path):
    """Of many that start on a path with a stale socket, one serves, and the others leave its socket alone."""
    del attempt
    leave_stale_socket(path)
    processes = [subprocess.Popen([STANDIN, "serve", "--socket", path], stdout=subprocess.DEVNULL,
                                  stderr=subprocess.PIPE) for _ in range(8)]
    messages = [process.stderr.readline() for process in processes]
    listening = f"plaxd-standin: listening on {path}\n".encode()
    refused = f"plaxd-standin: {path}: a daemon already listens there\n".encode()
    assert sorted(messages) == sorted([listening] + [refused] * 7)
    assert tool("-s", path, "fix-concats") == Outcome(b"", b"", 0)
    winner = processes[messages.index(listening)]
    assert [process.wait(PATIENCE) for process in processes if process is not winner] == [1] * 7
    assert end(winner) == (0, b"")
    for process in processes:
        process.stderr.close()


def test_requests_that_wait_at_the_end_are_logged():
    """A client that needs no answer may end before its connection is accepted. Its request counts."""
    with Standin() as plaxd:
        with stopped(plaxd.process):
            for _ in range(20):
                with plaxd.connect() as connection:
                    connection.sendall(frame(32))
            plaxd.process.terminate()
        plaxd.process.wait(PATIENCE)  # a second signal could cut its log short
    assert [(line["command"], line["outcome"], line["end"]) for line in plaxd.entries] == [
        ("refresh-config-opts", "answered", "client closed")] * 20


def test_log_is_appended_to(tmp_path, path):
    log = tmp_path / "log"
    log.write_bytes(b"before\n")
    assert end(start_standin("serve", "--socket", path, "--log", str(log))) == (0, b"")
    assert timeless(log.read_text()) == [
        "before", f"NOW start: socket {path}", "NOW summary: 0 requests, 0 broken"]


def test_log_that_cannot_be_opened(tmp_path, path):
    assert run_standin("serve", "--socket", path, "--log", str(tmp_path)) == (
        1, b"", f"plaxd-standin: {tmp_path}: Is a directory\n".encode())
    assert not os.path.exists(path)


def test_log_that_cannot_be_written(path):
    process = start_standin("serve", "--socket", path, "--log", "/dev/full")
    assert tool("-s", path, "fix-concats") == Outcome(b"", b"", 0)
    assert end(process) == (1, b"plaxd-standin: /dev/full: No space left on device: lines of the log are lost\n"
                               b"plaxd-standin: the log could not be written whole\n")
    assert not os.path.exists(path)


@pytest.mark.skipif(is_sanitized(STANDIN), reason="the sanitizer needs additional descriptors")
def test_few_descriptors(path):
    """Without free descriptors, the stand-in prints a message, and further clients wait until others leave."""
    process = subprocess.Popen(["sh", "-c", 'ulimit -n 12; exec "$@"', "sh", STANDIN, "serve", "--socket", path],
                               stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    process.stderr.readline()
    waiting = [socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) for _ in range(12)]
    for client in waiting:
        client.connect(path)
    assert process.stderr.readline() == b"plaxd-standin: accept: Too many open files\n"
    for client in waiting:
        client.close()
    assert tool("-s", path, "fix-concats") == Outcome(b"", b"", 0)
    code, messages = end(process)
    assert (code, set(messages.splitlines()) - {b"plaxd-standin: accept: Too many open files"}) == (0, set())


def test_summary_as_json(path, tmp_path):
    log = tmp_path / "log"
    process = start_standin("serve", "--socket", path, "--log", str(log), "--format", "json")
    tool("-s", path, "fix-concats")
    end(process)
    summary = json.loads(log.read_text().splitlines()[-1])
    assert summary.pop("time").endswith("Z")
    assert summary == {
        "event": "summary",
        "summary": {"requests": 1, "broken": 0, "warned": 0, "commands": {"fix-concats": {"answered": 1}}}}
