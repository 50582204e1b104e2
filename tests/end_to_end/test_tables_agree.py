"""The tool's tables and the manual page say what tests/commands.json expects: nothing less, nothing more.

The build prints the tool's tables to `tables.txt`, next to the completions. Each deliberate difference is listed here,
with its reason.
"""

import re
import shutil
import subprocess
from pathlib import Path

import pytest
from request_table import COMMANDS, OPTIONS, WORK_ITEMS, assert_agrees
from shells import COMPLETIONS

SOURCE = Path(__file__).parents[2]
MANUAL_PAGE = "man/plax-tool.8"

# Numbers that the page explains but the help text leaves out: the defaults.
NUMBERS_BESIDE_HELP = {"X": ["0"]}

# The page's wording for each reply class, and for each timeout in seconds.
ANSWERS = {
    "printed": "The answer is printed.",
    "checked": "The answer is a status.",
    "none": "There is no answer.",
    "streamed": "The answer is streamed.",
    "streamed for all objects": "The answer is printed; with\n.Fl a ,\nit is streamed.",
}
WAITS = {20: [], 1800: ["Waits up to 30 minutes."], 7200: ["Waits up to 2 hours."]}


def table(kind):
    lines = [line.split("\t") for line in (COMPLETIONS / "tables.txt").read_text().split("\n")]
    return [line[1:] for line in lines if line[0] == kind]


ADVERTISED = [command for command in COMMANDS if command["help"]]
UNLISTED = [command["word"] for command in COMMANDS if not command["help"]]


def reply_class(command):
    return "streamed for all objects" if "allObjects" in command else command["reply"]


def test_commands_of_the_tool():
    assert_agrees("cli/command_table.h", table("command"), [
        [str(command["code"]), command["word"], str(command["timeout"]), reply_class(command), command["help"] or ""]
        for command in COMMANDS])


def test_options_of_the_tool():
    assert_agrees("cli/option_table.h", table("option"), [
        [option["letter"], option["name"], option["argument"] or "", option["help"]]
        for option in OPTIONS])


def test_work_items_of_the_tool():
    assert_agrees("cli/work_items.h", table("work item"), [[name] for name in WORK_ITEMS])


# ---- Manual page ----

def section(name):
    text = (SOURCE / MANUAL_PAGE).read_text()
    return re.search(rf"^\.Sh {name}\n(.*?)^\.Sh ", text, re.DOTALL | re.MULTILINE)[1]


def items(text, macro):
    """The items of the section's outer list: heading and text."""
    parts = re.split(rf"^\.It {macro} (.*)\n", text, flags=re.MULTILINE)
    return list(zip(parts[1::2], parts[2::2]))


def option_items():
    """Each option on the page: letter, long name, whether each form takes an argument, and text."""
    found = []
    for head, text in items(section("OPTIONS"), "Fl"):
        form = re.fullmatch(r"(\w)(?: Ar (\S+))? , Fl -([a-z-]+)(?: Ns = Ns Ar (\S+))?", head)
        assert form is not None and form[2] == form[4], head
        found.append((form[1], form[3], bool(form[2]), text))
    return found


def numbers_on_page(text):
    return re.findall(r"^\.It (\d)$", text, re.MULTILINE)


def expected_numbers(option):
    return NUMBERS_BESIDE_HELP.get(option["letter"], []) + re.findall(r"[(, ](\d):", option["help"])


def test_page_is_clean():
    lint = subprocess.run([shutil.which("mandoc"), "-Tlint", "-Wwarning", SOURCE / MANUAL_PAGE], capture_output=True,
                          text=True)
    assert (lint.stdout, lint.stderr, lint.returncode) == ("", "", 0)


def test_page_describes_the_options():
    # In the order of the table, as the page refers to positions in the table.
    assert_agrees(MANUAL_PAGE, [item[:3] for item in option_items()],
                  [(option["letter"], option["name"], option["argument"] is not None) for option in OPTIONS])


def test_page_describes_the_numbers():
    on_page = {letter: numbers_on_page(text) for letter, _, _, text in option_items()}
    assert on_page == {option["letter"]: expected_numbers(option) for option in OPTIONS}


def test_page_names_the_work_items():
    text = next(text for letter, _, _, text in option_items() if letter == "i")
    assert_agrees(MANUAL_PAGE, re.findall(r"^\.Li (\w+)", text, re.MULTILINE), list(WORK_ITEMS))


def described_commands():
    return {head.split(" ")[0]: text for head, text in items(section("COMMANDS"), "Cm")}


def test_page_describes_the_commands():
    assert_agrees(MANUAL_PAGE, list(described_commands()), [command["word"] for command in ADVERTISED])


def test_page_names_no_unlisted_command():
    text = (SOURCE / MANUAL_PAGE).read_text()
    assert [word for word in UNLISTED if word in text] == []


@pytest.mark.parametrize("command", ADVERTISED, ids=lambda command: command["word"])
def test_page_describes_the_answer(command):
    text = described_commands()[command["word"]]
    assert re.search(r"^Needs\b", text, re.MULTILINE)
    assert bool(re.search(r"^Needs nothing", text, re.MULTILINE)) == (command["rule"] is None)
    assert [answer for answer in ANSWERS.values() if answer in text] == [ANSWERS[reply_class(command)]]
    assert re.findall(r"^Waits .*", text, re.MULTILINE) == WAITS[command["timeout"]]


# ---- Comments ----

def test_comments_name_tests_that_exist():
    code = "".join(path.read_text() for layer in ("cli", "include", "link", "requests", "platform")
                   for path in (SOURCE / layer).rglob("*") if path.suffix in (".cpp", ".h"))
    tests = "".join(path.read_text() for path in Path(__file__).parent.glob("test_*.py"))
    named = set(re.findall(r"\(test[\s/]+(\w+)\)", code))
    assert named
    assert named - set(re.findall(r"^def test_(\w+)\(", tests, re.MULTILINE)) == set()
