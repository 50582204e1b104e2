"""The stand-in under bad conditions: few resources, logs that cannot be written, clients that hang or leave.

Also the order of the log, --ready-fd, and new answers and logs on SIGHUP.
"""

import itertools
import json
import os
import resource
import signal
import socket
import subprocess
import threading
import time

from binaries import is_sanitized
from harness import PATIENCE, TOOL, Outcome, ScriptedDaemon, eventually, frame, stay_silent, tool
from standin_process import STANDIN, Standin, end, read_all, start_standin, stopped, timeless
import pytest

LISTENING = b"plaxd-standin: listening on "

not_sanitized = pytest.mark.skipif(is_sanitized(STANDIN), reason="has an allocator of its own")


def with_rare_events(**settings):
    """The environment of a stand-in in which these rare events happen."""
    return {**os.environ, "LD_PRELOAD": os.environ["PLAX_RARE_EVENTS_LIBRARY"], **settings}


def exchange(path, request, patience=PATIENCE):
    with socket.socket(socket.AF_UNIX) as client:
        client.settimeout(patience)
        client.connect(path)
        client.sendall(request)
        return read_all(client)


# ---- Resources ----

@pytest.mark.skipif(is_sanitized(STANDIN), reason="takes more address space than the test leaves")
def test_little_address_space(tmp_path):
    """Many clients can wait at once and get answers in an address space too small for a thread each."""
    path, answers = str(tmp_path / "plaxd.uds"), tmp_path / "answers.json"
    answers.write_text('{"answers": {"fix-concats": {"delayMs": 500, "text": "done"}}}')
    process = start_standin("serve", "--socket", path, "--log", str(tmp_path / "log"), "--answers", str(answers),
                            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_AS, (200 << 20, 200 << 20)))
    clients = [socket.socket(socket.AF_UNIX) for _ in range(40)]
    for client in clients:
        client.connect(path)
        client.sendall(frame(13))
    assert [read_all(client) for client in clients] == [frame(0, b"done")] * 40
    for client in clients:
        client.close()
    assert end(process) == (0, b"")
    assert timeless((tmp_path / "log").read_text())[-1] == (
        "NOW summary: 40 requests, 0 broken; fix-concats 40 answered")


@pytest.mark.skipif(is_sanitized(STANDIN), reason="has descriptors of its own")
def test_end_with_no_free_descriptor(tmp_path):
    """With descriptors for no client at all, SIGTERM ends the stand-in, whoever waits."""
    for limit in itertools.count(4):
        path = str(tmp_path / f"{limit}.uds")
        process = start_standin("serve", "--socket", path,
                                preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (limit, limit)))
        if process.first_message.startswith(LISTENING):
            break
        process.communicate(timeout=PATIENCE)
    with socket.socket(socket.AF_UNIX) as client:
        client.connect(path)
        assert process.stderr.readline() == b"plaxd-standin: accept: Too many open files\n"
        assert end(process) == (0, b"")


OUT_OF_MEMORY = b"no memory\nplaxd-standin: out of memory; what was not written yet is lost\n"


def provoke(path):
    """Sends a request. The stand-in may end meanwhile."""
    try:
        exchange(path, frame(13))
    except OSError:
        pass


@not_sanitized
@pytest.mark.parametrize("command, log_format, step", [("serve", "text", 1), ("relay", "json", 7)])
def test_failing_allocation(tmp_path, command, log_format, step):
    """Whichever allocation fails, in either thread: the stand-in says so, removes its socket and ends with 1."""
    path, failed = str(tmp_path / "plaxd.uds"), 0
    with Standin() as daemon:
        words = (command, "--socket", path, "--log", str(tmp_path / "log"), "--format", log_format,
                 *(["--to", daemon.path] if command == "relay" else []))
        for number in itertools.count(1, step):
            process = start_standin(*words, env=with_rare_events(PLAX_FAILING_ALLOCATION=str(number)))
            provoke(path)
            provoke(path)
            outcome = end(process)
            if outcome == (0, b""):  # there is no allocation of that number
                break
            assert (outcome, os.path.exists(path)) == ((1, OUT_OF_MEMORY), False), number
            failed += 1
    assert failed > 10


@not_sanitized
def test_client_among_clients_without_end(tmp_path):
    """It gets its answer although there is always another client to accept."""
    path = str(tmp_path / "plaxd.uds")
    process = start_standin("serve", "--socket", path, env=with_rare_events(PLAX_ENDLESS_CLIENTS="1"))
    assert exchange(path, frame(13), 10) == frame(0, b"0 concats to fix")
    assert end(process) == (0, b"")


CONNECTOR = """
import socket, sys
print("started", flush=True)
while True:
    with socket.socket(socket.AF_UNIX) as client:
        try:
            client.connect(sys.argv[1])
        except OSError:
            break
"""


@pytest.mark.parametrize("command", ["serve", "relay"])
def test_end_is_noticed_while_clients_go_on_connecting(command):
    with Standin() as daemon:
        with Standin(*(["--to", daemon.path] if command == "relay" else []), command=command) as plaxd:
            connectors = [subprocess.Popen(["python3", "-c", CONNECTOR, plaxd.path], stdout=subprocess.PIPE)
                          for _ in range(4)]
            assert [connector.stdout.readline() for connector in connectors] == [b"started\n"] * 4
            time.sleep(0.2)
            began = time.monotonic()
        assert time.monotonic() - began < 20
        assert [(connector.communicate(timeout=PATIENCE), connector.returncode) for connector in connectors] == [
            ((b"", None), 0)] * 4


# ---- The order of the log ----

@pytest.mark.parametrize("request_bytes", [frame(13), frame(32), frame(1)], ids=["framed", "no reply", "stream"])
@pytest.mark.parametrize("command", ["serve", "relay"])
def test_one_after_the_other(command, request_bytes):
    """If a client has its reply or has ended before another request arrives, its line comes first."""
    with Standin() as daemon:
        with Standin(*(["--to", daemon.path] if command == "relay" else []), command=command) as plaxd:
            for _ in range(200):
                with plaxd.connect() as client:
                    client.sendall(request_bytes)
                    if request_bytes != frame(32):
                        client.recv(1)
    expected = [(event, number) for number in range(1, 201) for event in ("request", "end")]
    assert [(line.get("event", "end"), line["connection"]) for line in plaxd.lines] == expected


def test_requests_without_a_reply_on_open_connections():
    """Without replies, the lines are in the order of arrival."""
    with Standin() as plaxd:
        clients = [plaxd.connect() for _ in range(50)]
        plaxd.exchange(b"")  # all of them have been accepted
        for client in reversed(clients):
            client.sendall(frame(32))
        for client in clients:
            client.close()
    assert [line["connection"] for line in plaxd.lines if line.get("event") == "request"] == [*range(50, 0, -1)]
    assert [line["connection"] for line in plaxd.lines if "event" not in line] == [*range(50, 0, -1)]


def test_client_that_stays_after_its_reply(tmp_path):
    """It delays the lines of others only briefly. They follow the line that reports its request as waiting."""
    path, log = str(tmp_path / "plaxd.uds"), tmp_path / "log"
    process = start_standin("serve", "--socket", path, "--log", str(log))
    with socket.socket(socket.AF_UNIX) as client:
        client.connect(path)
        client.sendall(frame(13))
        assert read_all(client) == frame(0, b"0 concats to fix")
        assert tool("-s", path, "what-if-cancel") == Outcome(b"", b"", 0)
        assert eventually(lambda: "what-if-cancel" in log.read_text())
        client.sendall(b"more")
    assert end(process) == (0, b"")
    assert timeless(log.read_text()) == [
        f"NOW start: socket {path}",
        "NOW #1 fix-concats 13 | waiting",
        "NOW #2 what-if-cancel 18 | status 0x00000000, 9 bytes | answered, client closed, T s",
        "NOW #1 fix-concats 13 | status 0x00000000, 16 bytes | answered, client closed, T s "
        "| BROKEN: 4 bytes after the end",
        "NOW summary: 2 requests, 1 broken; fix-concats 1 answered; what-if-cancel 1 answered"]


# ---- Requests that hang ----

def hang(tmp_path, answer, *words):
    """Starts a stand-in with this answer to fix-concats. Returns its process, its socket and its log."""
    path, log, answers = str(tmp_path / "plaxd.uds"), tmp_path / "log", tmp_path / "answers.json"
    answers.write_text(json.dumps({"answers": {"fix-concats": answer}}))
    process = start_standin("serve", "--socket", path, "--log", str(log), "--answers", str(answers), *words)
    return process, path, log


@pytest.mark.parametrize("answer", [{"fault": "stay-silent"}, {"delayMs": 60000}], ids=["silent", "late"])
def test_request_that_hangs_is_shown(answer, tmp_path):
    process, path, log = hang(tmp_path, answer)
    with socket.socket(socket.AF_UNIX) as client:
        client.connect(path)
        client.sendall(frame(13))
        assert eventually(lambda: len(log.read_text().splitlines()) == 2)
        assert timeless(log.read_text())[1:] == ["NOW #1 fix-concats 13 | waiting"]
    end(process)


def test_every_request_is_shown_in_json(tmp_path):
    process, path, log = hang(tmp_path, {"fault": "stay-silent"}, "--format", "json")
    with socket.socket(socket.AF_UNIX) as client:
        client.connect(path)
        client.sendall(frame(13))
        assert eventually(lambda: len(log.read_text().splitlines()) == 2)
    end(process)
    lines = [json.loads(line) for line in log.read_text().splitlines()]
    assert [line["event"] for line in lines] == ["start", "request", "end", "summary"]
    assert {key: value for key, value in lines[1].items() if key != "time"} == {
        "event": "request", "connection": 1, "command": "fix-concats", "code": 13, "length": 0, "fields": {},
        "violations": [], "warnings": []}


def test_relayed_request_that_hangs_is_shown(tmp_path):
    path, log = str(tmp_path / "relay.uds"), tmp_path / "log"
    with ScriptedDaemon(stay_silent()) as daemon:
        process = start_standin("relay", "--socket", path, "--log", str(log), "--to", daemon.path)
        with socket.socket(socket.AF_UNIX) as client:
            client.connect(path)
            client.sendall(frame(13))
            assert eventually(lambda: "#1 fix-concats 13 | waiting" in log.read_text())
        end(process)


@pytest.mark.parametrize("answer, outcome, ending", [
    ({"fault": "stay-silent"}, "fault", "client closed"),
    ({"delayMs": 60000}, "unfinished", "client closed"),
    ({"pieces": [{"text": "a", "pauseMs": 60000}]}, "unfinished", "client reset"),  # it leaves the header unread
])
def test_time_until_a_client_gives_up(answer, outcome, ending):
    with Standin().answers({"fix-concats": answer}) as plaxd:
        with plaxd.connect() as client:
            client.sendall(frame(13))
            time.sleep(0.5)
        assert eventually(lambda: b'"end"' in open(plaxd.log, "rb").read())
        with open(plaxd.log, encoding="utf-8") as log:
            seconds = json.loads(log.readlines()[-1])["seconds"]
    assert 0.4 <= seconds < 10  # the client begins to count before its connection is accepted
    assert [(line["outcome"], line["end"]) for line in plaxd.entries] == [(outcome, ending)]


def test_time_until_a_relayed_client_gives_up(tmp_path):
    with ScriptedDaemon(stay_silent()) as daemon:
        with Standin("--to", daemon.path, command="relay") as relay:
            with relay.connect() as client:
                client.sendall(frame(13))
                time.sleep(0.5)
            assert eventually(lambda: b'"seconds"' in open(relay.log, "rb").read())
            with open(relay.log, encoding="utf-8") as log:
                seconds = json.loads(log.readlines()[-1])["seconds"]
    assert 0.4 <= seconds < 10  # the client begins to count before its connection is accepted
    assert [(line["outcome"], line["end"]) for line in relay.entries] == [("relayed", "client closed")]


# ---- A log that cannot be written ----

def fill_log(path):
    """Sends more requests than a pipe can hold lines."""
    for _ in range(1000):
        assert exchange(path, frame(13)) == frame(0, b"0 concats to fix")


def test_unread_log_keeps_nobody_waiting(tmp_path):
    """Clients are still served, a signal ends the stand-in, and it writes all lines when the reader reads again."""
    path = str(tmp_path / "plaxd.uds")
    process = start_standin("serve", "--socket", path, stdout=subprocess.PIPE)
    fill_log(path)
    process.terminate()
    with pytest.raises(subprocess.TimeoutExpired):
        process.wait(0.5)
    log, messages = process.communicate(timeout=PATIENCE)
    assert (process.returncode, messages) == (0, b"")
    lines = timeless(log.decode())
    assert [line.split()[1] for line in lines[1:-1]] == [f"#{number}" for number in range(1, 1001)]
    assert lines[-1] == "NOW summary: 1000 requests, 0 broken; fix-concats 1000 answered"


@pytest.mark.parametrize("by", [signal.SIGTERM, signal.SIGINT])
def test_second_signal_ends_it_with_its_log_unread(by, tmp_path):
    path = str(tmp_path / "plaxd.uds")
    process = start_standin("serve", "--socket", path, stdout=subprocess.PIPE)
    fill_log(path)
    process.terminate()
    with pytest.raises(subprocess.TimeoutExpired):
        process.wait(0.5)
    process.send_signal(by)
    assert process.wait(PATIENCE) == 1
    message, _, count = process.stderr.read().rpartition(b" ")
    assert message == b"plaxd-standin: ended by a second signal; lines of the log not written:"
    assert 0 < int(count) < 1002
    assert not os.path.exists(path)
    process.stdout.close()
    process.stderr.close()


def test_two_signals_lose_nothing():
    """If nothing blocks the log, the requests received are still served and logged."""
    with Standin() as plaxd:
        with stopped(plaxd.process):
            for _ in range(500):
                with plaxd.connect() as client:
                    client.sendall(frame(32))
            plaxd.process.send_signal(signal.SIGINT)
            plaxd.process.terminate()
        plaxd.process.wait(PATIENCE)  # a second signal could cut its log short
    assert (plaxd.code, plaxd.summary["commands"]) == (0, {"refresh-config-opts": {"answered": 500}})


def test_disk_that_is_full_for_a_while(tmp_path):
    """The message names the file and the reason once. Later lines start on a new line."""
    path, log = str(tmp_path / "plaxd.uds"), tmp_path / "log"
    process = start_standin("serve", "--socket", path, "--log", str(log))
    unlimited = resource.prlimit(process.pid, resource.RLIMIT_FSIZE)
    exchange(path, frame(13))
    assert eventually(lambda: "#1 " in log.read_text())
    resource.prlimit(process.pid, resource.RLIMIT_FSIZE, (log.stat().st_size + 30, unlimited[1]))
    exchange(path, frame(13))
    exchange(path, frame(13))
    assert process.stderr.readline() == f"plaxd-standin: {log}: File too large: lines of the log are lost\n".encode()
    assert eventually(lambda: tool("-s", path, "info-proactive-rebalance").code == 0)
    time.sleep(0.2)
    resource.prlimit(process.pid, resource.RLIMIT_FSIZE, unlimited)
    assert exchange(path, frame(18)) == frame(0, b"cancelled")
    assert end(process) == (1, b"plaxd-standin: the log could not be written whole\n")
    line = " | status 0x00000000, 16 bytes | answered, client closed, T s"
    assert timeless(log.read_text()) == [
        f"NOW start: socket {path}", "NOW #1 fix-concats 13" + line,
        "NOW #2 fi",
        "NOW #5 what-if-cancel 18 | status 0x00000000, 9 bytes | answered, client closed, T s",
        "NOW summary: 5 requests, 0 broken; fix-concats 3 answered; info-proactive-rebalance 1 answered; "
        "what-if-cancel 1 answered"]


# ---- --ready-fd ----

@pytest.mark.parametrize("command", ["serve", "relay"])
def test_ready_descriptor(command, tmp_path):
    """The stand-in writes one newline and closes the descriptor."""
    path = str(tmp_path / "plaxd.uds")
    reader, writer = os.pipe()
    process = subprocess.Popen([STANDIN, command, "--socket", path, "--log", str(tmp_path / "log"), "--ready-fd",
                                str(writer)], stderr=subprocess.PIPE, pass_fds=[writer])
    os.close(writer)
    with open(reader, "rb") as ready:
        assert ready.read() == b"\n"
    with socket.socket(socket.AF_UNIX) as client:
        client.connect(path)
    assert end(process) == (0, LISTENING + path.encode() + b"\n")


def test_ready_descriptor_of_a_stand_in_that_cannot_start(tmp_path):
    """With an invalid answers file, the waiting reader gets end of file at once."""
    answers = tmp_path / "answers.json"
    answers.write_text("{")
    waiting = 'read -r < <("$0" serve --socket s --log log --ready-fd 1 --answers answers.json 2>/dev/null); echo $?'
    assert subprocess.run(["bash", "-c", waiting, STANDIN], cwd=tmp_path, capture_output=True,
                          check=False).stdout == b"1\n"


@pytest.mark.parametrize("descriptor", ["1", "2"])
def test_standard_descriptor_as_ready_descriptor(tmp_path, descriptor):
    """No client gets the number of the closed descriptor, so no message reaches a client."""
    answers = tmp_path / "answers.json"
    answers.write_text('{"answers": {"fix-concats": {"delayMs": 500, "text": "done"}}}')
    reader, writer = os.pipe()
    process = subprocess.Popen([STANDIN, "serve", "--socket", "s", "--log", "log", "--answers", "answers.json",
                                "--ready-fd", descriptor], cwd=tmp_path, stdin=subprocess.DEVNULL,
                               **{"1": {"stdout": writer, "stderr": subprocess.DEVNULL}, "2": {"stderr": writer}}[descriptor])
    os.close(writer)
    with open(reader, "rb") as ready:
        assert ready.read().endswith(b"\n")
    with socket.socket(socket.AF_UNIX) as client:
        client.connect(str(tmp_path / "s"))
        client.sendall(frame(13))
        answers.write_text("{")
        process.send_signal(signal.SIGHUP)
        assert read_all(client) == frame(0, b"done")
    assert end(process) == (0, None)


def test_expectation_with_standard_output_as_ready_descriptor(tmp_path):
    (tmp_path / "expected").write_text("plax-tool stats\n")
    shell = ('read -r < <("$0" serve --socket s --expect expected --log log --ready-fd 1 2>messages); '
             '"$1" -s s fix-concats; kill $!; wait $!; echo $?')
    run = subprocess.run(["bash", "-c", shell, STANDIN, TOOL], cwd=tmp_path, capture_output=True, check=False)
    assert run.stdout == b"1\n"
    assert (tmp_path / "messages").read_text() == ("plaxd-standin: listening on s\n--- expected\n+++ requests\n"
                                                   "@@ -1 +1 @@\n-plax-tool stats\n+plax-tool fix-concats\n")


def test_ready_descriptor_that_nobody_reads(tmp_path):
    path = str(tmp_path / "plaxd.uds")
    reader, writer = os.pipe()
    os.close(reader)
    process = start_standin("serve", "--socket", path, "--ready-fd", str(writer), pass_fds=[writer])
    os.close(writer)
    assert process.stderr.readline() == f"plaxd-standin: descriptor {writer}: Broken pipe\n".encode()
    assert end(process) == (0, b"")


# ---- SIGHUP ----

def reloaded(path, before):
    """Waits until the answer differs from the one before."""
    return eventually(lambda: exchange(path, frame(13)) != before)


def test_answers_are_read_again(tmp_path):
    process, path, _ = hang(tmp_path, [{"text": "1"}, {"text": "2"}])
    assert [exchange(path, frame(13)) for _ in range(3)] == [frame(0, text) for text in (b"1", b"2", b"2")]
    (tmp_path / "answers.json").write_text('{"answers": {"fix-concats": {"text": "new"}}}')
    process.send_signal(signal.SIGHUP)
    assert reloaded(path, frame(0, b"2"))
    assert exchange(path, frame(13)) == frame(0, b"new")
    (tmp_path / "answers.json").write_text('{"answers": {"fix-concats": {"text": 1}}}')
    process.send_signal(signal.SIGHUP)
    first = process.stderr.readline()
    assert first.startswith(f"plaxd-standin: {tmp_path}/answers.json".encode())
    assert process.stderr.readline() == b"plaxd-standin: the answers stay as they were\n"
    assert exchange(path, frame(13)) == frame(0, b"new")
    assert end(process) == (0, b"")


def test_log_is_opened_again(tmp_path):
    path, log = str(tmp_path / "plaxd.uds"), tmp_path / "log"
    process = start_standin("serve", "--socket", path, "--log", str(log))
    exchange(path, frame(13))
    log.rename(tmp_path / "log.1")
    process.send_signal(signal.SIGHUP)
    assert eventually(log.exists)
    exchange(path, frame(18))
    assert end(process) == (0, b"")
    assert timeless((tmp_path / "log.1").read_text()) == [
        f"NOW start: socket {path}",
        "NOW #1 fix-concats 13 | status 0x00000000, 16 bytes | answered, client closed, T s"]
    assert timeless(log.read_text()) == [
        "NOW #2 what-if-cancel 18 | status 0x00000000, 9 bytes | answered, client closed, T s",
        "NOW summary: 2 requests, 0 broken; fix-concats 1 answered; what-if-cancel 1 answered"]


def test_log_that_cannot_be_opened_again(tmp_path):
    path, directory = str(tmp_path / "plaxd.uds"), tmp_path / "directory"
    directory.mkdir()
    process = start_standin("serve", "--socket", path, "--log", str(directory / "log"))
    directory.rename(tmp_path / "moved")
    process.send_signal(signal.SIGHUP)
    assert process.stderr.readline() == (
        f"plaxd-standin: {directory}/log: No such file or directory: the log stays in the file that was open\n").encode()
    assert end(process) == (0, b"")
    assert timeless((tmp_path / "moved" / "log").read_text()) == [
        f"NOW start: socket {path}", "NOW summary: 0 requests, 0 broken"]


@pytest.mark.parametrize("command", ["serve", "relay"])
def test_reloading_under_load(command, tmp_path):
    """While answers and log are replaced many times, each request is answered and logged once."""
    with Standin() as daemon:
        path, log = str(tmp_path / "plaxd.uds"), tmp_path / "log"
        process = start_standin(command, "--socket", path, "--log", str(log), "--format", "json",
                                *(["--to", daemon.path] if command == "relay" else []))
        replies = []

        def talk():
            replies.extend(exchange(path, frame(13)) for _ in range(250))
        clients = [threading.Thread(target=talk) for _ in range(8)]
        for client in clients:
            client.start()
        for number in itertools.count(1):
            if not any(client.is_alive() for client in clients):
                break
            log.rename(tmp_path / f"log.{number}")
            process.send_signal(signal.SIGHUP)
            assert eventually(log.exists)
        assert end(process) == (0, b"")
    assert number > 5
    assert replies == [frame(0, b"0 concats to fix")] * 2000
    logged = [json.loads(line) for file in tmp_path.glob("log*") for line in file.read_text().splitlines()]
    for event in ("request", "end"):
        numbers = sorted(line["connection"] for line in logged if line["event"] == event)
        assert numbers == list(range(1, 2001))
    assert [line["event"] for line in logged if line["event"] in ("start", "summary")].count("start") == 1
