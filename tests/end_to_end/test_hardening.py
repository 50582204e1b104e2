"""The protections of the release build, read from its files, and a build in another directory, which is the same.

A program built without protections must fail every check.
"""

import os
import platform
import re
import shutil
import subprocess

import pytest

from binaries import PLATFORM_LIBRARY, imports, readelf
from harness import TOOL

FILES = [TOOL, PLATFORM_LIBRARY]
SOURCE = os.path.abspath(os.path.join(os.path.dirname(__file__), "../.."))
CACHE = os.path.join(os.path.dirname(TOOL), "../CMakeCache.txt")
# The landing instruction of an indirect call: the first bytes of every function that a table points to.
LANDINGS = {"x86_64": [b"\xf3\x0f\x1e\xfa"], "aarch64": [b"\x5f\x24\x03\xd5", b"\x3f\x23\x03\xd5"]}
# Relative to the tool; then, for machines without /proc, the prefix of a build or of a package.
RUN_PATHS = ["Library runpath: [$ORIGIN/../lib/plax-tool:/usr/local/lib/plax-tool]",
             "Library runpath: [$ORIGIN/../lib/plax-tool:/usr/lib/plax-tool]"]
RELATIVE = {"x86_64": "R_X86_64_RELATIVE", "aarch64": "R_AARCH64_RELATIVE"}


def settings():
    """The settings of the build, by name. A tool outside a build directory is an installed release."""
    if not os.path.exists(CACHE):
        return {"CMAKE_BUILD_TYPE": "Release"}
    with open(CACHE, encoding="utf-8") as cache:
        return dict(re.findall(r"^(\w+):\w+=(.*)$", cache.read(), re.MULTILINE))


SETTINGS = settings()
release_only = pytest.mark.skipif(SETTINGS["CMAKE_BUILD_TYPE"] != "Release", reason="looks at release builds")


def dynamic(tag, path):
    """The values of a tag of the dynamic section."""
    return [value.strip() for found, value in re.findall(r"\((\w+)\)(.*)", readelf("-d", path)) if found == tag]


def segments(path):
    """Name and flags of each segment."""
    return re.findall(r"^  (\w+) +0x\S+ 0x\S+ 0x\S+ 0x\S+ 0x\S+ ([R ][W ][E ]) ", readelf("-l", path), re.MULTILINE)


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


def keeps_constants_out_of_code(path):
    """Whether headers and constants are in separate segments, before and after the code."""
    return [flags for name, flags in segments(path) if name == "LOAD"] == ["R  ", "R E", "R  ", "RW "]


def searches_for_its_own_library_only(path):
    return dynamic("RPATH", path) == [] and dynamic("RUNPATH", path) in ([], *([path] for path in RUN_PATHS))


def has_landings(path):
    """Whether all functions that tables point to, which are called indirectly, start with a landing instruction."""
    machine = platform.machine()
    if machine not in LANDINGS:
        return True
    functions = [offset for address in relocated(path, RELATIVE[machine]) for offset in offsets_in_code(path, address)]
    landings = LANDINGS[machine]
    return bool(functions) and all(any(begins_with(path, offset, code) for code in landings) for offset in functions)


def relocated(path, kind):
    return [int(address, 16) for address in re.findall(kind + r" +([0-9a-f]+)$", readelf("-r", path), re.MULTILINE)]


def offsets_in_code(path, address):
    """The file offsets of the address if it is in a code section. A code segment can also hold constants."""
    sections = re.findall(r" PROGBITS +([0-9a-f]+) ([0-9a-f]+) ([0-9a-f]+) \S+ +AX ", readelf("-S", path))
    return [int(offset, 16) + address - int(begin, 16) for begin, offset, size in sections
            if int(begin, 16) <= address < int(begin, 16) + int(size, 16)]


def begins_with(path, offset, code):
    with open(path, "rb") as file:
        file.seek(offset)
        return file.read(len(code)) == code


CHECKS = [is_position_independent, is_read_only_after_relocation, is_bound_at_once, has_guarded_stack, is_fortified,
          has_no_writable_code, keeps_constants_out_of_code, searches_for_its_own_library_only]


@release_only
@pytest.mark.parametrize("check", CHECKS, ids=lambda check: check.__name__)
@pytest.mark.parametrize("path", FILES, ids=os.path.basename)
def test_protection(check, path):
    assert check(path)


@release_only
def test_indirect_calls_land():
    """Only the tool: the library has no table of functions."""
    assert has_landings(TOOL)


@release_only
def test_tool_is_a_program():
    assert any("PIE" in flags.split() for flags in dynamic("FLAGS_1", TOOL))


@release_only
def test_needed_libraries():
    assert dynamic("NEEDED", TOOL) == ["Shared library: [libplax-platform.so]", "Shared library: [libc.so.6]"]
    assert dynamic("RUNPATH", TOOL) in ([path] for path in RUN_PATHS)
    assert dynamic("SONAME", PLATFORM_LIBRARY) == ["Library soname: [libplax-platform.so]"]
    assert dynamic("NEEDED", PLATFORM_LIBRARY) == ["Shared library: [libc.so.6]"]


@release_only
def test_nothing_runs_before_main():
    """The array holds the compiler's start-up function alone: the tool and the library add none."""
    assert [dynamic("INIT_ARRAYSZ", path) for path in FILES] == [["8 (bytes)"], ["8 (bytes)"]]


SOFT_PROGRAM = """
#include <stdio.h>
void First(void) { puts("first"); }
void Second(void) { puts("second"); }
void (*volatile table[])(void) = { First, Second };
int main(int count, char **words)
{
    char text[99];
    sprintf(text, "%s", words[0]);
    printf("%s%d", text, count);
    table[count]();
}
"""
SOFT_OPTIONS = ["-no-pie", "-fno-pie", "-fno-stack-protector", "-U_FORTIFY_SOURCE", "-fcf-protection=none",
                "-Wl,-z,norelro", "-Wl,-z,noseparate-code", "-Wl,-z,lazy", "-Wl,-z,execstack", "-Wl,-rpath,/nowhere"]


def build_soft_program(directory, *options):
    directory.mkdir()
    (directory / "soft.c").write_text(SOFT_PROGRAM)
    subprocess.run(["cc", "-O0", *options, "-o", directory / "soft", directory / "soft.c"], check=True)
    return str(directory / "soft")


@pytest.mark.skipif(platform.machine() != "x86_64", reason="the options are those of one processor")
@pytest.mark.parametrize("check", CHECKS, ids=lambda check: check.__name__)
def test_unprotected_program_fails(check, tmp_path):
    assert not check(build_soft_program(tmp_path / "soft", *SOFT_OPTIONS))


@pytest.mark.skipif(platform.machine() != "x86_64", reason="the options are those of one processor")
def test_calls_without_landings_are_noticed(tmp_path):
    assert not has_landings(build_soft_program(tmp_path / "without", "-fPIE", "-pie", "-fcf-protection=none"))
    assert has_landings(build_soft_program(tmp_path / "with", "-fPIE", "-pie", "-fcf-protection=full"))


def build_again(directory):
    """Copies the sources into the directory, and builds the tool with the settings of the build under test."""
    source, build = directory / "source", directory / "build"
    shutil.copytree(SOURCE, source, ignore=shutil.ignore_patterns(".git", "build", "__pycache__"))
    same = [f"-D{name}={SETTINGS[name]}" for name in (
        "CMAKE_BUILD_TYPE", "CMAKE_CXX_COMPILER", "CMAKE_CXX_FLAGS", "CMAKE_INSTALL_PREFIX")]
    for words in (["-S", source, "-B", build, "-G", "Ninja", "-DBUILD_TESTING=OFF", "-DPLAX_BUILD_STANDIN=OFF", *same],
                  ["--build", build, "--target", "plax-tool", "-j", "2"]):
        subprocess.run(["cmake", *words], check=True, stdout=subprocess.DEVNULL)
    return build


def read_bytes(path):
    with open(path, "rb") as file:
        return file.read()


@release_only
@pytest.mark.skipif(not os.path.exists(CACHE), reason="the tool is not in a build directory")
def test_build_in_another_directory_is_the_same_bytes(tmp_path):
    build = build_again(tmp_path / "another directory, with a longer name")
    assert read_bytes(build / "sbin/plax-tool") == read_bytes(TOOL)
    assert read_bytes(build / "lib/plax-tool/libplax-platform.so") == read_bytes(PLATFORM_LIBRARY)
