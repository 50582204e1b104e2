"""plaxd-standin relay --answers: answers the requests in the file, and passes on all others."""

import json
import os
import random
import signal
import socket
import time

from harness import Outcome, ScriptedDaemon, eventually, finish_tool, frame, reply, start_tool, stay_silent, tool
from request_table import ROWS
from standin_process import EXAMPLES, Standin, framed, read_all, run_standin
from test_standin_answers import A, B, RESET, fits_schema
import pytest


def relay_to(daemon, answers, *words):
    assert fits_schema({"answers": answers})
    return Standin("--to", daemon.path, *words, command="relay").answers(answers)


def test_matching_requests_are_answered_and_all_others_passed_on():
    answers = {"info-rebalance": [{"for": {"uuid": A}, "text": "from the file"}], "fix-concats": {"status": "EBUSY"}}
    with Standin() as daemon:
        with relay_to(daemon, answers) as relay:
            assert tool("-s", relay.path, "info-rebalance", "-u", A) == Outcome(b"from the file\n", b"", 0)
            assert tool("-s", relay.path, "info-rebalance", "-u", B) == Outcome(b"bytes to move: 0\n", b"", 0)
            assert tool("-s", relay.path, "fix-concats").code == 16
            assert tool("-s", relay.path, "stats").stdout == b"objects: 1204\nwork items: 3 active, 17 queued\n"
    assert [(line["command"], line["fields"]) for line in daemon.entries] == [
        ("info-rebalance", {"uuid": B}), ("stats", {})]
    outcomes = [(line["command"], line["outcome"], line["reply"]) for line in relay.entries]
    assert outcomes == [("info-rebalance", "answered", framed(13)), ("info-rebalance", "relayed", framed(16)),
                        ("fix-concats", "answered", framed(0, 0x2bad0010)), ("stats", "relayed", {"bytes": 46})]


def test_faults_and_delays_while_passing_on():
    answers = {"fix-concats": [{"fault": "close-without-reading"}, {"pass": True}, {"delayMs": 400, "text": "slow"}]}
    with Standin() as daemon:
        with relay_to(daemon, answers) as relay:
            assert tool("-s", relay.path, "fix-concats") == Outcome(b"", RESET, 0x68)
            assert tool("-s", relay.path, "fix-concats") == Outcome(b"", b"", 0)
            begin = time.monotonic()
            assert tool("-s", relay.path, "fix-concats") == Outcome(b"", b"", 0)
            assert 0.4 <= time.monotonic() - begin < 10
    assert [line["command"] for line in daemon.entries] == ["fix-concats"]
    assert [(line["outcome"], line.get("fault")) for line in relay.entries] == [
        ("fault", "close-without-reading"), ("relayed", None), ("answered", None)]


@pytest.mark.parametrize("milliseconds", [0, 500])
def test_pass_after_a_delay(milliseconds):
    with Standin() as daemon:
        with relay_to(daemon, {"info-rebalance": {"pass": True, "delayMs": milliseconds}}) as relay:
            begin = time.monotonic()
            assert tool("-s", relay.path, "info-rebalance", "-a") == Outcome(b"bytes to move: 0\n", b"", 0)
            assert milliseconds / 1000 <= time.monotonic() - begin < 10
    assert [(line["outcome"], line["reply"]) for line in relay.entries] == [("relayed", framed(16))]


def test_delayed_request_of_a_client_that_has_gone_is_passed_on():
    with Standin() as daemon:
        with relay_to(daemon, {"refresh-config-opts": {"pass": True, "delayMs": 300}}) as relay:
            assert tool("-s", relay.path, "refresh-config-opts") == Outcome(b"", b"", 0)
            assert tool("-s", relay.path, "fix-concats") == Outcome(b"", b"", 0)
            time.sleep(0.6)
    assert [line["command"] for line in daemon.entries] == ["fix-concats", "refresh-config-opts"]
    # The log has them in the order of arrival.
    assert [(line.get("event", "end"), line["command"]) for line in relay.lines] == [
        ("request", "refresh-config-opts"), ("end", "refresh-config-opts"),
        ("request", "fix-concats"), ("end", "fix-concats")]


def test_end_passes_on_what_is_delayed():
    with Standin() as daemon:
        with relay_to(daemon, {"refresh-config-opts": {"pass": True, "delayMs": 86400000}}) as relay:
            assert tool("-s", relay.path, "refresh-config-opts") == Outcome(b"", b"", 0)
            time.sleep(0.2)
    assert [line["command"] for line in daemon.entries] == ["refresh-config-opts"]
    assert [line["command"] for line in relay.entries] == ["refresh-config-opts"]


@pytest.mark.parametrize("sent", [b"", frame(2, A.encode())[:3], frame(2, A.encode())[:8], frame(2, A.encode())[:43]])
def test_end_waits_for_no_client_that_has_not_sent_its_request(sent):
    with Standin() as daemon:
        with relay_to(daemon, {"crawler": {}}) as relay:
            client = relay.connect()
            client.sendall(sent)
            time.sleep(0.1)
        client.close()
    assert relay.code == 0
    assert [line["outcome"] for line in relay.entries] == ["unfinished"] * (sent != b"")
    assert [line["length"] for line in daemon.entries] == ([] if sent == b"" else [0 if len(sent) < 8 else 36])


@pytest.mark.parametrize("request_bytes", [
    frame(2, A.encode())[:1], frame(2, A.encode())[:7], frame(2, A.encode())[:8], frame(2, A.encode())[:43],
    frame(2, A.encode()), frame(2, A.encode()) + b"more", frame(99, b"abc"), frame(7, b"x" * 1048577),
    frame(33, random.Random(1).randbytes(189464)), frame(13)], ids=range(10))
def test_unanswered_requests_pass_byte_for_byte(request_bytes):
    """Requests that are cut, whole, too long, of an unknown code, or with bytes after the end."""
    with ScriptedDaemon(lambda daemon: daemon.read_rest(), reply(5, b"no"), read_request=False) as daemon:
        with relay_to(daemon, {"crawler": {"for": {"uuid": B}}}) as relay:
            assert relay.exchange(request_bytes) == frame(5, b"no")
    assert daemon.received == request_bytes
    assert [line["outcome"] for line in relay.entries] == ["relayed"]


def test_request_in_single_bytes():
    with Standin() as daemon:
        with relay_to(daemon, {"crawler": {"for": {"uuid": B}, "status": 7}}) as relay:
            for uuid, answer in ((A, frame(0, b"queued")), (B, frame(7))):
                with relay.connect() as client:
                    for byte in frame(2, uuid.encode()):
                        client.sendall(bytes([byte]))
                    with client.makefile("rb") as reply:
                        assert reply.read(len(answer)) == answer
    assert [line["fields"] for line in daemon.entries] == [{"uuid": A}]


def test_daemon_that_resets():
    """The last byte of the request is unread at the reset, so the client sees it."""
    answers = {"fix-concats": {"fault": "close-without-reading"}, "crawler": {"fault": "close-without-reading"}}
    with Standin().answers(answers) as daemon:
        with relay_to(daemon, {"info-rebalance": {}}) as relay:
            assert tool("-s", relay.path, "fix-concats") == Outcome(b"", RESET, 0x68)
            assert tool("-s", relay.path, "crawler", "-a") == Outcome(b"", RESET, 0x68)
    assert [(line["outcome"], line["end"]) for line in relay.entries] == [("relayed", "daemon reset")] * 2


def test_no_daemon(tmp_path):
    relay = Standin("--to", str(tmp_path / "none"), command="relay").answers({"fix-concats": {"status": 7}})
    with relay:
        assert tool("-s", relay.path, "fix-concats").code == 7
        assert tool("-s", relay.path, "what-if-cancel") == Outcome(b"", RESET, 0x68)
    assert [(line["outcome"], line["end"]) for line in relay.entries] == [
        ("answered", "client closed"), ("unreachable", "no daemon: No such file or directory")]


def test_looking_whether_somebody_listens_is_no_request():
    with Standin() as daemon:
        with relay_to(daemon, {}) as relay:
            relay.connect().close()
            with relay.connect() as client:
                client.shutdown(socket.SHUT_WR)
                assert read_all(client) == b""
    assert (relay.entries, daemon.entries) == ([], [])


def test_tool_sees_no_difference():
    """Without an answer for any request, the file changes nothing."""
    path = os.path.join(EXAMPLES, "healthy.json")
    nothing = {row.word: {"pass": True} for row in ROWS if row.code % 2}
    with Standin("--answers", path) as daemon:
        direct = [tool("-s", daemon.path, *row.least) for row in ROWS]
    with Standin("--answers", path) as daemon:
        with relay_to(daemon, nothing, "--strict") as relay:
            through = [tool("-s", relay.path, *row.least) for row in ROWS]
    assert through == direct
    assert [line["fields"] for line in relay.entries] == [line["fields"] for line in daemon.entries]
    assert (relay.code, {line["outcome"] for line in relay.entries}) == (0, {"relayed"})


def test_delay_keeps_nobody_waiting():
    with Standin() as daemon:
        with relay_to(daemon, {"fix-concats": {"pass": True, "delayMs": 1500}}) as relay:
            slow = start_tool("-s", relay.path, "fix-concats")
            assert eventually(lambda: tool("-s", relay.path, "what-if-cancel").code == 0, 1)
            assert slow.poll() is None
            assert finish_tool(slow) == Outcome(b"", b"", 0)


def test_answers_are_read_again():
    with Standin() as daemon:
        with relay_to(daemon, {"fix-concats": {"status": 7}}) as relay:
            assert tool("-s", relay.path, "fix-concats").code == 7
            relay.file("answers.json", json.dumps({"answers": {"fix-concats": {"pass": True}}}).encode())
            relay.process.send_signal(signal.SIGHUP)
            assert eventually(lambda: tool("-s", relay.path, "fix-concats").code == 0)


def refused(directory, command, answer):
    file = directory / "answers.json"
    file.write_text(json.dumps({"answers": {"fix-concats": answer}}))
    code, output, messages = run_standin(command, "--socket", str(directory / "s"), "--answers", str(file))
    assert (code, output) == (1, b"")
    return messages.decode().replace(f"plaxd-standin: {file}: /answers/fix-concats", "").splitlines()


def test_wrong_answers(tmp_path):
    assert refused(tmp_path, "serve", {"pass": True}) == ["/pass: needs a daemon, which only a relay has"]
    assert refused(tmp_path, "relay", {"pass": False}) == ["/pass: must be true"]
    assert refused(tmp_path, "relay", {"pass": True, "status": 1, "text": ""}) == [
        "/status: is never used: the request is passed on", "/text: is never used: the request is passed on"]
    for wrong in ({"pass": False}, {"pass": True, "status": 1}, {"pass": True, "fault": "garbage"}):
        assert not fits_schema({"answers": {"fix-concats": wrong}})
