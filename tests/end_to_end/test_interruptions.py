"""A tool that is stopped and continued during a call: it never repeats the interrupted call.

Stopping a process interrupts a receive on a socket with a receive timeout, and makes a send that has transferred some
bytes a short one. The daemon stops the tool as soon as it sleeps in its call.
"""

import pytest

from command_line import INCOMPLETE, UUID, converse, uuid_list
from harness import Outcome, ScriptedDaemon, await_taken, interrupt, read, reply, send, tool
from preloading import needs_preloading, preloaded

INTERRUPTED = Outcome(b"", b"Error received: Interrupted system call: (null)\n", 4)
PRINTED, CHECKED, STREAMED = ("info-proactive-rebalance",), ("fix-concats",), ("stats",)


@pytest.mark.parametrize("words, steps, outcome", [
    (PRINTED, (interrupt(), reply(0, b"abc")), INTERRUPTED),
    (CHECKED, (interrupt(), reply(0)), INTERRUPTED),
    (PRINTED, (send(b"\0\0\0\7"), await_taken(), interrupt(), send(b"\0\0\0\3abc")),
     Outcome(b"", b"Error received: Status 0x00000007: (null)\n", 7)),
    (PRINTED, (send(b"\0\0\0\0\0\0\0\3"), await_taken(), interrupt(), send(b"abc")), Outcome(b"\0\0\0\n", b"", 0)),
    (PRINTED, (send(b"\0\0\0\7\0\0\0\3"), await_taken(), interrupt(), send(b"abc")),
     Outcome(b"", b"Error received: Status 0x00000007: \n", 7)),
    (CHECKED, (send(b"\0\0\0\0\0\0\0\3"), await_taken(), interrupt(), send(b"abc")), Outcome(b"", b"", 0)),
    (PRINTED, (send(b"\0\0\0\0\0\0\0\3ab"), await_taken(), interrupt(), send(b"c")), Outcome(b"\n", INCOMPLETE, 0)),
    (STREAMED, (interrupt(), send(b"more")), Outcome(b"", b"", 4)),
    (STREAMED, (send(b"so far"), await_taken(), interrupt(), send(b"more")), Outcome(b"so far", b"", 4)),
], ids=["header", "checked-header", "half-a-header", "payload", "payload-of-an-error", "checked-payload",
        "half-a-payload", "stream", "later-in-a-stream"])
def test_interrupted_receive_is_not_repeated(words, steps, outcome):
    run, _ = converse(*steps, words=words, may_break=True)
    assert run == outcome


@needs_preloading
def test_interrupted_send_is_not_completed():
    """The daemon reads only the header, and the rest after the tool's last send."""
    header = b"\0\0\0\x21\0\2\xe4\x18"
    with ScriptedDaemon(read(8), interrupt(), reply(0), read_request=False) as plaxd:
        run = tool("-s", plaxd.path, "component-manual-move", "-u", UUID, "-n", uuid_list(2559),
                   env=preloaded(PLAX_SMALL_SEND_BUFFER="1"))
    assert run == Outcome(b"", b"", 0)
    assert plaxd.received[:8] == header
    assert 0 < len(plaxd.received) - 8 < 189464
