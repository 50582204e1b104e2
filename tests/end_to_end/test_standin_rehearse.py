"""plaxd-standin rehearse: runs an unmodified script while the stand-in answers its plax-tool."""

import fcntl
import os
import pty
import re
import signal
import subprocess
import termios
import time

import pytest
from harness import PATIENCE, ScriptedDaemon, eventually
from namespaces import namespaces_work
from rehearsals import USERS, every_user, in_namespaces, new_rehearsal, refusing
from standin_process import EXAMPLES, STANDIN, timeless

UUID = "5b2f9c1e-44d0-4a37-9e8b-c3f1a06d7725"
OTHER = "52e6f3a1-0c94-4d1b-9a77-3f2b8c5d6e01"
JSON_LOG = ("--format", "json", "--log", "log")
REFUSED = ("plaxd-standin: the stand-in cannot be put at /var/run/plaxd.uds: REASON\n"
           "plaxd-standin: try --socket-option\n")
WARNING = ("plaxd-standin: warning: plax-tool is run with -s, so log-level and block-cdb-cb accept words that they "
           "refuse without it, and a plax-tool that is not found in PATH reaches the real daemon\n")
ENDING = "plaxd-standin: ending what the script left running\n"


@pytest.fixture(name="rehearsal")
def make_rehearsal():
    with new_rehearsal() as made:
        yield made


def sh(text, *words):
    return "--", "sh", "-c", text, "sh", *words


def alive(pid):
    try:
        os.kill(int(pid), 0)
    except ProcessLookupError:
        return False
    return True


@in_namespaces
def test_unmodified_script(rehearsal, user):
    """The script retries after a failure, which does not make the rehearsal fail."""
    answers = rehearsal.file("answers.json", '{"answers": {"what-if-entity-decom": [{"status": 16, "text": "busy"}, '
                             '{"text": "feasible: yes"}, {"text": "feasible: no"}]}}')
    script = rehearsal.file("script", open(os.path.join(EXAMPLES, "can-evacuate.sh"), encoding="utf-8").read(), 0o755)
    assert rehearsal.run("--answers", answers, *JSON_LOG, "--", script, UUID, OTHER, user=USERS[user],
                         env={"RETRY_SECONDS": "0"}) == (
        1, f"{UUID}: yes\n{OTHER}: no\n",
        f"plax-tool -u {UUID} -d 2 what-if-entity-decom: exit status 16, 0 bytes, "
        "Error received: Status 0x00000010: busy\n")
    assert rehearsal.requests() == ([("what-if-entity-decom", "answered")] * 3, 3)


@in_namespaces
def test_commands_that_the_option_would_change(rehearsal, user):
    """A joined long option fails the word test. A missing level is sent as the program's name."""
    run = rehearsal.run("--format", "commands", "--log", "-",
                        *sh("plax-tool --uuid=$1 log-level 2 >/dev/null 2>&1; echo $?; plax-tool log-level", UUID),
                        user=USERS[user])
    code, output, messages = run
    assert (code, messages) == (0, "")
    lines = timeless(output)
    lines.remove("1")  # the script's own line, which can be anywhere in the log
    assert lines == ["# NOW start: script sh", "plax-tool log-level plax-tool",
                     "# NOW summary: 1 requests, 0 broken, 1 with warnings; log-level 1 answered"]


@in_namespaces
def test_script_sees_its_own_user_words_and_input(rehearsal, user):
    expected = "65534" if user == "ordinary" and os.geteuid() == 0 else str(os.geteuid())
    run = rehearsal.run(*sh("id -u; id -g; pwd; printf '[%s]' \"$@\"; cat", "", "--log", "--", "a b"), text="input",
                        user=USERS[user])
    assert run == (0, f"{expected}\n{expected}\n{rehearsal.directory}\n[][--log][--][a b]input", "")


@in_namespaces
def test_rest_of_run_stays_visible(rehearsal, user):
    listed = set(os.listdir("/run"))
    code, output, messages = rehearsal.run(*sh("ls -A /run"), user=USERS[user])
    assert (code, messages) == (0, "")
    assert set(output.split()) >= listed & set(os.listdir("/run")) | {"plaxd.uds"}


@in_namespaces
def test_writing_to_run_is_for_those_who_may(rehearsal, user):
    code, _, _ = rehearsal.run(*sh("touch /run/made-by-a-rehearsal"), user=USERS[user])
    assert (code == 0) == (user == "root")
    assert not os.path.exists("/run/made-by-a-rehearsal")


@pytest.mark.skipif(not namespaces_work(), reason="the system allows no namespaces")
def test_contents_of_run(rehearsal):
    """The script sees the real files of /run, except a daemon's socket, which stays untouched."""
    with ScriptedDaemon(connections=0) as plaxd:
        make = ('mount --bind "$0" /run && cd /run && mkdir -p dir/sub && mount -t tmpfs tmpfs dir/sub && '
                'echo text >dir/sub/file && echo more >file && ln -s dir link && mkfifo pipe && ln -s nowhere dangling '
                '&& chmod 0 dir/sub/file && exec "$@"')
        look = ("find /run -mindepth 1 -path /run/mount -prune -o -printf '%P %y\\n' | sort; cat /run/file; "
                "echo new >/run/dir/new; plax-tool fix-concats && pwd")
        run = subprocess.run(
            ["unshare", "--user", "--map-root-user", "--mount", "sh", "-c", make, plaxd.directory, STANDIN, "rehearse",
             *sh(look)], env=rehearsal.environment(), capture_output=True, text=True, check=False)
        with open(os.path.join(plaxd.directory, "dir", "new"), encoding="utf-8") as file:
            assert file.read() == "new\n"
    assert (run.returncode, run.stdout, run.stderr) == (
        0, "dangling l\ndir d\ndir/sub d\ndir/sub/file f\nfile f\nlink l\npipe p\nplaxd.uds s\nmore\n/run\n", "")
    assert os.listdir(rehearsal.temporary) == []


@in_namespaces
@pytest.mark.parametrize("text, code", [("exit 0", 0), ("exit 7", 7), ("exit 255", 255), ("kill -9 $$", 137),
                                        ("kill -15 $$", 143)])
def test_exit_status(rehearsal, user, text, code):
    assert rehearsal.run(*sh(text), user=USERS[user]) == (code, "", "")


@in_namespaces
@pytest.mark.parametrize("words, code, message", [
    (["./none"], 127, "./none: No such file or directory"),
    (["no-such-program"], 127, "no-such-program: No such file or directory"),
    (["./plain"], 126, "./plain: Permission denied"),
    (["."], 126, ".: Permission denied"),
    ([""], 127, ": No such file or directory"),
])
def test_script_that_cannot_be_run(rehearsal, user, words, code, message):
    rehearsal.file("plain", "exit 0\n")
    assert rehearsal.run("--", *words, user=USERS[user]) == (code, "", f"plaxd-standin: {message}\n")


@in_namespaces
def test_script_without_interpreter_line(rehearsal, user):
    rehearsal.file("script", "echo $1\n", 0o755)
    assert rehearsal.run("--", "./script", "word", user=USERS[user]) == (0, "word\n", "")


@in_namespaces
def test_missing_tool(rehearsal, user):
    """The script lacks it, as it would without a rehearsal."""
    assert rehearsal.run(*sh("plax-tool stats"), user=USERS[user], env={"PATH": "/usr/bin:/bin"}) == (
        127, "", "sh: 1: plax-tool: not found\n")


# ---- Processes that outlive the script ----


@in_namespaces
def test_children_that_end_soon(rehearsal, user):
    """The other end of a pipe can still write, and its request is answered."""
    run = rehearsal.run(*JSON_LOG, *sh("(sleep 0.3; plax-tool fix-concats; echo late) & exit 3"), user=USERS[user])
    assert run == (3, "late\n", "")
    assert rehearsal.requests() == ([("fix-concats", "answered")], 1)


@in_namespaces
@pytest.mark.parametrize("ignoring", ["", "trap '' TERM;"])
def test_children_that_stay(rehearsal, user, ignoring):
    """Also processes in other sessions, and those whose parents have ended."""
    begin = time.monotonic()
    run = rehearsal.run(*sh(f"{ignoring} setsid sh -c 'sleep 100 & echo $!; exec sleep 100' >pids & echo $!; "
                            "sleep 0.2; exit 3"), user=USERS[user])
    pids = run[1].split()
    with open(rehearsal.file("pids"), encoding="utf-8") as file:
        pids += file.read().split()
    assert run == (3, f"{pids[0]}\n", ENDING)
    assert [len(pids), *map(alive, pids)] == [2, False, False]
    assert 2 < time.monotonic() - begin < 20


# ---- Signals ----


@in_namespaces
@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGQUIT])
def test_signals_reach_the_script(rehearsal, user, number):
    script = "trap 'plax-tool fix-concats; exit 5' TERM INT HUP QUIT; echo ready >mark; while :; do sleep 0.05; done"
    process = rehearsal.start(*JSON_LOG, *sh(script), user=USERS[user])
    assert eventually(lambda: os.path.exists(rehearsal.file("mark")))
    process.send_signal(number)
    assert rehearsal.finish(process) == (5, "", "")
    assert rehearsal.requests() == ([("fix-concats", "answered")], 1)


@in_namespaces
def test_signal_that_kills_the_script(rehearsal, user):
    process = rehearsal.start(*sh("echo ready >mark; exec sleep 100"), user=USERS[user])
    assert eventually(lambda: os.path.exists(rehearsal.file("mark")))
    process.send_signal(signal.SIGTERM)
    assert rehearsal.finish(process) == (143, "", "")


@in_namespaces
def test_end_of_the_script_when_the_rehearsal_is_killed(rehearsal, user):
    script = "trap 'echo >end; exit' TERM; echo >mark; for _ in $(seq 400); do sleep 0.05; done"
    process = rehearsal.start(*sh(script), user=USERS[user])
    assert eventually(lambda: os.path.exists(rehearsal.file("mark")))
    process.kill()
    process.communicate(timeout=PATIENCE)
    assert os.path.exists(rehearsal.file("end"))


@in_namespaces
def test_signal_before_the_start(rehearsal, user):
    def send_blocked():
        signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGTERM])
        os.kill(os.getpid(), signal.SIGTERM)

    assert rehearsal.run(*sh("echo started"), user=USERS[user], before=send_blocked) == (143, "", "")


# Sends a request at the first interrupt, then counts the interrupts of a second.
COUNTER = """
import signal, subprocess
signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGINT])
open("mark", "w").close()
count = 0
while signal.sigtimedwait([signal.SIGINT], 60 if count == 0 else 1):
    count += 1
subprocess.run(["plax-tool", "fix-concats"])
print(count)
"""


@in_namespaces
def test_interrupt_from_the_terminal(rehearsal, user):
    """Only the script gets it, once. The stand-in still answers the script's last request."""
    terminal, other_end = pty.openpty()
    process = rehearsal.start(*JSON_LOG, "--", "python3", "-c", COUNTER, user=USERS[user], stdin=other_end,
                              before=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0))
    os.close(other_end)
    assert eventually(lambda: os.path.exists(rehearsal.file("mark")))
    os.write(terminal, b"\x03")
    outcome = rehearsal.finish(process)
    os.close(terminal)
    assert outcome == (0, "1\n", "")
    assert rehearsal.requests() == ([("fix-concats", "answered")], 1)


# ---- The stand-in's own failures ----


@in_namespaces
@pytest.mark.parametrize("words, message", [
    (["--answers", "none.json"], "none.json: No such file or directory"),
    (["--log", "none/log"], "none/log: No such file or directory"),
])
def test_nothing_starts(rehearsal, user, words, message):
    assert rehearsal.run(*words, *sh("echo started"), user=USERS[user]) == (1, "", f"plaxd-standin: {message}\n")


@pytest.mark.parametrize("directory, reason", [("/nonexistent", "No such file or directory"),
                                               ("/dev/null", "Not a directory")])
def test_no_place_for_temporary_files(rehearsal, directory, reason):
    assert rehearsal.run(*sh("echo started"), env={"TMPDIR": directory}) == (
        1, "", f"plaxd-standin: cannot make a temporary directory in {directory}: {reason}\n")


SEND_BYTE = 'import socket; s = socket.socket(socket.AF_UNIX); s.connect("/run/plaxd.uds"); s.send(b"x")'


@in_namespaces
def test_strict(rehearsal, user):
    text = f"python3 -c '{SEND_BYTE}'; exit 3"
    assert rehearsal.run(*JSON_LOG, *sh(text), user=USERS[user]) == (3, "", "")
    assert rehearsal.run(*JSON_LOG, "--strict", *sh(text), user=USERS[user]) == (1, "", "")


@in_namespaces
def test_log_that_cannot_be_written(rehearsal, user):
    assert rehearsal.run("--log", "/dev/full", *sh("plax-tool fix-concats; exit 3"), user=USERS[user]) == (
        1, "", "plaxd-standin: /dev/full: No space left on device: lines of the log are lost\n"
               "plaxd-standin: the log could not be written whole\n")


# ---- Without namespaces ----


@every_user
def test_namespaces_refused(rehearsal, user):
    """The option named in the message works."""
    code, output, messages = rehearsal.run(*sh("echo started"), user=refusing(user))
    assert (code, output, re.sub("(unshare|mount [^:]*): .*", "REASON", messages)) == (1, "", REFUSED)
    assert rehearsal.run("--socket-option", *JSON_LOG, *sh("plax-tool fix-concats; exit 3"), user=refusing(user)) == (
        3, "", WARNING)
    assert rehearsal.requests() == ([("fix-concats", "answered")], 1)


@every_user
def test_socket_option(rehearsal, user):
    """The words stay whole, and so does the environment. Adding -s changes only what the warning names."""
    script = "plax-tool -j \"a 'b' \" fitness-config-set; plax-tool --uuid=$1 log-level 2; echo $X"
    run = rehearsal.run("--socket-option", "--format", "commands", "--log", "log", *sh(script, UUID),
                        user=USERS[user], env={"X": "y"})
    assert run == (0, "y\n", WARNING)
    with open(rehearsal.log, encoding="utf-8") as file:
        assert timeless(file.read()) == [
            "# NOW start: script sh", "plax-tool -j 'a '\\''b'\\'' ' fitness-config-set", "plax-tool log-level 2",
            "# NOW summary: 2 requests, 0 broken, 1 with warnings; "
            "fitness-config-set 1 answered; log-level 1 answered"]


@in_namespaces
def test_socket_option_may_refuse_what_passes_without_it(rehearsal, user):
    script = sh("plax-tool --json=x log-level 2 >/dev/null")
    assert rehearsal.run(*script, user=USERS[user]) == (0, "", "")
    assert rehearsal.run("--socket-option", *script, user=USERS[user]) == (
        1, "", WARNING + "Log level must be specified. E.g.: plax-tool log-level 2\n")


def test_socket_option_without_tool(rehearsal):
    assert rehearsal.run("--socket-option", *sh("echo started"), env={"PATH": "/usr/bin:/bin"}) == (
        127, "", "plaxd-standin: plax-tool: not found in PATH\n")
