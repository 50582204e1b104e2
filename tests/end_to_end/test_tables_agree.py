"""The help text, the manual page and the three completions say what the tool's tables say: nothing less, nothing more.

The tables come from the file `tables.txt` beside the completions, which is printed from the tables themselves. Each
deliberate difference is listed here, with its reason.
"""

import re
import shutil
import subprocess
from pathlib import Path
from typing import NamedTuple

import pytest
from harness import Outcome, ScriptedDaemon, frame, tool
from shells import COMPLETIONS, bash, fish, words, zsh

SOURCE = Path(__file__).parents[2]
MANUAL_PAGE = SOURCE / "man" / "plax-tool.8"

# They work, and are left out of whatever advertises: they are for those who know them.
UNLISTED = ["fitness-config-get", "fitness-config-set", "fitness-config-reset", "get-object-last-operation",
            "get-obj-decom-state"]

# Numbers that the page explains and the option's help line leaves out: the defaults. The completions offer the one of
# -X, which has a meaning, and not the one of -m, which names no mode.
NUMBERS_BESIDE_HELP = {"X": ["0"]}

# How the page says what comes back, by reply class, and how long that may take, by seconds.
ANSWERS = {
    "printed": "The answer is printed.",
    "checked": "The answer is a status.",
    "none": "There is no answer.",
    "streamed": "The answer is streamed.",
    "streamed for all objects": "The answer is printed, with\n.Fl a\nit is streamed.",
}
WAITS = {20: [], 1800: ["Waits up to 30 minutes."], 7200: ["Waits up to 2 hours."]}

SHELLS = [bash, zsh, fish]

UUID = "52e6f3a1-0c94-4d1b-9a77-3f2b8c5d6e01"


class Command(NamedTuple):
    word: str
    timeout: int
    reply_class: str
    help: str


class Option(NamedTuple):
    letter: str
    long_name: str
    argument: str
    help: str


def rows(kind):
    table = [line.split("\t") for line in (COMPLETIONS / "tables.txt").read_text().split("\n")]
    return [row[1:] for row in table if row[0] == kind]


COMMANDS = [Command(word, int(timeout), *rest) for word, timeout, *rest in rows("command")]
OPTIONS = [Option(*row) for row in rows("option")]
WORK_ITEMS = [row[0] for row in rows("work item")]
ADVERTISED = [command for command in COMMANDS if command.help]


def test_tables():
    assert (len(COMMANDS), len(OPTIONS), len(WORK_ITEMS)) == (34, 18, 21)
    assert [command.word for command in COMMANDS if not command.help] == UNLISTED


# ---- Help text ----

def help_text():
    run = tool("-h")
    assert (run.stderr, run.code) == (b"", 0)
    head, commands, options = run.stdout.decode().split("\n\n")
    assert head.startswith("usage: ")
    return commands, options


def test_help_lists_the_commands():
    commands, _ = help_text()
    assert commands.split("\n") == ["commands:", *(f"   {row.word}\t\t{row.help}" for row in ADVERTISED)]


def test_help_lists_the_options():
    _, options = help_text()
    head, *lines = options.removesuffix("\n").split("\n")
    # The order is the help text's own.
    assert (head, sorted(lines)) == ("options:", sorted(option.help for option in OPTIONS))
    for option in OPTIONS:
        argument = "=<" if option.argument == "required" else ""
        assert option.help.startswith(f"   -{option.letter}/--{option.long_name}{argument}")


@pytest.mark.parametrize("command", [command.word for command in COMMANDS])
def test_every_command_gets_as_far_as_the_connection(command, tmp_path):
    everything_needed = ["-u", UUID, "-l", UUID, "-x", UUID, "-i", "MOVE", "-j", "{}"]
    run = tool("-s", tmp_path / "no-socket", *everything_needed, command)
    assert run == Outcome(b"", b"connect error: No such file or directory\n", 1)


# ---- Manual page ----

def section(name):
    text = MANUAL_PAGE.read_text()
    return re.search(rf"^\.Sh {name}\n(.*?)^\.Sh ", text, re.DOTALL | re.MULTILINE)[1]


def items(text, macro):
    """The items of the section's outer list, each with its head and its text."""
    parts = re.split(rf"^\.It {macro} (.*)\n", text, flags=re.MULTILINE)
    return list(zip(parts[1::2], parts[2::2]))


def option_items():
    """Letter, long name, whether it takes an argument in both forms, and text of each option on the page."""
    found = []
    for head, text in items(section("OPTIONS"), "Fl"):
        form = re.fullmatch(r"(\w)(?: Ar (\S+))? , Fl -([a-z-]+)(?: Ns = Ns Ar (\S+))?", head)
        assert form is not None and form[2] == form[4], head
        found.append((form[1], form[3], "required" if form[2] else "none", text))
    return found


def numbers_on_page(text):
    return re.findall(r"^\.It (\d)$", text, re.MULTILINE)


def numbers_in_help(option):
    return re.findall(r"[(, ](\d):", option.help)


def expected_numbers(option):
    return NUMBERS_BESIDE_HELP.get(option.letter, []) + numbers_in_help(option)


def test_page_is_clean():
    lint = subprocess.run([shutil.which("mandoc"), "-Tlint", "-Wwarning", MANUAL_PAGE], capture_output=True, text=True)
    assert (lint.stdout, lint.stderr, lint.returncode) == ("", "", 0)


def test_page_describes_the_options():
    # In the order of the table: the page refers to the places of the options in it.
    assert [item[:3] for item in option_items()] == [option[:3] for option in OPTIONS]


def test_page_describes_the_numbers():
    on_page = {letter: numbers_on_page(text) for letter, _, _, text in option_items()}
    assert on_page == {option.letter: expected_numbers(option) for option in OPTIONS}


def test_page_names_the_work_items():
    text = next(text for letter, _, _, text in option_items() if letter == "i")
    assert re.findall(r"^\.Li (\w+)", text, re.MULTILINE) == WORK_ITEMS


def test_page_describes_the_commands():
    described = [head.split(" ")[0] for head, _ in items(section("COMMANDS"), "Cm")]
    assert described == [command.word for command in ADVERTISED]


def test_page_names_no_unlisted_command():
    text = MANUAL_PAGE.read_text()
    assert [word for word in UNLISTED if word in text] == []


@pytest.mark.parametrize("command", ADVERTISED, ids=lambda command: command.word)
def test_page_says_what_comes_back(command):
    text = next(text for head, text in items(section("COMMANDS"), "Cm") if head.split(" ")[0] == command.word)
    assert re.search(r"^Needs\b", text, re.MULTILINE)
    assert [answer for answer in ANSWERS.values() if answer in text] == [ANSWERS[command.reply_class]]
    assert re.findall(r"^Waits .*", text, re.MULTILINE) == WAITS[command.timeout]


# ---- Completions ----

@pytest.mark.parametrize("shell", SHELLS)
def test_completion_offers_the_commands(shell):
    assert sorted(words(shell("plax-tool "))) == sorted(command.word for command in ADVERTISED)


@pytest.mark.parametrize("shell", [zsh, fish])
def test_completion_describes_the_commands(shell):
    # The first sentence of the help line, without its full stop: usage and examples have no room in a list.
    described = {command.word: command.help.split(". ")[0].rstrip(".") for command in ADVERTISED}
    assert dict(shell("plax-tool ")) == described


@pytest.mark.parametrize("shell", SHELLS)
def test_completion_offers_the_options(shell):
    names = [f"-{option.letter}" for option in OPTIONS] + [f"--{option.long_name}" for option in OPTIONS]
    assert sorted(words(shell("plax-tool -"))) == sorted(names)


@pytest.mark.parametrize("shell", SHELLS)
@pytest.mark.parametrize("option", OPTIONS, ids=lambda option: option.long_name)
def test_completion_knows_which_options_take_an_argument(shell, option):
    # The first word behind an option is its argument, or else the command, and then there is nothing more to offer.
    argument = f"-{option.letter} fix-concats fitn"
    long_argument = f"--{option.long_name} fix-concats fitn"
    expected = ["fitness-stats-get"] if option.argument == "required" else []
    assert (words(shell(f"plax-tool {argument}")), words(shell(f"plax-tool {long_argument}"))) == (expected, expected)


@pytest.mark.parametrize("shell", SHELLS)
def test_completion_offers_the_work_items(shell):
    assert sorted(words(shell("plax-tool -i "))) == sorted(WORK_ITEMS)


@pytest.mark.parametrize("shell", SHELLS)
@pytest.mark.parametrize("option", [option for option in OPTIONS if numbers_in_help(option)],
                         ids=lambda option: option.long_name)
def test_completion_offers_the_numbers(shell, option):
    assert words(shell(f"plax-tool -{option.letter} ")) == expected_numbers(option)


# The words of block-cdb-cb stand in no table of the command line. Each that is offered must mean something to the tool.
@pytest.mark.parametrize("word, numbers", [("update", b"1:0"), ("add", b"2:0"), ("delete", b"3:0"), ("object", b"0:2"),
                                           ("disk", b"0:3"), ("node", b"0:4")])
@pytest.mark.parametrize("shell", SHELLS)
def test_completion_offers_callback_words_that_count(shell, word, numbers):
    assert word in words(shell("plax-tool block-cdb-cb "))
    with ScriptedDaemon() as plaxd:
        assert tool("-s", plaxd.path, "block-cdb-cb", word) == Outcome(b"", b"", 0)
    assert plaxd.received == frame(31, (numbers + b":00000000-0000-0000-0000-000000000000").ljust(1024, b"\0"))


# ---- Comments ----

def test_comments_name_tests_that_exist():
    code = "".join(path.read_text() for room in ("cli", "include", "link", "requests", "platform")
                   for path in (SOURCE / room).rglob("*") if path.suffix in (".cpp", ".h"))
    tests = "".join(path.read_text() for path in Path(__file__).parent.glob("test_*.py"))
    named = set(re.findall(r"\(test[\s/]+(\w+)\)", code))
    assert named
    assert named - set(re.findall(r"^def test_(\w+)\(", tests, re.MULTILINE)) == set()
