"""The files of an installation, and a function that lists them. Paths are relative to the prefix."""

import os
import stat

TOOL = {
    "-rw-r--r-- lib/plax-tool/libplax-platform.so",
    "-rwxr-xr-x sbin/plax-tool",
    "-rw-r--r-- share/bash-completion/completions/plax-tool",
    "-rw-r--r-- share/doc/plax-tool/CHANGELOG.md",
    "-rw-r--r-- share/doc/plax-tool/CONTRIBUTING.md",
    "-rw-r--r-- share/doc/plax-tool/README.md",
    "-rw-r--r-- share/doc/plax-tool/changelog.gz",
    "-rw-r--r-- share/doc/plax-tool/copyright",
    "-rw-r--r-- share/doc/plax-tool/docs/architecture.md",
    "-rw-r--r-- share/doc/plax-tool/docs/capture.png",
    "-rw-r--r-- share/doc/plax-tool/docs/fleet.md",
    "-rw-r--r-- share/doc/plax-tool/docs/performance-clients.svg",
    "-rw-r--r-- share/doc/plax-tool/docs/performance-reply.svg",
    "-rw-r--r-- share/doc/plax-tool/docs/performance-stream.svg",
    "-rw-r--r-- share/doc/plax-tool/docs/performance.md",
    "-rw-r--r-- share/doc/plax-tool/docs/protocol.md",
    "-rw-r--r-- share/doc/plax-tool/docs/scripting.md",
    "-rw-r--r-- share/doc/plax-tool/docs/testing.md",
    "-rw-r--r-- share/doc/plax-tool/docs/troubleshooting.md",
    "-rw-r--r-- share/man/man8/plax-tool.8.gz",
}

STANDIN = {
    "-rwxr-xr-x bin/plaxd-standin",
    "-rw-r--r-- share/bash-completion/completions/plaxd-standin",
    "-rw-r--r-- share/doc/plax-tool-standin/changelog.gz",
    "-rw-r--r-- share/doc/plax-tool-standin/copyright",
    "-rw-r--r-- share/doc/plax-tool-standin/examples/bad-day.json",
    "-rwxr-xr-x share/doc/plax-tool-standin/examples/can-evacuate.sh",
    "-rw-r--r-- share/doc/plax-tool-standin/examples/healthy.json",
    "-rw-r--r-- share/doc/plax-tool-standin/standin-answers.schema.json",
    "-rw-r--r-- share/man/man1/plaxd-standin.1.gz",
    "-rw-r--r-- share/man/man5/plaxd-standin-answers.5.gz",
}


def below(prefix, files):
    """The same files with absolute paths."""
    return {line.replace(" ", f" {prefix}/") for line in files}


def listing(root):
    """Mode and path of every file below the directory."""
    return {f"{mode(path, name)} {os.path.join(path, name).removeprefix(str(root))}"
            for path, _, names in os.walk(root) for name in names}


def directory_modes(root):
    return {mode(path, name) for path, directories, _ in os.walk(root) for name in directories}


def mode(path, name):
    return stat.filemode(os.lstat(os.path.join(path, name)).st_mode)
