"""What the tests of the command line share: the help text, and runs inside the directory of a scripted daemon.

A run inside the daemon's directory can name the socket shortly, as in SOCKET_OPTION, so that a test says exactly which
words stand where in the argument vector.
"""

import os
import re
import struct
import subprocess
from dataclasses import replace

import pytest

from harness import HOST_ORDER, RUNNER, TOOL, Outcome, ScriptedDaemon, environment, finish_tool, frame, tool
from request_table import COMMANDS, EXPECTED, OPTIONS

SOCKET = "plaxd.uds"
SOCKET_OPTION = "-s" + SOCKET

UUID = "01234567-89ab-cdef-0123-456789abcdef"
UUID_BYTES = b"\x01\x23\x45\x67\x89\xab\xcd\xef\x01\x23\x45\x67\x89\xab\xcd\xef"

INCOMPLETE = b"Failed to receive the complete UDS message sent. Please try again"

# What follows the first two lines of the help text, tabs and trailing blanks included.
COMMAND_LINES = [f"   {command['word']}\t\t{command['help']}\n" for command in COMMANDS if command["help"]]
OPTION_LINES = {option["letter"]: option["help"] + "\n" for option in OPTIONS}
LISTING = "".join([*COMMAND_LINES, "\noptions:\n", *map(OPTION_LINES.get, EXPECTED["optionsInHelp"])]).encode()


def help_text(program=TOOL, listing=LISTING):
    return b"usage: " + os.fsencode(program) + b" <options> <cmd> <args>\n\ncommands:\n" + listing


# Its own test compares the listing. All others only ask that one follows.
USAGE = help_text(listing=b"...")


def cut_listing(text):
    """The text with the listing of commands and options that it ends with, if it does, cut down to three dots."""
    return re.sub(rb"(?s)(?<=\n\ncommands:\n)   \w.*\n\noptions:\n   -.*\n\Z", b"...", text)


def usage_error(message):
    """What `refuse` gives for a run that ends with this message on standard error, the help text and status 0xbad0001.
    """
    return Outcome(USAGE, os.fsencode(message), 1)


def succeeds(stdout=b""):
    return Outcome(stdout, b"", 0)


def ask(*words, steps=(), **options):
    """Runs the tool in the directory of a daemon that follows the steps. Gives the outcome and all that the tool sent.

    A daemon without steps closes the connection unanswered, which is the success of every command: those that print
    their answer then print an empty line.
    """
    with ScriptedDaemon(*steps) as plaxd:
        run = tool(*words, cwd=plaxd.directory, **options)
    return run, plaxd.received


def converse(*steps, words, env=None, **options):
    """Runs the tool against a daemon that does these steps. The options are the daemon's. Gives what `ask` gives."""
    with ScriptedDaemon(*steps, **options) as plaxd:
        run = tool("-s", plaxd.path, *words, env=env)
    return run, plaxd.received


def refuse(*words, **options):
    """Runs the tool in the directory of a daemon that must not be connected to. Gives the outcome, the listing cut."""
    with ScriptedDaemon(connections=0) as plaxd:
        run = tool(*words, cwd=plaxd.directory, **options)
    return replace(run, stdout=cut_listing(run.stdout))


def run_as(name, *words):
    """Runs the tool with the given program name as the first element of its argument vector, which Python does not let
    be empty."""
    return finish_tool(subprocess.Popen(["bash", "-c", 'exec -a "$0" "$@"', name, TOOL, *words],
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                        env=environment()))


# For the tests that use run_as.
own_program_name = pytest.mark.skipif(bool(RUNNER), reason="a runner gives the tool its own program name")


def tool_named(directory, program, *words):
    """Runs the tool under another program name, which is a word without a slash."""
    (directory / program).symlink_to(TOOL)
    env = environment(PATH=f"{directory}:{os.environ['PATH']}")
    return finish_tool(subprocess.Popen([*RUNNER, program, *words], cwd=directory, env=env, stdin=subprocess.DEVNULL,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE))


def record(layout, *values):
    """A request record in the order of the host that the tool runs on. The layout names every gap."""
    return struct.pack(HOST_ORDER + layout, *values)


def uuid_list(entries):
    return ",".join([UUID] * entries)


# ---- The requests in which many options show. ----

LIST_FIELD = 94720


def entity_decom(uuid=bytes(16), mode=0, durability=0):
    return frame(16, record("16sIB3s", uuid, mode, durability, bytes(3)))


def upgrade(uuids, count, mode=0, reason=0, wipe=0):
    head = record("16sIIB3sI", bytes(16), mode, reason, wipe, bytes(3), count)
    return frame(17, head + os.fsencode(uuids) + b"\0")


def manual_move(destinations="", destination_count=0, exclusions="", exclusion_count=0):
    return frame(33, record(f"16sII{LIST_FIELD}s{LIST_FIELD}s", UUID_BYTES, destination_count, exclusion_count,
                            os.fsencode(destinations), os.fsencode(exclusions)))


def exclusion_list(uuids, count, mode=0):
    return frame(34, record(f"II{LIST_FIELD}s", mode, count, os.fsencode(uuids)))
