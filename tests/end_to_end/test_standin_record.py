"""plaxd-standin relay --record: what has been recorded is answered again."""

import json
import os
import random
import signal

from harness import ScriptedDaemon, await_unread, close, eventually, frame, pause, reply, send, stay_silent, tool
from request_table import CHECKED, PRINTED, ROWS, STREAMED, UNANSWERED
from standin_process import Standin, end, run_standin, start_standin
import pytest

SESSIONS = int(os.environ.get("PLAX_RANDOM_SESSIONS", "24"))
A = "aaaaaaaa-aaaa-aaaa-aaaa-aaaaaaaaaaaa"
B = "bbbbbbbb-bbbb-bbbb-bbbb-bbbbbbbbbbbb"


@pytest.fixture(name="recording")
def path_of_recording(tmp_path):
    return tmp_path / "recorded.json"


def answers_of(recording):
    with open(recording, encoding="utf-8") as file:
        content = json.load(file)
    assert list(content) == ["answers"]
    return content["answers"]


def record(recording, exchange, *steps, **options):
    """Has a daemon of these steps answer the exchange, and gives what was recorded."""
    with ScriptedDaemon(*steps, **options) as daemon:
        with Standin("--to", daemon.path, "--record", str(recording), command="relay") as relay:
            exchange(relay)
    assert (relay.code, sorted(path.name for path in recording.parent.iterdir() if path.suffix == ".tmp")) == (0, [])
    return answers_of(recording)


def fix_concats(relay):
    return relay.exchange(frame(13))


@pytest.mark.parametrize("steps, answer", [
    ([reply(0)], {}),
    ([reply(0, b"done")], {"text": "done"}),
    ([reply(0x2bad0010, b"busy")], {"status": "EBUSY", "text": "busy"}),
    ([reply(0x0bad0001)], {"status": "Failure"}),
    ([reply(5, b"\0\x7f")], {"status": 5, "text": "\0\x7f"}),
    ([close()], {"fault": "close-without-answering"}),
    ([send(b"")], {"fault": "close-without-answering"}),
    ([send(frame(0)[:3])], {"fault": "cut-header", "faultBytes": 3}),
    ([send(frame(0x2bad0010)[:5])], {"status": "EBUSY", "fault": "cut-header", "faultBytes": 5}),
    ([send(frame(0, bytes(65536))[:6])], {"text": "\0\0\0\0\0\1", "fault": "garbage"}),
    ([send(frame(7, bytes(9))[:8] + b"abc")], {"status": 7, "text": "abc", "fault": "announce-more", "faultBytes": 9}),
    ([send(frame(0, b"ab") + b"cd")], {"text": "\0\0\0\0\0\0\0\2abcd", "fault": "garbage"}),
])
def test_framed_reply(recording, steps, answer):
    [recorded] = record(recording, fix_concats, *steps)["fix-concats"]
    recorded.pop("delayMs", None)
    assert recorded == answer


def test_silent_daemon(recording):
    def give_up(relay):
        with relay.connect() as client:
            client.sendall(frame(13))
            eventually(lambda: b"fix-concats" in open(relay.log, "rb").read())
    assert record(recording, give_up, stay_silent()) == {"fix-concats": [{"fault": "stay-silent"}]}


def test_daemon_that_does_not_read(recording):
    [recorded] = record(recording, lambda relay: tool("-s", relay.path, "fix-concats"), await_unread(8), close(),
                        read_request=False)["fix-concats"]
    recorded.pop("delayMs", None)
    assert recorded == {"fault": "close-without-reading"}


def test_no_daemon(recording, tmp_path):
    with Standin("--to", str(tmp_path / "nobody"), "--record", str(recording), command="relay") as relay:
        with pytest.raises(ConnectionResetError):
            relay.exchange(frame(13))
    [recorded] = answers_of(recording)["fix-concats"]
    recorded.pop("delayMs", None)
    assert recorded == {"fault": "close-without-reading"}


def test_times(recording):
    """The delay ends with the header; the pauses are those between the pieces that came."""
    header = frame(0, b"first second")[:8]
    [recorded] = record(recording, fix_concats, pause(0.3), send(header), pause(0.4), send(b"first "), pause(0.5),
                        send(b"second"))["fix-concats"]
    assert [piece["text"] for piece in recorded["pieces"]] == ["first ", "second"]
    times = recorded["delayMs"], *(piece["pauseMs"] for piece in recorded["pieces"])
    assert all(least <= time < least + 5000 for least, time in zip((250, 350, 450), times))


def test_stream(recording):
    [recorded] = record(recording, lambda relay: relay.exchange(frame(1)), send(b"first\n"), pause(0.4),
                        send(b"second"))["stats"]
    recorded.pop("delayMs", None)
    assert 350 <= recorded["pieces"][1].pop("pauseMs") < 5000
    assert recorded == {"pieces": [{"text": "first\n"}, {"text": "second"}]}


def test_payload_that_is_no_text_goes_to_a_file(recording):
    [recorded] = record(recording, fix_concats, reply(0, b"\xff\xfe"))["fix-concats"]
    assert recorded.pop("file").startswith("recorded.json.")
    [payload] = [path for path in recording.parent.iterdir() if path.name.startswith("recorded.json.")]
    assert payload.read_bytes() == b"\xff\xfe"
    with Standin("--answers", str(recording)) as plaxd:
        assert fix_concats(plaxd) == frame(0, b"\xff\xfe")


def test_requests_are_told_apart_by_all_fields(recording):
    answers = {"info-rebalance": [{"for": {"uuid": A}, "answers": [{"text": "A1"}, {"text": "A2"}]}, {"text": "B"}]}
    with Standin().answers(answers) as daemon:
        with Standin("--to", daemon.path, "--record", str(recording), command="relay") as relay:
            for uuid in (A, B, A):
                tool("-s", relay.path, "info-rebalance", "-u", uuid)
            relay.exchange(frame(14, b"too short"))
            relay.exchange(frame(99))
    recorded = answers_of(recording)
    for entry in recorded["info-rebalance"]:
        for answer in entry.get("answers", [entry]):
            answer.pop("delayMs", None)
    assert recorded == {"info-rebalance": [{"for": {"uuid": A}, "answers": [{"text": "A1"}, {"text": "A2"}]},
                                           {"for": {"uuid": B}, "text": "B"}]}


def test_equal_answers_are_folded(recording):
    """Commands without a reply have no delays, which would make their answers differ."""
    closed, unread = {"fault": "close-without-answering"}, {"fault": "close-without-reading"}
    with Standin("--to", "/nowhere/plaxd.uds", "--record", str(recording), command="relay").answers({
            "refresh-config-opts": [{**closed, "times": 2}, unread, {**closed, "times": 3}],
            "block-cdb-cb": closed}) as relay:
        for _ in range(6):
            tool("-s", relay.path, "refresh-config-opts")
        for uuid in (A, B, A):
            tool("-s", relay.path, "block-cdb-cb", "-u", uuid, "add", "disk")
    answers = answers_of(recording)
    assert answers["refresh-config-opts"] == [{**closed, "times": 2}, unread, {**closed, "times": 3}]
    assert [entry.get("times") for entry in answers["block-cdb-cb"]] == [2, None]


def test_answers_of_the_relay_are_recorded_too(recording):
    with Standin("--to", "/nowhere/plaxd.uds", "--record", str(recording), command="relay").answers({
            "fix-concats": {"status": "EBUSY"}, "stats": {"text": ""},
            "info-rebalance": {"fault": "close-without-answering"}}) as relay:
        for word in ("fix-concats", "stats", "info-rebalance"):
            tool("-s", relay.path, word, "-u", A)
    recorded = answers_of(recording)
    for [answer] in recorded.values():
        answer.pop("delayMs", None)
    assert recorded == {
        "fix-concats": [{"status": "EBUSY"}], "stats": [{}],
        "info-rebalance": [{"for": {"uuid": A}, "fault": "close-without-answering"}]}


def test_sighup_writes_what_has_ended(recording, tmp_path):
    with ScriptedDaemon(reply(0, b"done"), stay_silent()) as daemon:
        process = start_standin("relay", "--socket", str(tmp_path / "uds"), "--to", daemon.path, "--record",
                                str(recording))
        assert tool("-s", str(tmp_path / "uds"), "fix-concats").code == 0
        process.send_signal(signal.SIGHUP)
        eventually(recording.exists)
        written = answers_of(recording)["fix-concats"]
        assert [answer["text"] for answer in written] == ["done"]
        assert end(process, signal.SIGINT) == (0, b"")
    assert answers_of(recording)["fix-concats"] == written


def test_exchange_that_the_end_cuts_short_is_left_out(recording):
    with ScriptedDaemon(stay_silent()) as daemon:
        with Standin("--to", daemon.path, "--record", str(recording), command="relay") as relay:
            client = relay.connect()
            client.sendall(frame(13))
            eventually(lambda: b"fix-concats" in open(relay.log, "rb").read())
    client.close()
    assert answers_of(recording) == {}


@pytest.mark.parametrize("path, message", [("/nowhere/file", b"No such file or directory"),
                                           ("/dev/null", b"is not a regular file"), ("/tmp", b"is not a regular file")])
def test_unwritable_recording_is_an_error_at_the_start(tmp_path, path, message):
    status, _, messages = run_standin("relay", "--socket", str(tmp_path / "uds"), "--record", path)
    assert (status, messages) == (1, b"plaxd-standin: " + path.encode() + b": " + message + b"\n")


def test_recording_that_fails_later_leaves_the_old_one(tmp_path):
    directory = tmp_path / "directory"
    directory.mkdir()
    process = start_standin("relay", "--socket", str(tmp_path / "uds"), "--record", str(directory / "file"))
    directory.rename(tmp_path / "elsewhere")
    (tmp_path / "elsewhere" / "file").write_text("old")
    assert end(process) == (1, f"plaxd-standin: {directory}/file: No such file or directory: the recording is not "
                               "written\n".encode())
    assert (tmp_path / "elsewhere" / "file").read_text() == "old"


# ---- Random sessions ----

FAULTS = {
    PRINTED: ["close-without-reading", "close-without-answering", "cut-header", "announce-more", "garbage"],
    CHECKED: ["close-without-reading", "close-without-answering", "cut-header", "announce-more", "garbage"],
    STREAMED: ["close-without-reading", "close-without-answering", "garbage"],
    UNANSWERED: ["close-without-reading", "close-without-answering"],
}
TEXTS = ["", "done", "line\nline\n", "\N{SNOWMAN}", "\0", "x" * 70000]
STATUSES = ["Success", "Failure", "EBUSY", "ETIMEDOUT", 5, 0x2badffff, 0xffffffff]


def random_payload(dice, directory, kind):
    """A stream has no zero bytes: what the tool shows of them depends on how many bytes it happens to read at once."""
    data = dice.choice(TEXTS).encode() if dice.random() < 0.7 else dice.randbytes(dice.choice([1, 7, 8, 300, 100000]))
    name = f"payload-{dice.randrange(10**9)}"
    (directory / name).write_bytes(data.replace(b"\0", b"0") if kind == STREAMED else data)
    return {"file": name}


def random_answer(dice, directory, kind):
    """Any answer but silence, which takes the tool 20 seconds to believe."""
    answer = {"delayMs": dice.choice([0, 0, 1, 20])}
    fault = dice.choice([None, None, *FAULTS[kind]])
    if fault:
        answer["fault"] = fault
    if kind in (PRINTED, CHECKED) and fault in (None, "cut-header", "announce-more"):
        answer["status"] = dice.choice(STATUSES)
    if fault in ("cut-header", "announce-more"):
        answer["faultBytes"] = dice.randrange(8) if fault == "cut-header" else 400000 + dice.randrange(10)
    if kind != UNANSWERED and fault in (None, "announce-more", "garbage"):
        answer.update(random_payload(dice, directory, kind) if dice.random() < 0.6 else {"pieces": [
            {**random_payload(dice, directory, kind), "pauseMs": dice.choice([0, 1, 10])}
            for _ in range(dice.randrange(1, 4))]})
    return answer


def random_session(seed, directory):
    """Command lines, and an answers file for them."""
    dice = random.Random(seed)
    lines, answers = [], {}
    for row in dice.choices(ROWS, k=3):
        key = row.word + (" --all" if (row.word, row.reply) == ("get-obj-crawler-state", STREAMED) else "")
        answers.setdefault(key, []).extend(
            random_answer(dice, directory, row.reply) for _ in range(dice.randrange(1, 4)))
        words = [row.least, row.full]
        if row.rule and "-u" in row.least:
            words += [(row.word, "-u", A), (row.word, "-u", B)]
        lines += dice.choices(words, k=dice.randrange(1, 5))
    dice.shuffle(lines)
    (directory / "answers.json").write_text(json.dumps({"answers": answers}))
    return lines


@pytest.mark.parametrize("seed", range(SESSIONS))
def test_recorded_session_is_the_same(seed, recording, tmp_path):
    lines = random_session(seed, tmp_path)
    with Standin("--answers", str(tmp_path / "answers.json")) as daemon:
        with Standin("--to", daemon.path, "--record", str(recording), command="relay") as relay:
            first = [tool("-s", relay.path, *line) for line in lines]
    with Standin("--answers", str(recording)) as plaxd:
        again = [tool("-s", plaxd.path, *line) for line in lines]
    assert again == first
