"""What every command must send: its least command line, one with every option and some words, and the bytes of both.

Numbers are written in the order of the host that the tool was built for; everything else is the same on all hosts.
"""

from dataclasses import dataclass

from command_line import record
from harness import ZERO_UUID, frame

PRINTED, CHECKED, UNANSWERED, STREAMED = "printed", "checked", "unanswered", "streamed"

UUID = b"0123abcd-4567-89ef-fedc-ba9876543210"
UUID_BYTES = b"\x01\x23\xab\xcd\x45\x67\x89\xef\xfe\xdc\xba\x98\x76\x54\x32\x10"
ONE = b"11111111-1111-1111-1111-111111111111"
TWO = b"22222222-2222-2222-2222-222222222222"
THREE = b"33333333-3333-3333-3333-333333333333"

# Every option but the two lists, of which component-manual-move takes one at a time, and -o, which makes a file.
MOST = ("-u", UUID, "-l", ONE + b"," + TWO, "-j", '{"a": 1}', "-f", "/new/layout", "-d", "2", "-e", "-r", "3", "-i",
        "MOVE", "-m", "5", "-w", "-a", "-t", "9", "-X", "3")
DESTINATIONS = ("-n", TWO)
EXCLUSIONS = ("-x", TWO + b"," + THREE)
EVERY = (*MOST, *DESTINATIONS, *EXCLUSIONS)


@dataclass(frozen=True)
class Row:
    code: int
    word: str
    reply: str
    least: tuple  # the options and words of the least command line, the command word included
    least_payload: bytes
    full: tuple
    full_payload: bytes

    def least_request(self):
        return frame(self.code, self.least_payload)


def bare(code, word, reply):
    """A command that sends its header alone, whatever options and words it gets."""
    return Row(code, word, reply, (word,), b"", (*EVERY, word, "add", "disk"), b"")


def uuid_text(code, word, reply, least=(), least_payload=ZERO_UUID):
    return Row(code, word, reply, (*least, word), least_payload, (*EVERY, word, "more"), UUID)


ROWS = (
    bare(1, "stats", STREAMED),
    uuid_text(2, "crawler", CHECKED, least=("-a",)),
    bare(3, "fitness-config-get", PRINTED),
    Row(4, "fitness-config-set", CHECKED, ("-j", "", "fitness-config-set"), b"\0",
        (*EVERY, "fitness-config-set", "more"), b'{"a": 1}\0'),
    bare(5, "fitness-config-reset", CHECKED),
    bare(6, "fitness-stats-get", PRINTED),
    Row(7, "log-level", CHECKED, ("log-level", "3"), b"3", (*EVERY, "log-level", "info", "4"), b"info"),
    uuid_text(8, "fix-object-immediate", CHECKED),
    uuid_text(9, "get-object-last-operation", PRINTED),
    Row(10, "start-proactive-rebalance", CHECKED, ("start-proactive-rebalance",),
        record("QdQQ", 86400, 0.3, 1800, 14913081),
        (*EVERY, "start-proactive-rebalance", "3600", "0.75", "default", "1024", "5"),
        record("QdQQ", 3600, 0.75, 1800, 1024)),
    bare(11, "stop-proactive-rebalance", CHECKED),
    bare(12, "info-proactive-rebalance", PRINTED),
    bare(13, "fix-concats", CHECKED),
    uuid_text(14, "info-rebalance", PRINTED, least=("-a",)),
    uuid_text(15, "resources-to-fix-unhealthy-objects", PRINTED),
    Row(16, "what-if-entity-decom", PRINTED, ("-a", "what-if-entity-decom"), b"\0" * 24,
        (*EVERY, "what-if-entity-decom", "more"), UUID_BYTES + record("I", 2) + b"\x01\0\0\0"),
    Row(17, "what-if-upgrade", PRINTED, ("-l", ONE, "what-if-upgrade"), b"\0" * 28 + record("I", 1) + ONE + b"\0",
        (*EVERY, "what-if-upgrade", "more"),
        UUID_BYTES + record("II", 2, 3) + b"\x01\0\0\0" + record("I", 2) + ONE + b"," + TWO + b"\0"),
    bare(18, "what-if-cancel", CHECKED),
    Row(19, "force-reconfigure-the-object", CHECKED, ("force-reconfigure-the-object",), b"\0" * 17,
        (*EVERY, "force-reconfigure-the-object", "more"), UUID_BYTES + b"/new/layout\0"),
    Row(20, "update-plaxdb", CHECKED, ("update-plaxdb",), b"\0", (*EVERY, "update-plaxdb", "more"), b"/new/layout\0"),
    Row(21, "replace-plaxdb", CHECKED, ("replace-plaxdb",), b"\0", (*EVERY, "replace-plaxdb", "more"),
        b"/new/layout\0"),
    Row(22, "enable-plax-recovery-mode", CHECKED, ("-m", "0", "enable-plax-recovery-mode"), ZERO_UUID + b"0\0\0\0\0",
        (*EVERY, "enable-plax-recovery-mode", "more"), UUID + b"5\0\0\0\0"),
    uuid_text(23, "get-obj-decom-state", PRINTED, least=("-a",)),
    Row(24, "enable-workitem", CHECKED, ("-i", "PLACEMENT", "enable-workitem"), b"1\0\0\0",
        (*EVERY, "enable-workitem", "more"), b"7\0\0\0"),
    Row(25, "disable-workitem", CHECKED, ("-i", "PLACEMENT", "disable-workitem"), b"1\0\0\0",
        (*EVERY, "disable-workitem", "more"), b"7\0\0\0"),
    # With -a the answer of code 26 is a stream, so it has a row for each of its two kinds.
    Row(26, "get-obj-crawler-state", PRINTED, ("-u", ONE, "get-obj-crawler-state"), ONE + b"0\0\0\0\0",
        ("-u", UUID, "-m", "5", "-d", "2", "-e", "-w", *DESTINATIONS, "get-obj-crawler-state", "more"),
        UUID + b"0\0\0\0\0"),
    Row(26, "get-obj-crawler-state", STREAMED, ("-a", "get-obj-crawler-state"), ZERO_UUID + b"1\0\0\0\0",
        (*EVERY, "get-obj-crawler-state", "more"), UUID + b"1\0\0\0\0"),
    bare(27, "pause-decom-state-progress", CHECKED),
    bare(28, "resume-decom-state-progress", CHECKED),
    bare(29, "start-decom-state-heartbeat", CHECKED),
    bare(30, "pause-failed-delta-entry-processing", UNANSWERED),
    Row(31, "block-cdb-cb", UNANSWERED, ("block-cdb-cb",), b"0:0:" + ZERO_UUID + b"\0" * 984,
        (*EVERY, "block-cdb-cb", "delete", "node"), b"3:4:" + UUID + b"\0" * 984),
    bare(32, "refresh-config-opts", UNANSWERED),
    Row(33, "component-manual-move", CHECKED, ("-u", ONE, "-n", TWO, "component-manual-move"),
        b"\x11" * 16 + record("II", 1, 0) + TWO + b"\0" * 94684 + b"\0" * 94720,
        (*MOST, *EXCLUSIONS, "component-manual-move", "more"),
        UUID_BYTES + record("II", 0, 2) + b"\0" * 94720 + TWO + b"," + THREE + b"\0" * 94647),
    Row(34, "set-global-exclusion-list", CHECKED, ("-x", "", "set-global-exclusion-list"), b"\0" * 94728,
        (*EVERY, "set-global-exclusion-list", "more"), record("II", 3, 2) + TWO + b"," + THREE + b"\0" * 94647),
)


def name(row):
    return f"{row.word}-{row.reply}"


def rows_of(*replies):
    return [row for row in ROWS if row.reply in replies]
