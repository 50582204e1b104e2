"""The answers file: answers and faults as the tool sees them, and the messages for errors in the file."""

import json
import os
import time

from command_line import INCOMPLETE
from harness import Outcome, finish_tool, frame, start_tool, tool
from request_table import COMMANDS, ROWS
from standin_process import EXAMPLES, PROJECT, Standin, end, entry, framed, run_standin, start_standin
from waiting import in_one_worker, together
from jsonschema import Draft202012Validator
import pytest

RESET = b"Error received: Connection reset by peer: (null)\n"
TIMED_OUT = b"Error received: Resource temporarily unavailable: (null)\n"

with open(os.path.join(PROJECT, "standin", "standin-answers.schema.json"), encoding="utf-8") as schema_file:
    SCHEMA = json.load(schema_file)


def fits_schema(content):
    return Draft202012Validator(SCHEMA).is_valid(content)


def test_schema_is_one():
    Draft202012Validator.check_schema(SCHEMA)


def run(command, answer, *words):
    """Returns the outcome of the tool that gets the answer, and the log entries."""
    assert fits_schema({"answers": {command: answer}})
    with Standin().answers({command: answer}) as plaxd:
        outcome = tool("-s", plaxd.path, *words)
    return outcome, plaxd.entries


# ---- Answers ----

def test_status_and_text():
    assert run("fix-concats", {"status": 5, "text": "busy"}, "fix-concats") == (
        Outcome(b"", b"Error received: Status 0x00000005: busy\n", 5),
        [entry("fix-concats", 13, 0, reply=framed(4, 5))])


@pytest.mark.parametrize("status, number, code", [
    ("0x2bad000b", 0x2bad000b, 11), ("0xFFFFFFFF", 0xffffffff, 255), (4294967295, 0xffffffff, 255), ("Success", 0, 0),
    ("Failure", 0x0bad0001, 1), ("EAGAIN", 0x2bad000b, 11), ("EBUSY", 0x2bad0010, 16), ("EPERM", 0x2bad0001, 1),
    ("EHWPOISON", 0x2bad0085, 133), ("0X2BAD000B", 0x2bad000b, 11), ("ENOTSUP", 0x2bad005f, 95),
    ("EWOULDBLOCK", 0x2bad000b, 11), ("EDEADLOCK", 0x2bad0023, 35)])
def test_status_without_text(status, number, code):
    outcome, entries = run("fix-concats", {"status": status}, "fix-concats")
    assert outcome.code == code
    assert (entries[0]["reply"]["status"], entries[0]["reply"]["statusHex"]) == (number, f"0x{number:08x}")


@pytest.mark.parametrize("status, shown", [
    (0, "0x00000000"), (0x0bad0001, "0x0bad0001 Failure"), (0x2bad000b, "0x2bad000b EAGAIN"), (5, "0x00000005"),
    (0x2bad0fff, "0x2bad0fff"), (0x2bad0000, "0x2bad0000")])
def test_status_in_the_log(status, shown, tmp_path):
    log = tmp_path / "log"
    plaxd = Standin().answers({"fix-concats": {"status": status}})
    with plaxd:
        tool("-s", plaxd.path, "fix-concats")
    assert plaxd.entries[0]["reply"].get("statusName", "") == {0: "Success"}.get(status, shown[11:])
    process = start_standin("serve", "--socket", str(tmp_path / "s"), "--log", str(log), "--answers",
                            str(write_answers(tmp_path, {"fix-concats": {"status": status}})))
    tool("-s", str(tmp_path / "s"), "fix-concats")
    assert end(process) == (0, b"")
    assert log.read_text().split(" | ")[1] == f"status {shown}, 0 bytes"


def write_answers(directory, commands):
    file = directory / "answers.json"
    file.write_text(json.dumps({"answers": commands}))
    return file


def test_nothing_said():
    assert run("fitness-stats-get", {}, "fitness-stats-get") == (
        Outcome(b"\n", b"", 0), [entry("fitness-stats-get", 6, 0, reply=framed(0))])


def test_list_of_answers():
    """Each answer is given once, and the last one repeats. Every command keeps its own place in its list."""
    answers = {"info-rebalance": [{"text": "one"}, {"text": "two"}, {"text": "three"}],
               "fix-concats": [{"status": 1}, {"status": 0}]}
    with Standin().answers(answers) as plaxd:
        shown = [tool("-s", plaxd.path, "info-rebalance", "-a").stdout for _ in range(4)]
        codes = [tool("-s", plaxd.path, "fix-concats").code for _ in range(3)]
    assert (shown, codes) == ([b"one\n", b"two\n", b"three\n", b"three\n"], [1, 0, 0])


def test_repeated_answers():
    answers = {"info-rebalance": [{"text": "one", "times": 3}, {"text": "two"}, {"text": "three", "times": 2}]}
    assert fits_schema({"answers": answers})
    with Standin().answers(answers) as plaxd:
        shown = [tool("-s", plaxd.path, "info-rebalance", "-a").stdout.decode().strip() for _ in range(8)]
    assert shown == ["one", "one", "one", "two", "three", "three", "three", "three"]


# ---- Answers by request ----

A = "0a0a0a0a-0a0a-0a0a-0a0a-0a0a0a0a0a0a"
B = "0b0b0b0b-0b0b-0b0b-0b0b-0b0b0b0b0b0b"


def test_first_entry_that_fits_answers():
    answers = {"what-if-entity-decom": [
        {"for": {"uuid": A, "decomMode": 2}, "answers": [{"text": "A2 first"}, {"text": "A2 then"}]},
        {"for": {"uuid": A}, "text": "A", "times": 2},
        {"for": {"ensureDurability": 1}, "status": "EBUSY"},
        {"text": "rest first"}, {"text": "rest then"}]}
    assert fits_schema({"answers": answers})
    asked = [("-u", A, "-d", "2"), ("-u", A), ("-u", B), ("-u", A, "-d", "2"), ("-u", A, "-e"), ("-u", B, "-e"),
             ("-u", B), ("-u", A, "-e", "-d", "2"), ("-u", B, "-d", "2")]
    with Standin().answers(answers) as plaxd:
        runs = [tool("-s", plaxd.path, "what-if-entity-decom", *options) for options in asked]
    assert [run.stdout.decode().strip() for run in runs] == [
        "A2 first", "A", "rest first", "A2 then", "A", "", "rest then", "A2 then", "rest then"]
    assert [run.code for run in runs] == [0, 0, 0, 0, 0, 16, 0, 0, 0]
    assert plaxd.summary["commands"] == {"what-if-entity-decom": {"answered": 9}}


def test_unmatched():
    with Standin().answers({"info-rebalance": {"for": {"uuid": A}, "text": "A"}}) as plaxd:
        assert tool("-s", plaxd.path, "info-rebalance", "-u", B) == Outcome(b"bytes to move: 0\n", b"", 0)
        assert tool("-s", plaxd.path, "info-rebalance", "-u", A) == Outcome(b"A\n", b"", 0)
        assert tool("-s", plaxd.path, "fix-concats").code == 0
    assert plaxd.entries == [
        entry("info-rebalance", 14, 36, {"uuid": B}, reply=framed(16), outcome="unmatched"),
        entry("info-rebalance", 14, 36, {"uuid": A}, reply=framed(1), connection=2),
        entry("fix-concats", 13, 0, reply=framed(16), connection=3)]
    assert plaxd.summary["commands"] == {"fix-concats": {"answered": 1},
                                         "info-rebalance": {"answered": 1, "unmatched": 1}}


@pytest.mark.parametrize("condition, words, others", [
    ({"level": "two words"}, ["two words"], ["two"]),
    ({"level": "\N{REPLACEMENT CHARACTER}a"}, [b"\xffa"], [b"a"]),
    ({"level": ""}, [""], ["0"]),
    ({}, ["any"], None),
])
def test_texts_are_those_of_the_log(condition, words, others):
    with Standin().answers({"log-level": {"for": condition, "status": 7}}) as plaxd:
        assert tool("-s", plaxd.path, "log-level", *words).code == 7
        if others is not None:
            assert tool("-s", plaxd.path, "log-level", *others).code == 0
    assert [line["outcome"] for line in plaxd.entries] == ["answered", "unmatched"][:len(plaxd.entries)]
    assert {**plaxd.entries[0]["fields"], **condition} == plaxd.entries[0]["fields"]


def test_lists_and_reals_are_compared():
    answers = {"set-global-exclusion-list": {"for": {"exclusionList": [A, B]}, "status": 7},
               "start-proactive-rebalance": [{"for": {"varianceThreshold": 0.25}, "status": 8},
                                             {"for": {"varianceThreshold": "nan"}, "status": 9}],
               "get-obj-crawler-state --all": {"for": {"all": 1}, "text": "all"}}
    with Standin().answers(answers) as plaxd:
        codes = [tool("-s", plaxd.path, *words).code for words in (
            ["set-global-exclusion-list", "-x", f"{A},{B}"], ["set-global-exclusion-list", "-x", f"{B},{A}"],
            ["start-proactive-rebalance", "1", "0.25"], ["start-proactive-rebalance", "1", "nan"],
            ["start-proactive-rebalance", "1", "0.5"])]
        assert tool("-s", plaxd.path, "get-obj-crawler-state", "-a").stdout == b"all"
    assert codes == [7, 0, 8, 9, 0]


def test_request_without_its_fields_fits_no_conditions():
    """One byte is missing, so the request has no fields to compare."""
    with Standin().answers({"crawler": [{"for": {"uuid": A}, "status": 7}]}) as plaxd:
        assert plaxd.exchange(frame(2, A[:-1].encode())) == frame(0, b"queued")
    assert plaxd.entries[0]["outcome"] == "unmatched"


def test_values_are_those_of_the_log_however_they_are_written():
    """A UUID may have digits of either case, which count in a list, and a whole number may have a point."""
    answers = {"what-if-entity-decom": {"for": {"uuid": A.upper(), "decomMode": 2.0}, "text": "A2"},
               "what-if-upgrade": [{"for": {"uuidList": [A.upper()]}, "text": "upper"}, {"text": "other"}]}
    assert fits_schema({"answers": answers})
    with Standin().answers(answers) as plaxd:
        assert tool("-s", plaxd.path, "what-if-entity-decom", "-u", A, "-d", "2").stdout == b"A2\n"
        assert [tool("-s", plaxd.path, "what-if-upgrade", "-l", words).stdout for words in (A, A.upper())] == [
            b"other\n", b"upper\n"]


def test_narrower_entry_before_a_wider_one():
    answers = {"what-if-entity-decom": [{"for": {"uuid": A, "decomMode": 2}, "text": "A2"},
                                        {"for": {"uuid": A, "decomMode": 1}, "text": "A1"},
                                        {"for": {"uuid": A}, "text": "A"}, {"for": {}, "text": "any"}]}
    with Standin().answers(answers) as plaxd:
        shown = [tool("-s", plaxd.path, "what-if-entity-decom", "-u", uuid, "-d", mode).stdout
                 for uuid, mode in ((A, "2"), (A, "1"), (A, "0"), (B, "2"))]
    assert shown == [b"A2\n", b"A1\n", b"A\n", b"any\n"]


@pytest.mark.parametrize("value", ["inf", "-inf", "nan", "-nan", "nan(0x7ff0000000000001)", 1, 0.25, -0.5])
def test_every_real_can_be_a_condition(value, tmp_path):
    assert fits_schema({"answers": {"start-proactive-rebalance": {"for": {"varianceThreshold": value}}}})
    answers = write_answers(tmp_path, {"start-proactive-rebalance": {"for": {"varianceThreshold": value}}})
    assert end(start_standin("serve", "--socket", str(tmp_path / "s"), "--log", "/dev/null", "--answers",
                             str(answers))) == (0, b"")


def test_commands_left_out_are_answered():
    with Standin().answers({}) as plaxd:
        assert tool("-s", plaxd.path, "info-rebalance", "-a") == Outcome(b"bytes to move: 0\n", b"", 0)


def test_crawler_state_of_one_and_of_all():
    answers = {"get-obj-crawler-state": {"text": "one"}, "get-obj-crawler-state --all": {"text": "all"}}
    with Standin().answers(answers) as plaxd:
        assert tool("-s", plaxd.path, "get-obj-crawler-state", "-u", "0-1-2").code == 1
        assert tool("-s", plaxd.path, "get-obj-crawler-state", "-u", "00010203-0405-0607") == Outcome(b"one\n", b"", 0)
        assert tool("-s", plaxd.path, "get-obj-crawler-state", "-a") == Outcome(b"all", b"", 0)


def test_file_beside_the_answers():
    content = bytes(range(256)) * 300
    plaxd = Standin().answers({"fitness-stats-get": {"file": "payload"}})
    plaxd.file("payload", content)
    with plaxd:
        assert tool("-s", plaxd.path, "fitness-stats-get") == Outcome(content + b"\n", b"", 0)


def timed(command, answer, *words):
    begin = time.monotonic()
    outcome, _ = run(command, answer, *words)
    return outcome, time.monotonic() - begin


def test_delay():
    outcome, seconds = timed("fix-concats", {"delayMs": 600}, "fix-concats")
    assert outcome == Outcome(b"", b"", 0)
    assert 0.6 <= seconds < 10


@pytest.mark.parametrize("command, words, newline", [("stats", ["stats"], b""),
                                                     ("info-rebalance", ["info-rebalance", "-a"], b"\n")])
def test_pieces(command, words, newline):
    pieces = [{"text": "one, "}, {"text": "two, ", "pauseMs": 300}, {"text": "three", "pauseMs": 300}]
    outcome, seconds = timed(command, {"pieces": pieces}, *words)
    assert outcome == Outcome(b"one, two, three" + newline, b"", 0)
    assert 0.6 <= seconds < 10


def test_slow_answer_keeps_nobody_waiting():
    with Standin().answers({"fix-concats": {"delayMs": 30000}}) as plaxd:
        slow = start_tool("-s", plaxd.path, "fix-concats")
        assert tool("-s", plaxd.path, "info-rebalance", "-a") == Outcome(b"bytes to move: 0\n", b"", 0)
        slow.kill()
        slow.communicate()


# ---- Faults ----

def faulty(command, answer, *words):
    outcome, entries = run(command, answer, *words)
    return outcome, entries[0]["fault"], entries[0]["outcome"], entries[0]["end"], entries[0]["reply"]


@pytest.mark.parametrize("words", [["fix-concats"], ["crawler", "-a"], ["set-global-exclusion-list", "-x", ""]])
def test_close_without_reading(words):
    assert faulty(words[0], {"fault": "close-without-reading"}, *words) == (
        Outcome(b"", RESET, 0x68), "close-without-reading", "fault", "reset by the stand-in", {"headerBytes": 0})


def test_close_without_reading_a_stream():
    assert faulty("stats", {"fault": "close-without-reading"}, "stats") == (
        Outcome(b"", b"", 0x68), "close-without-reading", "fault", "reset by the stand-in", {"bytes": 0})


def test_close_without_answering():
    assert faulty("info-rebalance", {"fault": "close-without-answering"}, "info-rebalance", "-a") == (
        Outcome(b"\n", b"", 0), "close-without-answering", "fault", "closed by the stand-in", {"headerBytes": 0})


@pytest.mark.parametrize("count, code", [(0, 0), (1, 0), (3, 0), (4, 7), (7, 7)])
def test_cut_header(count, code):
    """Missing bytes of the header read as zero."""
    answer = {"fault": "cut-header", "faultBytes": count, "status": 7, "text": "never sent"}
    outcome, *logged = faulty("fix-concats", answer, "fix-concats")
    assert outcome.code == code
    assert logged == ["cut-header", "fault", "client closed", {"headerBytes": count}]


def test_announce_more():
    answer = {"fault": "announce-more", "faultBytes": 1000, "text": "0123456789"}
    assert faulty("info-rebalance", answer, "info-rebalance", "-a") == (
        Outcome(b"\n", INCOMPLETE, 0), "announce-more", "fault", "client closed",
        framed(10, announced=1000))


def test_garbage():
    """The tool reads the first bytes as a header that announces more bytes than arrive."""
    assert faulty("info-rebalance", {"fault": "garbage"}, "info-rebalance", "-a") == (
        Outcome(b"\n", INCOMPLETE, 0), "garbage", "fault", "client closed",
        framed(4, 0xdeadbeef, announced=1044942))


def test_garbage_of_ones_own():
    assert faulty("fix-concats", {"fault": "garbage", "text": "\0\0\0\3\0\0\0\1x"}, "fix-concats") == (
        Outcome(b"", b"Error received: Status 0x00000003: x\n", 3), "garbage", "fault", "client closed",
        framed(1, 3))


@together
def meet_a_silent_standin():
    """One run waits for a framed reply, another at the same time for a stream."""
    with Standin().answers({"fix-concats": {"fault": "stay-silent"}, "stats": {"fault": "stay-silent"}}) as plaxd:
        begin = time.monotonic()
        runs = [start_tool("-s", plaxd.path, "fix-concats"), start_tool("-s", plaxd.path, "stats")]
        outcomes = [finish_tool(process) for process in runs]
        seconds = time.monotonic() - begin
    return outcomes, seconds, sorted((line["command"], line["fault"], line["end"]) for line in plaxd.entries)


@in_one_worker
def test_stay_silent():
    outcomes, seconds, entries = meet_a_silent_standin()
    assert outcomes == [Outcome(b"", TIMED_OUT, 0x0b), Outcome(b"", b"", 0x0b)]
    assert 20 <= seconds < 30
    assert entries == [
        ("fix-concats", "stay-silent", "client closed"), ("stats", "stay-silent", "client closed")]


def test_faults_of_a_command_without_reply():
    for fault, ending in [("close-without-reading", "reset by the stand-in"),
                          ("close-without-answering", "closed by the stand-in"), ("stay-silent", "client closed")]:
        assert faulty("refresh-config-opts", {"fault": fault}, "refresh-config-opts") == (
            Outcome(b"", b"", 0), fault, "fault", ending, {"bytes": 0})


def test_ending_cuts_everything_short():
    """An end by signal waits for no delay and no client, and the log says that the stand-in ended."""
    answers = {"fix-concats": {"delayMs": 86400000}, "stats": {"fault": "stay-silent"},
               "what-if-cancel": {"fault": "close-without-reading", "delayMs": 86400000}}
    with Standin("--strict").answers(answers) as plaxd:
        clients = [plaxd.connect() for _ in range(3)]
        for client, code in zip(clients, (13, 1, 18)):
            client.sendall(frame(code))
        assert tool("-s", plaxd.path, "info-rebalance", "-a").code == 0
    for client in clients:
        client.close()
    ended = {"ending": "ended by the stand-in's end"}
    assert plaxd.entries[:3] == [
        entry("fix-concats", 13, 0, reply={"headerBytes": 0}, outcome="unfinished", **ended),
        entry("stats", 1, 0, reply={"bytes": 0}, outcome="fault", fault="stay-silent", connection=2, **ended),
        entry("what-if-cancel", 18, 0, reply={"headerBytes": 0}, outcome="unfinished", fault="close-without-reading",
              connection=3, **ended)]
    assert plaxd.code == 0


# ---- Examples ----

BAD_DAY_CODES = {
    "crawler": 0x0b, "fitness-config-set": 0x16, "fitness-config-reset": 0x1e, "log-level": 0x16,
    "fix-object-immediate": 0x02, "get-object-last-operation": 0x02, "start-proactive-rebalance": 0x10,
    "fix-concats": 0x10, "what-if-entity-decom": 0x10, "what-if-upgrade": 0x1c, "what-if-cancel": 0x68,
    "force-reconfigure-the-object": 0x16, "update-plaxdb": 0x05, "replace-plaxdb": 0x05,
    "enable-plax-recovery-mode": 0x10, "enable-workitem": 0x01, "disable-workitem": 0x01,
    "pause-decom-state-progress": 0x03, "resume-decom-state-progress": 0x03, "start-decom-state-heartbeat": 0x68,
    "component-manual-move": 0x1c,
}


# Commands that an example leaves out get the built-in answer.
@pytest.mark.parametrize("example, codes", [("healthy.json", {}), ("bad-day.json", BAD_DAY_CODES)])
def test_examples(example, codes):
    path = os.path.join(EXAMPLES, example)
    with open(path, encoding="utf-8") as file:
        assert fits_schema(json.load(file))
    with Standin("--strict", "--answers", path) as plaxd:
        runs = [(row.word, tool("-s", plaxd.path, *row.least).code) for row in ROWS]
    assert (plaxd.code, plaxd.summary["requests"]) == (0, len(ROWS))
    assert {word: code for word, code in runs if code} == codes


# The schema accepts every command, so a new one does not change it.
@pytest.mark.parametrize("command", COMMANDS, ids=lambda command: command["word"])
def test_schema_knows_every_command(command):
    assert fits_schema({"answers": {command["word"]: {}}})


# ---- Invalid files ----

CHOICES = "close-without-reading, close-without-answering, stay-silent, cut-header, announce-more, garbage"
PAUSE = "must be a whole number from 0 to 86400000"
STATUS = "must be a whole number from 0 to 4294967295"

# Content, errors, and whether the schema finds them: it does not compare two values of a file, does not look for files,
# and does not know the reply class of a command.
WRONG = [
    ([], ["/: must be an object"], True),
    ({}, ['/: needs "answers"'], True),
    ({"answers": {}, "answer": {}}, ["/answer: is not known here"], True),
    ({"answers": []}, ["/answers: must be an object"], True),
    ({"answers": {"Stats": {}}}, ["/answers/Stats: is no command"], True),
    ({"answers": {"stats": 1}}, ["/answers/stats: must be an object"], True),
    ({"answers": {"stats": []}}, ["/answers/stats: must not be empty"], True),
    ({"answers": {"stats": [{}, "x"]}}, ["/answers/stats/1: must be an object"], True),
    ({"answers": {"stats": {"a/b~": 1}}}, ["/answers/stats/a~1b~0: is not known here"], True),
    ({"answers": {"crawler": {"status": -1}}}, ["/answers/crawler/status: " + STATUS], True),
    ({"answers": {"crawler": {"status": 4294967296}}}, ["/answers/crawler/status: " + STATUS], True),
    ({"answers": {"crawler": {"status": 0.5}}}, ["/answers/crawler/status: " + STATUS], True),
    *[({"answers": {"crawler": {"status": text}}},
       ['/answers/crawler/status: must be a number, or a text such as "EAGAIN" or "0x2bad000b"'], schema_tells)
      for text, schema_tells in [("", True), ("0x", True), ("5", True), ("X5", True), ("0X", True), ("0x5g", True),
                                 ("0x123456789", True), ("0x-1", True), ("success", True), ("eagain", True),
                                 ("EAGAI", False), ("EAGAIN ", True)]],
    *[({"answers": {"crawler": {"times": times}}},
       ["/answers/crawler/times: must be a whole number from 1 to 4294967295"], True)
      for times in (0, "2", 4294967296)],
    ({"answers": {"crawler": {"for": 5}}}, ["/answers/crawler/for: must be an object"], True),
    ({"answers": {"crawler": {"for": {"UUID": 1, "decomMode": 2}}}},
     ["/answers/crawler/for/UUID: is no field of this command",
      "/answers/crawler/for/decomMode: is no field of this command"], False),
    ({"answers": {"fix-concats": {"for": {"uuid": A}}}},
     ["/answers/fix-concats/for/uuid: is no field of this command"], False),
    *[({"answers": {"crawler": [{"for": {"uuid": value}}]}}, ["/answers/crawler/0/for/uuid: must be a UUID"], True)
      for value in (None, True, {}, [5], 5, "", "0a0a0a0a", A + " ", A.replace("-", "_"), A[:-1] + "g")],
    *[({"answers": {"what-if-entity-decom": {"for": {"decomMode": value}}}},
       ["/answers/what-if-entity-decom/for/decomMode: must be a whole number"], True)
      for value in ("2", "evacAllData", -1, 2.5, True, [2], None)],
    *[({"answers": {command: {"for": {name: text}}}}, [f"/answers/{command}/for/{name}: must be a whole number"], True)
      for command, name, text in [("enable-plax-recovery-mode", "recoveryMode", "REPAIR"),
                                  ("enable-workitem", "workItemType", "MOVE"), ("block-cdb-cb", "event", "update"),
                                  ("get-obj-crawler-state", "all", "0")]],
    *[({"answers": {"start-proactive-rebalance": {"for": {"varianceThreshold": value}}}},
       ['/answers/start-proactive-rebalance/for/varianceThreshold: must be a number, "inf" or "nan"'], True)
      for value in ("0.3", "Infinity", "NaN", True, [0.3], "nan(0x7ff8)")],
    ({"answers": {"log-level": {"for": {"level": 2}}, "fitness-config-set": {"for": {"json": {}}},
                  "update-plaxdb": {"for": {"filePath": None}}}},
     ["/answers/fitness-config-set/for/json: must be a text", "/answers/log-level/for/level: must be a text",
      "/answers/update-plaxdb/for/filePath: must be a text"], True),
    *[({"answers": {"set-global-exclusion-list": {"for": {"exclusionList": value}}}},
       ["/answers/set-global-exclusion-list/for/exclusionList: must be a list of texts"], True)
      for value in (A, [5], {}, None)],
    ({"answers": {"crawler": {"for": {}, "answers": []}, "stats": {"for": {}, "answers": 5}}},
     ["/answers/crawler/answers: must not be empty", "/answers/stats/answers: must be an object"], True),
    ({"answers": {"crawler": {"for": {}, "answers": [{"for": {}}, {"status": -1}], "text": ""}}},
     ["/answers/crawler/text: is not known here", "/answers/crawler/answers/0/for: is not known here",
      "/answers/crawler/answers/1/status: " + STATUS], True),
    ({"answers": {"crawler": {"answers": [{}]}}}, ["/answers/crawler/answers: is not known here"], True),
    *[({"answers": {"what-if-entity-decom": entries}},
       [f"/answers/what-if-entity-decom/{number}: is never used: an entry before it answers all these requests"
        for number in unused], False)
      for entries, unused in [
          ([{"text": ""}, {"for": {"uuid": A}}, {"for": {"uuid": B}}], [1, 2]),
          ([{"for": {}}, {"for": {"uuid": A}}, {"text": ""}, {"text": ""}], [1, 2, 3]),
          ([{"for": {}}, {"for": {}}], [1]),
          ([{"for": {"uuid": A}}, {"for": {"uuid": B}}, {"for": {"uuid": A}}], [2]),
          ([{"for": {"uuid": A}}, {"for": {"uuid": A.upper()}}], [1]),
          ([{"for": {"uuid": A, "decomMode": 2}}, {"for": {"decomMode": 2, "uuid": A}}], [1]),
          ([{"for": {"decomMode": 2}}, {"for": {"decomMode": 2.0, "uuid": A}}], [1])]],
    ({"answers": {"crawler": {"text": 5}}}, ["/answers/crawler/text: must be a text"], True),
    ({"answers": {"crawler": {"file": 5}}}, ["/answers/crawler/file: must be a text"], True),
    ({"answers": {"crawler": {"text": "", "pieces": [{"text": ""}]}}},
     ['/answers/crawler: must have only one of "text", "file" and "pieces"'], True),
    ({"answers": {"crawler": {"pieces": []}}}, ["/answers/crawler/pieces: must be a list that is not empty"], True),
    ({"answers": {"crawler": {"pieces": {}}}}, ["/answers/crawler/pieces: must be a list that is not empty"], True),
    ({"answers": {"crawler": {"pieces": [{"text": ""}, 5]}}}, ["/answers/crawler/pieces/1: must be an object"], True),
    ({"answers": {"crawler": {"pieces": [{"pauseMs": 86400001}]}}},
     ['/answers/crawler/pieces/0: must have either "text" or "file"', "/answers/crawler/pieces/0/pauseMs: " + PAUSE],
     True),
    ({"answers": {"crawler": {"pieces": [{"text": "", "delayMs": 1}]}}},
     ["/answers/crawler/pieces/0/delayMs: is not known here"], True),
    ({"answers": {"crawler": {"delayMs": "5"}}}, ["/answers/crawler/delayMs: " + PAUSE], True),
    ({"answers": {"crawler": {"fault": "slow"}}}, ["/answers/crawler/fault: must be one of " + CHOICES], True),
    ({"answers": {"crawler": {"fault": "cut-header"}}},
     ['/answers/crawler: needs "faultBytes" for the fault cut-header'], True),
    ({"answers": {"crawler": {"fault": "cut-header", "faultBytes": 8}}},
     ["/answers/crawler/faultBytes: must be a whole number from 0 to 7"], True),
    ({"answers": {"crawler": {"fault": "announce-more", "faultBytes": 0}}},
     ["/answers/crawler/faultBytes: must be a whole number from 1 to 4294967295"], True),
    ({"answers": {"crawler": {"fault": "announce-more", "faultBytes": 3, "text": "abc"}}},
     ["/answers/crawler/faultBytes: must be a whole number from 4 to 4294967295"], False),
    ({"answers": {"crawler": {"faultBytes": 3}}},
     ["/answers/crawler/faultBytes: belongs to the faults cut-header and announce-more"], True),
    ({"answers": {"crawler": {"fault": "stay-silent", "text": "", "status": 1}}},
     ["/answers/crawler/text: is never sent: the fault is stay-silent",
      "/answers/crawler/status: is never sent: the fault is stay-silent"], True),
    ({"answers": {"crawler": {"fault": "garbage", "status": 1}}},
     ["/answers/crawler/status: is never sent: the fault is garbage"], True),
    ({"answers": {"stats": {"status": 0}}},
     ["/answers/stats/status: is never sent: this command's reply has no status"], False),
    ({"answers": {"get-obj-crawler-state --all": {"fault": "announce-more", "faultBytes": 5}}},
     ["/answers/get-obj-crawler-state --all/fault: breaks a reply that this command does not get"], False),
    ({"answers": {"block-cdb-cb": {"text": ""}}},
     ["/answers/block-cdb-cb/text: is never sent: this command gets no reply"], False),
    ({"answers": {"block-cdb-cb": {"fault": "garbage"}}},
     ["/answers/block-cdb-cb/fault: breaks a reply that this command does not get"], False),
]


@pytest.mark.parametrize("number", range(len(WRONG)))
def test_wrong_file(number, tmp_path):
    content, errors, schema_tells = WRONG[number]
    assert fits_schema(content) == (not schema_tells)
    refused(tmp_path, json.dumps(content).encode(), errors)


def refused(directory, content, errors):
    """The stand-in reports every error with its place, and creates no socket."""
    file, path = directory / "answers.json", directory / "plaxd.uds"
    file.write_bytes(content)
    messages = "".join(f"plaxd-standin: {file}: {error}\n" for error in errors)
    assert run_standin("serve", "--socket", str(path), "--answers", str(file)) == (1, b"", messages.encode())
    assert not path.exists()


def test_files_that_cannot_be_read(tmp_path):
    refused(tmp_path, b'{"answers": {"stats": {"file": "none"}, "crawler": {"file": "."}}}',
            [f"/answers/crawler/file: {tmp_path}/.: Is a directory",
             f"/answers/stats/file: {tmp_path}/none: No such file or directory"])


def test_keys_given_twice(tmp_path):
    refused(tmp_path, b'{"answers": {"stats": [{"text": ""}, {"text": "", "text": ""}], "crawler": {}, "stats": {}}}',
            ["/answers/stats/1/text: is given twice", "/answers/stats: is given twice"])


def test_no_json(tmp_path):
    refused(tmp_path, b'{"answers":\n {,}}',
            ["parse error at line 2, column 3: syntax error while parsing object key - "
             "unexpected ','; expected string literal"])


@pytest.mark.parametrize("missing, reason", [("none.json", "No such file or directory"), (".", "Is a directory")])
def test_no_file(missing, reason, tmp_path):
    path = str(tmp_path / missing)
    assert run_standin("serve", "--socket", str(tmp_path / "plaxd.uds"), "--answers", path) == (
        1, b"", f"plaxd-standin: {path}: {reason}\n".encode())
