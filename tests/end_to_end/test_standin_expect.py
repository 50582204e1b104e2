"""--expect: compares the requests received, in order, with the commands in a file."""

import json
import random
import re
import socket

import pytest
from harness import frame, tool
from rehearsals import USERS, in_namespaces, new_rehearsal
from standin_process import Standin, end, run_standin, start_standin

UUID = "52e6f3a1-0c94-4d1b-9a77-3f2b8c5d6e01"


@pytest.fixture(name="rehearsal")
def make_rehearsal():
    with new_rehearsal() as made:
        yield made


def serve(rehearsal, expected, commands, *options, requests=()):
    """Serves these commands, then these requests. Returns the exit status and the messages."""
    file = rehearsal.file("expected", expected)
    process = start_standin("serve", "--socket", (path := rehearsal.file("plaxd.uds")), "--log", "/dev/null",
                            "--expect", file, *options)
    for words in commands:
        assert tool("-s", path, *words).code == 0
    for request in requests:
        with socket.socket(socket.AF_UNIX) as connection:
            connection.connect(path)
            connection.sendall(request)
    code, messages = end(process)
    return code, messages.decode().replace(file, "FILE")


def difference(lines):
    return 1, "--- FILE\n+++ requests\n" + lines


CONCATS, STATS, CANCEL = ["fix-concats"], ["stats"], ["what-if-cancel"]


@pytest.mark.parametrize("expected, commands", [
    ("", []),
    ("# nothing\n\n", []),
    ("plax-tool fix-concats\n", [CONCATS]),
    ("plax-tool fix-concats", [CONCATS]),
    ("\n# a comment\n  plax-tool   fix-concats  # another\n\n", [CONCATS]),
    ("plax-tool fix-concats\nplax-tool stats\n", [CONCATS, STATS]),
    (f"plax-tool what-if-entity-decom -e -d 2 -u {UUID}\n",
     [["--uuid", UUID, "--ensure-durability", "--decom-mode=2", "what-if-entity-decom"]]),
    ("plax-tool log-level -- -1\n", [["log-level", "--", "-1"]]),
    ("plax-tool -- log-level \\-1\n", [["log-level", "--", "-1"]]),
    ("plax-tool log-level \"it's \\$1\"\n", [["log-level", "it's $1"]]),
    ("plax-tool log-level it\\'s' $1'\n", [["log-level", "it's $1"]]),
    ("plax-tool \\\n  log-level 'two\nlines'\nplax-tool stats\n", [["log-level", "two\nlines"], STATS]),
    ("plax-tool log-level '...'\n", [["log-level", "..."]]),
    ("plax-tool log-level ''\n", [["log-level", ""]]),
    ("plax-tool -m 1 -m 2 enable-plax-recovery-mode\n", [["-m", "2", "enable-plax-recovery-mode"]]),
    ("plax-tool stats\r\n\r\nplax-tool fix-concats\r\n", [STATS, CONCATS]),
    ("plax-tool log-level 'two\r\nlines'\n", [["log-level", "two\r\nlines"]]),
    (f"plax-tool -d2 -eu{UUID} what-if-entity-decom\n", [["-u", UUID, "-e", "-d", "2", "what-if-entity-decom"]]),
    (f"plax-tool -u {UUID.upper()} -d 0 crawler now\n", [["-u", UUID, "crawler"]]),
    (f"plax-tool -u {UUID} -d 0 -d 02 what-if-entity-decom\n", [["-u", UUID, "-d", "2", "what-if-entity-decom"]]),
    (f"plax-tool -u {UUID} -m 0 enable-plax-recovery-mode\n", [["-u", UUID, "enable-plax-recovery-mode"]]),
    ("plax-tool -u 00000000-0000-0000-0000-000000000000 crawler\n", [["-a", "crawler"]]),
    ("plax-tool -a -u 00000000-0000-0000-0000-000000000000 crawler\n", [["-a", "crawler"]]),
    ("plax-tool -a get-obj-crawler-state\n", [["-a", "get-obj-crawler-state"]]),
    ("plax-tool -f '' update-plaxdb\n", [["update-plaxdb"]]),
    ("plax-tool -X 0 -x '' set-global-exclusion-list\n", [["-x", "", "set-global-exclusion-list"]]),
    (f"plax-tool -r 1 -l {UUID.upper()},{UUID} what-if-upgrade\n",
     [["-l", f"{UUID.upper()},{UUID}", "-r", "1", "what-if-upgrade"]]),
    ("plax-tool start-proactive-rebalance\n", [["start-proactive-rebalance"]]),
    ("plax-tool start-proactive-rebalance 86400 0.5\n", [["start-proactive-rebalance", "86400", "0.50"]]),
    ("plax-tool -- start-proactive-rebalance 1 -1 2 3\n", [["--", "start-proactive-rebalance", "1", "-1", "2", "3"]]),
    (f"plax-tool -u {UUID} block-cdb-cb disk x none update\n", [["-u", UUID, "block-cdb-cb", "update", "disk"]]),
    ("plax-tool -i MOVE disable-workitem MOVE\n", [["-i", "MOVE", "disable-workitem"]]),
    ("...\n", []),
    ("...\n", [CONCATS, STATS]),
    ("...\n...\n", [CONCATS]),
    ("...\nplax-tool stats\n", [STATS]),
    ("...\nplax-tool stats\n", [CONCATS, STATS, STATS]),
    ("plax-tool stats\n...\n", [STATS, CONCATS]),
    ("plax-tool stats\n...\nplax-tool stats\n", [STATS, CONCATS, STATS, CONCATS, STATS]),
])
def test_met(rehearsal, expected, commands):
    assert serve(rehearsal, expected, commands) == (0, "")


@pytest.mark.parametrize("expected, commands, lines", [
    ("", [CONCATS], "@@ -0,0 +1 @@\n+plax-tool fix-concats\n"),
    ("plax-tool stats\n", [], "@@ -1 +0,0 @@\n-plax-tool stats\n"),
    ("plax-tool stats\nplax-tool fix-concats\n", [CONCATS, STATS],
     "@@ -1,2 +1,2 @@\n-plax-tool stats\n plax-tool fix-concats\n+plax-tool stats\n"),
    ("plax-tool -d 1 -u " + UUID + " what-if-entity-decom\n", [["-u", UUID, "-d", "2", "what-if-entity-decom"]],
     f"@@ -1 +1 @@\n-plax-tool -u {UUID} -d 1 what-if-entity-decom\n+plax-tool -u {UUID} -d 2 what-if-entity-decom\n"),
    (f"plax-tool -l {UUID.upper()} what-if-upgrade\n", [["-l", UUID, "what-if-upgrade"]],
     f"@@ -1 +1 @@\n-plax-tool -l {UUID.upper()} what-if-upgrade\n+plax-tool -l {UUID} what-if-upgrade\n"),
    ("plax-tool log-level 'two\nlines'\n", [["log-level", "two\nwords"]],
     "@@ -1,2 +1,2 @@\n plax-tool log-level 'two\n-lines'\n+words'\n"),
    ("plax-tool stats\n...\n", [CONCATS, STATS], "@@ -1,2 +1,3 @@\n+plax-tool fix-concats\n plax-tool stats\n ...\n"),
    ("plax-tool stats\n...\n", [CONCATS, CONCATS, STATS], "@@ -1,2 +1 @@\n-plax-tool stats\n ...\n"),
    ("...\nplax-tool stats\n", [STATS, CONCATS], "@@ -1,2 +1,3 @@\n ...\n plax-tool stats\n+plax-tool fix-concats\n"),
    ("plax-tool stats\n...\nplax-tool what-if-cancel\n...\n", [STATS, CONCATS, CONCATS],
     "@@ -1,4 +1,3 @@\n plax-tool stats\n ...\n-plax-tool what-if-cancel\n ...\n"),
])
def test_missed(rehearsal, expected, commands, lines):
    assert serve(rehearsal, expected, commands) == difference(lines)


def test_request_that_no_command_sends(rehearsal):
    """Comments in the file are ignored, so this request is a difference unless `...` allows it."""
    line = "# plax-tool cannot send this fix-concats: 1 bytes after the end\n"
    request = frame(13) + b"x"
    assert serve(rehearsal, line, [], requests=[request]) == difference(f"@@ -0,0 +1 @@\n+{line}")
    assert serve(rehearsal, "...\n", [], requests=[request]) == (0, "")


def test_random_expectations(rehearsal):
    """A regular expression over the same letters decides whether the expectations are met."""
    dice = random.Random(4)
    met = 0
    for _ in range(60):
        letters = "".join(dice.choices("ab.", k=dice.randrange(7)))
        came = "".join(dice.choices("ab", k=dice.randrange(7)))
        if dice.random() < 0.5:
            came = "".join("".join(dice.choices("ab", k=dice.randrange(3))) if letter == "." else letter
                           for letter in letters)
        expected = "".join("...\n" if letter == "." else f"plax-tool log-level {letter}\n" for letter in letters)
        code, messages = serve(rehearsal, expected, [["log-level", letter] for letter in came])
        matches = re.fullmatch(letters.replace(".", ".*"), came) is not None
        assert (code, messages == "") == (0 if matches else 1, matches)
        met += matches
    assert 10 < met < 50


@pytest.mark.parametrize("text, errors", [
    ("plaxtool stats\n", ["1: the command is not plax-tool: plaxtool"]),
    ("... more\n", ["1: the command is not plax-tool: ..."]),
    ("\nplax-tool\n", ["2: no command word"]),
    ("plax-tool list\n", ["1: unknown command word: list"]),
    ("plax-tool --uuid=x crawler\n", ["1: unknown option: --uuid=x"]),
    *((f"plax-tool {option} stats\n", [f"1: unknown option: {option[:2]}"])
      for option in ("-h", "-o file", "-s /tmp/s", "-t 5")),
    ("plax-tool crawler -u\n", ["1: -u needs a value"]),
    ("plax-tool crawler\n", ["1: -u or -a is missing"]),
    ("plax-tool -d 2 get-obj-crawler-state\n", ["1: -u or -a is missing"]),
    ("plax-tool enable-plax-recovery-mode\n", ["1: -m or -u is missing"]),
    ("plax-tool fitness-config-set\n", ["1: -j is missing"]),
    ("plax-tool set-global-exclusion-list\n", ["1: -x is missing"]),
    (f"plax-tool -n {UUID} component-manual-move\n", ["1: -u is missing"]),
    ("plax-tool disable-workitem\n", ["1: -i is missing"]),
    ("plax-tool log-level\n", ["1: level is missing"]),
    ("plax-tool what-if-upgrade\n", ["1: uuidList is empty"]),
    (f"plax-tool -u {UUID} component-manual-move\n", ["1: it needs either a destination or an exclusion list"]),
    *((f"plax-tool {words}\n", [f"1: {error}"]) for words, error in [
        (f"-u {UUID} -d x what-if-entity-decom", "decomMode must be a whole number from 0 to 4294967295, not x"),
        (f"-u {UUID} -d 4294967296 what-if-entity-decom", "decomMode must be a whole number from 0 to 4294967295, not 4294967296"),
        (f"-u {UUID} -d -1 what-if-entity-decom", "decomMode must be a whole number from 0 to 4294967295, not -1"),
        ("-m '' enable-plax-recovery-mode", "recoveryMode must be a whole number from 0 to 7, not ''"),
        ("-m 8 enable-plax-recovery-mode", "recoveryMode must be a whole number from 0 to 7, not 8"),
        ("-X 4 -x '' set-global-exclusion-list", "exclusionMode must be a whole number from 0 to 3, not 4"),
        ("-u 52e6f3a1-0c94-4d1b crawler", "uuid must be a UUID, not 52e6f3a1-0c94-4d1b"),
        ("-l x what-if-upgrade", "uuidList must be a list of UUIDs, not x"),
        ("-i LIFT enable-workitem", "workItemType must be the name of a work item, not LIFT"),
        ("start-proactive-rebalance 1 high", "varianceThreshold must be a number, not high"),
        ("start-proactive-rebalance default", "timeSpan must be a whole number, not default"),
        ("start-proactive-rebalance 1.5", "timeSpan must be a whole number, not 1.5")]),
    ("plax-tool log-level 'two\nlines\n", ["1: a quote is not closed"]),
    ('plax-tool log-level "$LEVEL"\n', ["1: $ must be in single quotes"]),
    ("plax-tool log-level \"`id`\"\n", ["1: ` must be in single quotes"]),
    *((f"plax-tool log-level {character}\n", [f"1: {character} must be quoted"]) for character in "$`;&|<>()*?[~"),
    ("plax-tool stats; plax-tool stats\n...\nplax-tool list\nplax-tool log-level 'a\nb' $x\nplax-tool stats\n"
     "x\n", ["1: ; must be quoted", "3: unknown command word: list", "4: $ must be quoted",
             "7: the command is not plax-tool: x"]),
])
def test_errors_in_the_file(rehearsal, text, errors):
    file = rehearsal.file("expected", text)
    for words in (["serve", "--socket", rehearsal.file("plaxd.uds"), "--log", rehearsal.log],
                  ["rehearse", "--log", rehearsal.log]):
        script = ["--", "touch", rehearsal.file("started")] if words[0] == "rehearse" else []
        code, output, messages = run_standin(*words, "--expect", file, *script)
        assert (code, output) == (1, b"")
        assert messages.decode() == "".join(f"plaxd-standin: {file}:{error}\n" for error in errors)


def test_file_that_cannot_be_read(rehearsal):
    assert run_standin("serve", "--socket", rehearsal.file("plaxd.uds"), "--expect", "none") == (
        1, b"", b"plaxd-standin: none: No such file or directory\n")


def test_errors_in_both_files(rehearsal):
    expected, answers = rehearsal.file("expected", "x\n"), rehearsal.file("answers.json", "{}")
    words = ["--socket", rehearsal.file("plaxd.uds"), "--expect", expected, "--answers", answers]
    assert run_standin("serve", *words) == (
        1, b"", f"plaxd-standin: {answers}: /: needs \"answers\"\n"
        f"plaxd-standin: {expected}:1: the command is not plax-tool: x\n".encode())


# ---- Answers that were never given ----

ANSWERS = {"fix-concats": [{"text": "a"}, {"text": "b"}], "stats": {"text": "c"},
           "get-obj-crawler-state --all": [{"text": "d"}]}


@pytest.mark.parametrize("commands, unused", [
    ([], ["fix-concats/0", "fix-concats/1", "get-obj-crawler-state --all/0"]),
    ([CONCATS], ["fix-concats/1", "get-obj-crawler-state --all/0"]),
    ([CONCATS, CONCATS, CONCATS, ["-a", "get-obj-crawler-state"]], []),
])
def test_unused_answers(rehearsal, commands, unused):
    """A single answer, not in a list, may be given any number of times, including never."""
    file = rehearsal.file("answers.json", json.dumps({"answers": ANSWERS}))
    messages = "".join(f"plaxd-standin: {file}: /answers/{place}: the answer was never given\n" for place in unused)
    assert serve(rehearsal, "...\n", commands, "--answers", file) == (1 if unused else 0, messages)


@pytest.mark.parametrize("level, unused", [
    ("a", ["0/answers/1", "1"]),
    ("b", ["0/answers/0", "0/answers/1", "1"]),
    ("aa", ["0/answers/1", "1"]),
    ("aaacb", []),
])
def test_unused_answers_of_requests(rehearsal, level, unused):
    """An answer with `times` counts as given from the first time on."""
    first = {"for": {"level": "a"}, "answers": [{"text": "b", "times": 2}, {"text": "c"}]}
    file = rehearsal.file("answers.json", json.dumps({"answers": {
        "log-level": [first, {"for": {"level": "c"}, "text": "c"}],
        "crawler": {"for": {"uuid": UUID}, "text": "c"}}}))
    messages = "".join(f"plaxd-standin: {file}: /answers/log-level/{place}: the answer was never given\n"
                       for place in unused)
    assert serve(rehearsal, "...\n", [["log-level", letter] for letter in level], "--answers", file) == (
        1 if unused else 0, messages)


def test_answers_may_stay_unused_without_expectations(rehearsal):
    with Standin().answers(ANSWERS) as plaxd:
        pass
    assert plaxd.code == 0


# ---- Rehearsals ----


@in_namespaces
@pytest.mark.parametrize("expected, code, status, messages", [
    ("plax-tool fix-concats\n", 0, 0, ""),
    ("plax-tool fix-concats\n", 3, 3, ""),
    ("plax-tool stats\n", 0, 1, "@@ -1 +1 @@\n-plax-tool stats\n+plax-tool fix-concats\n"),
    ("plax-tool stats\n", 3, 1, "@@ -1 +1 @@\n-plax-tool stats\n+plax-tool fix-concats\n"),
])
def test_rehearsal(rehearsal, user, expected, code, status, messages):
    header = "--- expected\n+++ requests\n" if messages else ""
    rehearsal.file("expected", expected)
    assert rehearsal.run("--expect", "expected", "--", "sh", "-c", f"plax-tool fix-concats; exit {code}",
                         user=USERS[user]) == (status, "", header + messages)


@in_namespaces
def test_log_becomes_the_expectation(rehearsal, user):
    """The first rehearsal writes the expectations of the next one."""
    script = ["--", "sh", "-c", "plax-tool log-level 'a\nb'; plax-tool -a crawler; plax-tool refresh-config-opts"]
    assert rehearsal.run("--log", "log", "--format", "commands", *script, user=USERS[user]) == (0, "", "")
    assert rehearsal.run("--expect", "log", *script, user=USERS[user]) == (0, "", "")
    script[-1] += "; plax-tool stats >/dev/null"
    assert rehearsal.run("--expect", "log", *script, user=USERS[user])[0] == 1
