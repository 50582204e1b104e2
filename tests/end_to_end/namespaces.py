"""Runs a program with a socket of the test at the tool's default path."""

import os
import subprocess

from harness import RUNNER, TOOL

DEFAULT_PATH = "/var/run/plaxd.uds"


def namespaces_work():
    return subprocess.run(["unshare", "--user", "--map-root-user", "--mount", "true"], check=False,
                          stderr=subprocess.DEVNULL).returncode == 0


def tool_directory(directory, *options, tool=TOOL):
    """Puts a plax-tool that inserts the options before its words into the directory, which is for PATH."""
    program = os.path.join(directory, "plax-tool")
    if not options and not RUNNER:
        os.symlink(tool, program)
        return directory
    with open(program, "w", encoding="utf-8") as file:
        file.write("#!/bin/sh\nexec " + " ".join([*RUNNER, tool, *options]) + ' "$@"\n')
    os.chmod(program, 0o755)
    return directory


def run_at_default_path(socket_path, directory, *words, **options):
    """Runs the words with the socket, named plaxd.uds, at the default path of the plax-tool in PATH.

    `directory` is an empty directory elsewhere. If the system allows no namespaces, the tool gets -s.
    """
    run_directory = os.path.dirname(socket_path)
    if namespaces_work():
        enter = 'mount --bind "$0" /run && exec "$@"'
        words = ["unshare", "--user", "--map-root-user", "--mount", "sh", "-c", enter, run_directory, *words]
        path = tool_directory(directory)
    else:
        path = tool_directory(directory, "-s", socket_path)
    env = {**os.environ, "LANG": "C", "PATH": f"{path}:{os.environ['PATH']}"}
    return subprocess.run(words, env=env, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          check=False, **options)
