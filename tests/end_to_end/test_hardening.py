"""How the release build protects itself, read from the files that it leaves, and that it leaves the same ones everywhere.

A program that is built without any protection must fail every check, so that none of them passes by mistake.
"""

import functools
import os
import platform
import re
import shutil
import subprocess

import pytest

from harness import TOOL

PLATFORM_LIBRARY = os.path.join(os.path.dirname(TOOL), "../lib/plax-tool/libplax-platform.so")
FILES = [TOOL, PLATFORM_LIBRARY]
SOURCE = os.path.abspath(os.path.join(os.path.dirname(__file__), "../.."))
CACHE = os.path.join(os.path.dirname(TOOL), "../CMakeCache.txt")
# What an indirect call must land on, as bytes at the start of each function that a table names.
LANDINGS = {"x86_64": [b"\xf3\x0f\x1e\xfa"], "aarch64": [b"\x5f\x24\x03\xd5", b"\x3f\x23\x03\xd5"]}
RELATIVE = {"x86_64": "R_X86_64_RELATIVE", "aarch64": "R_AARCH64_RELATIVE"}


def is_release():
    """Whether the tool under test is a release build; one without a build folder around it has been installed."""
    if not os.path.exists(CACHE):
        return True
    with open(CACHE, encoding="utf-8") as cache:
        return "CMAKE_BUILD_TYPE:STRING=Release\n" in cache.read()


release_only = pytest.mark.skipif(not is_release(), reason="looks at release builds")


@functools.cache
def readelf(option, path):
    return subprocess.run(["readelf", "-W", option, path], capture_output=True, check=True, text=True,
                          env={**os.environ, "LC_ALL": "C"}).stdout


def dynamic(tag, path):
    """The values of a tag of the dynamic section."""
    return [value.strip() for found, value in re.findall(r"\((\w+)\)(.*)", readelf("-d", path)) if found == tag]


def segments(path):
    """Name and flags of each segment."""
    return re.findall(r"^  (\w+) +0x\S+ 0x\S+ 0x\S+ 0x\S+ 0x\S+ ([R ][W ][E ]) ", readelf("-l", path), re.MULTILINE)


def imports(path):
    return set(re.findall(r" UND (\w+)", readelf("--dyn-syms", path)))


def is_position_independent(path):
    return "Type:                              DYN" in readelf("-h", path)


def is_read_only_after_relocation(path):
    names = [name for name, _ in segments(path)]
    return "GNU_RELRO" in names and dynamic("TEXTREL", path) == []


def is_bound_at_once(path):
    return "BIND_NOW" in dynamic("FLAGS", path) and any("NOW" in flags.split() for flags in dynamic("FLAGS_1", path))


def has_guarded_stack(path):
    return "__stack_chk_fail" in imports(path)


def is_fortified(path):
    printing = imports(path) & {"printf", "vfprintf", "snprintf", "__printf_chk", "__vfprintf_chk", "__snprintf_chk"}
    return bool(printing) and all(name.endswith("_chk") for name in printing)


def has_no_writable_code(path):
    found = segments(path)
    return ("GNU_STACK", "RW ") in found and not any("W" in flags and "E" in flags for _, flags in found)


def needs_no_search(path):
    return dynamic("RPATH", path) + dynamic("RUNPATH", path) == []


def has_landings(path):
    """Whether all functions that tables in memory name, and so are called indirectly, begin with a landing."""
    machine = platform.machine()
    if machine not in LANDINGS:
        return True
    functions = [address for address in relocated(path, RELATIVE[machine]) if is_code(path, address)]
    return bool(functions) and all(any(begins_with(path, address, landing) for landing in LANDINGS[machine])
                                   for address in functions)


def relocated(path, kind):
    return [int(address, 16) for address in re.findall(kind + r" +([0-9a-f]+)$", readelf("-r", path), re.MULTILINE)]


def loaded(path):
    """Offset, address and size of each loaded segment, and whether it holds code."""
    return [(int(offset, 16), int(address, 16), int(size, 16), "E" in flags) for offset, address, size, flags in re.findall(
        r"^  LOAD +(0x\S+) (0x\S+) 0x\S+ (0x\S+) 0x\S+ ([R ][W ][E ]) ", readelf("-l", path), re.MULTILINE)]


def is_code(path, address):
    return any(begin <= address < begin + size for _, begin, size, executable in loaded(path) if executable)


def begins_with(path, address, code):
    offset = next(offset + address - begin for offset, begin, size, _ in loaded(path) if begin <= address < begin + size)
    with open(path, "rb") as file:
        file.seek(offset)
        return file.read(len(code)) == code


CHECKS = [is_position_independent, is_read_only_after_relocation, is_bound_at_once, has_guarded_stack, is_fortified,
          has_no_writable_code, needs_no_search]


@release_only
@pytest.mark.parametrize("check", CHECKS, ids=lambda check: check.__name__)
@pytest.mark.parametrize("path", FILES, ids=os.path.basename)
def test_protection(check, path):
    assert check(path)


@release_only
def test_indirect_calls_land():
    """The library has no table of functions, so only the tool is looked at."""
    assert has_landings(TOOL)


@release_only
def test_tool_is_a_program():
    assert any("PIE" in flags.split() for flags in dynamic("FLAGS_1", TOOL))


@release_only
def test_needed_libraries():
    assert dynamic("NEEDED", TOOL) == ["Shared library: [$ORIGIN/../lib/plax-tool/libplax-platform.so]",
                                       "Shared library: [libc.so.6]"]
    assert dynamic("NEEDED", PLATFORM_LIBRARY) == ["Shared library: [libc.so.6]"]


SOFT_PROGRAM = """
#include <stdio.h>
void First(void) { puts("first"); }
void Second(void) { puts("second"); }
void (*volatile table[])(void) = { First, Second };
int main(int count, char **words) { char text[99]; sprintf(text, "%s", words[0]); printf("%s%d", text, count); table[count](); }
"""
SOFT_OPTIONS = ["-no-pie", "-fno-pie", "-fno-stack-protector", "-U_FORTIFY_SOURCE", "-fcf-protection=none", "-Wl,-z,norelro",
                "-Wl,-z,lazy", "-Wl,-z,execstack", "-Wl,-rpath,/nowhere"]


def build_soft_program(folder, *options):
    folder.mkdir()
    (folder / "soft.c").write_text(SOFT_PROGRAM)
    subprocess.run(["cc", "-O0", *options, "-o", folder / "soft", folder / "soft.c"], check=True)
    return str(folder / "soft")


@pytest.mark.skipif(platform.machine() != "x86_64", reason="the options are those of one processor")
@pytest.mark.parametrize("check", CHECKS, ids=lambda check: check.__name__)
def test_unprotected_program_fails(check, tmp_path):
    assert not check(build_soft_program(tmp_path / "soft", *SOFT_OPTIONS))


@pytest.mark.skipif(platform.machine() != "x86_64", reason="the options are those of one processor")
def test_calls_without_landings_are_noticed(tmp_path):
    assert not has_landings(build_soft_program(tmp_path / "without", "-fPIE", "-pie", "-fcf-protection=none"))
    assert has_landings(build_soft_program(tmp_path / "with", "-fPIE", "-pie", "-fcf-protection=full"))


def build_release(folder):
    """Copies the sources into the folder and builds the tool from them. Gives the bytes of what would be installed."""
    source, build = folder / "source", folder / "build"
    shutil.copytree(SOURCE, source, ignore=shutil.ignore_patterns(".git", "build"))
    subprocess.run(["cmake", "-S", source, "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release", "-DBUILD_TESTING=OFF",
                    "-DPLAX_BUILD_STANDIN=OFF"], check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", build, "--target", "plax-tool", "-j", "2"], check=True, stdout=subprocess.DEVNULL)
    return [(build / name).read_bytes() for name in ("sbin/plax-tool", "lib/plax-tool/libplax-platform.so")]


def test_two_builds_are_the_same_bytes(tmp_path):
    first = tmp_path / "first"
    second = tmp_path / "another folder, with a longer name"
    first.mkdir()
    second.mkdir()
    assert build_release(first) == build_release(second)
