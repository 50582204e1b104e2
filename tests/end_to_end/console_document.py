"""Runs the commands of a document in one shell, from top to bottom, and compares what they print.

Each "console" block of the document holds command lines ("$ ", continued by "> ") and all that they print. The shell
starts in a directory that holds the examples of standin/ and nothing else, with the tool and the stand-in daemon in its
PATH.
"""

import os
import pathlib
import re
import signal
import subprocess

from harness import TOOL, environment

STANDIN = os.environ.get("PLAXD_STANDIN", "")
SOURCE = pathlib.Path(__file__).parents[2]
PATIENCE = 300  # seconds, for a whole document


def read_steps(text):
    """The pairs of command and expected output, in the order of the text."""
    steps = []
    for block in re.findall(r"^```console\n(.*?)^```$", text, flags=re.MULTILINE | re.DOTALL):
        for line in block.splitlines(keepends=True):
            if line.startswith("$ "):
                steps.append([line[2:], ""])
            elif line.startswith("> ") and not steps[-1][1]:
                steps[-1][0] += line[2:]
            else:
                steps[-1][1] += line
    return steps


def write_script(directory, commands):
    """A script that writes the output of each command to a file of its own. $? carries over to the next command."""
    lines = ["result=0\n"]
    for number, command in enumerate(commands):
        directory.joinpath(f"command.{number}").write_text(f"(exit $result)\n{command}", encoding="utf-8")
        lines.append(f'. "$STEPS/command.{number}" >"$STEPS/output.{number}" 2>&1\nresult=$?\n')
    script = directory / "script"
    script.write_text("".join(lines), encoding="utf-8")
    return script


def run_script(script, directory):
    programs = directory / "bin"
    programs.mkdir()
    programs.joinpath("plax-tool").symlink_to(TOOL)
    programs.joinpath("plaxd-standin").symlink_to(STANDIN)
    work = directory / "work"
    work.mkdir()
    work.joinpath("standin").symlink_to(SOURCE / "standin")
    changes = {"STEPS": str(directory), "PATH": f"{programs}:{os.environ['PATH']}", "HOME": str(directory),
               "PYTHONUNBUFFERED": "1"}  # unbuffered, so that Python programs write in the order seen on a terminal
    shell = subprocess.Popen(["bash", script], cwd=work, env=environment(**changes), stdin=subprocess.DEVNULL,
                             start_new_session=True)
    try:
        shell.wait(PATIENCE)
    finally:
        # Processes left by a failed step end with its session.
        try:
            os.killpg(shell.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass


def without_progress(output):
    """The output without the progress counter that clush overwrites while it waits."""
    return re.sub(r"clush: +\d+/\d+\r| +\r", "", output)


def run_steps(steps, directory):
    """The pairs of command and real output."""
    run_script(write_script(directory, [command for command, _ in steps]), directory)
    outputs = [directory.joinpath(f"output.{number}") for number in range(len(steps))]
    return [[command, without_progress(output.read_bytes().decode())] for (command, _), output in zip(steps, outputs)]
