"""plaxd-standin decode: saved bytes as text and as JSON."""

import json

from harness import frame
from standin_process import run_standin
import pytest

UUID = "01234567-89ab-cdef-0123-456789abcdef"
REQUEST = frame(14, UUID.encode())
BROKEN = frame(24, b"7\0x")


def test_text(tmp_path):
    file = tmp_path / "request"
    file.write_bytes(REQUEST)
    assert run_standin("decode", "--strict", str(file)) == (0, f"info-rebalance 14 uuid={UUID}\n".encode(), b"")


def test_standard_input():
    assert run_standin("decode", "-", stdin=REQUEST) == (0, f"info-rebalance 14 uuid={UUID}\n".encode(), b"")


def test_json():
    code, output, messages = run_standin("decode", "--format", "json", "-", stdin=REQUEST)
    assert (code, json.loads(output), messages) == (
        0, {"command": "info-rebalance", "code": 14, "length": 36, "fields": {"uuid": UUID}, "violations": [],
            "warnings": []}, b"")


@pytest.mark.parametrize("options, code", [((), 0), (("--strict",), 1)])
def test_broken(options, code):
    assert run_standin("decode", *options, "-", stdin=BROKEN) == (
        code, b"enable-workitem 24 | BROKEN: length 3 instead of 4\n", b"")


def test_several_violations():
    assert run_standin("decode", "-", stdin=frame(22, b"x" * 41) + b"yz") == (
        0, b"enable-plax-recovery-mode 22 uuid=" + b"x" * 36 + b" recoveryMode=xxxxx | BROKEN: "
        b"recoveryMode has no terminator; uuid is not the text of a UUID; recoveryMode is not a number; "
        b"2 bytes after the end\n", b"")


def test_nothing():
    assert run_standin("decode", "-") == (0, b"unknown 0 | BROKEN: cut short: 0 of 8 header bytes\n", b"")


@pytest.mark.parametrize("name, reason", [("none", "No such file or directory"), (".", "Is a directory")])
def test_unreadable(name, reason, tmp_path):
    path = str(tmp_path / name)
    assert run_standin("decode", path) == (1, b"", f"plaxd-standin: {path}: {reason}\n".encode())
