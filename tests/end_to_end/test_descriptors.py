"""Standard descriptors that are closed, full or broken, and a daemon that closes the connection during the request."""

import dataclasses
import itertools
import os
import signal

import pytest

from binaries import is_sanitized
from harness import RUNNER, TOOL, Outcome, ScriptedDaemon, await_unread, close, limit_memory, read, reply, send, tool
from preloading import needs_preloading, preloaded
from request_table import CHECKED, PRINTED, ROWS, STREAMED, UNANSWERED, Row, name, rows_of

ERROR = b"Error received: Status 0x00000005: busy\n"
INFO_REQUEST = b"\0\0\0\x0c\0\0\0\0"
STATS_REQUEST = b"\0\0\0\1\0\0\0\0"

STATS, CRAWLER_STATES = rows_of(STREAMED)

SUBSETS = [subset for size in range(4) for subset in itertools.combinations((0, 1, 2), size)]
each_subset = pytest.mark.parametrize("closed", SUBSETS, ids=str)
either_disposition = pytest.mark.parametrize("disposition", [signal.SIG_DFL, signal.SIG_IGN],
                                             ids=["default", "ignored"])


def without(closed):
    """Options to start the tool with these descriptors closed."""
    return {"preexec_fn": lambda: [os.close(descriptor) for descriptor in closed]}


def with_sigpipe(disposition):
    return {"preexec_fn": lambda: signal.signal(signal.SIGPIPE, disposition)}


# ---- Closed descriptors ----

@each_subset
def test_printed_reply_with_closed_descriptors(closed):
    with ScriptedDaemon(reply(0, b"abc")) as plaxd:
        run = tool("-s", plaxd.path, "info-proactive-rebalance", **without(closed))
    assert run == (Outcome(b"", b"", 9) if 1 in closed else Outcome(b"abc\n", b"", 0))
    assert plaxd.received == INFO_REQUEST


@each_subset
def test_empty_printed_reply_with_closed_descriptors(closed):
    with ScriptedDaemon(reply(0)) as plaxd:
        run = tool("-s", plaxd.path, "info-proactive-rebalance", **without(closed))
    assert run == (Outcome(b"", b"", 9) if 1 in closed else Outcome(b"\n", b"", 0))
    assert plaxd.received == INFO_REQUEST


@each_subset
def test_error_with_closed_descriptors(closed):
    with ScriptedDaemon(reply(5, b"busy")) as plaxd:
        run = tool("-s", plaxd.path, "info-proactive-rebalance", **without(closed))
    assert run == Outcome(b"", b"" if 2 in closed else ERROR, 5)
    assert plaxd.received == INFO_REQUEST


@each_subset
def test_stream_with_closed_descriptors(closed):
    with ScriptedDaemon(send(b"x" * 5000)) as plaxd:
        run = tool("-s", plaxd.path, "stats", **without(closed))
    assert run == Outcome(b"" if 1 in closed else b"x" * 5000, b"", 0)
    assert plaxd.received == STATS_REQUEST


@each_subset
def test_stream_to_a_file_with_closed_descriptors(closed, tmp_path):
    output = tmp_path / "out"
    with ScriptedDaemon(send(b"x" * 5000)) as plaxd:
        run = tool("-s", plaxd.path, "stats", "-o", output, **without(closed))
    assert (run, output.read_bytes()) == (Outcome(b"", b"", 0), b"x" * 5000)
    assert plaxd.received == STATS_REQUEST


@each_subset
def test_unanswered_command_with_closed_descriptors(closed):
    with ScriptedDaemon() as plaxd:
        assert tool("-s", plaxd.path, "refresh-config-opts", **without(closed)) == Outcome(b"", b"", 0)
    assert plaxd.received == b"\0\0\0\x20\0\0\0\0"


@each_subset
def test_absent_daemon_with_closed_descriptors(closed, tmp_path):
    run = tool("-s", tmp_path / "absent", "stats", **without(closed))
    assert run == Outcome(b"", b"" if 2 in closed else b"connect error: No such file or directory\n", 1)


# ---- A full disk ----

@pytest.mark.parametrize("payload", [b"", b"abc", b"x" * 100000], ids=["empty", "short", "long"])
@pytest.mark.parametrize("command", rows_of(PRINTED), ids=name)
def test_printed_reply_to_a_full_disk(command, payload):
    with ScriptedDaemon(reply(0, payload)) as plaxd, open("/dev/full", "wb") as full:
        run = tool("-s", plaxd.path, *command.least, stdout=full)
    assert run == Outcome(None, b"", 28)


@pytest.mark.parametrize("command", rows_of(STREAMED), ids=name)
def test_stream_to_a_full_disk_is_not_noticed(command):
    with ScriptedDaemon(send(b"x" * 100000)) as plaxd, open("/dev/full", "wb") as full:
        run = tool("-s", plaxd.path, *command.least, stdout=full)
    assert run == Outcome(None, b"", 0)


def test_error_message_to_a_full_disk():
    with ScriptedDaemon(reply(5, b"busy")) as plaxd, open("/dev/full", "wb") as full:
        run = tool("-s", plaxd.path, "fix-concats", stderr=full)
    assert run == Outcome(b"", None, 5)


# ---- Broken pipes ----

@pytest.fixture(name="broken_pipe")
def make_broken_pipe():
    reader, writer = os.pipe()
    os.close(reader)
    with os.fdopen(writer, "wb") as pipe:
        yield pipe


@either_disposition
@pytest.mark.parametrize("command", rows_of(PRINTED), ids=name)
def test_printed_reply_to_a_broken_pipe(command, disposition, broken_pipe):
    with ScriptedDaemon(reply(0, b"abc")) as plaxd:
        run = tool("-s", plaxd.path, *command.least, stdout=broken_pipe, **with_sigpipe(disposition))
    assert run == Outcome(None, b"", 32)
    assert plaxd.received == command.least_request()


@either_disposition
def test_empty_printed_reply_to_a_broken_pipe_ends_as_it_would(disposition, broken_pipe):
    """Writing no bytes to a broken pipe succeeds, and the tool does not check the newline after it."""
    with ScriptedDaemon(reply(0)) as plaxd:
        run = tool("-s", plaxd.path, "info-proactive-rebalance", stdout=broken_pipe, **with_sigpipe(disposition))
    assert run == Outcome(None, b"", 0)


@either_disposition
@pytest.mark.parametrize("command", rows_of(PRINTED, CHECKED), ids=name)
def test_error_message_to_a_broken_pipe(command, disposition, broken_pipe):
    with ScriptedDaemon(reply(5, b"busy")) as plaxd:
        run = tool("-s", plaxd.path, *command.least, stderr=broken_pipe, **with_sigpipe(disposition))
    assert run == Outcome(b"", None, 5)


@either_disposition
def test_checked_and_unanswered_commands_do_not_mind_a_broken_pipe(disposition, broken_pipe):
    for command, steps in ((rows_of(CHECKED)[0], (reply(0, b"abc"),)), (rows_of(UNANSWERED)[0], ())):
        with ScriptedDaemon(*steps) as plaxd:
            run = tool("-s", plaxd.path, *command.least, stdout=broken_pipe, **with_sigpipe(disposition))
        assert run == Outcome(None, b"", 0)


@pytest.mark.parametrize("command", rows_of(STREAMED), ids=name)
@pytest.mark.parametrize("disposition, code", [(signal.SIG_DFL, -signal.SIGPIPE), (signal.SIG_IGN, 0)],
                         ids=["default", "ignored"])
def test_stream_to_a_broken_pipe(command, disposition, code, broken_pipe):
    with ScriptedDaemon(send(b"abc")) as plaxd:
        run = tool("-s", plaxd.path, *command.least, stdout=broken_pipe, **with_sigpipe(disposition))
    assert run == Outcome(None, b"", code)


def test_stream_to_a_file_does_not_mind_a_broken_pipe(broken_pipe, tmp_path):
    output = tmp_path / "out"
    with ScriptedDaemon(send(b"abc")) as plaxd:
        run = tool("-s", plaxd.path, "stats", "-o", output, stdout=broken_pipe)
    assert (run, output.read_bytes()) == (Outcome(None, b"", 0), b"abc")


# Runs that send nothing: SIGPIPE kills them, like any filter.
@pytest.mark.parametrize("words, stream, outcome", [
    (("nonsense",), "stdout", Outcome(None, b"Unrecognized command: nonsense\n", -signal.SIGPIPE)),
    (("-s", "absent", "stats"), "stderr", Outcome(b"", None, -signal.SIGPIPE)),
    (("-h",), "stdout", Outcome(None, b"", -signal.SIGPIPE)),
], ids=["usage-error", "absent-daemon", "help"])
def test_run_without_a_request_ends_by_the_broken_pipe(words, stream, outcome, broken_pipe, tmp_path):
    assert tool(*words, cwd=tmp_path, **{stream: broken_pipe}, **with_sigpipe(signal.SIG_DFL)) == outcome


# ---- A daemon that closes the connection before the request is sent ----

BROKEN_SENDING = Outcome(b"", b"Sending command failed: Broken pipe\n", 32)
BROKEN_SENDING_UNSAID = Outcome(b"", b"", 32)

# Commands with a framed reply print the message, and so does get-obj-crawler-state for all objects.
SENDING = [
    *[(command, BROKEN_SENDING) for command in rows_of(PRINTED, CHECKED)],
    *[(command, BROKEN_SENDING_UNSAID) for command in rows_of(UNANSWERED)],
    (STATS, BROKEN_SENDING_UNSAID),
    (CRAWLER_STATES, BROKEN_SENDING),
]


def speak_to_the_deaf(command, *steps, hangup_before_send, disposition):
    held_back = preloaded(PLAX_HANGUP_BEFORE_SEND=str(hangup_before_send))
    with ScriptedDaemon(*steps, close(), read_request=False) as plaxd:
        run = tool("-s", plaxd.path, *command.least, env=held_back, **with_sigpipe(disposition))
    return run, plaxd.received


@needs_preloading
@either_disposition
@pytest.mark.parametrize("command, outcome", SENDING, ids=lambda value: name(value) if isinstance(value, Row) else "")
def test_header_cannot_be_sent(command, outcome, disposition):
    assert speak_to_the_deaf(command, hangup_before_send=1, disposition=disposition) == (outcome, b"")


@needs_preloading
@either_disposition
@pytest.mark.parametrize("command, outcome", [case for case in SENDING if case[0].least_payload],
                         ids=lambda value: name(value) if isinstance(value, Row) else "")
def test_payload_cannot_be_sent(command, outcome, disposition):
    run = speak_to_the_deaf(command, read(8), hangup_before_send=2, disposition=disposition)
    assert run == (outcome, command.least_request()[:8])


def test_large_request_that_is_not_read():
    """A payload sent in part counts as sent: the tool sees the reset when it reads the reply."""
    command = next(row for row in ROWS if row.code == 33)
    with ScriptedDaemon(await_unread(9), close(), read_request=False) as plaxd:
        run = tool("-s", plaxd.path, *command.least)
    assert run == Outcome(b"", b"Error received: Connection reset by peer: (null)\n", 104)


@needs_preloading
def test_output_file_is_left_alone_when_sending_fails(tmp_path):
    output = tmp_path / "out"
    output.write_bytes(b"as it was")
    crawler_states = dataclasses.replace(CRAWLER_STATES, least=(*CRAWLER_STATES.least, "-o", str(output)))
    run, _ = speak_to_the_deaf(crawler_states, hangup_before_send=1, disposition=signal.SIG_DFL)
    assert (run, output.read_bytes()) == (BROKEN_SENDING, b"as it was")


# ---- No memory for the reply ----

@pytest.mark.skipif(bool(RUNNER) or is_sanitized(TOOL), reason="takes more address space than the test leaves")
def test_reply_that_does_not_fit_into_memory():
    with ScriptedDaemon(send(b"\0\0\0\0\xff\xff\xff\xff"), may_break=True) as plaxd:
        run = tool("-s", plaxd.path, "info-proactive-rebalance", preexec_fn=limit_memory)
    assert run == Outcome(b"", b"PLAX_SafeMalloc:2888: Failed to allocate new memory\n", -signal.SIGABRT)
