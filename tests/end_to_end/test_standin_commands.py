"""The real tool against the real stand-in: what all 34 commands ask for, field by field, and what they get."""

import re
import subprocess

from harness import Outcome, ZERO_UUID, tool
from standin_process import Standin, end, entry, framed, start_standin
import pytest

UUID = "01234567-89ab-cdef-fedc-ba9876543210"
ONE = "11111111-1111-1111-1111-111111111111"
TWO = "22222222-2222-2222-2222-222222222222"
ZERO = ZERO_UUID.decode()
STREAM = b"objects: 1204\nwork items: 3 active, 17 queued\n"
ALL_OBJECTS = (b"6f3c1d52-0a6e-4b9f-8a51-2f7c9be0d314: idle, last visit 41 s ago\n"
               b"b1d7e0a9-93c4-4e1d-9f6a-7d20c5a4e8f1: visiting, 3 of 8 components\n")

# Command line, what the tool prints, and the entry in the log.
RUNS = [
    (["stats"], STREAM, entry("stats", 1, 0, reply={"bytes": 46})),
    (["crawler", "-u", UUID], b"", entry("crawler", 2, 36, {"uuid": UUID}, reply=framed(6))),
    (["fitness-config-get"], b'{"fullnessWeight": 0.7, "loadWeight": 0.3}\n',
     entry("fitness-config-get", 3, 0, reply=framed(42))),
    (["fitness-config-set", "-j", '{"name": "\xe4\\"\n"}'], b"",
     entry("fitness-config-set", 4, 18, {"json": '{"name": "\xe4\\"\n"}'}, reply=framed(6))),
    (["fitness-config-set", "-j", b"\xff"], b"",
     entry("fitness-config-set", 4, 2, {"json": "\N{REPLACEMENT CHARACTER}"}, reply=framed(6))),
    (["fitness-config-reset"], b"", entry("fitness-config-reset", 5, 0, reply=framed(5))),
    (["fitness-stats-get"], b"disk 5b2f9c1e-44d0-4a37-9e8b-c3f1a06d7725: 0.82\n",
     entry("fitness-stats-get", 6, 0, reply=framed(47))),
    (["log-level", "verbose"], b"", entry("log-level", 7, 7, {"level": "verbose"}, reply=framed(3))),
    (["log-level", ""], b"", entry("log-level", 7, 0, {"level": ""}, reply=framed(3))),
    (["fix-object-immediate", "-u", UUID], b"", entry("fix-object-immediate", 8, 36, {"uuid": UUID}, reply=framed(6))),
    (["get-object-last-operation", "-u", UUID], b"REPAIR, completed 12 minutes ago\n",
     entry("get-object-last-operation", 9, 36, {"uuid": UUID}, reply=framed(32))),
    (["start-proactive-rebalance", "3600", "0.1", "default", "18446744073709551615"], b"",
     entry("start-proactive-rebalance", 10, 32,
           {"timeSpan": 3600, "varianceThreshold": 0.1, "timeThreshold": 1800, "rateThreshold": 18446744073709551615},
           reply=framed(7))),
    (["start-proactive-rebalance", "1", "nan"], b"",
     entry("start-proactive-rebalance", 10, 32,
           {"timeSpan": 1, "varianceThreshold": "nan", "timeThreshold": 1800, "rateThreshold": 14913081},
           reply=framed(7))),
    (["--", "start-proactive-rebalance", "1", "-inf"], b"",
     entry("start-proactive-rebalance", 10, 32,
           {"timeSpan": 1, "varianceThreshold": "-inf", "timeThreshold": 1800, "rateThreshold": 14913081},
           reply=framed(7))),
    (["stop-proactive-rebalance"], b"", entry("stop-proactive-rebalance", 11, 0, reply=framed(7))),
    (["info-proactive-rebalance"], b"proactive rebalance: not running\n",
     entry("info-proactive-rebalance", 12, 0, reply=framed(32))),
    (["fix-concats"], b"", entry("fix-concats", 13, 0, reply=framed(16))),
    (["info-rebalance", "-a"], b"bytes to move: 0\n",
     entry("info-rebalance", 14, 36, {"uuid": ZERO}, reply=framed(16))),
    (["resources-to-fix-unhealthy-objects", "-u", UUID], b"unhealthy objects: 0\n",
     entry("resources-to-fix-unhealthy-objects", 15, 36, {"uuid": UUID}, reply=framed(20))),
    (["what-if-entity-decom", "-u", UUID, "-d", "2", "-e"], b"feasible: yes\nbytes to move: 0\n",
     entry("what-if-entity-decom", 16, 24, {"uuid": UUID, "decomMode": 2, "ensureDurability": 1}, reply=framed(30))),
    (["what-if-upgrade", "-u", UUID, "-l", ONE + "," + TWO, "-d", "1", "-r", "3", "-w"], b"feasible: yes\n",
     entry("what-if-upgrade", 17, 106,
           {"uuid": UUID, "decomMode": 1, "reason": 3, "wipeDisk": 1, "uuidCount": 2, "uuidList": [ONE, TWO]},
           reply=framed(13))),
    (["what-if-cancel"], b"", entry("what-if-cancel", 18, 0, reply=framed(9))),
    (["force-reconfigure-the-object", "-u", UUID, "-f", "/new layout"], b"",
     entry("force-reconfigure-the-object", 19, 28, {"uuid": UUID, "filePath": "/new layout"}, reply=framed(7))),
    (["force-reconfigure-the-object", "-f", "x" * 4096], b"",
     entry("force-reconfigure-the-object", 19, 4113, {"uuid": ZERO, "filePath": "x" * 4096}, reply=framed(7))),
    (["update-plaxdb", "-f", "x" * 4096], b"",
     entry("update-plaxdb", 20, 4097, {"filePath": "x" * 4096}, reply=framed(7))),
    (["replace-plaxdb"], b"", entry("replace-plaxdb", 21, 1, {"filePath": ""}, reply=framed(8))),
    (["enable-plax-recovery-mode", "-u", UUID, "-m", "7"], b"",
     entry("enable-plax-recovery-mode", 22, 41, {"uuid": UUID, "recoveryMode": 7}, reply=framed(7))),
    (["get-obj-decom-state", "-u", UUID], b"decom state: none\n",
     entry("get-obj-decom-state", 23, 36, {"uuid": UUID}, reply=framed(17))),
    (["enable-workitem", "-i", "MANUAL_MOVE"], b"",
     entry("enable-workitem", 24, 4, {"workItemType": 22}, reply=framed(7))),
    (["disable-workitem", "-i", "PLACEMENT"], b"",
     entry("disable-workitem", 25, 4, {"workItemType": 1}, reply=framed(8))),
    (["get-obj-crawler-state", "-u", UUID], b"idle, last visit 41 s ago\n",
     entry("get-obj-crawler-state", 26, 41, {"uuid": UUID, "all": 0}, reply=framed(25))),
    (["get-obj-crawler-state", "-a"], ALL_OBJECTS,
     entry("get-obj-crawler-state", 26, 41, {"uuid": ZERO, "all": 1}, reply={"bytes": 130})),
    (["pause-decom-state-progress"], b"", entry("pause-decom-state-progress", 27, 0, reply=framed(6))),
    (["resume-decom-state-progress"], b"", entry("resume-decom-state-progress", 28, 0, reply=framed(7))),
    (["start-decom-state-heartbeat"], b"", entry("start-decom-state-heartbeat", 29, 0, reply=framed(7))),
    (["pause-failed-delta-entry-processing"], b"",
     entry("pause-failed-delta-entry-processing", 30, 0, reply={"bytes": 0})),
    (["block-cdb-cb", "-u", UUID, "node", "add"], b"",
     entry("block-cdb-cb", 31, 1024, {"event": 2, "entry": 4, "uuid": UUID}, reply={"bytes": 0})),
    (["block-cdb-cb", "neither"], b"",
     entry("block-cdb-cb", 31, 1024, {"event": 0, "entry": 0, "uuid": ZERO}, reply={"bytes": 0})),
    (["refresh-config-opts"], b"", entry("refresh-config-opts", 32, 0, reply={"bytes": 0})),
    (["component-manual-move", "-u", UUID, "-x", ONE + "," + TWO], b"",
     entry("component-manual-move", 33, 189464,
           {"uuid": UUID, "destinationCount": 0, "destinationList": [], "exclusionCount": 2,
            "exclusionList": [ONE, TWO]}, reply=framed(6))),
    (["component-manual-move", "-u", UUID, "-n", ",".join([ONE] * 2559)], b"",
     entry("component-manual-move", 33, 189464,
           {"uuid": UUID, "destinationCount": 2559, "destinationList": [ONE] * 2559, "exclusionCount": 0,
            "exclusionList": []}, reply=framed(6))),
    (["set-global-exclusion-list", "-x", "", "-X", "3"], b"",
     entry("set-global-exclusion-list", 34, 94728, {"exclusionMode": 3, "exclusionCount": 0, "exclusionList": []},
           reply=framed(3))),
    (["set-global-exclusion-list", "-x", ONE], b"",
     entry("set-global-exclusion-list", 34, 94728, {"exclusionMode": 0, "exclusionCount": 1, "exclusionList": [ONE]},
           reply=framed(3))),
]


def test_all_commands_are_run():
    assert {run[2]["code"] for run in RUNS} == set(range(1, 35))


def test_every_command():
    with Standin("--strict") as plaxd:
        outcomes = [tool("-s", plaxd.path, *words) for words, _, _ in RUNS]
    assert outcomes == [Outcome(shown, b"", 0) for _, shown, _ in RUNS]
    assert plaxd.entries == [{**logged, "connection": number} for number, (_, _, logged) in enumerate(RUNS, 1)]
    assert (plaxd.code, plaxd.summary["requests"], plaxd.summary["broken"]) == (0, 43, 0)
    assert plaxd.summary["commands"]["get-obj-crawler-state"] == {"answered": 2}


@pytest.mark.parametrize("words, shown, logged", RUNS, ids=lambda value: None)
def test_text_has_the_same_fields(words, shown, logged, tmp_path):
    """A line of text names every field of the entry, in the same order."""
    line = text_log(tmp_path, words)[0]
    bare = re.sub(r'"(\\.|[^"\\])*"', '""', line)
    assert re.findall(r" (\w+)=", bare) == list(logged["fields"])


def text_log(folder, *runs):
    """The lines that the runs leave in a log of text, without what changes from run to run."""
    path, log = str(folder / "plaxd.uds"), folder / "log"
    process = start_standin("serve", "--socket", path, "--log", str(log))
    for words in runs:
        tool("-s", path, *words)
    assert end(process) == (0, b"")
    stamp = r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z "
    lines = [re.sub(r"\d\.\d{3} s$", "T s", re.sub(stamp, "NOW ", line)) for line in log.read_text().splitlines()]
    return sorted(lines[:-1], key=lambda line: int(re.match(r"NOW #(\d+) ", line)[1])) + lines[-1:]


def test_text(tmp_path):
    assert text_log(
        tmp_path,
        ["what-if-upgrade", "-u", UUID, "-l", ONE + "," + TWO, "-d", "2", "-r", "1"],
        ["what-if-entity-decom", "-a", "-d", "9"],
        ["fitness-config-set", "-j", '{"a": "line\n"}'],
        ["enable-plax-recovery-mode", "-m", "3"],
        ["enable-workitem", "-i", "VOTES_REBALANCE"],
        ["set-global-exclusion-list", "-x", "", "-X", "1"],
        ["block-cdb-cb", "delete", "disk"],
        ["update-plaxdb"],
        ["stats"],
    ) == [
        f"NOW #1 what-if-upgrade 17 uuid={UUID} decomMode=2(evacAllData) reason=1(disable dedup) wipeDisk=0 "
        f"uuidCount=2 uuidList=[{ONE},{TWO}] | status 0x00000000, 13 bytes | answered, client closed, T s",
        f"NOW #2 what-if-entity-decom 16 uuid={ZERO} decomMode=9 ensureDurability=0 "
        "| status 0x00000000, 30 bytes | answered, client closed, T s",
        r'NOW #3 fitness-config-set 4 json="{\"a\": \"line\n\"}" '
        "| status 0x00000000, 6 bytes | answered, client closed, T s",
        f"NOW #4 enable-plax-recovery-mode 22 uuid={ZERO} recoveryMode=3(COMPLIANCE) "
        "| status 0x00000000, 7 bytes | answered, client closed, T s",
        "NOW #5 enable-workitem 24 workItemType=5(VOTES_REBALANCE) "
        "| status 0x00000000, 7 bytes | answered, client closed, T s",
        "NOW #6 set-global-exclusion-list 34 exclusionMode=1(ignoreForWitness) exclusionCount=0 exclusionList=[] "
        "| status 0x00000000, 3 bytes | answered, client closed, T s",
        f"NOW #7 block-cdb-cb 31 event=3(delete) entry=3(disk) uuid={ZERO} "
        "| nothing | answered, client closed, T s",
        'NOW #8 update-plaxdb 20 filePath="" | status 0x00000000, 7 bytes | answered, client closed, T s',
        "NOW #9 stats 1 | 46 bytes streamed | answered, client closed, T s",
        "summary: 9 requests, 0 broken; block-cdb-cb 1 answered; enable-plax-recovery-mode 1 answered; "
        "enable-workitem 1 answered; fitness-config-set 1 answered; set-global-exclusion-list 1 answered; "
        "stats 1 answered; update-plaxdb 1 answered; what-if-entity-decom 1 answered; what-if-upgrade 1 answered",
    ]


def test_log_on_standard_output(tmp_path):
    process = start_standin("serve", "--socket", str(tmp_path / "plaxd.uds"), stdout=subprocess.PIPE)
    process.terminate()
    assert process.communicate()[0] == b"summary: 0 requests, 0 broken\n"
