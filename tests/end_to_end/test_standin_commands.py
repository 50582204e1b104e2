"""The real tool against the real stand-in: the fields of each request in the log, and the answer."""

import re
import subprocess

from harness import Outcome, ZERO_UUID, tool
from request_table import CHECKED, PRINTED, ROWS, STREAMED
from standin_process import Standin, end, entry, framed, start_standin, timeless
import pytest

UUID = "01234567-89ab-cdef-fedc-ba9876543210"
ONE = "11111111-1111-1111-1111-111111111111"
TWO = "22222222-2222-2222-2222-222222222222"
ZERO = ZERO_UUID.decode()



def whole_run(row):
    """A command line with all options, the tool's output, and the log entry."""
    answer = row.answer.encode()
    shown = {PRINTED: answer + b"\n", STREAMED: answer}.get(row.reply, b"")
    reply = framed(len(answer)) if row.reply in (PRINTED, CHECKED) else {"bytes": len(answer)}
    return row.full, shown, entry(row.word, row.code, len(row.full_payload), row.fields, reply=reply)


# Fields that are empty, at their limit, or unusual.
RUNS = [*map(whole_run, ROWS),
    (["fitness-config-set", "-j", '{"name": "\xe4\\"\n"}'], b"",
     entry("fitness-config-set", 4, 18, {"json": '{"name": "\xe4\\"\n"}'}, reply=framed(6),
           warnings=["json is not JSON"])),
    (["fitness-config-set", "-j", b"\xff"], b"",
     entry("fitness-config-set", 4, 2, {"json": "\N{REPLACEMENT CHARACTER}"}, reply=framed(6),
           warnings=["json is not JSON"])),
    (["log-level", ""], b"", entry("log-level", 7, 0, {"level": ""}, reply=framed(3), warnings=["level is empty"])),
    (["start-proactive-rebalance", "3600", "0.1", "default", "18446744073709551615"], b"",
     entry("start-proactive-rebalance", 10, 32,
           {"timeSpan": 3600, "varianceThreshold": 0.1, "timeThreshold": 1800, "rateThreshold": 18446744073709551615},
           reply=framed(7))),
    (["start-proactive-rebalance", "1", "nan"], b"",
     entry("start-proactive-rebalance", 10, 32,
           {"timeSpan": 1, "varianceThreshold": "nan", "timeThreshold": 1800, "rateThreshold": 14913081},
           reply=framed(7), warnings=["varianceThreshold is not from 0 to 1"])),
    (["--", "start-proactive-rebalance", "1", "-inf"], b"",
     entry("start-proactive-rebalance", 10, 32,
           {"timeSpan": 1, "varianceThreshold": "-inf", "timeThreshold": 1800, "rateThreshold": 14913081},
           reply=framed(7), warnings=["varianceThreshold is not from 0 to 1"])),
    (["info-rebalance", "-a"], b"bytes to move: 0\n",
     entry("info-rebalance", 14, 36, {"uuid": ZERO}, reply=framed(16), warnings=["uuid is all zeros"])),
    (["force-reconfigure-the-object", "-f", "x" * 4096], b"",
     entry("force-reconfigure-the-object", 19, 4113, {"uuid": ZERO, "filePath": "x" * 4096}, reply=framed(7),
           warnings=["uuid is all zeros", "filePath is relative, and the daemon's directory is not the client's"])),
    (["update-plaxdb", "-f", "x" * 4096], b"",
     entry("update-plaxdb", 20, 4097, {"filePath": "x" * 4096}, reply=framed(7),
           warnings=["filePath is relative, and the daemon's directory is not the client's"])),
    (["replace-plaxdb"], b"",
     entry("replace-plaxdb", 21, 1, {"filePath": ""}, reply=framed(8),
           warnings=["filePath is empty"])),
    (["enable-workitem", "-i", "MANUAL_MOVE"], b"",
     entry("enable-workitem", 24, 4, {"workItemType": 22}, reply=framed(7))),
    (["block-cdb-cb", "-u", UUID, "node", "add"], b"",
     entry("block-cdb-cb", 31, 1024, {"event": 2, "entry": 4, "uuid": UUID}, reply={"bytes": 0})),
    (["block-cdb-cb", "neither"], b"",
     entry("block-cdb-cb", 31, 1024, {"event": 0, "entry": 0, "uuid": ZERO}, reply={"bytes": 0},
           warnings=["event is 0: no word for it was given", "entry is 0: no word for it was given",
                     "uuid is all zeros"])),
    (["component-manual-move", "-u", UUID, "-n", ",".join([ONE] * 2559)], b"",
     entry("component-manual-move", 33, 189464,
           {"uuid": UUID, "destinationCount": 2559, "destinationList": [ONE] * 2559, "exclusionCount": 0,
            "exclusionList": []}, reply=framed(6))),
    (["set-global-exclusion-list", "-x", "", "-X", "3"], b"",
     entry("set-global-exclusion-list", 34, 94728, {"exclusionMode": 3, "exclusionCount": 0, "exclusionList": []},
           reply=framed(3))),
]


def test_every_command():
    with Standin("--strict") as plaxd:
        outcomes = [tool("-s", plaxd.path, *words) for words, _, _ in RUNS]
    assert outcomes == [Outcome(shown, b"", 0) for _, shown, _ in RUNS]
    assert plaxd.entries == [{**logged, "connection": number} for number, (_, _, logged) in enumerate(RUNS, 1)]
    assert (plaxd.code, plaxd.summary["requests"], plaxd.summary["broken"]) == (0, len(RUNS), 0)
    assert plaxd.summary["commands"]["get-obj-crawler-state"] == {"answered": 2}


@pytest.mark.parametrize("words, shown, logged", RUNS, ids=lambda value: None)
def test_text_has_the_same_fields(words, shown, logged, tmp_path):
    """A line of the text log has every field of the entry, in the same order."""
    line = text_log(tmp_path, words)[0]
    bare = re.sub(r'"(\\.|[^"\\])*"', '""', line)
    assert re.findall(r" (\w+)=", bare) == list(logged["fields"])


def text_log(directory, *runs):
    """The lines that the runs add to a text log, without the values that change between runs."""
    path, log = str(directory / "plaxd.uds"), directory / "log"
    process = start_standin("serve", "--socket", path, "--log", str(log))
    for words in runs:
        tool("-s", path, *words)
    assert end(process) == (0, b"")
    start, *lines = timeless(log.read_text())
    assert start == f"NOW start: socket {path}"
    return lines


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
        "| status 0x00000000, 30 bytes | answered, client closed, T s "
        "| WARNING: uuid is all zeros; decomMode is 9, which has no meaning",
        r'NOW #3 fitness-config-set 4 json="{\"a\": \"line\n\"}" '
        "| status 0x00000000, 6 bytes | answered, client closed, T s | WARNING: json is not JSON",
        f"NOW #4 enable-plax-recovery-mode 22 uuid={ZERO} recoveryMode=3(COMPLIANCE) "
        "| status 0x00000000, 7 bytes | answered, client closed, T s",
        "NOW #5 enable-workitem 24 workItemType=5(VOTES_REBALANCE) "
        "| status 0x00000000, 7 bytes | answered, client closed, T s",
        "NOW #6 set-global-exclusion-list 34 exclusionMode=1(ignoreForWitness) exclusionCount=0 exclusionList=[] "
        "| status 0x00000000, 3 bytes | answered, client closed, T s",
        f"NOW #7 block-cdb-cb 31 event=3(delete) entry=3(disk) uuid={ZERO} "
        "| nothing | answered, client closed, T s | WARNING: uuid is all zeros",
        'NOW #8 update-plaxdb 20 filePath="" | status 0x00000000, 7 bytes | answered, client closed, T s '
        "| WARNING: filePath is empty",
        "NOW #9 stats 1 | 46 bytes streamed | answered, client closed, T s",
        "NOW summary: 9 requests, 0 broken, 4 with warnings; "
        "block-cdb-cb 1 answered; enable-plax-recovery-mode 1 answered; "
        "enable-workitem 1 answered; fitness-config-set 1 answered; set-global-exclusion-list 1 answered; "
        "stats 1 answered; update-plaxdb 1 answered; what-if-entity-decom 1 answered; what-if-upgrade 1 answered",
    ]


def test_log_on_standard_output(tmp_path):
    path = str(tmp_path / "plaxd.uds")
    process = start_standin("serve", "--socket", path, stdout=subprocess.PIPE)
    process.terminate()
    assert timeless(process.communicate()[0].decode()) == [
        f"NOW start: socket {path}", "NOW summary: 0 requests, 0 broken"]
