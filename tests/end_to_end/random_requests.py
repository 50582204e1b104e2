"""Random requests for all commands. The tool can send most of them, but not all.

    for request in random_requests(seed, count):
        request.bytes      # the whole frame
        request.sendable   # whether a command line of the tool sends it; None: unknown
"""

import random
import struct
from dataclasses import dataclass

from command_line import LIST_FIELD, record
from harness import HOST_ORDER, frame
from request_table import COMMANDS, WORK_ITEMS

ZERO = bytes(16)
# Texts that are special to shells, option parsers or terminals, and texts in several encodings.
ALPHABET = [b"a", b"Z", b"0", b" ", b"\t", b"\n", b"'", b'"', b"\\", b"$", b"$(id)", b"`id`", b"*", b"?", b"[a]", b"#",
            b"~", b"=", b"-", b"--", b"!", b"&", b";", b"|", b"<", b">", b"(", b")", b"{", b"}", b"%s", b"\r", b"\x1b",
            b"\x7f", "\N{LATIN SMALL LETTER U WITH DIAERESIS}".encode(), "\N{SNOWMAN}".encode(), b"\xff", b"\x80"]
REALS = [0.3, 0.0, -0.0, 1.0, -0.5, 0.1 + 0.2, 5e-324, 1.7976931348623157e308, float("inf"), float("-inf")]
NANS = [0x7ff8000000000000, 0xfff8000000000000]
UUID_TEXT_CODES = [command["code"] for command in COMMANDS if command["shape"] == "UUID text"]
BARE_CODES = [command["code"] for command in COMMANDS if command["shape"] == "none"]


@dataclass
class RandomRequest:
    bytes: bytes
    sendable: bool | None


def uuid(dice):
    return ZERO if dice.random() < 0.2 else dice.randbytes(16)


def uuid_text(dice):
    digits = uuid(dice).hex()
    return "-".join((digits[:8], digits[8:12], digits[12:16], digits[16:20], digits[20:])).encode()


def text(dice, length_max=40):
    return b"".join(dice.choice(ALPHABET) for _ in range(dice.randrange(length_max)))[:length_max]


def number(dice, bits=32):
    return dice.choice([0, 1, 2, 3, 7, 2**bits - 1, dice.randrange(2**bits)])


def uuid_list(dice, least=0):
    """Entries of 36 bytes: UUIDs, or other texts of that length."""
    entries = dice.choice([least, 1, 2, 3, 1] + [dice.randrange(1, 100)])
    return b",".join(uuid_text(dice) if dice.random() < 0.9 else (text(dice) + b"," * 36)[:36] for _ in range(entries))


def list_count(entries):
    return (len(entries) + 1) // 37


def rebalance(dice):
    sendable = True
    real = dice.choice([record("d", dice.choice(REALS)), record("Q", dice.choice(NANS)), record("d", dice.random())])
    if dice.random() < 0.3:
        real = dice.randbytes(8)
        bits = struct.unpack(HOST_ORDER + "Q", real)[0]
        is_nan = bits & 0x7ff0000000000000 == 0x7ff0000000000000 and bits & 0xfffffffffffff != 0
        sendable = not is_nan or bits in NANS
    return record("Q", number(dice, 64)) + real + record("QQ", number(dice, 64), number(dice, 64)), sendable


def upgrade(dice):
    entries = uuid_list(dice, 1)
    return record("16sIIB3sI", uuid(dice), number(dice), number(dice), dice.randrange(2), bytes(3),
                  list_count(entries)) + entries + b"\0"


def manual_move(dice):
    destinations, exclusions = dice.choice([(uuid_list(dice, 1), b""), (b"", uuid_list(dice, 1))])
    return record(f"16sII{LIST_FIELD}s{LIST_FIELD}s", uuid(dice), list_count(destinations), list_count(exclusions),
                  destinations, exclusions)


def exclusion_list(dice):
    entries = uuid_list(dice)
    return record(f"II{LIST_FIELD}s", dice.randrange(4), list_count(entries), entries)


def callback_block(dice):
    return b"%d:%d:%s" % (dice.randrange(4), dice.choice([0, 2, 3, 4]), uuid_text(dice))


PAYLOADS = {
    "none": lambda dice: b"",
    "UUID text": uuid_text,
    "JSON text": lambda dice: text(dice) + b"\0",
    "Log level": text,
    "What-if entity decommissioning":
        lambda dice: record("16sIB3s", uuid(dice), number(dice), dice.randrange(2), bytes(3)),
    "What-if upgrade": upgrade,
    "Force reconfigure": lambda dice: uuid(dice) + text(dice, 200) + b"\0",
    "File path": lambda dice: text(dice) + b"\0",
    "Recovery mode": lambda dice: uuid_text(dice) + b"%d" % dice.randrange(8) + bytes(4),
    "Work item": lambda dice: (b"%d" % dice.choice(list(WORK_ITEMS.values()))).ljust(4, b"\0"),
    "Crawler state": lambda dice: uuid_text(dice) + b"%d" % dice.randrange(2) + bytes(4),
    "Callback block": lambda dice: callback_block(dice).ljust(1024, b"\0"),
    "Component manual move": manual_move,
    "Global exclusion list": exclusion_list,
}

# Requests of valid length that no command line sends.
UNSENDABLE = [
    lambda dice: frame(dice.choice([0, len(COMMANDS) + 1, 2**32 - 1])),
    lambda dice: frame(dice.choice(BARE_CODES), b"x"),
    lambda dice: frame(dice.choice(UUID_TEXT_CODES), uuid_text(dice).upper().replace(b"0", b"A")),
    lambda dice: frame(4, b"a\0b\0"),
    lambda dice: frame(4, b"x" * 131072 + b"\0"),
    lambda dice: frame(7, b"a\0"),
    lambda dice: frame(7, b"x" * 131072),
    lambda dice: frame(16, bytes(20) + b"\2" + bytes(3)),
    lambda dice: frame(16, bytes(21) + b"\1" + bytes(2)),
    lambda dice: frame(17, bytes(32) + b"\0"),
    lambda dice: frame(22, uuid_text(dice) + b"8" + bytes(4)),
    lambda dice: frame(22, uuid_text(dice) + b"05" + bytes(3)),
    lambda dice: frame(24, b"4\0\0\0"),
    lambda dice: frame(24, b"0\0\0\0"),
    lambda dice: frame(25, b"07\0\0"),
    lambda dice: frame(25, b"23\0\0"),
    lambda dice: frame(26, uuid_text(dice) + b"2" + bytes(4)),
    lambda dice: frame(26, uuid_text(dice) + b"1" + bytes(3) + b"\1"),
    lambda dice: frame(31, (b"1:1:" + uuid_text(dice)).ljust(1024, b"\0")),
    lambda dice: frame(31, (b"01:2:" + uuid_text(dice)).ljust(1024, b"\0")),
    lambda dice: frame(33, bytes(189464)),
    lambda dice: frame(33, record(f"16sII{LIST_FIELD}s{LIST_FIELD}s", ZERO, 1, 1, b"x" * 36, b"y" * 36)),
    lambda dice: frame(33, record(f"16sII{LIST_FIELD}s{LIST_FIELD}s", ZERO, 2560, 0, b"x" * 94719, b"")),
    lambda dice: frame(34, record(f"II{LIST_FIELD}s", 4, 1, b"x" * 36)),
    lambda dice: frame(34, record(f"II{LIST_FIELD}s", 0, 2, b"x" * 36)),
    lambda dice: frame(13) + b"more",
]


def well_formed(dice, command):
    if command["shape"] == "Proactive rebalance":
        payload, sendable = rebalance(dice)
        return RandomRequest(frame(command["code"], payload), sendable)
    return RandomRequest(frame(command["code"], PAYLOADS[command["shape"]](dice)), True)


def mutated(dice, command):
    """The request with one byte of its payload changed."""
    request = bytearray(well_formed(dice, command).bytes)
    if len(request) > 8:
        position = dice.randrange(8, min(len(request), 200))
        request[position] ^= 1 << dice.randrange(8)
    return RandomRequest(bytes(request), None)


def random_requests(seed, count):
    dice = random.Random(seed)
    for index in range(count):
        command = COMMANDS[index % len(COMMANDS)]
        kind = dice.random()
        if kind < 0.7:
            yield well_formed(dice, command)
        elif kind < 0.85:
            yield mutated(dice, command)
        else:
            yield RandomRequest(dice.choice(UNSENDABLE)(dice), False)
