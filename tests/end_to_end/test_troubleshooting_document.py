"""Every message, exit status and unnoticed failure in docs/troubleshooting.md occurs as the document says.

Rows and items are read from the document. One without a case below fails, and so does a case without one.
"""

import ctypes
import os
import pathlib
import re
import shlex
import shutil
import signal
import subprocess
import tempfile

import pytest

from binaries import is_sanitized
from command_line import INCOMPLETE, UUID, USAGE, cut_listing, uuid_list
from connecting import listening
from harness import RUNNER, TOOL, Outcome, ScriptedDaemon, await_taken, await_unread, close, environment, interrupt, \
    limit_memory, pause, reply, send, stay_silent, tool, tool_of
from preloading import preloaded
from waiting import in_one_worker, together

pytestmark = pytest.mark.skipif(bool(RUNNER), reason="statuses and messages would be partly the runner's")

DOCUMENT = pathlib.Path(__file__).parents[2].joinpath("docs", "troubleshooting.md").read_text(encoding="utf-8")
PRINTED, CHECKED, STREAMED, UNANSWERED = "info-proactive-rebalance", "fix-concats", "stats", "refresh-config-opts"


def section(title):
    return re.search(rf"^## {title}\n(.*?)^## ", DOCUMENT, re.DOTALL | re.MULTILINE)[1]


def table(title):
    """The cells of each row of the section's table."""
    rows = re.findall(r"^\| (.*) \|$", section(title), re.MULTILINE)[1:]
    return [[cell.strip() for cell in row.split("|")] for row in rows]


# ---- Ways in which a run fails ----

def with_daemon(*steps, words, **options):
    """Runs the tool against a daemon that does these steps. The options are the tool's."""
    with ScriptedDaemon(*steps, may_break=True) as plaxd:
        run = tool("-s", plaxd.path, *words, **options)
    return Outcome(run.stdout or b"", run.stderr, run.code)


def without_daemon(*words, **options):
    """Runs the tool in a way that must not connect, and cuts the listing of the help text."""
    run = tool(*words, **options)
    return Outcome(cut_listing(run.stdout), run.stderr, run.code)


def drop_override():
    """Root without the capabilities that let it pass permissions."""
    libc = ctypes.CDLL(None)
    for capability in (1, 2):  # CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH
        libc.prctl(24, capability, 0, 0, 0)  # PR_CAPBSET_DROP


def with_forbidden_socket():
    with listening(backlog=1) as (_, path):
        os.chmod(path, 0)
        return without_daemon("-s", path, PRINTED, preexec_fn=drop_override)


def with_abandoned_socket():
    with listening(backlog=1) as (listener, path):
        listener.close()
        return without_daemon("-s", path, PRINTED)


def with_connection_closed_first(word):
    """The daemon has ended before the tool sends."""
    with ScriptedDaemon(close(), read_request=False) as plaxd:
        return tool("-s", plaxd.path, word, env=preloaded(PLAX_HANGUP_BEFORE_SEND="1"))


def with_request_unread(word, *steps):
    """The daemon does these steps and closes, so that the connection is reset."""
    with ScriptedDaemon(await_unread(8), *steps, close(), read_request=False) as plaxd:
        return tool("-s", plaxd.path, word)


def when_interrupted(word):
    return with_daemon(interrupt(), stay_silent(), words=(word,))


def when_interrupted_at_the_terminal():
    return with_daemon(lambda daemon: os.kill(tool_of(daemon), signal.SIGINT), stay_silent(), words=(PRINTED,))


def writing_to_a_directory(word, name):
    """Streams into a file of this name in a directory that cannot be written to."""
    with tempfile.TemporaryDirectory(prefix="plaxd-") as directory:
        os.chmod(directory, 0o555)
        return with_daemon(words=(word, "-o", os.path.join(directory, name)), preexec_fn=drop_override)


def into(path, flags, word):
    descriptor = os.open(path, flags)
    try:
        return with_daemon(reply(0, b"abc"), words=(word,), stdout=descriptor)
    finally:
        os.close(descriptor)


def into_full_pipe():
    reader, writer = os.pipe()
    try:
        os.set_blocking(writer, False)
        os.write(writer, b"." * 65536)
        return with_daemon(reply(0, b"abc"), words=(PRINTED,), stdout=writer)
    finally:
        os.close(reader)
        os.close(writer)


def into_abandoned_pipe(step, word, **options):
    reader, writer = os.pipe()
    os.close(reader)
    try:
        return with_daemon(step, words=(word,), stdout=writer, **options)
    finally:
        os.close(writer)


def ignore_broken_pipe():
    signal.signal(signal.SIGPIPE, signal.SIG_IGN)


def under_timeout():
    with ScriptedDaemon(stay_silent()) as plaxd:
        return in_shell(f"timeout 3 {shlex.quote(TOOL)} -s {shlex.quote(plaxd.path)} {PRINTED}")


def in_shell(command):
    run = subprocess.run(["bash", "-c", command], capture_output=True, env=environment(), check=False)
    return Outcome(run.stdout, run.stderr, run.returncode)


def without_library():
    with tempfile.TemporaryDirectory(prefix="plaxd-") as directory:
        lonely = shutil.copy(TOOL, os.path.join(directory, "plax-tool"))
        return in_shell(f"cd {shlex.quote(os.path.dirname(lonely))}; ./plax-tool -h")


# ---- By message ----

def usage(message):
    return Outcome(USAGE, message, 1)


LONG_LIST = uuid_list(2561)

MESSAGES = {
    "connect error: No such file or directory": (
        lambda: without_daemon("-s", "/nonexistent/plaxd.uds", PRINTED),
        Outcome(b"", b"connect error: No such file or directory\n", 1)),
    "connect error: Connection refused": (
        with_abandoned_socket, Outcome(b"", b"connect error: Connection refused\n", 1)),
    "connect error: Permission denied": (
        with_forbidden_socket, Outcome(b"", b"connect error: Permission denied\n", 1)),
    "Sending command failed: Broken pipe": (
        lambda: with_connection_closed_first(CHECKED), Outcome(b"", b"Sending command failed: Broken pipe\n", 32)),
    "Error received: Resource temporarily unavailable: (null)": (
        together(lambda: with_daemon(stay_silent(), words=(CHECKED,))),
        Outcome(b"", b"Error received: Resource temporarily unavailable: (null)\n", 11)),
    "Error received: Connection reset by peer: (null)": (
        lambda: with_request_unread(CHECKED),
        Outcome(b"", b"Error received: Connection reset by peer: (null)\n", 104)),
    "Error received: Interrupted system call: (null)": (
        lambda: when_interrupted(CHECKED), Outcome(b"", b"Error received: Interrupted system call: (null)\n", 4)),
    "Error received: NAME: REASON": (
        lambda: with_daemon(reply(5, b"busy"), words=(CHECKED,)),
        Outcome(b"", b"Error received: Status 0x00000005: busy\n", 5)),
    "Failed to receive the complete UDS message sent. Please try again": (
        lambda: with_daemon(send(b"\0\0\0\5\0\0\0\4bus"), words=(CHECKED,)), Outcome(b"", INCOMPLETE, 0)),
    "Unrecognized command: WORD": (
        lambda: without_daemon("Stats"), usage(b"Unrecognized command: Stats\n")),
    "Command string missing": (lambda: without_daemon("-a"), usage(b"Command string missing\n")),
    "UUID must be provided ...": (
        lambda: without_daemon("crawler"), usage(b"UUID must be provided (specify with --uuid)\n")),
    "Failed to parse UUID: VALUE, length=NUMBER": (
        lambda: without_daemon("-u", "zz", "crawler"), usage(b"Failed to parse UUID: zz, length=0\n")),
    "PROGRAM: unrecognized option 'WORD'": (
        lambda: without_daemon("--colour", "stats"),
        usage(os.fsencode(TOOL) + b": unrecognized option '--colour'\n")),
    "PROGRAM: option 'WORD' is ambiguous; ...": (
        lambda: without_daemon("--exclusion=0", "stats"),
        usage(os.fsencode(TOOL) + b": option '--exclusion=0' is ambiguous; possibilities: '--exclusion-list' "
              b"'--exclusion-mode'\n")),
    "PROGRAM: option requires an argument -- 'LETTER'": (
        lambda: without_daemon("stats", "-o"), usage(os.fsencode(TOOL) + b": option requires an argument -- 'o'\n")),
    "Log level must be specified. ...": (
        lambda: without_daemon("--uuid=" + UUID, "log-level", "2"),
        usage(b"Log level must be specified. E.g.: plax-tool log-level 2\n")),
    "Invalid UUID: LIST": (
        lambda: without_daemon("-x", UUID + ",", "set-global-exclusion-list"),
        usage(b"Invalid UUID: " + UUID.encode() + b",\n")),
    "UUID list is longer than max limit": (
        lambda: without_daemon("-l", LONG_LIST, "what-if-upgrade"),
        Outcome(b"", b"UUID list is longer than max limit\n", -signal.SIGABRT)),
}


def messages():
    return [message.strip("`") for message, *_ in table("By message")]


def test_no_message_is_left_out():
    assert messages() == list(MESSAGES)


def shown(message):
    """The pattern of a message, in which a word in capitals or three dots match any text."""
    return re.sub(r"\b(NAME|REASON|WORD|VALUE|NUMBER|PROGRAM|LETTER|LIST)\b|\\\.\\\.\\\.", ".+", re.escape(message))


@pytest.mark.parametrize("message", [
    pytest.param(message, marks=in_one_worker if "Resource temporarily unavailable" in message else ())
    for message in messages()])
def test_message(message):
    run, outcome = MESSAGES[message]
    assert run() == outcome
    assert re.fullmatch(shown(message), outcome.stderr.decode().removesuffix("\n"))


# ---- By exit status ----

REFUSED = b"Error received: Status 0x00000100: no\n"

CAUSES = {
    "no failure was noticed": (
        lambda: with_daemon(reply(0, b"abc"), words=(PRINTED,)), Outcome(b"abc\n", b"", 0)),
    "the reply broke off": (
        lambda: with_daemon(send(b"\0\0\0\0\0\0\0\4bus"), words=(PRINTED,)), Outcome(b"\n", INCOMPLETE, 0)),
    "the daemon's status ends in two zero hexadecimal digits": (
        lambda: with_daemon(reply(0x100, b"no"), words=(PRINTED,)), Outcome(b"", REFUSED, 0)),
    "there were no arguments": (without_daemon, Outcome(USAGE, b"", 1)),
    "a usage error": (lambda: without_daemon("-m", "8", "stats"), usage(b"Failed to parse recoveryMode: 8\n")),
    "no connection": MESSAGES["connect error: No such file or directory"],
    "the directory of the `-o` file does not exist": (
        lambda: with_daemon(words=(STREAMED, "-o", "/nonexistent/stats")), Outcome(b"", b"", 2)),
    "a stream was interrupted: the tool was stopped and continued": (
        lambda: when_interrupted(STREAMED), Outcome(b"", b"", 4)),
    "the wait for another reply was interrupted in this way": (
        lambda: when_interrupted(PRINTED), Outcome(b"", b"Error received: Interrupted system call: (null)\n", 4)),
    "a printed reply went to a closed or read-only standard output": (
        lambda: into("/dev/null", os.O_RDONLY, PRINTED), Outcome(b"", b"", 9)),
    "a stream paused for longer than 20 seconds": (
        together(lambda: with_daemon(send(b"abc"), pause(22), send(b"def"), words=(STREAMED,))),
        Outcome(b"abc", b"", 11)),
    "a printed reply went to a full non-blocking pipe": (into_full_pipe, Outcome(b"", b"", 11)),
    "no reply came in time": MESSAGES["Error received: Resource temporarily unavailable: (null)"],
    "you may not write the `-o` file": (
        lambda: writing_to_a_directory(STREAMED, "stats"), Outcome(b"", b"", 13)),
    "a printed reply went to a full disk": (lambda: into("/dev/full", os.O_WRONLY, PRINTED), Outcome(b"", b"", 28)),
    "the reader of a printed reply had exited": (
        lambda: into_abandoned_pipe(reply(0, b"abc"), PRINTED), Outcome(b"", b"", 32)),
    "the daemon closed the connection before a request of `stats` or of a command without a reply was sent": (
        lambda: [with_connection_closed_first(word) for word in (STREAMED, UNANSWERED)],
        [Outcome(b"", b"", 32)] * 2),
    "the daemon closed the connection before another request was sent": (
        lambda: with_connection_closed_first(PRINTED), Outcome(b"", b"Sending command failed: Broken pipe\n", 32)),
    "the daemon ended before it had read the request of a stream": (
        lambda: with_request_unread(STREAMED), Outcome(b"", b"", 104)),
    "the daemon ended before it had read another request": (
        lambda: with_request_unread(PRINTED),
        Outcome(b"", b"Error received: Connection reset by peer: (null)\n", 104)),
    "`timeout` ended the run": (under_timeout, Outcome(b"", b"", 124)),
    "the shell finds no `plax-tool`": (
        lambda: in_shell("PATH=/nonexistent; plax-tool stats"),
        Outcome(b"", b"bash: line 1: plax-tool: command not found\n", 127)),
    "the support library is not in `../lib/plax-tool`, seen from the program's directory": (
        without_library,
        Outcome(b"", b"./plax-tool: error while loading shared libraries: libplax-platform.so: cannot open shared "
                b"object file: No such file or directory\n", 127)),
    "Ctrl-C ended the run": (when_interrupted_at_the_terminal, Outcome(b"", b"", -signal.SIGINT)),
    "the list of `-l` is too long": MESSAGES["UUID list is longer than max limit"],
    "there is no memory for the reply": (
        lambda: with_daemon(send(b"\0\0\0\0\xff\xff\xff\xff"), words=(PRINTED,), preexec_fn=limit_memory),
        Outcome(b"", b"PLAX_SafeMalloc:2888: Failed to allocate new memory\n", -signal.SIGABRT)),
    "the reader of a streamed reply has exited": (
        lambda: into_abandoned_pipe(send(b"abc"), STREAMED), Outcome(b"", b"", -signal.SIGPIPE)),
}
MARKS = {
    "there is no memory for the reply": pytest.mark.skipif(
        is_sanitized(TOOL), reason="takes more address space than the test leaves"),
    "a stream paused for longer than 20 seconds": in_one_worker,
    "no reply came in time": in_one_worker,
}


def causes():
    """Status, whether standard error is not empty, and cause, for each part of a cell up to a semicolon."""
    return [(int(status), column == 1, cause.strip()) for status, *cells in table("By exit status")
            for column, cell in enumerate(cells) for cause in cell.split(";") if cause.strip()]


def test_no_cause_is_left_out():
    assert [cause for _, _, cause in causes()] == list(CAUSES)


def shell_status(code):
    return code if code >= 0 else 128 - code


@pytest.mark.parametrize("status, has_message, cause", [
    pytest.param(*row, marks=MARKS.get(row[2], ()), id=f"{row[0]}-{row[2]}") for row in causes()])
def test_exit_status(status, has_message, cause):
    run, expected = CAUSES[cause]
    assert run() == expected
    for outcome in expected if isinstance(expected, list) else [expected]:
        assert (shell_status(outcome.code), outcome.stderr != b"") == (status, has_message)


# ---- Failures that exit 0 ----

UNNOTICED = {
    "The daemon reads the request and closes": (lambda: with_daemon(words=(PRINTED,)), b"\n"),
    "The daemon closes the connection within the header of its reply": (
        lambda: with_request_unread(PRINTED, send(b"\0\0\0")), b"\n"),
    "The daemon stalls, or resets the connection, between a header with status 0 and its payload.": (
        lambda: with_request_unread(PRINTED, send(b"\0\0\0\0\0\0\0\2")), b"\0\0\n"),
    "A stream ends early": (lambda: with_daemon(send(b"abc"), words=(STREAMED,)), b"abc"),
    "A disk fills up": (lambda: into("/dev/full", os.O_WRONLY, STREAMED), b""),
    "Standard output is closed, and the reply is streamed.": (
        lambda: with_daemon(send(b"abc"), words=(STREAMED,), preexec_fn=lambda: os.close(1)), b""),
    "The reader of a streamed reply exits, and SIGPIPE is ignored": (
        lambda: into_abandoned_pipe(send(b"abc"), STREAMED, preexec_fn=ignore_broken_pipe), b""),
    "The tool is stopped and continued": (
        lambda: with_daemon(send(b"\0\0\0\0\0\0\0\2"), await_taken(), interrupt(), send(b"ab"), words=(PRINTED,)),
        b"\0\0\n"),
    "The daemon ignores or fails a command that has no reply": (lambda: with_daemon(words=(UNANSWERED,)), b""),
}


def test_no_unnoticed_failure_is_left_out():
    items = re.findall(r"^- (.*)", section("Failures that exit 0"), re.MULTILINE)
    assert len(items) == len(UNNOTICED)
    assert [start for item, start in zip(items, UNNOTICED) if not item.startswith(start)] == []


@pytest.mark.parametrize("start", UNNOTICED)
def test_unnoticed_failure(start):
    run, stdout = UNNOTICED[start]
    assert run() == Outcome(stdout, b"", 0)
