"""plaxd-standin --capture: tshark decodes the bytes sent and the fields in the log."""

import json
import os
import re
import shutil
import struct
import subprocess
import tempfile

from harness import HOST_ORDER, TOOL, ScriptedDaemon, frame, pause, send, stay_silent, tool
from request_table import PRINTED, CHECKED, ROWS, STREAMED, UNANSWERED, name
from standin_process import PROJECT, Standin, end, run_standin, start_standin
import pytest

pytestmark = pytest.mark.skipif(not shutil.which("tshark"), reason="there is no tshark")

DISSECTOR = os.path.join(PROJECT, "standin", "wireshark", "plaxd.lua")
UUID = "01234567-89ab-cdef-0123-456789abcdef"
LINKS = ("plaxd.request_in", "plaxd.reply_in", "plaxd.time")


def tshark(capture, *options):
    """tshark's output.

    tshark of version 4.4 and later loads no dissector as root, so root runs it as another user, who can read the copies.
    """
    with tempfile.TemporaryDirectory() as directory:
        os.chmod(directory, 0o755)
        for copy, original in ("capture", capture), ("plaxd.lua", DISSECTOR):
            shutil.copyfile(original, f"{directory}/{copy}")
            os.chmod(f"{directory}/{copy}", 0o644)
        other = {} if os.geteuid() else {"user": 65534, "group": 65534, "extra_groups": []}
        run = subprocess.run(["tshark", "-2", "-X", "lua_script:plaxd.lua", "-r", "capture", *options], cwd=directory, env={**os.environ, "HOME": directory}, **other,
                             stdin=subprocess.DEVNULL, capture_output=True, check=True, timeout=60)
    assert run.stderr == b""
    return run.stdout


def packets(capture):
    """The values of each packet: lists by field name."""
    found = json.loads(tshark(capture, "-T", "json", "--no-duplicate-keys"))
    return [flat(packet["_source"]["layers"]["plaxd"]) for packet in found]


def flat(tree):
    """Expert messages are below the fields that they belong to."""
    values = {}
    for key, value in tree.items():
        for part in value if isinstance(value, list) else [value]:
            if isinstance(part, dict):
                for inner, found in flat(part).items():
                    values.setdefault(inner, []).extend(found)
            elif key == "_ws.expert.message" or not key.startswith(("_ws.", "plaxd.expert.")):
                values.setdefault(key, []).append(part)
    return values


def shown(packet):
    """The packet without its links to other packets."""
    return {key.removeprefix("plaxd."): value if len(value) > 1 else value[0] for key, value in packet.items()
            if key not in LINKS + ("plaxd.connection", "plaxd.command")}


def value_text(value):
    if isinstance(value, list):
        return "[" + ",".join(map(value_text, value)) + "]"
    if isinstance(value, str) and re.fullmatch(r"[-_./:+A-Za-z0-9]+", value):
        return value
    return json.dumps(value)


@pytest.fixture(name="capture")
def path_of_capture(tmp_path):
    return str(tmp_path / "capture")


# The stand-in's answers to fix-concats: these in turn, then the built-in one for ever.
BROKEN_REPLIES = {
    "cut-header": ({"fault": "cut-header", "faultBytes": 3}, {"_ws.expert.message": "3 of 8 header bytes"}),
    "announce-more": (
        {"fault": "announce-more", "faultBytes": 99, "text": "abc"},
        {"status_name": "Success", "status": "0x00000000", "length": "99", "_ws.expert.message": "3 of 99 bytes",
         "payload": "61:62:63", "text": "abc"}),
    "garbage": ({"fault": "garbage", "text": "\x01\x02\x03\x04\x00\x00\x00\x00ab"},
                {"status_name": "", "status": "0x01020304", "length": "0", "_ws.expert.message": "2 of 0 bytes",
                 "payload": "61:62", "text": "ab"}),
}
PIECES = {"status": "EBUSY", "pieces": [{"text": "a"}, {"text": "b", "pauseMs": 300}]}
LONG_TEXT = "7" * 400000

one_capture = pytest.mark.xdist_group("capture")  # tshark takes long to start, so many tests share one capture


@pytest.fixture(name="exchanges", scope="module")
def capture_exchanges(tmp_path_factory):
    """The packets of each exchange by their numbers in the capture, and the log's entries of all commands.

    The key of a row's exchange is the row's name with "least" or "full"; the others have the names used below.
    """
    path = str(tmp_path_factory.mktemp("exchanges") / "capture")
    plaxd = Standin("--capture", path).answers({
        "fix-concats": [*(answer for answer, _ in BROKEN_REPLIES.values()), PIECES, {"text": "0 concats to fix"}],
        "fitness-config-set": [{"text": LONG_TEXT}, {"text": "stored"}]})
    requests = {**dict.fromkeys([*BROKEN_REPLIES, "pieces"], frame(13)),
                "broken": frame(24, b"7\0x") + b"more", "cut": b"\0\0", "senseless": frame(7),
                "long": frame(4, LONG_TEXT.encode() + b"\0")}
    with plaxd:
        replies = {key: plaxd.exchange(request) for key, request in requests.items()}
        for row in ROWS:
            tool("-s", plaxd.path, *row.least)
            tool("-s", plaxd.path, *row.full)
    assert (replies["broken"], replies["long"]) == (frame(0, b"enabled"), frame(0, LONG_TEXT.encode()))
    keys = [*requests, *((name(row), request) for row in ROWS for request in ("least", "full"))]
    captured = {key: {} for key in keys}
    for number, packet in enumerate(packets(path), 1):
        captured[keys[int(packet["plaxd.connection"][0]) - 1]][number] = packet
    assert [entry["connection"] for entry in plaxd.entries] == list(range(1, len(keys) + 1))
    return captured, dict(zip(keys, plaxd.entries))


def shown_of(exchanges, *keys):
    """What tshark shows of the packets of these exchanges, one after the other."""
    return [shown(packet) for key in keys for packet in exchanges[0][key].values()]


@one_capture
@pytest.mark.parametrize("row", ROWS, ids=name)
def test_command(exchanges, row):
    for payload, request in (row.least_payload, "least"), (row.full_payload, "full"):
        exchange, entry = (part[name(row), request] for part in exchanges)
        numbers, found = list(exchange), list(exchange.values())
        assert {packet["plaxd.command"][0] for packet in found} == {row.word}
        assert found[0].get("plaxd.field", []) == [f"{key}={value_text(value)}" for key, value
                                                    in entry["fields"].items()]
        assert found[0].get("plaxd.warning", []) == entry["warnings"]
        assert (found[0]["plaxd.code"], found[0]["plaxd.length"]) == ([str(row.code)], [str(len(payload))])
        assert found[0].get("plaxd.payload", [""]) == [payload.hex(":")] if payload else [""]
        assert shown(found[-1]) == {"kind": "end", "outcome": "answered", "end": "client closed"}
        assert_reply(row, numbers, found)


def assert_reply(row, numbers, found):
    """Compares the packets from the request to the end, and their links."""
    kinds = {PRINTED: ["reply"], CHECKED: ["reply"], STREAMED: ["stream"], UNANSWERED: []}
    assert [packet["plaxd.kind"][0] for packet in found[1:-1]] == kinds[row.reply]
    for packet in found[1:]:
        assert packet["plaxd.request_in"] == [str(numbers[0])]
        assert 0 <= float(packet["plaxd.time"][0]) < 10
    if row.reply == UNANSWERED:
        assert "plaxd.reply_in" not in found[0]
        return
    assert found[0]["plaxd.reply_in"] == [str(numbers[1])]
    answer = {"text": row.answer, "payload": row.answer.encode().hex(":")} if row.answer else {}
    framed = {"status": "0x00000000", "status_name": "Success", "length": str(len(row.answer))}
    expected = {"kind": "stream"} if row.reply == STREAMED else {"kind": "reply", **framed}
    assert shown(found[1]) == {**expected, **answer}


@one_capture
def test_broken_request(exchanges):
    assert shown_of(exchanges, "broken", "cut") == [
        {"kind": "request", "code": "24", "length": "3", "payload": "37:00:78", "violation": "length 3 instead of 4",
         "_ws.expert.message": "length 3 instead of 4"},
        {"kind": "reply", "status_name": "Success", "status": "0x00000000", "length": "7",
         "payload": "65:6e:61:62:6c:65:64", "text": "enabled"},
        {"kind": "end", "outcome": "answered", "end": "client closed", "violation": "4 bytes after the end",
         "_ws.expert.message": "4 bytes after the end"},
        {"kind": "request", "violation": "cut short: 2 of 8 header bytes",
         "_ws.expert.message": "cut short: 2 of 8 header bytes"},
        {"kind": "end", "outcome": "unanswered", "end": "client closed"}]


@one_capture
def test_senseless_request(exchanges):
    request, *_ = exchanges[0]["senseless"].values()
    assert (request["plaxd.warning"], request["_ws.expert.message"]) == (["level is empty"], ["level is empty"])


@one_capture
@pytest.mark.parametrize("fault", BROKEN_REPLIES)
def test_broken_reply(exchanges, fault):
    assert shown_of(exchanges, fault)[1:] == [
        {"kind": "reply", **BROKEN_REPLIES[fault][1]},
        {"kind": "end", "outcome": "fault", "end": "client closed", "fault": fault}]


@one_capture
def test_framed_reply_in_pieces_is_one_packet(exchanges):
    (_, second, _), (request, answered, _) = zip(*exchanges[0]["pieces"].items())
    assert shown(answered) == {"kind": "reply", "status_name": "EBUSY", "status": "0x2bad0010", "length": "2",
                               "payload": "61:62", "text": "ab"}
    assert 0.3 <= float(answered["plaxd.time"][0]) < 10
    assert request["plaxd.reply_in"] == [str(second)]


def test_relay_shows_each_piece_of_a_stream(capture):
    with ScriptedDaemon(send(b"first"), pause(0.3), send(b"second\xff")) as daemon:
        with Standin("--to", daemon.path, "--capture", capture, command="relay") as relay:
            relay.exchange(frame(1))
    _, first, second, last = packets(capture)
    assert shown(first) == {"kind": "stream", "payload": "66:69:72:73:74", "text": "first"}
    assert second["plaxd.payload"] == ["73:65:63:6f:6e:64:ff"]
    assert 0.2 <= float(second["plaxd.time"][0]) - float(first["plaxd.time"][0]) < 10
    assert last["plaxd.outcome"] == ["relayed"]


def test_reply_before_the_request_is_shown_after_it(capture):
    """A daemon that answers before it reads the request."""
    with ScriptedDaemon(send(frame(5, b"no")), stay_silent(), read_request=False) as daemon:
        with Standin("--to", daemon.path, "--capture", capture, command="relay") as relay:
            with relay.connect() as client:
                assert client.recv(100) == frame(5, b"no")
                client.sendall(frame(13))
                client.shutdown(1)
    assert [packet["plaxd.kind"] for packet in packets(capture)] == [["request"], ["reply"], ["end"]]
    assert relay.entries[0]["reply"] == {"status": 5, "statusHex": "0x00000005", "length": 2, "bytes": 2}


def set_times(capture, times):
    """Replaces the times of all packets, given in microseconds."""
    with open(capture, "r+b") as file:
        file.seek(24)
        for time in times:
            seconds, microseconds = divmod(time, 1000000)
            file.write(struct.pack(HOST_ORDER + "II", 1700000000 + seconds, microseconds))
            length = struct.unpack(HOST_ORDER + "II", file.read(8))[0]
            file.seek(length, os.SEEK_CUR)
        assert file.read() == b""


def test_columns_and_times(capture):
    """A status without a name leaves no gap, and differences of times have no rounding errors."""
    with Standin("--capture", capture).answers({"fix-concats": [{"status": 7}, {"status": "EBUSY"}]}) as plaxd:
        plaxd.exchange(frame(13))
        plaxd.exchange(frame(13))
    set_times(capture, [0, 1, 2, 12345603, 12345626, 98765432])
    lines = tshark(capture, "-T", "fields", "-e", "_ws.col.Info", "-e", "plaxd.time").decode().splitlines()
    assert lines == [
        "fix-concats\t", "0x00000007, 0 bytes\t0.000001000", "answered, client closed\t0.000002000",
        "fix-concats\t", "0x2bad0010 EBUSY, 0 bytes\t0.000023000", "answered, client closed\t86.419829000"]


@one_capture
def test_long_packets_are_cut_without_a_complaint(exchanges):
    """tshark reads packets of at most 256 KiB."""
    request, answered, _ = exchanges[0]["long"].values()
    assert (request["plaxd.field"], request["plaxd.length"]) == (["json=" + "7" * 99995], ["400001"])
    assert answered["plaxd.length"] == ["400000"]
    assert (request["_ws.expert.message"], "_ws.expert.message" in answered) == (["json is not JSON"], False)


def test_rehearsal(capture, monkeypatch):
    monkeypatch.setenv("PATH", os.path.dirname(TOOL) + ":" + os.environ["PATH"])
    words = ("rehearse", "--capture", capture, "--socket-option", "--", "plax-tool", "fix-concats")
    assert run_standin(*words)[0] == 0
    assert [packet["plaxd.kind"] for packet in packets(capture)] == [["request"], ["reply"], ["end"]]


@pytest.mark.parametrize("command", ["serve", "relay", "rehearse"])
@pytest.mark.parametrize("path, message", [("/nowhere/capture", b"No such file or directory"),
                                           ("/dev/full", b"No space left on device")])
def test_unwritable_capture_is_an_error_at_the_start(tmp_path, command, path, message):
    words = ["--", "true"] if command == "rehearse" else ["--socket", str(tmp_path / "uds")]
    status, _, messages = run_standin(command, "--capture", path, *words)
    assert (status, messages) == (1, b"plaxd-standin: " + path.encode() + b": " + message + b"\n")
    assert not (tmp_path / "uds").exists()


def test_capture_that_fails_later(tmp_path):
    """A pipe replaces a disk that becomes full."""
    pipe, path = str(tmp_path / "pipe"), str(tmp_path / "uds")
    os.mkfifo(pipe)
    reader = os.open(pipe, os.O_RDONLY | os.O_NONBLOCK)
    process = start_standin("serve", "--socket", path, "--capture", pipe)
    os.close(reader)
    assert [tool("-s", path, "fix-concats").code for _ in range(2)] == [0, 0]
    assert end(process) == (
        1, b"plaxd-standin: " + pipe.encode() + b": Broken pipe: packets of the capture are lost\n")
