"""Running a program where the tool's default socket path is a socket of the test's own."""

import os
import subprocess

from harness import RUNNER, TOOL

DEFAULT_PATH = "/var/run/plaxd.uds"


def namespaces_work():
    return subprocess.run(["unshare", "--user", "--map-root-user", "--mount", "true"], check=False,
                          stderr=subprocess.DEVNULL).returncode == 0


def tool_directory(directory, *options, tool=TOOL):
    """Makes a directory for PATH that holds plax-tool, which gets the options before its words."""
    program = os.path.join(directory, "plax-tool")
    if not options and not RUNNER:
        os.symlink(tool, program)
        return directory
    with open(program, "w", encoding="utf-8") as file:
        file.write("#!/bin/sh\nexec " + " ".join([*RUNNER, tool, *options]) + ' "$@"\n')
    os.chmod(program, 0o755)
    return directory


def run_at_default_path(socket_path, directory, *words, **options):
    """Runs the words where the plax-tool of PATH finds the socket, which is named plaxd.uds, at its default path.

    `directory` is empty and lies elsewhere. Where the system allows no namespaces, the tool gets -s.
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
