"""Every command, sorted by what becomes of its reply: a command line that its rules accept, and its payload's length.

The lists that stand for a UUID list hold one entry.
"""

import struct
from dataclasses import dataclass

UUID = "00010203-0405-0607-0809-0a0b0c0d0e0f"


@dataclass(frozen=True)
class Command:
    code: int
    words: tuple
    payload_length: int

    def header(self):
        return struct.pack(">II", self.code, self.payload_length)

    def was_sent(self, received):
        """Whether the bytes are this command's request: its header, its payload, and nothing else."""
        return received[:8] == self.header() and len(received) == 8 + self.payload_length


def name(command):
    """The name of a command in the name of a test."""
    return "-".join(word.lstrip("-") for word in command.words if word != UUID)


PRINTED = [
    Command(3, ("fitness-config-get",), 0),
    Command(6, ("fitness-stats-get",), 0),
    Command(9, ("get-object-last-operation", "-u", UUID), 36),
    Command(12, ("info-proactive-rebalance",), 0),
    Command(14, ("info-rebalance", "-u", UUID), 36),
    Command(15, ("resources-to-fix-unhealthy-objects",), 36),
    Command(16, ("what-if-entity-decom", "-u", UUID), 24),
    Command(17, ("what-if-upgrade", "-l", UUID), 69),
    Command(23, ("get-obj-decom-state", "-u", UUID), 36),
    Command(26, ("get-obj-crawler-state", "-u", UUID), 41),
]

CHECKED = [
    Command(2, ("crawler", "-u", UUID), 36),
    Command(4, ("fitness-config-set", "-j", "{}"), 3),
    Command(5, ("fitness-config-reset",), 0),
    Command(7, ("log-level", "3"), 1),
    Command(8, ("fix-object-immediate", "-u", UUID), 36),
    Command(10, ("start-proactive-rebalance",), 32),
    Command(11, ("stop-proactive-rebalance",), 0),
    Command(13, ("fix-concats",), 0),
    Command(18, ("what-if-cancel",), 0),
    Command(19, ("force-reconfigure-the-object", "-f", "/f"), 19),
    Command(20, ("update-plaxdb", "-f", "/f"), 3),
    Command(21, ("replace-plaxdb", "-f", "/f"), 3),
    Command(22, ("enable-plax-recovery-mode", "-m", "7"), 41),
    Command(24, ("enable-workitem", "-i", "MOVE"), 4),
    Command(25, ("disable-workitem", "-i", "MOVE"), 4),
    Command(27, ("pause-decom-state-progress",), 0),
    Command(28, ("resume-decom-state-progress",), 0),
    Command(29, ("start-decom-state-heartbeat",), 0),
    Command(33, ("component-manual-move", "-u", UUID, "-n", UUID), 189464),
    Command(34, ("set-global-exclusion-list", "-x", UUID), 94728),
]

UNANSWERED = [
    Command(30, ("pause-failed-delta-entry-processing",), 0),
    Command(31, ("block-cdb-cb", "add", "disk"), 1024),
    Command(32, ("refresh-config-opts",), 0),
]

STREAMED = [
    Command(1, ("stats",), 0),
    Command(26, ("get-obj-crawler-state", "-a"), 41),
]

FRAMED = PRINTED + CHECKED
ALL = FRAMED + UNANSWERED + STREAMED
