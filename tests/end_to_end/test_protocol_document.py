"""The bytes in docs/protocol.md are the ones that the tool sends, and its tables describe them.

Every example of the document is run: a command line ("sh", or "console" with what is shown), the dump of the request
that it sends, and for "console" the dump of the answer that it gets. A table of fields is checked by reading the dump
with it.
"""

import pathlib
import re
import shlex
import struct
import uuid

import pytest

from harness import HOST_ORDER, Outcome, ScriptedDaemon, send, tool

DOCUMENT = pathlib.Path(__file__).parents[2].joinpath("docs", "protocol.md").read_text(encoding="utf-8")
HEADER_SIZE = 8

UUID = "52e6f3a1-0c94-4d1b-9a77-3f2b8c5d6e01"
# The shortest command line of each command that is more than its word.
COMMAND_LINES = {
    "crawler": f"-u {UUID} crawler",
    "fitness-config-set": "-j {} fitness-config-set",
    "log-level": "log-level 3",
    "info-rebalance": f"-u {UUID} info-rebalance",
    "what-if-entity-decom": f"-u {UUID} what-if-entity-decom",
    "what-if-upgrade": f"-l {UUID} what-if-upgrade",
    "enable-plax-recovery-mode": "-m 1 enable-plax-recovery-mode",
    "get-obj-decom-state": f"-u {UUID} get-obj-decom-state",
    "enable-workitem": "-i MOVE enable-workitem",
    "disable-workitem": "-i MOVE disable-workitem",
    "get-obj-crawler-state": f"-u {UUID} get-obj-crawler-state",
    "component-manual-move": f"-u {UUID} -n {UUID} component-manual-move",
    "set-global-exclusion-list": f"-x {UUID} set-global-exclusion-list",
}
# The payload sizes of those command lines, by what the document calls the payload.
SIZES = {
    "none": 0, "UUID text": 36, "JSON text": 3, "Log level": 1, "Proactive rebalance": 32,
    "What-if entity decommissioning": 24, "What-if upgrade": 69, "Force reconfigure": 17, "File path": 1,
    "Recovery mode": 41, "Work item": 4, "Crawler state": 41, "Callback block": 1024, "Component manual move": 189464,
    "Global exclusion list": 94728,
}


def parse_dump(text):
    """The bytes of a dump in the form of `hexdump -C`, whose text column must agree with them."""
    data = b""
    repeating = False
    for line in text.splitlines():
        if line == "*":
            repeating = True
            continue
        offset = int(line[:8], 16)
        if repeating:
            data += data[-16:] * ((offset - len(data)) // 16)
            repeating = False
        assert offset == len(data), line
        piece = bytes.fromhex(line[8:58])
        shown = "".join(chr(byte) if 32 <= byte < 127 else "." for byte in piece)
        assert line[58:].strip() == (f"|{shown}|" if piece else ""), line
        data += piece
    assert not repeating and line == f"{len(data):08x}"
    return data


def sections():
    """The text of each section by its title."""
    parts = re.split(r"^##+ (.*)$", DOCUMENT, flags=re.MULTILINE)
    return dict(zip(parts[1::2], parts[2::2]))


def blocks(text):
    return re.findall(r"^```(\w+)\n(.*?)^```$", text, flags=re.MULTILINE | re.DOTALL)


def rows(text):
    """The rows of a section's tables, without their heads, each cell without its back quotes."""
    heads = ("| Offset", "| Code", "| Name")
    lines = [line for line in text.splitlines() if line.startswith("| ") and not line.startswith(heads)]
    return [[cell.strip().replace("`", "") for cell in line.strip("|").split("|")] for line in lines]


def run(line, answer=b""):
    program, *words = shlex.split(line)
    assert program == "plax-tool"
    steps = [send(answer)] if answer else []
    with ScriptedDaemon(*steps) as plaxd:
        outcome = tool("-s", plaxd.path, *words)
    return outcome, plaxd.received


PAYLOADS = {title: text for title, text in sections().items()
            if [kind for kind, _ in blocks(text)] == ["sh", "request"]}
EXCHANGES = re.findall(r"^```console\n(.*?)^```\n```request\n(.*?)^```\n```reply\n(.*?)^```$", DOCUMENT,
                       flags=re.MULTILINE | re.DOTALL)
COMMANDS = rows(sections()["Commands"])


def test_nothing_is_left_out():
    kinds = [kind for kind, _ in blocks(DOCUMENT)]
    assert (len(PAYLOADS), len(EXCHANGES)) == (14, 2)
    assert len(kinds) == 2 * len(PAYLOADS) + 3 * len(EXCHANGES)
    assert [code for code, *_ in COMMANDS] == [str(code) for code in range(1, 35)]
    assert {payload for _, _, payload, *_ in COMMANDS} - {"none"} == set(PAYLOADS)


@pytest.mark.skipif(HOST_ORDER != "<", reason="the document shows the bytes of a little-endian host")
@pytest.mark.parametrize("title", PAYLOADS)
def test_request(title):
    (_, line), (_, dump) = blocks(PAYLOADS[title])
    _, received = run(line)
    assert received == parse_dump(dump)


def decode(kind, data):
    """The text that the document gives for a field of this kind."""
    if kind in ("u8", "u32", "u64"):
        return str(int.from_bytes(data, "little"))
    if kind == "f64":
        return str(struct.unpack("<d", data)[0])
    if kind == "uuid":
        return str(uuid.UUID(bytes=data))
    if kind == "text":
        assert b"\0" not in data
        return data.decode()
    content, terminator, tail = data.partition(b"\0")
    assert terminator == b"\0" and not tail.strip(b"\0")
    assert kind == "text0" or (kind == "zero" and content == b"")
    return content.decode()


@pytest.mark.parametrize("title", PAYLOADS)
def test_table_of_fields(title):
    dump = dict(blocks(PAYLOADS[title]))["request"]
    payload = parse_dump(dump)[HEADER_SIZE:]
    expected_sizes = {"u8": 1, "u32": 4, "u64": 8, "f64": 8, "uuid": 16}
    end = 0
    for offset, size, _, kind, example in (row for row in rows(PAYLOADS[title]) if len(row) == 5):
        assert int(offset) == end
        end = len(payload) if size == "rest" else end + int(size)
        assert end - int(offset) == expected_sizes.get(kind, end - int(offset))
        assert decode(kind, payload[int(offset):end]) == example
    assert end == len(payload) > 0


@pytest.mark.parametrize("shown, request_dump, reply_dump", EXCHANGES)
def test_exchange(shown, request_dump, reply_dump):
    line, *output, status = shown.splitlines()
    outcome, received = run(line.removeprefix("$ "), parse_dump(reply_dump))
    assert received == parse_dump(request_dump)
    assert outcome.stdout + outcome.stderr == "".join(f"{text}\n" for text in output).encode()
    assert status == f"[exit status {outcome.code}]"


# What an answer comes to, by class: the frame of a success with the payload "answer", and a text without a frame.
FRAMED_ANSWER = b"\0\0\0\0\0\0\0\6answer"
OUTCOMES = {
    "Printed": (FRAMED_ANSWER, Outcome(b"answer\n", b"", 0)),
    "Checked": (FRAMED_ANSWER, Outcome(b"", b"", 0)),
    "None": (b"", Outcome(b"", b"", 0)),
    "Streamed": (b"answer", Outcome(b"answer", b"", 0)),
}


@pytest.mark.parametrize("code, word, payload, classes", [row[:4] for row in COMMANDS],
                         ids=[row[1] for row in COMMANDS])
def test_command_row(code, word, payload, classes):
    answer, expected = OUTCOMES[classes.partition(",")[0]]
    outcome, received = run(f"plax-tool {COMMAND_LINES.get(word, word)}", answer)
    assert struct.unpack(">II", received[:HEADER_SIZE]) == (int(code), SIZES[payload])
    assert len(received) == HEADER_SIZE + SIZES[payload]
    assert outcome == expected


def test_crawler_state_of_all_objects():
    assert COMMANDS[25][3] == "Printed, Streamed with -a"
    outcome, _ = run("plax-tool -a get-obj-crawler-state", b"answer")
    assert outcome == Outcome(b"answer", b"", 0)


def test_work_item_table():
    cells = [cell for row in rows(PAYLOADS["Work item"]) if len(row) == 6 for cell in row]
    numbers = dict(zip(cells[::2], cells[1::2]))
    assert sorted(map(int, numbers.values())) == [number for number in range(1, 23) if number != 4]
    for name, number in numbers.items():
        _, received = run(f"plax-tool -i {name} enable-workitem")
        assert received[HEADER_SIZE:].rstrip(b"\0").decode() == number
