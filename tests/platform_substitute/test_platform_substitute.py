"""Configures and builds the tool with another platform support library, and runs it.

Each of the library's four functions shows that it was called.
"""

import os
import subprocess
import sys

import pytest

SOURCE_DIR, CMAKE, SUBSTITUTE, BUILD_OPTIONS = (
    os.environ[name] for name in ("PLAX_SOURCE_DIR", "PLAX_CMAKE", "PLAX_SUBSTITUTE", "PLAX_BUILD_OPTIONS"))

os.environ["PLAX_TOOL"] = "set by the build below"
sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "end_to_end"))
import harness  # noqa: E402 - it asks for the tool's place when it is imported
from binaries import is_sanitized  # noqa: E402
from command_line import INCOMPLETE  # noqa: E402
from harness import Outcome, ScriptedDaemon, frame, limit_memory, reply, send, tool  # noqa: E402


def run_cmake(*words):
    subprocess.run([CMAKE, *words], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=True)


@pytest.fixture(name="tool_path", scope="module", autouse=True)
def build_with_the_substitute(tmp_path_factory):
    build = tmp_path_factory.mktemp("build")
    run_cmake("-S", SOURCE_DIR, "-B", build, "-G", "Ninja", f"-DPLAX_PLATFORM_LIBRARY={SUBSTITUTE}",
              "-DBUILD_TESTING=OFF", "-DPLAX_BUILD_STANDIN=OFF", *BUILD_OPTIONS.split("|"))
    run_cmake("--build", build, "--target", "plax-tool", "--parallel", "2")
    harness.TOOL = str(build / "sbin" / "plax-tool")
    return harness.TOOL


def test_usage_errors_are_shown_by_the_substitute():
    run = tool("no-such-command", stdout=subprocess.DEVNULL)
    assert run == Outcome(None, b"<warning> Unrecognized command: no-such-command\n", 1)


def test_errors_of_the_daemon_are_shown_with_the_substitutes_texts():
    with ScriptedDaemon(reply(5, b"busy")) as plaxd:
        run = tool("-s", plaxd.path, "what-if-cancel")
    assert run == Outcome(b"", b"<warning> Error received: <status>: busy\n", 5)


def test_incomplete_answers_are_shown_by_the_substitute():
    with ScriptedDaemon(send(b"\0\0\0\0\0\0\0\5ab")) as plaxd:
        run = tool("-s", plaxd.path, "what-if-cancel")
    assert run == Outcome(b"", b"<warning> " + INCOMPLETE, 0)


def test_an_answer_does_not_pass_through_the_substitute():
    with ScriptedDaemon(reply(0, b"abc")) as plaxd:
        run = tool("-s", plaxd.path, "fitness-stats-get")
    assert run == Outcome(b"abc\n", b"", 0)


def test_json_is_copied_by_the_substitute():
    with ScriptedDaemon(reply(0)) as plaxd:
        run = tool("-s", plaxd.path, "fitness-config-set", "-j", "{}")
    assert run == Outcome(b"", b"", 0)
    assert plaxd.received == frame(4, b"#}\0")


@pytest.mark.skipif(is_sanitized(SUBSTITUTE), reason="takes more address space than the test leaves")
def test_missing_memory_ends_in_the_substitute():
    with ScriptedDaemon(send(b"\0\0\0\0\xff\xff\xff\xff"), may_break=True) as plaxd:
        run = tool("-s", plaxd.path, "info-proactive-rebalance", preexec_fn=limit_memory)
    assert run == Outcome(b"", b"<panic> PLAX_SafeMalloc:2888: Failed to allocate new memory", 99)


def test_stand_alone_library_is_not_linked(tool_path):
    run = subprocess.run(["readelf", "-d", tool_path], stdout=subprocess.PIPE, check=True)
    needed = [line.split(b"[")[1] for line in run.stdout.splitlines() if b"(NEEDED)" in line]
    assert not [name for name in needed if b"libplax-platform" in name]
    assert len([name for name in needed if b"libplatform-substitute" in name]) == 1
