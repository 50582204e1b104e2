"""The completions of plaxd-standin offer exactly the terms and descriptions of its help texts."""

import re

import pytest
from shells import bash, fish, words, zsh
from standin_process import run_standin

SHELLS = [bash, zsh, fish]
COMMANDS = ["serve", "relay", "rehearse", "decode"]


def help_rows(*words_before):
    """Terms and descriptions of the help text: those of the commands, and those of the options, by long name."""
    code, text, messages = run_standin(*words_before, "--help")
    assert (code, messages) == (0, b"")
    rows = re.findall(r"^  (?:-h, )?(\S+)(?: [A-Z]+)? {2,}(\S.*)$", text.decode(), re.MULTILINE)
    rows = [(term.split("[")[0], description) for term, description in rows]
    commands = [row for row in rows if not row[0].startswith("--")]
    return dict(commands), {row[0]: row[1] for row in rows if row not in commands}


def test_help_lists_the_commands_tested_here():
    commands, options = help_rows()
    assert (list(commands), list(options)) == (COMMANDS, ["--help", "--version"])
    assert [len(help_rows(command)[1]) for command in COMMANDS] == [10, 11, 8, 3]


@pytest.mark.parametrize("shell", SHELLS)
def test_commands(shell):
    assert sorted(words(shell("plaxd-standin "))) == sorted(COMMANDS)


@pytest.mark.parametrize("shell", [zsh, fish])
def test_commands_are_described(shell):
    assert dict(shell("plaxd-standin ")) == help_rows()[0]


@pytest.mark.parametrize("shell", SHELLS)
@pytest.mark.parametrize("command", ["", *COMMANDS])
def test_options(shell, command):
    options = help_rows(*command.split())[1]
    offered = shell(f"plaxd-standin {command} --".replace("  ", " "))
    # If an option's value is optional, fish offers the option with "=" too.
    assert sorted({word.rstrip("=") for word in words(offered)}) == sorted(options)
    if shell is not bash:
        assert {offer.word.rstrip("="): offer.description for offer in offered} == options


@pytest.mark.parametrize("shell", SHELLS)
@pytest.mark.parametrize("option, values", [("--format ", ["commands", "json", "text"]),
                                            ("--strict=", ["violations", "warnings"]), ("--socket-mode ", []), ("--ready-fd ", [])])
def test_values(shell, option, values):
    offered = words(shell(f"plaxd-standin serve {option}"))
    assert sorted(word.removeprefix("--strict=") for word in offered) == values


@pytest.mark.parametrize("shell", SHELLS)
@pytest.mark.parametrize("words_before", ["serve --socket", "serve --answers", "serve --log", "relay --to",
                                          "rehearse --answers", "serve --expect", "decode"])
def test_files(shell, words_before):
    offered = [word.rstrip("/") for word in words(shell(f"plaxd-standin {words_before} an"))]
    assert sorted(offered) == ["answer.txt", "answers"]


@pytest.mark.parametrize("shell", SHELLS)
def test_script_is_completed_as_a_command_of_its_own(shell):
    assert words(shell("plaxd-standin rehearse -- plax-tool what-if-c")) == ["what-if-cancel"]
