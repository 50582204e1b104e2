"""Shared by the tests of the command line: the help text, and runs in the directory of a scripted daemon.

A run in the daemon's directory names the socket by the short path in SOCKET_OPTION, so a test types out the whole
argument vector.
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

# The help text after its first two lines, with tabs and trailing blanks.
COMMAND_LINES = [f"   {command['word']}\t\t{command['help']}\n" for command in COMMANDS if command["help"]]
OPTION_LINES = {option["letter"]: option["help"] + "\n" for option in OPTIONS}
LISTING = "".join([*COMMAND_LINES, "\noptions:\n", *map(OPTION_LINES.get, EXPECTED["optionsInHelp"])]).encode()


def help_text(program=TOOL, listing=LISTING):
    return b"usage: " + os.fsencode(program) + b" <options> <cmd> <args>\n\ncommands:\n" + listing


# One test compares the whole listing. All others only check that there is one.
USAGE = help_text(listing=b"...")


def cut_listing(text):
    """Replaces the listing of commands and options at the end of the text, if there is one, by three dots."""
    return re.sub(rb"(?s)(?<=\n\ncommands:\n)   \w.*\n\noptions:\n   -.*\n\Z", b"...", text)


def usage_error(message):
    """The result of `refuse` for a run that prints this message and the help text, and ends with status 0xbad0001."""
    return Outcome(USAGE, os.fsencode(message), 1)


def succeeds(stdout=b""):
    return Outcome(stdout, b"", 0)


def ask(*words, steps=(), **options):
    """Runs the tool in the directory of a daemon that follows the steps. Returns the outcome and all bytes sent.

    A daemon without steps closes the connection without an answer. Every command then succeeds; those that print
    their answer print an empty line.
    """
    with ScriptedDaemon(*steps) as plaxd:
        run = tool(*words, cwd=plaxd.directory, **options)
    return run, plaxd.received


def converse(*steps, words, env=None, **options):
    """Runs the tool against a daemon that does these steps, started with the options. Returns the result of `ask`."""
    with ScriptedDaemon(*steps, **options) as plaxd:
        run = tool("-s", plaxd.path, *words, env=env)
    return run, plaxd.received


def refuse(*words, **options):
    """Runs the tool, which must not connect to the daemon. Returns the outcome with the listing cut."""
    with ScriptedDaemon(connections=0) as plaxd:
        run = tool(*words, cwd=plaxd.directory, **options)
    return replace(run, stdout=cut_listing(run.stdout))


def run_as(name, *words):
    """Runs the tool with this name as its first argument. Python alone cannot pass an empty one."""
    return finish_tool(subprocess.Popen(["bash", "-c", 'exec -a "$0" "$@"', name, TOOL, *words],
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                        env=environment()))


# for tests that use run_as
own_program_name = pytest.mark.skipif(bool(RUNNER), reason="a runner gives the tool its own program name")


def tool_named(directory, program, *words):
    """Runs the tool under another program name, a word without a slash."""
    (directory / program).symlink_to(TOOL)
    env = environment(PATH=f"{directory}:{os.environ['PATH']}")
    return finish_tool(subprocess.Popen([*RUNNER, program, *words], cwd=directory, env=env, stdin=subprocess.DEVNULL,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE))


def record(layout, *values):
    """A request record in the byte order of the tool's host. The layout names all padding."""
    return struct.pack(HOST_ORDER + layout, *values)


def uuid_list(entries):
    return ",".join([UUID] * entries)


# ---- Requests that carry many options ----

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
