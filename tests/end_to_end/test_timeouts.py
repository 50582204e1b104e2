"""A slow or silent daemon: receiving has a timeout of 20 seconds, connecting and sending have none."""

import time
from collections.abc import Callable
from dataclasses import dataclass
from functools import partial

import pytest

from command_line import INCOMPLETE, UUID, uuid_list
from connecting import fill_backlog, listening
from harness import Outcome, ScriptedDaemon, finish_tool, frame, pause, read, reply, send, start_tool, stay_deaf, \
    stay_silent, tool
from preloading import needs_preloading, preloaded
from waiting import in_one_worker, together

pytestmark = in_one_worker

SECONDS = 20.0
SLACK = 5.0  # for a busy machine
MUTE = Outcome(b"", b"Error received: Resource temporarily unavailable: (null)\n", 11)


def until_the_tool_ends(steps, words):
    with ScriptedDaemon(*steps, stay_silent()) as plaxd:
        return tool("-s", plaxd.path, *words)


def to_the_last_step(steps, words):
    with ScriptedDaemon(*steps) as plaxd:
        return tool("-s", plaxd.path, *words)


def without_reading(steps, words):
    with ScriptedDaemon(*steps, stay_deaf(), read_request=False) as plaxd:
        return tool("-s", plaxd.path, *words)


def with_a_small_send_buffer(steps, words):
    with ScriptedDaemon(*steps, read_request=False) as plaxd:
        return tool("-s", plaxd.path, *words, env=preloaded(PLAX_SMALL_SEND_BUFFER="1"))


def without_accepting(_, words):
    with listening(backlog=16) as (_, path):
        return tool("-s", path, *words)


def after_a_full_backlog(steps, words):
    """During the steps the backlog is full, so the tool waits in connect."""
    with listening(backlog=0) as (listener, path), fill_backlog(path) as waiting:
        process = start_tool("-s", path, *words)
        for step in steps:
            step(listener)
        for _ in waiting:
            listener.accept()[0].close()
        with listener.accept()[0] as connection:
            connection.sendall(frame(0, b"abc"))
            return finish_tool(process)


@dataclass
class Case:
    words: tuple
    steps: tuple
    outcome: Outcome
    seconds: float = SECONDS
    meet: Callable = until_the_tool_ends  # runs the tool against a daemon that does the steps, and returns the outcome


PRINTED = ("info-proactive-rebalance",)
CHECKED = ("fix-concats",)
LONG_REQUEST = ("component-manual-move", "-u", UUID, "-n", uuid_list(2559))

CASES = {
    "printed, mute": Case(PRINTED, (), MUTE),
    "checked, mute": Case(CHECKED, (), MUTE),
    "crawler state of one object, mute": Case(("get-obj-crawler-state", "-u", UUID), (), MUTE),
    "large request, mute": Case(("set-global-exclusion-list", "-x", ""), (), MUTE),
    "a wait of 1 second asked for": Case((*PRINTED, "-t", "1"), (), MUTE),
    "an endless wait asked for": Case((*PRINTED, "-t", "0"), (), MUTE),
    "half a status": Case(PRINTED, (send(b"\5\6"),),
                          Outcome(b"", b"Error received: Status 0x05060000: (null)\n", 0)),
    "half a length": Case(PRINTED, (send(b"\0\0\0\5\0\0"),),
                          Outcome(b"", b"Error received: Status 0x00000005: (null)\n", 5)),
    "printed, no payload": Case(PRINTED, (send(b"\0\0\0\0\0\0\0\5"),), Outcome(b"\0\0\0\0\0\n", b"", 0)),
    "checked, no payload": Case(CHECKED, (send(b"\0\0\0\0\0\0\0\5"),), Outcome(b"", b"", 0)),
    "error, no payload": Case(PRINTED, (send(b"\0\0\0\7\0\0\0\5"),),
                              Outcome(b"", b"Error received: Status 0x00000007: \n", 7)),
    "printed, half a payload": Case(PRINTED, (send(b"\0\0\0\0\0\0\0\5ab"),), Outcome(b"\n", INCOMPLETE, 0)),
    "checked, half a payload": Case(CHECKED, (send(b"\0\0\0\0\0\0\0\5ab"),), Outcome(b"", INCOMPLETE, 0)),
    "error, half a payload": Case(PRINTED, (send(b"\0\0\0\7\0\0\0\5ab"),), Outcome(b"\n", INCOMPLETE, 0)),
    # A receive adds up all its pauses.
    "part of a header, a pause, a part": Case(PRINTED, (send(b"\5\6"), pause(11), send(b"\7")),
                                              Outcome(b"", b"Error received: Status 0x05060700: (null)\n", 0)),
    "part of a payload, a pause, a part": Case(PRINTED, (send(b"\0\0\0\0\0\0\0\5ab"), pause(11), send(b"c")),
                                               Outcome(b"\n", INCOMPLETE, 0)),
    "stream, mute": Case(("stats",), (), Outcome(b"", b"", 11)),
    "stream, mute after a text": Case(("stats",), (send(b"so far"),), Outcome(b"so far", b"", 11)),
    "stream, mute after a whole chunk": Case(("stats",), (send(b"x" * 1023),), Outcome(b"x" * 1023, b"", 11)),
    "stream of all objects, mute": Case(("get-obj-crawler-state", "-a"), (send(b"so far"),),
                                        Outcome(b"so far", b"", 11)),
    "stream, mute after a pause": Case(("stats",), (send(b"a"), pause(4), send(b"b")), Outcome(b"ab", b"", 11), 24.0),
    "stream of long pauses": Case(("stats",), (send(b"a"), pause(11), send(b"b"), pause(11)),
                                  Outcome(b"ab", b"", 0), 22.0, to_the_last_step),
    "each receive waits for itself": Case(PRINTED, (pause(11), send(b"\0\0\0\0\0\0\0\2"), pause(11), send(b"ab")),
                                          Outcome(b"ab\n", b"", 0), 22.0, to_the_last_step),
    # Only receiving has a timeout: a daemon may read and accept late.
    "request never read": Case(("set-global-exclusion-list", "-x", ""), (), MUTE, meet=without_reading),
    "request read late": Case(LONG_REQUEST, (pause(22), read(8 + 189464), reply(0)), Outcome(b"", b"", 0), 22.0,
                              with_a_small_send_buffer),
    "never accepted": Case(PRINTED, (), MUTE, meet=without_accepting),
    "stream, never accepted": Case(("stats",), (), Outcome(b"", b"", 11), meet=without_accepting),
    "accepted late": Case(PRINTED, (pause(22),), Outcome(b"abc\n", b"", 0), 22.0, after_a_full_backlog),
}


def perform(case):
    started = time.monotonic()
    return case.meet(case.steps, case.words), time.monotonic() - started


RUNS = {name: together(partial(perform, case)) for name, case in CASES.items()}


@pytest.mark.parametrize("name", [
    pytest.param(name, marks=needs_preloading if case.meet == with_a_small_send_buffer else ())
    for name, case in CASES.items()])
def test_silence(name):
    outcome, seconds = RUNS[name]()
    assert outcome == CASES[name].outcome
    assert CASES[name].seconds - 0.1 <= seconds < CASES[name].seconds + SLACK
