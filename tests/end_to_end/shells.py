"""Completion as at a terminal: the offers of bash, zsh and fish for a command line.

PLAX_COMPLETIONS names the directory with the generated files. bash and zsh run on a terminal of their own, find the
file as they find installed ones, and complete through their line editors. fish has a command that completes a line.

Each shell's function takes the line up to the cursor, and returns the offers in the shell's order:

    assert zsh("plax-tool -o out fitn") == [Offer("fitness-stats-get", "Get current fitness stats for each disk")]

Every shell runs in a directory that holds the file `answer.txt` and the directory `answers`.
"""

import atexit
import fcntl
import functools
import os
import pty
import select
import shlex
import struct
import subprocess
import tempfile
import termios
import threading
import time
from pathlib import Path
from typing import NamedTuple

COMPLETIONS = Path(os.environ["PLAX_COMPLETIONS"]).resolve()
PATIENCE = 30  # seconds to wait for a shell's answer


class Offer(NamedTuple):
    word: str
    description: str = ""


# In both start-up files, the function `report` ends an answer and empties the line.

BASH_START = r"""
PS1=
. /usr/share/bash-completion/bash_completion
bind 'set completion-display-width 0' 'set completion-query-items 0' 'set page-completions off'
bind 'set enable-bracketed-paste off' 'set bell-style none'
bind '"\C-xi": insert-completions' '"\C-xl": possible-completions'
report() {
    printf '%s\0' "$READLINE_LINE" >&"$REPORT"
    READLINE_LINE=
    READLINE_POINT=0
}
bind -x '"\C-xr": report'
"""

# Completion functions pass their matches to compadd. This one records the matches for the word at the cursor, each with
# its displayed text, and adds none. Calls that fill arrays for their caller are passed on.
ZSH_START = r"""
PS1=
fpath=($COMPLETIONS $fpath)
autoload -Uz compinit
compinit -D -u
zstyle ':completion:*' verbose yes
zstyle ':completion:*' list-grouped no
compadd() {
    if [[ -n ${(M)@[1,(i)(-|--)]:#-[OAD]} ]]; then
        builtin compadd "$@"
        return
    fi
    local -a display words texts ignored
    zparseopts -E -a ignored d:=display
    display=($display[2])
    [[ -z $display ]] || texts=("${(@P)display}")
    builtin compadd -A words ${display:+-D} ${display:+texts} "$@"
    local i
    for (( i = 1; i <= $#words; ++i )); do
        print -rnu $REPORT -- "$words[i]"$'\t'"$texts[i]"$'\n'
    done
    # The caller goes on with other kinds of matches unless some were added.
    (( $#words > 0 ))
}
offer() {
    _main_complete
    print -nu $REPORT '\0'
    compstate[insert]=
    compstate[list]=
}
zle -C offer complete-word offer
report() {
    print -nu $REPORT '\0'
    BUFFER=
}
zle -N report
bindkey '^Xi' offer '^Xr' report
"""


class Terminal:
    """A shell on a terminal of its own. It gets keys and writes reports, each of which ends with a zero byte."""

    def __init__(self, command, home, **environment):
        self.home = home
        self.directory = tempfile.TemporaryDirectory(prefix="plax-shell-")
        prepare_directory(self.directory.name)
        self.master, slave = pty.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 100, 400, 0, 0))
        self.reports, report = os.pipe()
        self.process = subprocess.Popen(
            command, stdin=slave, stdout=slave, stderr=slave, pass_fds=[report], cwd=self.directory.name,
            start_new_session=True, preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0),
            env={**clean_environment(home.name), "TERM": "vt100", "REPORT": str(report), **environment})
        os.close(slave)
        os.close(report)
        self.screen = b""
        threading.Thread(target=self._read_screen, daemon=True).start()
        atexit.register(self._close)

    def _read_screen(self):
        try:
            while piece := os.read(self.master, 65536):
                self.screen += piece
        except OSError:
            pass  # the shell has ended

    def press(self, keys):
        """Presses the keys and returns the shell's next report."""
        os.write(self.master, keys.encode())
        report = b""
        while not report.endswith(b"\0"):
            ready, _, _ = select.select([self.reports], [], [], PATIENCE)
            piece = os.read(self.reports, 65536) if ready else b""
            assert piece, f"the shell does not answer: {report!r}, {self.screen[-2000:]!r}"
            report += piece
        return report[:-1].decode()

    def _close(self):
        self.process.kill()
        self.process.wait()
        self.directory.cleanup()
        self.home.cleanup()


def prepare_directory(directory):
    Path(directory, "answer.txt").touch()
    Path(directory, "answers").mkdir()


def clean_environment(home):
    # fish completes only commands that it finds.
    built = ":".join(os.path.dirname(os.environ[name]) for name in ("PLAX_TOOL", "PLAXD_STANDIN") if name in os.environ)
    path = f"{built}:/usr/sbin:/usr/bin:/sbin:/bin"
    return {"HOME": home, "PATH": path, "LC_ALL": "C.UTF-8"}


@functools.cache
def bash_terminal():
    home = tempfile.TemporaryDirectory(prefix="plax-bash-")
    Path(home.name, "completions").symlink_to(COMPLETIONS)
    start = Path(home.name, "start")
    start.write_text(BASH_START)
    return Terminal(["bash", "--noprofile", "--rcfile", start, "-i"], home, BASH_COMPLETION_USER_DIR=home.name)


def bash(line):
    """Has the shell insert all offers into the line, and reads them from there."""
    full = bash_terminal().press(line + "\x18i\x18r")
    start = line.rfind(" ") + 1
    if "=" in line[start:]:
        start = line.rindex("=") + 1
    assert full.startswith(line[:start])
    if full == line:
        return []  # without an offer, the line is unchanged
    return [Offer(word) for word in shlex.split(full[start:])]


def bash_list(line):
    """The rows of the shell's list of possible completions. Below the list, the shell shows the line again.

    The terminal echoes keys that come before the shell reads them. That is not the line that the shell shows.
    """
    terminal = bash_terminal()
    before = len(terminal.screen)
    terminal.press(line + "\x18l\x18r")
    deadline = time.monotonic() + PATIENCE
    shown = b""
    while shown.count(line.encode()) < 2:
        assert time.monotonic() < deadline, f"no list: {shown!r}"
        time.sleep(0.01)
        shown = terminal.screen[before:].replace(line.encode() + b"^Xl^Xr", b"")
    return shown.decode().split("\r\n")[1:-1]


@functools.cache
def zsh_terminal():
    home = tempfile.TemporaryDirectory(prefix="plax-zsh-")
    Path(home.name, ".zshrc").write_text(ZSH_START)
    return Terminal(["zsh", "-d", "-i"], home, ZDOTDIR=home.name, COMPLETIONS=str(COMPLETIONS))


def zsh(line):
    terminal = zsh_terminal()
    report = terminal.press(line + "\x18i")
    terminal.press("\x18r")
    return [zsh_offer(row) for row in report.splitlines()]


def zsh_offer(row):
    word, shown = row.split("\t")
    # The displayed text is "word  -- description", or the word alone.
    return Offer(word, shown.partition(" -- ")[2])


def fish(line):
    """fish prints one offer per line."""
    with tempfile.TemporaryDirectory(prefix="plax-fish-") as home:
        prepare_directory(home)
        script = f"set fish_complete_path {shlex.quote(str(COMPLETIONS))}; complete -C {shlex.quote(line)}"
        run = subprocess.run(["fish", "--no-config", "-c", script], cwd=home, env=clean_environment(home),
                             stdin=subprocess.DEVNULL, capture_output=True, text=True, check=True, timeout=PATIENCE)
    assert run.stderr == ""
    return [Offer(*row.split("\t")) for row in run.stdout.splitlines()]


def words(offers):
    return [offer.word for offer in offers]
