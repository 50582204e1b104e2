"""The manual pages of plaxd-standin agree with its help texts, the schema and what it accepts."""

import json
import re
import shutil
import subprocess
from pathlib import Path

import pytest

from standin_process import PROJECT, run_standin

MAN = Path(PROJECT, "man")
PAGE, ANSWERS_PAGE = (MAN / name for name in ("plaxd-standin.1", "plaxd-standin-answers.5"))
SCHEMA = json.loads(Path(PROJECT, "standin", "standin-answers.schema.json").read_text(encoding="utf-8"))
COMMANDS = ["serve", "relay", "rehearse", "decode"]


def section(page, name):
    return re.search(rf"^\.Sh {name}\n(.*?)^\.Sh ", page.read_text(encoding="utf-8"), re.DOTALL | re.MULTILINE)[1]


@pytest.mark.parametrize("page", [PAGE, ANSWERS_PAGE], ids=lambda page: page.name)
def test_page_is_clean(page):
    lint = subprocess.run([shutil.which("mandoc"), "-Tlint", "-Wwarning", page], capture_output=True, text=True,
                          check=False)
    assert (lint.stdout, lint.stderr, lint.returncode) == ("", "", 0)


def synopses():
    """The options of each command in the synopsis."""
    forms = [form for form in section(PAGE, "SYNOPSIS").split(".Nm\n") if form.startswith(".Cm ")]
    return {re.match(r"\.Cm (\w+)", form)[1]: set(re.findall(r"Fl -([a-z-]+)", form)) for form in forms}


def options_in_help(command):
    status, text, _ = run_standin(command, "-h")
    assert status == 0
    return set(re.findall(r"^  (?:-\w, )?--([a-z-]+)", text.decode(), re.MULTILINE)) - {"help"}


def test_synopsis_has_every_command():
    assert list(synopses()) == COMMANDS


@pytest.mark.parametrize("command", COMMANDS)
def test_synopsis_has_every_option(command):
    assert synopses()[command] == options_in_help(command)


def test_page_describes_every_option():
    described = re.findall(r"^\.It Fl (?:h , )?-([a-z-]+)", section(PAGE, "DESCRIPTION"), re.MULTILINE)
    assert sorted(described) == sorted({"help", "version"}.union(*map(options_in_help, COMMANDS)))


def described_keys():
    """The keys of an answer, and the faults, in the page of the answers file."""
    keys, faults = [], []
    for name in re.findall(r"^\.It Cm (\S+)$", section(ANSWERS_PAGE, "DESCRIPTION"), re.MULTILINE):
        (faults if "-" in name or name == "garbage" else keys).append(name)
    return keys, faults


def test_answers_page_has_every_key():
    kinds = [SCHEMA["$defs"][kind["$ref"].rpartition("/")[2]] for kind in SCHEMA["$defs"]["answer"]["oneOf"]]
    rules = [kind["properties"]["fault"] for kind in kinds if "fault" in kind["properties"]]
    faults = [fault for rule in rules for fault in rule.get("enum", [rule.get("const")])]
    keys, described_faults = described_keys()
    assert sorted(keys) == sorted({key for kind in kinds for key in kind["properties"]})
    assert sorted(described_faults) == sorted(faults)


def examples():
    blocks = re.findall(r"^\.Bd -literal.*?\n(.*?)^\.Ed$", section(ANSWERS_PAGE, "EXAMPLES"), re.DOTALL | re.MULTILINE)
    assert len(blocks) == 2
    return blocks


@pytest.mark.parametrize("example", examples())
def test_example_is_an_answers_file(example, tmp_path):
    tmp_path.joinpath("answers.json").write_text(example, encoding="utf-8")
    socket = str(tmp_path / "plaxd.uds")
    status, _, messages = run_standin("serve", "--socket", socket, "--answers", str(tmp_path / "answers.json"))
    assert (status, messages.decode()) == (0, f"plaxd-standin: listening on {socket}\n")
