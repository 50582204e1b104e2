"""A daemon that follows a script, and a way to run the tool against it.

A test lists the daemon's steps, runs the tool, and compares the whole outcome for equality:

    with ScriptedDaemon(reply(5, b"busy")) as plaxd:
        run = tool("-s", plaxd.path, "what-if-cancel")
    assert run == Outcome(stdout=b"", stderr=b"Error received: Status 0x00000005: busy\n", code=5)
    assert plaxd.received == frame(18)

The daemon reads one whole request, performs its steps, closes its sending side, and reads until the tool closes the
connection, so `received` holds every byte that the tool sent. Leaving the `with` block fails the test if a step failed,
if more than one connection came, or if none came (unless connections=0 is expected). The tool must have ended by then:
the daemon accepts no further connections.
"""

import array
import atexit
import fcntl
import os
import resource
import select
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import termios
import threading
import time
from dataclasses import dataclass

TOOL = os.environ["PLAX_TOOL"]
# A prefix for the tool's command line, such as an emulator or a checker.
RUNNER = os.environ.get("PLAX_TOOL_RUNNER", "").split()
# The byte order of the host that the tool was built for, in struct's notation.
HOST_ORDER = {"little": "<", "big": ">"}[os.environ.get("PLAX_TOOL_BYTE_ORDER", "little")]
# The bits of that host's unsigned long.
LONG_BITS = int(os.environ.get("PLAX_TOOL_LONG_BITS", "64"))

ZERO_UUID = b"00000000-0000-0000-0000-000000000000"
PATIENCE = 60  # seconds to wait for the end of a daemon or a tool


@dataclass
class Outcome:
    stdout: bytes
    stderr: bytes
    code: int


def frame(code, payload=b""):
    """A request or a reply: code or status and length in network order, then the payload."""
    return struct.pack(">II", code, len(payload)) + payload


# The environment of the test run, without variables that change the tool's messages.
ENVIRONMENT = {name: value for name, value in os.environ.items()
               if name != "POSIXLY_CORRECT" and not name.startswith("LC_")} | {"LANG": "C"}


def environment(**changes):
    return {**ENVIRONMENT, **changes}


def start_tool(*words, stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=None, **options):
    """Starts the tool as `plax-tool` with the given words. SIGPIPE has its default disposition, as under a shell."""
    return subprocess.Popen([*RUNNER, TOOL, *words], stdin=subprocess.DEVNULL, stdout=stdout, stderr=stderr,
                            env=environment(**(env or {})), restore_signals=True, **options)


def finish_tool(process):
    """Waits until the tool ends. Returns its output and its exit status, negative if a signal killed it."""
    try:
        stdout, stderr = process.communicate(timeout=PATIENCE)
    except subprocess.TimeoutExpired:
        process.kill()
        process.communicate()
        raise
    if RUNNER and stderr:  # an emulator adds a line when the tool aborts
        stderr = b"".join(line for line in stderr.splitlines(True) if not line.startswith(b"qemu: "))
    return Outcome(stdout, stderr, process.returncode)


def tool(*words, **options):
    """Runs the tool until it ends."""
    return finish_tool(start_tool(*words, **options))


def limit_memory():
    """Called in the child before the tool starts: limits it to 1 GiB of addresses, without a core dump."""
    resource.setrlimit(resource.RLIMIT_AS, (1 << 30, 1 << 30))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def collect(pipe, count, patience=10):
    """Reads `count` bytes from a running tool's pipe, or fewer at a timeout or at the end of the pipe."""
    data = b""
    end = time.monotonic() + patience
    while len(data) < count and select.select([pipe], [], [], max(0, end - time.monotonic()))[0]:
        piece = os.read(pipe.fileno(), count - len(data))
        if not piece:
            break
        data += piece
    return data


def eventually(condition, patience=10):
    """Polls the condition. Returns whether it held in time."""
    end = time.monotonic() + patience
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(0.002)
    return True


def state(pid):
    """The state of a process as in ps(1): R is running, S is sleeping in a call, T is stopped."""
    with open(f"/proc/{pid}/stat", encoding="utf-8") as status:
        return status.read().rpartition(")")[2].split()[0]


def await_state(pid, wanted):
    if not eventually(lambda: state(pid) == wanted):
        raise TimeoutError(f"the tool's state is {state(pid)}, not {wanted}")


def stop_and_continue(pid):
    """Stops and continues the process, which interrupts the call that it sleeps in."""
    await_state(pid, "S")
    os.kill(pid, signal.SIGSTOP)
    await_state(pid, "T")
    os.kill(pid, signal.SIGCONT)


# ---- The steps of a script: each is a function that is called with the daemon ----

def send(data):
    """Sends the bytes in one call."""
    return lambda daemon: daemon.connection.sendall(data)


def send_in_pieces(data, size, seconds=0.0):
    """Sends the bytes in pieces of this size, with a pause after each."""
    def step(daemon):
        for position in range(0, len(data), size):
            daemon.connection.sendall(data[position:position + size])
            time.sleep(seconds)
    return step


def send_bytewise(data):
    """Sends the bytes one by one."""
    return send_in_pieces(data, 1)


def reply(status, payload=b""):
    return send(frame(status, payload))


def pause(seconds):
    return lambda daemon: time.sleep(seconds)


def wait_for(event):
    """Waits until the test sets the event."""
    def step(daemon):
        if not event.wait(PATIENCE):
            raise TimeoutError("the test never set the event")
    return step


def stay_silent():
    """Sends nothing more, and keeps the connection open until the tool ends."""
    return lambda daemon: daemon.read_rest()


def stay_deaf():
    """Reads and sends nothing more, and keeps the connection open until the tool ends."""
    def step(daemon):
        poll = select.poll()
        poll.register(daemon.connection, 0)
        if not poll.poll(PATIENCE * 1000):
            raise TimeoutError("the tool never ended")
    return step


def read(count):
    """Reads this many bytes, for a daemon that does not read the whole request."""
    return lambda daemon: daemon.read_exactly(count)


def queued(connection, request):
    """The bytes queued in the connection for the daemon (FIONREAD), or roughly those for the tool (TIOCOUTQ)."""
    size = array.array("i", [0])
    fcntl.ioctl(connection, request, size)
    return size[0]


def await_unread(count):
    """Waits until this many bytes are unread. Closing the connection then resets it."""
    def step(daemon):
        if not eventually(lambda: queued(daemon.connection, termios.FIONREAD) >= count, PATIENCE):
            raise TimeoutError("the tool never sent that much")
    return step


def await_taken():
    """Waits until the tool has read everything sent, so that it receives the next bytes separately."""
    def step(daemon):
        if not eventually(lambda: queued(daemon.connection, termios.TIOCOUTQ) == 0, PATIENCE):
            raise TimeoutError("the tool did not read all bytes")
    return step


def tool_of(daemon):
    """The process at the other end of the connection."""
    credentials = daemon.connection.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, struct.calcsize("3i"))
    return struct.unpack("3i", credentials)[0]


def interrupt():
    """Interrupts the tool in the call in which it waits for the daemon."""
    return lambda daemon: stop_and_continue(tool_of(daemon))


def close():
    """Closes the connection at once, in both directions."""
    return lambda daemon: daemon.connection.close()


spare_directories = []  # empty; making and removing a directory takes the disk longer than a run of the tool


def take_directory():
    return spare_directories.pop() if spare_directories else tempfile.mkdtemp(prefix="plaxd-")


def give_back(directory):
    """Empties the directory for the next daemon."""
    for name in os.listdir(directory):
        path = os.path.join(directory, name)
        if os.path.isdir(path):
            shutil.rmtree(path)
        else:
            os.unlink(path)
    spare_directories.append(directory)


@atexit.register
def remove_spare_directories():
    while spare_directories:
        os.rmdir(spare_directories.pop())


class ScriptedDaemon:
    """Listens on a socket in an empty directory and serves one connection by the script, as described above."""

    def __init__(self, *steps, connections=1, read_request=True, path=None, may_break=False):
        self.steps = steps
        self.expected_connections = connections
        self.read_request = read_request  # False: the steps start as soon as the tool has connected
        self.may_break = may_break  # True: a step may fail because the tool has ended
        self.directory = take_directory()
        self.path = path or os.path.join(self.directory, "plaxd.uds")
        self.received = b""
        self.connections = 0
        self.connection = None
        self.error = None

    def __enter__(self):
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.listener.bind(self.path)
        self.listener.listen(16)
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()
        return self

    def __exit__(self, kind, error, trace):
        # A connection in the backlog is still accepted; without one, accept fails.
        self.listener.shutdown(socket.SHUT_RDWR)
        self.thread.join(PATIENCE)
        stuck = self.thread.is_alive()
        self._count_further_connections()
        self.listener.close()
        if os.path.exists(self.path):
            os.unlink(self.path)
        give_back(self.directory)
        if kind is None:
            assert not stuck, "the tool never closed its connection, or never connected"
            assert self.connections == self.expected_connections
            if self.error is not None and not self.may_break:
                raise self.error

    def _count_further_connections(self):
        self.listener.setblocking(False)
        try:
            while True:
                self.listener.accept()[0].close()
                self.connections += 1
        except OSError:
            pass

    def _run(self):
        try:
            self.connection, _ = self.listener.accept()
        except OSError:
            return
        self.connections += 1
        try:
            if self.read_request:
                self._read_request()
            for step in self.steps:
                step(self)
            self._end()
        except Exception as error:  # raised again in the test's own thread
            self.error = error
            self.connection.close()

    def read_exactly(self, count):
        while count > 0:
            piece = self.connection.recv(min(count, 1 << 20))
            if not piece:
                raise EOFError("the tool closed the connection within its request")
            self.received += piece
            count -= len(piece)

    def _read_request(self):
        self.read_exactly(8)
        self.read_exactly(struct.unpack(">II", self.received[:8])[1])

    def _end(self):
        if self.connection.fileno() < 0:
            return
        try:
            self.connection.shutdown(socket.SHUT_WR)
        except OSError:
            pass  # the tool has ended already
        self.read_rest()
        self.connection.close()

    def read_rest(self):
        """Reads until the tool closes its end."""
        try:
            while piece := self.connection.recv(1 << 20):
                self.received += piece
        except ConnectionResetError:
            pass  # a reset: the tool ended without reading everything
