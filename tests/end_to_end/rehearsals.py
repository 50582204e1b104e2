"""Runs `plaxd-standin rehearse` for a test, as root and as an ordinary user if the test run allows both.

Every rehearsal has its own directory for temporary files. Anything left there fails the test.
"""

import atexit
import contextlib
import functools
import json
import os
import shutil
import signal
import subprocess
import tempfile

import pytest
from harness import PATIENCE, TOOL, environment
from namespaces import namespaces_work, tool_directory
from standin_process import STANDIN

SYSTEM_PATH = "/usr/sbin:/usr/bin:/sbin:/bin"  # only directories that every user may read
NOBODY = 65534
ORDINARY = ["setpriv", "--reuid", str(NOBODY), "--regid", str(NOBODY), "--clear-groups"]
USERS = {"root": [], "ordinary": ORDINARY} if os.geteuid() == 0 else {"ordinary": []}
OWN_MOUNTS = {"root": ["unshare", "--mount", "mount", "--make-rslave", "/"],
              "ordinary": ["unshare", "--user", "--mount", "true"]}
# The users who can have a mount namespace. Other tests check the message that the rest get.
ABLE = [user for user, prefix in USERS.items()
        if subprocess.run([*prefix, *OWN_MOUNTS[user]], check=False, capture_output=True).returncode == 0]

every_user = pytest.mark.parametrize("user", USERS)
in_namespaces = pytest.mark.parametrize("user", ABLE)


def refusing(user):
    """A prefix that runs a command as the user and without the right to make a mount namespace."""
    if user not in ABLE:
        return USERS[user]
    if not namespaces_work():
        return ["setpriv", "--bounding-set", "-sys_admin"]
    return [*USERS[user], "unshare", "--user", "--map-root-user", "sh", "-c",
            'echo 0 >/proc/sys/user/max_mnt_namespaces && exec "$@"', "sh"]


@functools.cache
def programs():
    """The stand-in and the tool, or copies of them if some user cannot reach their directories."""
    if all(subprocess.run([*prefix, "test", "-x", program], check=False).returncode == 0
           for prefix in USERS.values() for program in (STANDIN, TOOL)):
        return STANDIN, TOOL
    directory = tempfile.mkdtemp(prefix="programs-")
    atexit.register(shutil.rmtree, directory)
    os.chmod(directory, 0o755)
    library = os.path.join(os.path.dirname(TOOL), "..", "lib", "plax-tool")
    if os.path.isdir(library):
        shutil.copytree(library, os.path.join(directory, "lib", "plax-tool"))
    os.mkdir(os.path.join(directory, "sbin"))
    return tuple(shutil.copy(program, os.path.join(directory, "sbin")) for program in (STANDIN, TOOL))


class Rehearsal:
    """A directory that every user can write to, and a PATH that contains plax-tool."""

    def __init__(self):
        self.directory = tempfile.mkdtemp(prefix="rehearsal-")
        os.chmod(self.directory, 0o777)
        for name in ("temporary files'", "tools"):
            os.mkdir(self.file(name))
            os.chmod(self.file(name), 0o777)
        self.temporary = self.file("temporary files'")
        self.standin, tool = programs()
        self.tools = tool_directory(self.file("tools"), tool=tool)
        self.log = self.file("log")

    def file(self, name, content=None, mode=0o644):
        path = os.path.join(self.directory, name)
        if content is not None:
            with open(path, "w", encoding="utf-8") as file:
                file.write(content)
            os.chmod(path, mode)
        return path

    def environment(self, **changes):
        return environment(**{"TMPDIR": self.temporary, "PATH": f"{self.tools}:{SYSTEM_PATH}", **changes})

    def start(self, *words, user=(), env=None, before=lambda: None, **options):
        """Starts a rehearsal in a new session, with no signal ignored. Calls `before` in the child first."""
        def prepare():
            for number in (signal.SIGINT, signal.SIGQUIT):
                signal.signal(number, signal.SIG_DFL)
            before()

        return subprocess.Popen([*user, self.standin, "rehearse", *words], cwd=self.directory, start_new_session=True,
                                env=self.environment(**(env or {})), stdin=options.pop("stdin", subprocess.DEVNULL),
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, preexec_fn=prepare,
                                **options)

    def finish(self, process, text=None):
        try:
            stdout, stderr = process.communicate(text, timeout=PATIENCE)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            raise
        assert os.listdir(self.temporary) == []
        return process.returncode, stdout, stderr

    def run(self, *words, text=None, **options):
        """Returns the exit status, standard output and standard error."""
        if text is not None:
            options["stdin"] = subprocess.PIPE
        return self.finish(self.start(*words, **options), text)

    def requests(self):
        """The commands and outcomes in the log, and the number of requests in its summary."""
        with open(self.log, encoding="utf-8") as file:
            lines = [json.loads(line) for line in file]
        ended = [(line["command"], line["outcome"]) for line in lines if line["event"] == "end"]
        return ended, lines[-1]["summary"]["requests"]


@contextlib.contextmanager
def new_rehearsal():
    made = Rehearsal()
    try:
        yield made
    finally:
        shutil.rmtree(made.directory, ignore_errors=True)
