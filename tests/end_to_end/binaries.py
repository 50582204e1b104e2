"""Reads the properties of built files."""

import functools
import os
import re
import subprocess

from harness import TOOL

PLATFORM_LIBRARY = os.path.join(os.path.dirname(TOOL), "../lib/plax-tool/libplax-platform.so")


@functools.cache
def readelf(option, path):
    return subprocess.run(["readelf", "-W", option, path], capture_output=True, check=True, text=True,
                          env={**os.environ, "LC_ALL": "C"}).stdout


def imports(path):
    """The undefined symbols that the file requires."""
    return set(re.findall(r" GLOBAL +DEFAULT +UND (\w+)", readelf("--dyn-syms", path)))


def is_sanitized(path):
    """Whether the program is built with a sanitizer, which needs additional memory and descriptors."""
    with open(path, "rb") as binary:
        content = binary.read()
    return b"__asan_init" in content or b"__tsan_init" in content
