"""Streamed answers: raw text until the daemon closes, to standard output or to the output file.

The tool reads chunks of at most 1023 bytes and cuts each at its first zero byte. A daemon that waits for each piece to
arrive determines the chunks.
"""

import os
import random
import signal
import stat
import subprocess
import threading

import pytest

from command_line import converse
from harness import Outcome, ScriptedDaemon, await_state, await_taken, await_unread, close, collect, eventually, \
    finish_tool, pause, send, send_bytewise, start_tool, stop_and_continue, tool, wait_for

DONE = Outcome(b"", b"", 0)
PLENTY = 1 << 26  # bytes


def stream(*steps, words=("stats",), **options):
    """Runs the tool against a daemon that does these steps."""
    return converse(*steps, words=words, **options)[0]


def text(length, seed=1):
    """Bytes of any value but zero."""
    return random.Random(seed).randbytes(length).replace(b"\0", b"\1")


def send_one_by_one(pieces, arrived, *words):
    """Sends the pieces one by one, waiting for `arrived` after each. Returns the tool's outcome.

    `arrived` gets the running tool and the bytes that it must output for the last piece.
    """
    events = [threading.Event() for _ in pieces]
    steps = [step for (piece, _), event in zip(pieces, events)
             for step in (send(piece), await_taken(), wait_for(event))]
    missing = []
    with ScriptedDaemon(*steps) as plaxd:
        process = start_tool("-s", plaxd.path, "stats", *words)
        for (_, shown), event in zip(pieces, events):
            if not arrived(process, shown):
                missing.append(shown)
            event.set()
        outcome = finish_tool(process)
    assert not missing
    return outcome


def arrived_on_standard_output(process, shown):
    return collect(process.stdout, len(shown), patience=5) == shown


SIZES = [
    [1], [2, 3], [1022], [1023], [1024], [1023, 1023], [1023, 1], [1022, 1, 1], [1024, 1022], [2046], [3 * 1023, 5],
    [8 * 1023, 8 * 1023], [2047, 1], [4096, 4096], [1, 1023, 1, 1023], [40 * 1023],
]


def plain_pieces(sizes):
    pieces = [text(size, seed) for seed, size in enumerate(sizes)]
    return [(piece, piece) for piece in pieces]


@pytest.mark.parametrize("sizes", SIZES, ids=str)
def test_every_piece_is_shown_before_the_next_is_sent(sizes):
    assert send_one_by_one(plain_pieces(sizes), arrived_on_standard_output) == DONE


@pytest.mark.parametrize("sizes", SIZES, ids=str)
def test_every_piece_is_in_the_file_before_the_next_is_sent(sizes, tmp_path):
    output = tmp_path / "out"
    so_far = []

    def arrived(_, shown):
        so_far.append(shown)
        return eventually(lambda: output.exists() and output.read_bytes() == b"".join(so_far), patience=5)

    assert send_one_by_one(plain_pieces(sizes), arrived, "-o", output) == DONE
    assert output.read_bytes() == b"".join(so_far)


# ---- Chunks and zero bytes ----

@pytest.mark.parametrize("pieces", [
    [(b"abc\0def", b"abc"), (b"ghi", b"ghi")],
    [(b"\0abc", b""), (b"def", b"def")],
    [(b"abc\0", b"abc"), (b"\0", b""), (b"def\0", b"def")],
    [(b"a\0b\0c", b"a"), (b"d\0e", b"d")],
    [(b"x" * 1022 + b"\0", b"x" * 1022), (b"y", b"y")],
    [(b"x" * 1023 + b"\0y", b"x" * 1023), (b"z", b"z")],
    [(b"x" * 1022 + b"\0yy\0z", b"x" * 1022 + b"yy"), (b"z", b"z")],
    [(b"\0" + b"x" * 1022 + b"y" * 1023, b"y" * 1023)],
    [(b"\0" * 5000 + b"x", b""), (b"end", b"end")],
    [(b"a\0" + b"x" * 1021 + b"b\0" + b"y" * 1021 + b"c", b"abc")],
], ids=[
    "inside", "first", "last", "several", "at-the-end-of-a-chunk", "after-a-chunk", "in-two-chunks", "hides-one-chunk",
    "nothing-shown", "three-chunks",
])
def test_zero_byte_cuts_its_chunk(pieces):
    assert send_one_by_one(pieces, arrived_on_standard_output) == DONE


def test_zero_byte_cuts_its_chunk_in_the_file(tmp_path):
    output = tmp_path / "out"
    run = stream(send(b"a\0" + b"x" * 1021 + b"b\0" + b"y" * 1021 + b"c"), words=("stats", "-o", output))
    assert (run, output.read_bytes()) == (DONE, b"abc")


# ---- All bytes pass unchanged ----

@pytest.mark.parametrize("data", [
    b"", b"\n", b"no newline", b"%s %n %d %%", bytes(range(1, 256)) * 9, text(100000),
], ids=["nothing", "newline", "no-newline", "percent", "all-bytes", "long"])
def test_stream_is_unchanged(data, tmp_path):
    output = tmp_path / "out"
    assert stream(send(data)) == Outcome(data, b"", 0)
    assert stream(send(data), words=("stats", "-o", output)) == DONE
    assert output.read_bytes() == data


def test_stream_of_single_bytes_is_unchanged():
    data = text(5000)
    assert stream(send_bytewise(data)) == Outcome(data, b"", 0)


def test_long_stream_is_unchanged():
    data = text(PLENTY)
    run = stream(send(data))
    assert (len(run.stdout), run.stdout == data, run.stderr, run.code) == (PLENTY, True, b"", 0)


def test_long_stream_is_unchanged_in_the_file(tmp_path):
    data, output = text(PLENTY), tmp_path / "out"
    run = stream(send(data), words=("stats", "-o", output))
    assert (run, output.read_bytes() == data) == (DONE, True)


def test_stream_ends_with_success_when_the_daemon_closes_at_once():
    with ScriptedDaemon(close()) as plaxd:
        assert tool("-s", plaxd.path, "stats") == DONE
    assert plaxd.received == b"\0\0\0\1\0\0\0\0"


def test_pause_within_the_time_out_is_nothing():
    assert stream(send(b"a"), pause(0.5), send(b"b")) == Outcome(b"ab", b"", 0)


def test_reset_ends_the_stream_with_its_status():
    steps = (await_unread(8), send(b"so far"), close())
    assert stream(*steps, read_request=False) == Outcome(b"so far", b"", 104)


def test_reset_leaves_the_received_bytes_in_the_file(tmp_path):
    output = tmp_path / "out"
    steps = (await_unread(8), send(b"so far"), close())
    run = stream(*steps, read_request=False, words=("stats", "-o", output))
    assert (run, output.read_bytes()) == (Outcome(b"", b"", 104), b"so far")


# ---- The output file ----

def test_file_is_emptied_first(tmp_path):
    output = tmp_path / "out"
    output.write_bytes(b"older and longer")
    assert stream(send(b"new"), words=("stats", "-o", output)) == DONE
    assert output.read_bytes() == b"new"


def test_file_is_created_and_emptied_even_when_nothing_comes(tmp_path):
    older, absent = tmp_path / "older", tmp_path / "absent"
    older.write_bytes(b"older")
    for output in (older, absent):
        assert stream(words=("stats", "-o", output)) == DONE
        assert output.read_bytes() == b""


def test_last_output_path_counts(tmp_path):
    first, last = tmp_path / "first", tmp_path / "last"
    assert stream(send(b"abc"), words=("-o", first, "stats", "-o", last)) == DONE
    assert (first.exists(), last.read_bytes()) == (False, b"abc")


def test_file_is_opened_through_a_link(tmp_path):
    target, link = tmp_path / "target", tmp_path / "link"
    link.symlink_to(target)
    assert stream(send(b"abc"), words=("stats", "-o", link)) == DONE
    assert (target.read_bytes(), link.is_symlink()) == (b"abc", True)


def test_fifo_is_waited_for_until_it_has_a_reader(tmp_path):
    output = tmp_path / "out"
    os.mkfifo(output)
    with ScriptedDaemon(send(b"abc")) as plaxd:
        process = start_tool("-s", plaxd.path, "stats", "-o", output)
        stop_and_continue(process.pid)
        await_state(process.pid, "S")
        assert (output.read_bytes(), finish_tool(process)) == (b"abc", DONE)


@pytest.mark.parametrize("mask, mode", [(0, 0o666), (0o022, 0o644), (0o027, 0o640), (0o777, 0)], ids=oct)
def test_file_has_the_mode_that_the_mask_leaves(mask, mode, tmp_path):
    output = tmp_path / "out"
    with ScriptedDaemon(send(b"abc")) as plaxd:
        run = tool("-s", plaxd.path, "stats", "-o", output, preexec_fn=lambda: os.umask(mask))
    assert (run, stat.S_IMODE(output.stat().st_mode)) == (DONE, mode)


@pytest.mark.parametrize("words", [("stats",), ("get-obj-crawler-state", "-a")], ids=lambda words: words[0])
@pytest.mark.parametrize("path, code", [
    ("no-directory/out", 2), (".", 21), ("file/out", 20), ("", 2), ("x" * 256, 36),
], ids=["absent-directory", "directory", "below-a-file", "empty", "name-too-long"])
def test_file_that_cannot_be_opened(words, path, code, tmp_path):
    (tmp_path / "file").write_bytes(b"")
    with ScriptedDaemon(send(b"abc"), may_break=True) as plaxd:
        run = tool("-s", plaxd.path, *words, "-o", path, cwd=tmp_path)
    assert run == Outcome(b"", b"", code)
    assert plaxd.received[:4] == (b"\0\0\0\1" if words == ("stats",) else b"\0\0\0\x1a")


def test_file_is_not_touched_when_there_is_no_daemon(tmp_path):
    output = tmp_path / "out"
    output.write_bytes(b"as it was")
    run = tool("-s", tmp_path / "absent", "stats", "-o", output)
    assert run == Outcome(b"", b"connect error: No such file or directory\n", 1)
    assert output.read_bytes() == b"as it was"


def test_full_disk_below_the_file_is_not_noticed():
    with ScriptedDaemon(send(text(100000))) as plaxd:
        assert tool("-s", plaxd.path, "stats", "-o", "/dev/full") == DONE


# ---- A reader that closes ----

def stream_to_a_closed_pipe(**options):
    """Reads a line, closes the reading end, and lets the daemon send much more."""
    gone = threading.Event()
    with ScriptedDaemon(send(b"first\n"), wait_for(gone), send(text(1 << 20)), may_break=True) as plaxd:
        reader, writer = os.pipe()
        process = start_tool("-s", plaxd.path, "stats", stdout=writer, **options)
        os.close(writer)
        with os.fdopen(reader, "rb", buffering=0) as pipe:
            line = collect(pipe, 6)
        gone.set()
        run = finish_tool(process)
    return line, run, plaxd.error


def test_closed_pipe_ends_a_stream_by_signal():
    line, run, _ = stream_to_a_closed_pipe()
    assert (line, run) == (b"first\n", Outcome(None, b"", -signal.SIGPIPE))


def test_closed_pipe_is_not_noticed_where_the_signal_is_ignored():
    line, run, error = stream_to_a_closed_pipe(preexec_fn=lambda: signal.signal(signal.SIGPIPE, signal.SIG_IGN))
    assert (line, run, error) == (b"first\n", Outcome(None, b"", 0), None)


def test_head_ends_a_stream():
    gone = threading.Event()
    with ScriptedDaemon(send(b"first\nsecond\n"), wait_for(gone), send(text(1 << 20)), may_break=True) as plaxd:
        process = start_tool("-s", plaxd.path, "stats")
        head = subprocess.run(["head", "-1"], stdin=process.stdout, stdout=subprocess.PIPE, timeout=10, check=True)
        process.stdout.close()
        gone.set()
        assert (head.stdout, process.wait(10)) == (b"first\n", -signal.SIGPIPE)
        process.stderr.close()
