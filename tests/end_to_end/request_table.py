"""Reads tests/commands.json: every command with the request that it must send, and every option.

Numbers are in the byte order of the host that the tool was built for; everything else is the same on all hosts.
"""

import json
import os
import shlex
import struct
from dataclasses import dataclass

from harness import HOST_ORDER, frame

EXPECTATION = "tests/commands.json"
with open(os.path.join(os.path.dirname(os.path.dirname(__file__)), "commands.json"), encoding="utf-8") as file:
    EXPECTED = json.load(file)
COMMANDS, OPTIONS, WORK_ITEMS = EXPECTED["commands"], EXPECTED["options"], EXPECTED["workItems"]

PRINTED, CHECKED, UNANSWERED, STREAMED = "printed", "checked", "none", "streamed"

UUID = b"0123abcd-4567-89ef-fedc-ba9876543210"
UUID_BYTES = b"\x01\x23\xab\xcd\x45\x67\x89\xef\xfe\xdc\xba\x98\x76\x54\x32\x10"
ONE = b"11111111-1111-1111-1111-111111111111"
TWO = b"22222222-2222-2222-2222-222222222222"
THREE = b"33333333-3333-3333-3333-333333333333"

# -h ends the run, -o writes to a file and -s names the socket. A command line can hold all other options.
APART = "hos"

PIECES = {
    "text": str.encode,
    "hex": bytes.fromhex,
    "zeros": bytes,
    "u32": struct.Struct(HOST_ORDER + "I").pack,
    "u64": struct.Struct(HOST_ORDER + "Q").pack,
    "f64": struct.Struct(HOST_ORDER + "d").pack,
}


def payload(pieces):
    return b"".join(PIECES[kind](value) for kind, value in pieces)


def all_options(without=""):
    """Every option, with its argument as a separate word."""
    return [word for option in OPTIONS if option["letter"] not in APART + without
            for word in ("-" + option["letter"], option["sample"]) if word is not None]


@dataclass(frozen=True)
class Row:
    """A command, or one of the two kinds of request of a command."""
    code: int
    word: str
    reply: str
    timeout: int
    rule: str | None  # the message of a run without the options that the command needs
    answer: str  # the stand-in's
    least: tuple  # the shortest command line that passes, with the command word
    least_payload: bytes
    full: tuple  # the request for all options and some words
    full_payload: bytes
    fields: dict  # the fields that the stand-in finds in the full request
    shell: tuple  # the command lines that the stand-in logs for both requests

    def least_request(self):
        return frame(self.code, self.least_payload)


def shell_lines(variant, full):
    lines = (variant.get("shell") or shlex.join(variant["least"]), full["shell"])
    return tuple("plax-tool " + line.replace("WORD", variant["word"]) for line in lines)


def rows_of_command(command):
    """The rows of a command: two if its answer for all objects is a stream."""
    variants = [command] if "allObjects" not in command else [command, {**command, **command["allObjects"]}]
    for variant in variants:
        full = variant.get("full") or EXPECTED["shapes"][command["shape"]]["full"]
        yield Row(command["code"], command["word"], variant["reply"], command["timeout"], command["rule"],
                  variant["answer"], tuple(variant["least"]), payload(variant["payload"]),
                  (*all_options(full.get("without", "")), command["word"], *full["words"]), payload(full["payload"]),
                  full["fields"], shell_lines(variant, full))


ROWS = tuple(row for command in COMMANDS for row in rows_of_command(command))


def name(row):
    return f"{row.word}-{row.reply}"


def rows_of(*replies):
    return [row for row in ROWS if row.reply in replies]


def assert_agrees(path, found, expected):
    """Compares both lists, and names the file that lacks an entry."""
    for file, missing in ((path, [row for row in expected if row not in found]),
                          (EXPECTATION, [row for row in found if row not in expected])):
        assert not missing, f"{file} lacks {missing}"
    assert found == expected, f"{path} has another order than {EXPECTATION}"
