"""The whole help text, and the runs that print it."""

import os
import subprocess

import pytest

from command_line import (LISTING, SOCKET_OPTION, USAGE, cut_listing, help_text, own_program_name, refuse, run_as,
                          succeeds, usage_error)
from harness import TOOL, Outcome, tool
from request_table import EXPECTATION, EXPECTED, OPTIONS, assert_agrees


# The comparison must notice any difference from the listing.
@pytest.mark.parametrize("differing", [
    LISTING[:-1], LISTING + b"\n", LISTING.replace(b"evacAllData) \n", b"evacAllData)\n"),
], ids=["shorter", "longer", "no trailing blank"])
def test_comparison_is_exact(differing):
    assert tool("-h") == succeeds(help_text())
    assert tool("-h") != succeeds(help_text(listing=differing))


def test_order_of_the_options_names_them_all():
    assert_agrees(f"optionsInHelp of {EXPECTATION}", sorted(EXPECTED["optionsInHelp"]),
                  sorted(option["letter"] for option in OPTIONS))


# Tests that do not compare the listing still check that there is one.
@pytest.mark.parametrize("listing, cut", [
    (LISTING, b"..."), (b"   stats\t\twords\n\noptions:\n   -h\n", b"..."), (b"", b""), (LISTING[:-1], LISTING[:-1]),
    (b"\noptions:\n   -h\n", b"\noptions:\n   -h\n"), (b"   stats\t\twords\n", b"   stats\t\twords\n"),
    (LISTING + b"x", LISTING + b"x"),
], ids=["listing", "shortest", "nothing", "cut", "no command", "no option", "more"])
def test_only_a_listing_is_cut(listing, cut):
    assert cut_listing(help_text(listing=listing)) == help_text(listing=cut)


@pytest.mark.parametrize("words", [
    ["-h"],
    ["--help"],
    ["--h"],
    ["-h", "stats"],
    ["stats", "-h"],
    [SOCKET_OPTION, "-h", "stats"],
    [SOCKET_OPTION, "stats", "-h"],
    [SOCKET_OPTION, "nonsense", "-h"],
    [SOCKET_OPTION, "info-rebalance", "--help"],
    ["-ahw"],
    # The tool ignores everything after -h.
    ["-h", "-Z"],
    ["-hZ"],
    ["-h", "--nonsense"],
    ["-h", "-m", "8"],
    ["-h", "-u"],
    ["--help", "-l", ""],
])
def test_asked_for(words):
    assert refuse(*words) == succeeds(USAGE)


@pytest.mark.parametrize("words, message", [
    (["-m", "8", "-h"], "Failed to parse recoveryMode: 8\n"),
    (["-u", "zz", "--help"], "Failed to parse UUID: zz, length=0\n"),
    (["stats", "-Z", "-h"], TOOL + ": invalid option -- 'Z'\n"),
    (["--nonsense", "-h"], TOOL + ": unrecognized option '--nonsense'\n"),
    (["-o", "-h"], "Command string missing\n"),  # here it is the name of a file
    (["--", "-h"], "Unrecognized command: -h\n"),  # and here a command word
])
def test_earlier_failure_wins(words, message):
    assert refuse(*words) == usage_error(message)


def test_no_arguments():
    assert refuse() == usage_error("")


@own_program_name
@pytest.mark.parametrize("name", ["plax-tool", "", "/", "./a b", "-h", "%s%n", "line\nbreak", b"\xff\xfe", "x" * 5000])
def test_program_name(name):
    assert run_as(name) == Outcome(help_text(name), b"", 1)
    assert run_as(name, "-h") == succeeds(help_text(name))
    assert run_as(name, "--help") == succeeds(help_text(name))
    assert run_as(name, "nonsense") == Outcome(help_text(name), b"Unrecognized command: nonsense\n", 1)
    assert run_as(name, "-Z") == Outcome(help_text(name), os.fsencode(name) + b": invalid option -- 'Z'\n", 1)


@pytest.mark.parametrize("words, message", [
    ([SOCKET_OPTION], "Command string missing\n"),
    ([SOCKET_OPTION, "nonsense"], "Unrecognized command: nonsense\n"),
    ([SOCKET_OPTION, "-i", "nonsense", "stats"], "Invalid work-item type name: nonsense\n"),
    ([SOCKET_OPTION, "-Z", "stats"], TOOL + ": invalid option -- 'Z'\n"),
    ([SOCKET_OPTION, "crawler"], "UUID must be provided (specify with --uuid)\n"),
    # Two kinds of message have no newline; the help text follows directly.
    ([SOCKET_OPTION, "-f" + "x" * 4097, "stats"], "File path is longer than the max path length"),
    ([SOCKET_OPTION, "set-global-exclusion-list"],
     "Exclusion list must be provided (specify with -x/--exclusion-list)"),
])
def test_follows_the_message(words, message):
    assert refuse(*words) == usage_error(message)
    assert refuse(*words, stderr=subprocess.STDOUT) == Outcome(message.encode() + USAGE, None, 1)
