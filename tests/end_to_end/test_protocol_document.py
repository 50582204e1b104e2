"""The tool sends the bytes in docs/protocol.md, and the tables there describe them.

Every example of the document is run: a command line ("sh", or "console" with output), the dump of its request, and for
"console" the dump of the answer. Each table of fields is checked by decoding the dump with it.
"""

import pathlib
import re
import shlex
import struct
import uuid

import pytest

import request_table
from harness import HOST_ORDER, ScriptedDaemon, send, tool
from request_table import EXPECTED, assert_agrees

DOCUMENT = pathlib.Path(__file__).parents[2].joinpath("docs", "protocol.md").read_text(encoding="utf-8")
HEADER_SIZE = 8


def parse_dump(text):
    """The bytes of a dump in the format of `hexdump -C`, whose text column must match."""
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
    """The rows of a section's tables without their headings. Cells have no back quotes."""
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
    assert len(EXCHANGES) == 2
    assert len(kinds) == 2 * len(PAYLOADS) + 3 * len(EXCHANGES)
    assert_agrees("docs/protocol.md", sorted(PAYLOADS), sorted(set(EXPECTED["shapes"]) - {"none"}))


@pytest.mark.skipif(HOST_ORDER != "<", reason="the document shows the bytes of a little-endian host")
@pytest.mark.parametrize("title", PAYLOADS)
def test_request(title):
    (_, line), (_, dump) = blocks(PAYLOADS[title])
    assert [row["shape"] for row in request_table.COMMANDS if row["word"] in shlex.split(line)] == [title]
    _, received = run(line)
    assert received == parse_dump(dump)


def decode(kind, data):
    """The document's text for a field of this kind."""
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


def classes(command):
    return command["reply"].capitalize() + (", Streamed with -a" if "allObjects" in command else "")


def test_table_of_commands():
    """Code, word, payload, reply class, whether the command needs an option, and whether it is advertised."""
    found = [[*row[:4], row[4] != "-", not row[6].endswith("; not advertised")] for row in COMMANDS]
    assert_agrees("docs/protocol.md", found, [
        [str(command["code"]), command["word"], command["shape"], classes(command), command["rule"] is not None,
         command["help"] is not None] for command in request_table.COMMANDS])


def test_receive_timeouts():
    most = re.search(r"^The receive timeout is (\d+) s;", DOCUMENT, re.MULTILINE)[1]
    others = re.findall(r"(\d+) s for codes? (\d+(?:(?:, | and )\d+)*)", DOCUMENT)
    found = sorted(([code, seconds] for seconds, codes in others for code in re.findall(r"\d+", codes)),
                   key=lambda row: int(row[0]))
    assert_agrees("docs/protocol.md", found, [[str(command["code"]), str(command["timeout"])]
                                              for command in request_table.COMMANDS if str(command["timeout"]) != most])


def test_work_item_table():
    cells = [cell for row in rows(PAYLOADS["Work item"]) if len(row) == 6 for cell in row]
    found = sorted((int(number), name) for name, number in zip(cells[::2], cells[1::2]))
    assert_agrees("docs/protocol.md", found, [(number, name) for name, number in request_table.WORK_ITEMS.items()])
