"""The command line of the stand-in: its help texts, and its messages for errors, after which it creates nothing."""

import re
from pathlib import Path

import pytest
from standin_process import PROJECT, run_standin

HELP = """\
usage: plaxd-standin [OPTION]... COMMAND

Stand in for plaxd: answer plax-tool on a socket of your choice and log its requests.

commands:
  serve                 Answer requests until SIGTERM or SIGINT
  relay                 Pass requests on to a daemon until SIGTERM or SIGINT
  rehearse              Run a script and answer its requests
  decode                Show what the bytes of a request mean; FILE -: standard input

options:
  -h, --help            Show this help text and exit
  --version             Show the version and exit
"""

HELP_SERVE = """\
usage: plaxd-standin serve --socket PATH [OPTION]...

Answer requests until SIGTERM or SIGINT.

options:
  -h, --help            Show this help text and exit
  --socket PATH         Listen on this socket
  --socket-mode MODE    Permissions of the socket in octal; default: 600
  --log FILE            Append the log to FILE; default: -, standard output
  --format FORMAT       text (the default), json or commands
  --strict[=warnings]   Exit with status 1 after violations (and warnings)
  --ready-fd N          Write a newline to descriptor N when ready
  --capture FILE        Write requests and replies to FILE for Wireshark
  --answers FILE        Take answers and faults from this JSON file
  --expect FILE         Exit with status 1 unless these requests came
"""

HELP_RELAY = """\
usage: plaxd-standin relay --socket PATH [OPTION]...

Pass requests on to a daemon until SIGTERM or SIGINT.

options:
  -h, --help            Show this help text and exit
  --socket PATH         Listen on this socket
  --socket-mode MODE    Permissions of the socket in octal; default: 600
  --log FILE            Append the log to FILE; default: -, standard output
  --format FORMAT       text (the default), json or commands
  --strict[=warnings]   Exit with status 1 after violations (and warnings)
  --ready-fd N          Write a newline to descriptor N when ready
  --capture FILE        Write requests and replies to FILE for Wireshark
  --to PATH             Socket of the daemon; default: /var/run/plaxd.uds
  --answers FILE        Take answers and faults from this JSON file
  --record FILE         Write what was answered to FILE, an answers file
"""

HELP_REHEARSE = """\
usage: plaxd-standin rehearse [OPTION]... -- SCRIPT [ARGUMENT]...

Run a script and answer its requests.

options:
  -h, --help            Show this help text and exit
  --answers FILE        Take answers and faults from this JSON file
  --expect FILE         Exit with status 1 unless these requests came
  --log FILE            Append the log to FILE; default: no log
  --format FORMAT       text (the default), json or commands
  --strict[=warnings]   Exit with status 1 after violations (and warnings)
  --capture FILE        Write requests and replies to FILE for Wireshark
  --socket-option       Give plax-tool -s where namespaces are not allowed
"""

HELP_DECODE = """\
usage: plaxd-standin decode [OPTION]... FILE

Show what the bytes of a request mean; FILE -: standard input.

options:
  -h, --help            Show this help text and exit
  --format FORMAT       text (the default), json or commands
  --strict[=warnings]   Exit with status 1 after violations (and warnings)
"""


@pytest.mark.parametrize("words, text", [([], HELP), (["serve"], HELP_SERVE), (["relay"], HELP_RELAY),
                                         (["rehearse"], HELP_REHEARSE), (["decode"], HELP_DECODE)])
@pytest.mark.parametrize("option", ["-h", "--help"])
def test_help(option, words, text):
    assert run_standin(*words, option) == (0, text.encode(), b"")


def test_version():
    changes = Path(PROJECT, "CHANGELOG.md").read_text(encoding="utf-8")
    newest = re.search(r"^## ([0-9.]+) ", changes, re.MULTILINE)[1]
    assert run_standin("--version") == (0, f"plaxd-standin {newest}\n".encode(), b"")


def refusal(message, command=""):
    return 2, b"", f"plaxd-standin: {message}\nTry 'plaxd-standin{command} --help'.\n".encode()


@pytest.mark.parametrize("words, message", [
    ([], "a command is required"),
    (["listen"], "unknown command: listen"),
    (["--answers", "f"], "unknown option: --answers"),
    (["--socket="], "--socket needs a value"),
])
def test_no_command(words, message):
    assert run_standin(*words) == refusal(message)


@pytest.mark.parametrize("words, message", [
    (["serve"], "--socket is required"),
    (["serve", "--socket", "s", "more"], "unexpected argument: more"),
    (["serve", "decode"], "unexpected argument: decode"),
    (["serve", "--sockets", "s"], "unknown option: --sockets"),
    (["serve", "-x", "--socket", "s"], "unknown option: -x"),
    (["serve", "--socket", "s", "--", "more"], "unexpected argument: more"),
    (["serve", "--socket", "s", "--to", "d"], "unknown option: --to"),
    (["decode"], "FILE is required"),
    (["decode", "--socket", "s", "-"], "unknown option: --socket"),
    (["serve", "--socket", "s", "--format", "xml"], "--format must be text, json or commands, not xml"),
    (["decode", "--format", "1", "-"], "--format must be text, json or commands, not 1"),
    (["decode", "--strict=more", "-"], "--strict must be violations or warnings, not more"),
    (["rehearse", "--socket-option=more", "--", "script"], "--socket-option takes no value"),
    (["rehearse"], "a script is required after --"),
    (["rehearse", "--"], "a script is required after --"),
    (["rehearse", "script"], "unexpected argument: script"),
    (["rehearse", "--socket", "s", "--", "script"], "unknown option: --socket"),
    *[(["serve", "--socket", "s", "--ready-fd", text], f"--ready-fd must be an open descriptor, not {text}")
      for text in ("99", "-1", "x", "1x", "99999999999")],
    *[(["serve", "--socket", "s", "--socket-mode", text], f"--socket-mode must be octal, from 0 to 777, not {text}")
      for text in ("8", "1000", "-1", "0o600", "rw", "600 ")],
])
def test_refused(words, message):
    assert run_standin(*words) == refusal(message, " " + words[0])


@pytest.mark.parametrize("words", [["serve", "--socket", "s", "--answers"], ["relay", "--socket", "s", "--to"],
                                   ["serve", "--log", "f", "--socket"], ["serve", "--socket", "s", "--log"],
                                   ["decode", "-", "--format"], ["relay", "--socket", "s", "--socket-mode"]])
def test_missing_and_empty_values(words):
    message = f"{words[-1]} needs a value"
    assert run_standin(*words) == refusal(message, " " + words[0])
    assert run_standin(*words, "") == refusal(message, " " + words[0])
    assert run_standin(*words[:-1], words[-1] + "=", "--strict") == refusal(message)


def test_empty_operand():
    assert run_standin("decode", "") == refusal("FILE needs a value", " decode")


def test_last_one_counts():
    assert run_standin("decode", "--format", "json", "--format", "text", "-") == (
        0, b"unknown 0 | BROKEN: cut short: 0 of 8 header bytes\n", b"")
