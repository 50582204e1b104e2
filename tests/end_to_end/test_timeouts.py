"""What happens when the daemon falls silent: the run gives up after 20 seconds without a byte.

All cases wait at the same time, in threads, and are looked at one by one. They must not be spread over worker
processes, or each worker would wait for all of them: they form one group.
"""

import threading
import time
from dataclasses import dataclass

import pytest

from command_line import INCOMPLETE, UUID
from harness import Outcome, ScriptedDaemon, pause, send, stay_silent, tool

pytestmark = pytest.mark.xdist_group("timeouts")

SECONDS = 20.0
SLACK = 5.0  # for a busy machine
MUTE = Outcome(b"", b"Error received: Resource temporarily unavailable: (null)\n", 11)


@dataclass
class Case:
    words: tuple
    steps: tuple
    outcome: Outcome
    seconds: float = SECONDS


PRINTED = ("info-proactive-rebalance",)
CHECKED = ("fix-concats",)

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
    "stream, mute": Case(("stats",), (), Outcome(b"", b"", 11)),
    "stream, mute after a text": Case(("stats",), (send(b"so far"),), Outcome(b"so far", b"", 11)),
    "stream, mute after a whole chunk": Case(("stats",), (send(b"x" * 1023),), Outcome(b"x" * 1023, b"", 11)),
    "stream of all objects, mute": Case(("get-obj-crawler-state", "-a"), (send(b"so far"),),
                                        Outcome(b"so far", b"", 11)),
    "stream, mute after a pause": Case(("stats",), (send(b"a"), pause(4), send(b"b")), Outcome(b"ab", b"", 11), 24.0),
    "stream of long pauses": Case(("stats",), (send(b"a"), pause(11), send(b"b"), pause(11)),
                                  Outcome(b"ab", b"", 0), 22.0),
    "each receive waits for itself": Case(PRINTED, (pause(11), send(b"\0\0\0\0\0\0\0\2"), pause(11), send(b"ab")),
                                          Outcome(b"ab\n", b"", 0), 22.0),
}
ENDS_BY_ITSELF = ("stream of long pauses", "each receive waits for itself")


def perform(name, results):
    case = CASES[name]
    steps = case.steps if name in ENDS_BY_ITSELF else (*case.steps, stay_silent())
    try:
        with ScriptedDaemon(*steps) as plaxd:
            started = time.monotonic()
            outcome = tool("-s", plaxd.path, *case.words)
            results[name] = (outcome, time.monotonic() - started)
    except Exception as error:  # shown by the case's own test
        results[name] = (error, 0.0)


@pytest.fixture(name="results", scope="module")
def perform_all_at_once():
    results = {}
    threads = [threading.Thread(target=perform, args=(name, results)) for name in CASES]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    return results


@pytest.mark.parametrize("name", CASES)
def test_silence(name, results):
    outcome, seconds = results[name]
    assert outcome == CASES[name].outcome
    assert CASES[name].seconds - 0.1 <= seconds < CASES[name].seconds + SLACK
