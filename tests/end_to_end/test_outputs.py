"""A standard output that accepts nothing, or only a part."""

import os
import signal
import threading

import pytest

from harness import PATIENCE, Outcome, ScriptedDaemon, await_state, finish_tool, reply, send, start_tool, \
    stop_and_continue, tool

PIPE_SIZE = 65536  # bytes, of a new pipe
LONG = bytes(range(256)) * 800
TEXT = bytes(range(1, 256)) * 800
PRINTED, STREAMED = ("info-proactive-rebalance",), ("stats",)


def answer(*steps, words, **options):
    """Runs the tool against a daemon that does these steps. The options are the tool's."""
    with ScriptedDaemon(*steps) as plaxd:
        return tool("-s", plaxd.path, *words, **options)


# ---- Nothing can be written ----

UNWRITABLE = {"full": ("/dev/full", os.O_WRONLY), "read-only": ("/dev/null", os.O_RDONLY)}


@pytest.fixture(name="unwritable", params=UNWRITABLE.values(), ids=UNWRITABLE)
def open_unwritable(request):
    descriptor = os.open(*request.param)
    yield descriptor
    os.close(descriptor)


@pytest.mark.parametrize("words, stderr, code", [
    (("-h",), b"", 0),
    (("--help", "stats"), b"", 0),
    ((), b"", 1),
    (("nonsense",), b"Unrecognized command: nonsense\n", 1),
    (("-m8", "stats"), b"Failed to parse recoveryMode: 8\n", 1),
    (("crawler",), b"UUID must be provided (specify with --uuid)\n", 1),
], ids=["help", "long-help", "no-arguments", "unknown-command", "option-error", "rule-error"])
def test_help_text_that_cannot_be_written(words, stderr, code, unwritable):
    assert tool(*words, stdout=unwritable) == Outcome(None, stderr, code)


@pytest.mark.parametrize("words, stderr, code", [
    (("-h",), b"", 0),
    ((), b"", 1),
    (("nonsense",), b"Unrecognized command: nonsense\n", 1),
], ids=["help", "no-arguments", "unknown-command"])
def test_help_text_with_standard_output_closed(words, stderr, code):
    assert tool(*words, preexec_fn=lambda: os.close(1)) == Outcome(b"", stderr, code)


@pytest.fixture(name="read_only")
def open_read_only():
    with open("/dev/null", "rb") as null:
        yield null


@pytest.mark.parametrize("step, words, stderr, code", [
    (reply(0, b"abc"), PRINTED, b"", 9),
    (reply(0), PRINTED, b"", 9),
    (reply(0, b"ok"), ("fix-concats",), b"", 0),
    (reply(5, b"busy"), PRINTED, b"Error received: Status 0x00000005: busy\n", 5),
    (send(TEXT), STREAMED, b"", 0),
], ids=["printed", "empty", "checked", "error", "streamed"])
def test_read_only_standard_output(step, words, stderr, code, read_only):
    assert answer(step, words=words, stdout=read_only) == Outcome(None, stderr, code)


# ---- A pipe that accepts a part ----

def into_a_pipe_without_waiting(step, words, filling=b""):
    """Runs the tool with a non-blocking pipe, read after the run. Returns its content and the outcome."""
    reader, writer = os.pipe()
    os.set_blocking(writer, False)
    os.write(writer, filling)
    with os.fdopen(reader, "rb") as pipe:
        run = answer(step, words=words, stdout=writer)
        os.close(writer)
        return pipe.read(), run


FILLING = b"." * PIPE_SIZE


@pytest.mark.parametrize("payload, code", [(b"abc", 11), (b"", 0)], ids=["abc", "empty"])
def test_printed_reply_into_a_full_pipe(payload, code):
    """Writing no bytes succeeds, and the tool does not check the newline after it."""
    run = into_a_pipe_without_waiting(reply(0, payload), PRINTED, FILLING)
    assert run == (FILLING, Outcome(None, b"", code))


def test_printed_reply_into_a_pipe_that_takes_a_part():
    run = into_a_pipe_without_waiting(reply(0, LONG), PRINTED)
    assert run == (LONG[:PIPE_SIZE], Outcome(None, b"", 0))


def test_stream_into_a_full_pipe():
    assert into_a_pipe_without_waiting(send(TEXT), STREAMED, FILLING) == (FILLING, Outcome(None, b"", 0))


# ---- A reader that reads late, or closes ----

def with_a_filled_pipe(step, words, read, disposition=signal.SIG_DFL):
    """Runs the tool into a pipe, and calls `read` as soon as the pipe is full. Returns the result of `read`, and the
    outcome.

    The daemon has sent the whole answer by then, so the tool can only sleep in a write.
    """
    sent = threading.Event()
    reader, writer = os.pipe()
    with ScriptedDaemon(step, lambda _: sent.set()) as plaxd:
        process = start_tool("-s", plaxd.path, *words, stdout=writer,
                             preexec_fn=lambda: signal.signal(signal.SIGPIPE, disposition))
        os.close(writer)
        with os.fdopen(reader, "rb") as pipe:
            assert sent.wait(PATIENCE)
            await_state(process.pid, "S")
            shown = read(pipe, process)
        return shown, finish_tool(process)


def read_late(pipe, _):
    return pipe.read()


def interrupt_and_read(pipe, process):
    """Interrupts a write that has transferred some bytes, which makes it a short one."""
    stop_and_continue(process.pid)
    return pipe.read()


def leave(pipe, _):
    pipe.close()


@pytest.mark.parametrize("step, words, shown", [
    (reply(0, LONG), PRINTED, LONG + b"\n"),
    (send(TEXT), STREAMED, TEXT),
], ids=["printed", "streamed"])
def test_late_reader_gets_everything(step, words, shown):
    assert with_a_filled_pipe(step, words, read_late) == (shown, Outcome(None, b"", 0))


def test_interrupted_write_of_a_printed_reply_is_not_completed():
    """The tool writes once. The bytes in the pipe are all of the reply, and the newline follows them."""
    run = with_a_filled_pipe(reply(0, LONG), PRINTED, interrupt_and_read)
    assert run == (LONG[:PIPE_SIZE] + b"\n", Outcome(None, b"", 0))


def test_interrupted_write_of_a_stream_is_completed():
    assert with_a_filled_pipe(send(TEXT), STREAMED, interrupt_and_read) == (TEXT, Outcome(None, b"", 0))


@pytest.mark.parametrize("step, words, disposition, code", [
    (reply(0, LONG), PRINTED, signal.SIG_DFL, 0),
    (reply(0, LONG), PRINTED, signal.SIG_IGN, 0),
    (send(TEXT), STREAMED, signal.SIG_DFL, -signal.SIGPIPE),
    (send(TEXT), STREAMED, signal.SIG_IGN, 0),
], ids=["printed", "printed-ignored", "streamed", "streamed-ignored"])
def test_reader_that_leaves_in_the_middle(step, words, disposition, code):
    """The single write of a printed reply is a short one by then, which counts as success."""
    assert with_a_filled_pipe(step, words, leave, disposition) == (None, Outcome(None, b"", code))
