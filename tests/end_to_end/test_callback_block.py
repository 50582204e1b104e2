"""The event and entry codes that block-cdb-cb sends for its words."""

import itertools

import pytest

from command_line import tool_named
from harness import ZERO_UUID, Outcome, ScriptedDaemon, frame, tool
from request_table import UUID

NO_OUTPUT = Outcome(b"", b"", 0)


def assert_blocked(words, codes, uuid=ZERO_UUID):
    """The tool sends these event and entry codes in a field of 1024 bytes, and succeeds."""
    with ScriptedDaemon() as plaxd:
        run = tool("-s", plaxd.path, *words)
    assert (run, plaxd.received) == (NO_OUTPUT, frame(31, codes + b":" + uuid + b"\0" * 984))


def callback(*words):
    return ("block-cdb-cb", *words)


@pytest.mark.parametrize("word, codes", [("update", b"1:0"), ("add", b"2:0"), ("delete", b"3:0"),
                                         ("object", b"0:2"), ("disk", b"0:3"), ("node", b"0:4")])
def test_every_callback_word(word, codes):
    assert_blocked(callback(word), codes)


EVENTS = (("update", b"1"), ("add", b"2"), ("delete", b"3"))
ENTRIES = (("object", b"2"), ("disk", b"3"), ("node", b"4"))


@pytest.mark.parametrize("event, entry", itertools.product(EVENTS, ENTRIES))
def test_pairs_in_both_orders(event, entry):
    assert_blocked(callback(event[0], entry[0]), event[1] + b":" + entry[1])
    assert_blocked(callback(entry[0], event[0]), event[1] + b":" + entry[1])


@pytest.mark.parametrize("words, codes", [
    (("node", "add"), b"2:4"),
    (("add", "delete", "disk"), b"3:3"),
    (("delete", "add", "disk"), b"2:3"),
    (("node", "disk", "object"), b"0:2"),
    (("object", "disk", "node"), b"0:4"),
    (("update", "object", "delete", "node", "add", "disk"), b"2:3"),
    (("add", "add"), b"2:0"),
    (("Update", "objects"), b"0:0"),
    (("nothing", "add", "of", "interest", "disk", "here"), b"2:3"),
])
def test_later_word_of_a_kind_wins(words, codes):
    assert_blocked(callback(*words), codes)


@pytest.mark.parametrize("word", ["", " ", "Update", "ADD", "Node", "ad", "addd", "add ", " add", "add,disk",
                                  "add:disk", "objec",
                                  "objects", "disks", "nodes", "updated", "deleted", "0", "1", "2", "component",
                                  "block-cdb-cb",
                                  b"add\xff", "a" * 100000])
def test_words_that_match_nothing(word):
    assert_blocked(callback(word), b"0:0")
    assert_blocked(callback("delete", word, "disk"), b"3:3")


def test_uuid_is_sent_with_the_words():
    assert_blocked(("-u", UUID, *callback("add", "disk")), b"2:3", UUID)
    assert_blocked(("-u", UUID.upper(), *callback("add", "disk")), b"2:3", UUID)
    assert_blocked(("-u", UUID, *callback("nonsense")), b"0:0", UUID)
    assert_blocked(callback("add", "-u", UUID, "disk"), b"2:3", UUID)
    assert_blocked(("-u", UUID[:18], *callback("add")), b"2:0", UUID[:18] + b"-0000-000000000000")


@pytest.mark.parametrize("words, codes", [
    (("block-cdb-cb",), b"0:0"),
    (("-o", "add", "block-cdb-cb"), b"2:0"),
    (("block-cdb-cb", "-o", "add"), b"2:0"),
    (("-o", "add", "-j", "disk", "block-cdb-cb"), b"2:3"),
    (("-o", "add", "-f", "delete", "-j", "node", "block-cdb-cb"), b"3:4"),
    (("-j", "object", "block-cdb-cb", "-o", "update"), b"1:2"),
    (("--output-path", "add", "block-cdb-cb"), b"2:0"),
    (("--output-path=add", "block-cdb-cb"), b"0:0"),
    (("-oadd", "block-cdb-cb"), b"0:0"),
    (("-o", "added", "block-cdb-cb"), b"0:0"),
    (("-o", "add", "block-cdb-cb", "--"), b"2:0"),
])
def test_without_a_word_the_whole_command_line_is_scanned(words, codes):
    assert_blocked(words, codes)


@pytest.mark.parametrize("words, codes", [
    (("-o", "add", "block-cdb-cb", "node"), b"0:4"),
    (("block-cdb-cb", "node", "-o", "add"), b"0:4"),
    (("block-cdb-cb", "-o", "add", "node", "-j", "disk"), b"0:4"),
    (("-o", "add", "block-cdb-cb", ""), b"0:0"),
    (("block-cdb-cb", "-a", "update"), b"1:0"),
    (("--", "block-cdb-cb", "add", "disk"), b"2:3"),
    (("block-cdb-cb", "--", "delete", "-o"), b"3:0"),
])
def test_with_a_word_only_the_words_after_the_command_are_scanned(words, codes):
    assert_blocked(words, codes)


def test_last_word_of_the_command_line_is_scanned():
    assert_blocked(callback(*["word"] * 5000, "add"), b"2:0")


@pytest.mark.parametrize("name, words, codes", [("add", (), b"2:0"), ("node", (), b"0:4"), ("add", ("disk",), b"0:3"),
                                                ("delete", ("-o", "add"), b"2:0")])
def test_program_name_is_scanned_first(tmp_path, name, words, codes):
    with ScriptedDaemon() as plaxd:
        assert tool_named(tmp_path, name, "-s", plaxd.path, *callback(*words)) == NO_OUTPUT
    assert plaxd.received == frame(31, codes + b":" + ZERO_UUID + b"\0" * 984)
