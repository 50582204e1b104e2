"""Every call of the C library that a run makes fails once, with every errno that it can fail with.

A preloaded library makes the n-th call of a function fail, for n = 1, 2, 3... until the run makes no n-th call, and
records all calls. So each run has to match in full: standard output, standard error, the exit code, what the daemon
received, and what was still called after the failure and what no longer was. The runs are one for each command and
reply class, and those that end in other ways: error replies, usage errors, the help text, closed standard descriptors,
no daemon.

What cannot be reached from outside is the C library's own work below these calls; of it, only the allocations and the
flush at exit are made to fail. Functions that only compute, such as strtoul, are left alone: HARMLESS names them, and
a function that the tool begins to use must be added to one of the two tables.
"""

import os
import struct
import subprocess
from dataclasses import dataclass, replace
from itertools import count

import pytest

import request_table
from binaries import PLATFORM_LIBRARY, imports
from command_line import INCOMPLETE, help_text
from harness import TOOL, ScriptedDaemon, frame, tool

LIBRARY = os.environ.get("PLAX_FAULT_INJECTION", "")
pytestmark = pytest.mark.skipif(not LIBRARY, reason="PLAX_FAULT_INJECTION names no library to preload")

# Number and text of each errno.
ERRORS = {
    "EPERM": (1, b"Operation not permitted"),
    "ENOENT": (2, b"No such file or directory"),
    "EINTR": (4, b"Interrupted system call"),
    "EIO": (5, b"Input/output error"),
    "ENXIO": (6, b"No such device or address"),
    "EBADF": (9, b"Bad file descriptor"),
    "EAGAIN": (11, b"Resource temporarily unavailable"),
    "ENOMEM": (12, b"Cannot allocate memory"),
    "EACCES": (13, b"Permission denied"),
    "EFAULT": (14, b"Bad address"),
    "EBUSY": (16, b"Device or resource busy"),
    "EEXIST": (17, b"File exists"),
    "ENODEV": (19, b"No such device"),
    "ENOTDIR": (20, b"Not a directory"),
    "EISDIR": (21, b"Is a directory"),
    "EINVAL": (22, b"Invalid argument"),
    "ENFILE": (23, b"Too many open files in system"),
    "EMFILE": (24, b"Too many open files"),
    "ETXTBSY": (26, b"Text file busy"),
    "EFBIG": (27, b"File too large"),
    "ENOSPC": (28, b"No space left on device"),
    "EROFS": (30, b"Read-only file system"),
    "EPIPE": (32, b"Broken pipe"),
    "EDEADLK": (35, b"Resource deadlock avoided"),
    "ENAMETOOLONG": (36, b"File name too long"),
    "ENOLCK": (37, b"No locks available"),
    "ELOOP": (40, b"Too many levels of symbolic links"),
    "EOVERFLOW": (75, b"Value too large for defined data type"),
    "ENOTSOCK": (88, b"Socket operation on non-socket"),
    "EDESTADDRREQ": (89, b"Destination address required"),
    "EMSGSIZE": (90, b"Message too long"),
    "EPROTOTYPE": (91, b"Protocol wrong type for socket"),
    "ENOPROTOOPT": (92, b"Protocol not available"),
    "EPROTONOSUPPORT": (93, b"Protocol not supported"),
    "ESOCKTNOSUPPORT": (94, b"Socket type not supported"),
    "EOPNOTSUPP": (95, b"Operation not supported"),
    "EAFNOSUPPORT": (97, b"Address family not supported by protocol"),
    "EADDRINUSE": (98, b"Address already in use"),
    "EADDRNOTAVAIL": (99, b"Cannot assign requested address"),
    "ENETUNREACH": (101, b"Network is unreachable"),
    "ECONNRESET": (104, b"Connection reset by peer"),
    "ENOBUFS": (105, b"No buffer space available"),
    "EISCONN": (106, b"Transport endpoint is already connected"),
    "ENOTCONN": (107, b"Transport endpoint is not connected"),
    "ETIMEDOUT": (110, b"Connection timed out"),
    "ECONNREFUSED": (111, b"Connection refused"),
    "EALREADY": (114, b"Operation already in progress"),
    "EINPROGRESS": (115, b"Operation now in progress"),
    "EDQUOT": (122, b"Disk quota exceeded"),
    "EHWPOISON": (133, b"Memory page has hardware error"),
}

# What each function can fail with by its manual page, for the socket calls together with unix(7). The pages of the
# output functions name no errors: they fail when their write(2) does.
WRITE_ERRORS = "EAGAIN EBADF EDESTADDRREQ EDQUOT EFAULT EFBIG EINTR EINVAL EIO ENOSPC EPERM EPIPE".split()
ERRORS_OF = {
    "malloc": ["ENOMEM"],
    "calloc": ["ENOMEM"],
    "libc-malloc": ["ENOMEM"],
    "socket": "EACCES EAFNOSUPPORT EINVAL EMFILE ENFILE ENOBUFS ENOMEM EPROTONOSUPPORT ESOCKTNOSUPPORT".split(),
    "setsockopt": "EBADF EFAULT EINVAL ENOPROTOOPT ENOTSOCK".split(),
    "connect": ("EACCES EPERM EADDRINUSE EADDRNOTAVAIL EAFNOSUPPORT EAGAIN EALREADY EBADF ECONNREFUSED EFAULT "
                "EINPROGRESS EINTR EINVAL EISCONN ENETUNREACH ENOENT ENOTSOCK EPROTOTYPE ETIMEDOUT").split(),
    "fcntl": "EACCES EAGAIN EBADF EBUSY EDEADLK EFAULT EINTR EINVAL EMFILE ENOLCK ENOTDIR EPERM".split(),
    "close": "EBADF EINTR EIO ENOSPC EDQUOT".split(),
    "sigaction": "EFAULT EINVAL".split(),
    "send": ("EACCES EAGAIN EALREADY EBADF ECONNRESET EDESTADDRREQ EFAULT EINTR EINVAL EISCONN EMSGSIZE ENOBUFS ENOMEM "
             "ENOTCONN ENOTSOCK EOPNOTSUPP EPIPE").split(),
    "recv": "EAGAIN EBADF ECONNREFUSED ECONNRESET EFAULT EINTR EINVAL ENOMEM ENOTCONN ENOTSOCK".split(),
    "write": WRITE_ERRORS,
    "open": ("EACCES EAGAIN EBUSY EDQUOT EEXIST EFAULT EFBIG EINTR EINVAL EISDIR ELOOP EMFILE ENAMETOOLONG ENFILE "
             "ENODEV ENOENT ENOMEM ENOSPC ENOTDIR ENXIO EOPNOTSUPP EOVERFLOW EPERM EROFS ETXTBSY").split(),
    "setvbuf": ["EBADF"],
    "madvise": "EACCES EAGAIN EBADF EBUSY EFAULT EHWPOISON EINVAL EIO ENOMEM EPERM".split(),
    "printf": WRITE_ERRORS,
    "vfprintf": WRITE_ERRORS,
    "putc": WRITE_ERRORS,
    "perror": WRITE_ERRORS,
    "exit-flush": WRITE_ERRORS,
}

# Symbols of the C library that the tool and the platform library may use without a failure to inject: they compute
# only, or give back, or end the run.
HARMLESS = set("""
    __errno_location __isoc99_sscanf __libc_start_main __memcpy_chk __memset_chk __snprintf_chk __stack_chk_fail
    __strlen_chk abort free getopt_long htonl mallopt memcmp memcpy memmove memset ntohl optarg optind snprintf sscanf
    stderr stdout strcmp strerror strlen strnlen strtoul""".split())
# The names behind which the library finds the functions of ERRORS_OF.
INJECTED = set("""
    __printf_chk __vfprintf_chk calloc close connect fcntl fcntl64 fputc madvise malloc open open64 perror printf putc
    putchar recv send setsockopt setvbuf sigaction socket vfprintf write""".split())
PLATFORM = {"Panic", "QRT_ReturnStatusToString", "UtilSafeStrdup0", "Warning"}

PANIC = {
    "malloc": b"PLAX_SafeMalloc:2888: Failed to allocate new memory\n",
    "calloc": b"PLAX_SafeCalloc:2898: Failed to allocate new memory\n",
}
MSG_DONTWAIT = "recv 1023 64"


@dataclass(frozen=True)
class Run:
    """Everything that came of a run."""
    stdout: bytes
    stderr: bytes
    code: int
    wire: bytes
    calls: list
    file: bytes = b""  # what is in the output file


@dataclass(frozen=True)
class Scenario:
    """A run without failures."""
    name: str
    words: tuple
    calls: list
    reply: bytes = b""
    wire: tuple = ()  # what each send hands over
    stdout: bytes = b""
    stderr: bytes = b""
    code: int = 0
    file: bytes = b""
    reply_class: str = ""
    chunks: tuple = ()  # of a stream, what each write hands over
    given: tuple = ()  # failures that belong to the scenario
    closed: tuple = ()  # standard descriptors that the caller has closed
    functions: tuple = tuple(ERRORS_OF)
    connections: int = 1

    @property
    def failures(self):
        return COUNTS[self.name][0]

    @property
    def shorts(self):
        return COUNTS[self.name][1]

    def outcome(self, **changes):
        return replace(Run(self.stdout, self.stderr, self.code, b"".join(self.wire), self.calls, self.file), **changes)


@dataclass(frozen=True)
class Failure:
    """One call that fails."""
    function: str
    call: int
    error: str

    @property
    def number(self):
        return ERRORS[self.error][0]

    @property
    def text(self):
        return ERRORS[self.error][1]

    def plan(self):
        return f"{self.function}:{self.call}:error:{self.number}"


def say(data):
    """The step that sends the bytes, if the tool is still there to hear them; what it sent is read either way."""
    def step(daemon):
        try:
            daemon.connection.sendall(data)
        except OSError:
            pass
    return step


def run(scenario, plan, connections=None):
    """Runs the scenario with the planned failures. The daemon speaks first and reads on until the tool has ended."""
    connections = scenario.connections if connections is None else connections
    with open(os.memfd_create("calls"), "r+b") as log:
        with ScriptedDaemon(say(scenario.reply), read_request=False, connections=connections) as plaxd:
            path = os.path.join(plaxd.folder, "output")
            words = [path if word == "OUTPUT" else word for word in scenario.words]
            outcome = tool("-s", plaxd.path, *words, pass_fds=[log.fileno()], preexec_fn=closing(scenario.closed), env={
                "LD_PRELOAD": LIBRARY, "PLAX_FAULT_LOG": str(log.fileno()), "PLAX_FAULT_AWAIT": "1",
                "PLAX_FAULT_PLAN": ",".join([plan, *scenario.given] if plan else scenario.given)})
            content = open(path, "rb").read() if os.path.exists(path) else b""
        log.seek(0)
        calls = log.read().decode().splitlines()
    return Run(outcome.stdout, outcome.stderr, outcome.code, plaxd.received, calls, content)


def closing(descriptors):
    if not descriptors:
        return None
    def close_them():
        for descriptor in descriptors:
            os.close(descriptor)
    return close_them


# ---- What a run without failures calls. ----

SETTING_UP = ["calloc", "calloc", "setvbuf 1"]
RELEASING = ["free", "free"]  # the two list buffers


def up_to_sending(seconds=20, lengths=()):
    return [*SETTING_UP, "socket 1 1 0", f"setsockopt 1 20 {seconds} 0", "connect 110", "sigaction 13",
            *(f"send {length} 0" for length in lengths)]


def receiving(length):
    return ["recv 8 256", *(["malloc", f"recv {length} 256"] if length else [])]


PRINTING = ["putc 1", *RELEASING, "exit-flush 1"]
TIMEOUTS = {15: 1800, 16: 1800, 17: 7200}
ANSWERS = {
    request_table.PRINTED: (frame(0, b"abc"), b"abc\n", [*receiving(3), "write 3", *PRINTING]),
    request_table.CHECKED: (frame(0, b"ok"), b"", [*receiving(2), *RELEASING]),
    request_table.UNANSWERED: (b"", b"", RELEASING),
    request_table.STREAMED: (b"abc\ndef\n", b"abc\ndef\n",
                             ["sigaction 13", "recv 1023 0", "recv 1023 64", "write 8", *RELEASING]),
}


def of_row(row):
    """The scenario of a command."""
    reply, stdout, ending = ANSWERS[row.reply]
    wire = (struct.pack(">II", row.code, len(row.least_payload)), row.least_payload)[:2 if row.least_payload else 1]
    calls = [*up_to_sending(TIMEOUTS.get(row.code, 20), [len(piece) for piece in wire]), *ending]
    if row.word == "fitness-config-set":
        calls.insert(calls.index("socket 1 1 0"), "malloc")  # the copy of the JSON text
    if row.word == "set-global-exclusion-list":
        calls.insert(calls.index("send 8 0"), "calloc")  # the record, released right after sending
        calls.insert(calls.index("send 94728 0") + 1, "free")
    name = request_table.name(row)
    return Scenario(name, row.least, calls, reply, wire, stdout, reply_class=row.reply,
                    chunks=(8,) if row.reply == request_table.STREAMED else ())


def exchange(name, word, number, reply, ending, reply_class, **more):
    """The scenario of a command without payload."""
    more = {"words": (word,), "calls": [*up_to_sending(lengths=[8]), *ending], **more}
    return Scenario(name, reply=reply, wire=(struct.pack(">II", number, 0),), reply_class=reply_class, **more)


def stream(name, reply, calls, chunks, words=("stats",), **more):
    more = {"stdout": reply, **more}
    return exchange(name, "stats", 1, reply, [], request_table.STREAMED, words=words, chunks=chunks,
                    calls=[*up_to_sending(lengths=[8]), "sigaction 13", *calls, *RELEASING], **more)


def usage(name, words, stderr=b"", code=1):
    calls = [*SETTING_UP, *(["vfprintf 2"] if stderr else []), "printf", *RELEASING,
             f"exit-flush {len(help_text())}"]
    return Scenario(name, words, calls, stdout=help_text(), stderr=stderr, code=code, connections=0)


# How many failures and how many short calls each run offers: a figure that falls is a check that is gone.
COUNTS = {
    "fix-concats-checked": (76, 18),
    "stats-streamed": (89, 26),
    "crawler-checked": (93, 23),
    "info-rebalance-printed": (129, 27),
    "fitness-config-get-printed": (112, 22),
    "resources-to-fix-unhealthy-objects-printed": (129, 27),
    "fitness-config-set-checked": (94, 19),
    "what-if-entity-decom-printed": (129, 27),
    "fitness-config-reset-checked": (76, 18),
    "fitness-stats-get-printed": (112, 22),
    "what-if-upgrade-printed": (129, 27),
    "log-level-checked": (93, 19),
    "what-if-cancel-checked": (76, 18),
    "fix-object-immediate-checked": (93, 23),
    "force-reconfigure-the-object-checked": (93, 23),
    "update-plaxdb-checked": (93, 19),
    "get-object-last-operation-printed": (129, 27),
    "replace-plaxdb-checked": (93, 19),
    "start-proactive-rebalance-checked": (93, 23),
    "enable-plax-recovery-mode-checked": (93, 23),
    "stop-proactive-rebalance-checked": (76, 18),
    "get-obj-decom-state-printed": (129, 27),
    "info-proactive-rebalance-printed": (112, 22),
    "disable-workitem-checked": (93, 22),
    "enable-workitem-checked": (93, 22),
    "stream-empty": (67, 13),
    "get-obj-crawler-state-printed": (129, 27),
    "stream-of-two-chunks": (99, 28),
    "get-obj-crawler-state-streamed": (106, 31),
    "stream-to-file": (114, 21),
    "pause-decom-state-progress-checked": (76, 18),
    "resume-decom-state-progress-checked": (76, 18),
    "start-decom-state-heartbeat-checked": (76, 18),
    "pause-failed-delta-entry-processing-unanswered": (55, 8),
    "block-cdb-cb-unanswered": (72, 13),
    "refresh-config-opts-unanswered": (55, 8),
    "component-manual-move-checked": (93, 23),
    "set-global-exclusion-list-checked": (94, 23),
    "long-stream": (741, 0),
    "printed-empty": (101, 16),
    "help": (27, 0),
    "unknown-command": (39, 0),
    "printed-error": (88, 20),
    "option-error": (39, 0),
    "rule-error": (39, 0),
    "checked-error": (88, 20),
    "no-daemon": (48, 0),
    "checked-error-unexplained": (77, 16),
    "printed-incomplete": (124, 26),
    "standard-input-closed": (129, 0),
    "checked-incomplete": (88, 26),
    "no-memory": (24, 0),
    "standard-output-closed": (105, 0),
    "printed-large": (122, 0),
    "standard-error-closed": (82, 0),
    "payload-not-received": (40, 0),
}
TOTAL = (5640, 934)

ERROR_STATUS = 0x01020305
BUSY = b"Error received: Status 0x01020305: busy\n"
LARGE = b"fedcba9876543210" * 8192
LONG = b"0123456789abcdef" * 4125  # 66000 bytes: more than the tool gathers before it writes
MOVED = [*SETTING_UP, "socket 1 1 0", "fcntl {0} 0 3", "close {0}", *up_to_sending(lengths=[8])[4:]]


def moved(descriptor):
    """The calls up to sending when the socket was created in the place of a closed standard descriptor."""
    return [call.format(descriptor) for call in MOVED]


def scenarios():
    printed, checked = request_table.PRINTED, request_table.CHECKED
    yield from map(of_row, request_table.ROWS)
    yield exchange("printed-empty", "fitness-stats-get", 6, frame(0), [*receiving(0), "write 0", *PRINTING], printed,
                   stdout=b"\n")
    yield exchange("printed-error", "fitness-stats-get", 6, frame(ERROR_STATUS, b"busy"),
                   [*receiving(4), "vfprintf 2", "free", *RELEASING], printed, stderr=BUSY, code=5)
    yield exchange("checked-error", "what-if-cancel", 18, frame(ERROR_STATUS, b"busy"),
                   [*receiving(4), "vfprintf 2", "free", *RELEASING], checked, stderr=BUSY, code=5)
    yield exchange("checked-error-unexplained", "what-if-cancel", 18, frame(ERROR_STATUS),
                   [*receiving(0), "vfprintf 2", "free", *RELEASING], checked,
                   stderr=b"Error received: Status 0x01020305: (null)\n", code=5)
    yield exchange("printed-incomplete", "fitness-stats-get", 6, struct.pack(">II", 0, 10) + b"abcd",
                   [*receiving(10), "free", "vfprintf 2", "write 0", *PRINTING], printed, stdout=b"\n",
                   stderr=INCOMPLETE)
    yield exchange("checked-incomplete", "what-if-cancel", 18, struct.pack(">II", ERROR_STATUS, 10) + b"abcd",
                   [*receiving(10), "free", "vfprintf 2", *RELEASING], checked, stderr=INCOMPLETE)
    # The pages of a large payload are provided at once (advice 23). They come one by one where that is refused.
    yield exchange("printed-large", "fitness-stats-get", 6, frame(0, LARGE),
                   ["recv 8 256", "malloc", "madvise 23 0", "recv 131072 256", "write 131072", *PRINTING], printed,
                   stdout=LARGE + b"\n")
    yield stream("stream-empty", b"", ["recv 1023 0"], ())
    yield stream("stream-of-two-chunks", LONG[:1500], ["recv 1023 0", *[MSG_DONTWAIT] * 2, "write 1500"], (1500,))
    yield stream("stream-to-file", b"abc", ["open 577 666", "recv 1023 0", MSG_DONTWAIT, "write 3"], (3,),
                 words=("-o", "OUTPUT", "stats"), stdout=b"", file=b"abc")
    yield stream("long-stream", LONG,
                 ["recv 1023 0", *[MSG_DONTWAIT] * 63, "write 65472", "recv 1023 0", MSG_DONTWAIT, "write 528"],
                 (65472, 528))
    yield usage("help", ("-h", "stats"), code=0)
    yield usage("unknown-command", ("nonsense",), b"Unrecognized command: nonsense\n")
    yield usage("option-error", ("-m8", "stats"), b"Failed to parse recoveryMode: 8\n")
    yield usage("rule-error", ("crawler",), b"UUID must be provided (specify with --uuid)\n")
    yield Scenario("no-daemon", ("-s", "/nonexistent/plaxd.uds", "fix-concats"),
                   [*up_to_sending()[:6], "perror", *RELEASING],
                   stderr=b"connect error: No such file or directory\n", code=1, connections=0)
    yield exchange("standard-input-closed", "fitness-stats-get", 6, frame(0, b"abc"), [], printed, stdout=b"abc\n",
                   closed=(0,), calls=[*moved(0), *receiving(3), "write 3", *PRINTING])
    yield exchange("standard-output-closed", "fitness-stats-get", 6, frame(0, b"abc"), [], printed, code=9,
                   closed=(1,), calls=[*moved(1), *receiving(3), "write 3", *RELEASING])
    yield exchange("standard-error-closed", "what-if-cancel", 18, frame(0), [], checked,
                   closed=(2,), calls=[*moved(2), *receiving(0), *RELEASING])
    yield exchange("payload-not-received", "fitness-stats-get", 6, frame(0, b"abc"), [], printed, stdout=b"\0\0\0\n",
                   given=("recv:2:error:104",), functions=("calloc", "malloc", "write", "putc", "exit-flush"),
                   calls=[*up_to_sending(lengths=[8]), *receiving(3)[:-1], "recv 3 256 = -1 104", "free", "calloc",
                          "write 3", *PRINTING])
    yield Scenario("no-memory", ("stats",), ["calloc = -1 12", "vfprintf 2", "putc 2", "abort"],
                   stderr=PANIC["calloc"], code=-6, connections=0, given=("calloc:1:error:12",),
                   functions=("vfprintf", "putc", "libc-malloc"))


SCENARIOS = list(scenarios())


# ---- What a failure makes of a run: each gets the calls before it, the line that records it, and the calls after. ----

def goes_on(scenario, _failure, before, failed, rest):
    return scenario.outcome(calls=[*before, failed, *rest])


def unbuffered(scenario, failure, before, failed, rest):
    """Without the tool's buffer, standard output has the C library's, which has been written by then when it was full.
    """
    full, left = f"exit-flush {len(help_text())}", f"exit-flush {len(help_text()) - 4096}"
    return goes_on(scenario, failure, before, failed, [left if call == full else call for call in rest])


def sent(scenario, before):
    return b"".join(scenario.wire[:sum(call.startswith("send") for call in before)])


def no_memory(scenario, failure, before, failed, _rest):
    calls = [*before, failed, "vfprintf 2", "putc 2", "abort"]
    return Run(b"", PANIC[failure.function], -6, sent(scenario, before), calls)


def no_connection(what):
    def outcome(_scenario, failure, before, failed, rest):
        closing_it = rest[:1] if failure.function == "fcntl" else []
        calls = [*before, failed, *closing_it, "perror", *RELEASING]
        return Run(b"", what + b": " + failure.text + b"\n", 1, b"", calls)
    return outcome


def sending_fails(scenario, failure, before, failed, rest):
    is_silent = scenario.reply_class == request_table.UNANSWERED or scenario.words[-1] == "stats"
    release = ["free"] if scenario.words[-1] == "set-global-exclusion-list" else []
    stderr = b"" if is_silent else b"Sending command failed: " + failure.text + b"\n"
    calls = [*before, failed, *release, *([] if is_silent else ["vfprintf 2"]), *RELEASING]
    return Run(b"", stderr, failure.number, sent(scenario, before), calls)


def answered(scenario, status, payload, before):
    """The outcome of a framed reply that reads as this status and payload (None: without one)."""
    if status != 0:
        text = b"(null)" if payload is None else payload.split(b"\0")[0]
        stderr = b"Error received: Status 0x%08x: %s\n" % (status, text)
        return Run(b"", stderr, status & 0xff, b"".join(scenario.wire), [*before, "vfprintf 2", "free", *RELEASING])
    if scenario.reply_class == request_table.CHECKED:
        return Run(b"", b"", 0, b"".join(scenario.wire), [*before, *RELEASING])
    payload = payload or b""
    if 1 in scenario.closed:
        return scenario.outcome(calls=[*before, f"write {len(payload)}", *RELEASING])
    return Run(payload + b"\n", b"", 0, b"".join(scenario.wire), [*before, f"write {len(payload)}", *PRINTING])


def receiving_fails(scenario, failure, before, failed, _rest):
    if scenario.reply_class == request_table.STREAMED:
        return stream_fails(scenario, failure, before, failed)
    if failure.call == 1:
        return Run(b"", b"Error received: " + failure.text + b": (null)\n", failure.number, b"".join(scenario.wire),
                   [*before, failed, "vfprintf 2", "free", *RELEASING])
    status, length = struct.unpack(">II", scenario.reply[:8])
    return answered(scenario, status, b"\0" * length, [*before, failed, "free", "calloc"])


def streamed(scenario, content, calls, code=0):
    """The outcome of a stream of which this content came through."""
    output = {"file": content} if scenario.file else {"stdout": content}
    return scenario.outcome(code=code, calls=calls, **output)


def gathered(scenario, before):
    """How much of a stream the calls have read, and how much of that they have not written yet."""
    read = min(len(scenario.reply), 1023 * sum(call.startswith("recv") for call in before))
    return read, read - sum(int(call.split()[1]) for call in before if call.startswith("write"))


def stream_fails(scenario, failure, before, failed):
    read, pending = gathered(scenario, before)
    writing = [f"write {pending}"] if pending else []
    if failed.startswith(MSG_DONTWAIT) and failure.error == "EAGAIN":  # the daemon pauses: what is there is shown first
        after = RELEASING if read == len(scenario.reply) else [...]
        return streamed(scenario, scenario.reply, [*before, failed, *writing, "recv 1023 0", *after])
    return streamed(scenario, scenario.reply[:read], [*before, failed, *writing, *RELEASING], failure.number)


def writing_fails(scenario, failure, before, failed, rest):
    if scenario.reply_class != request_table.STREAMED:
        return scenario.outcome(stdout=b"", code=failure.number, calls=[*before, failed, *RELEASING])
    begin = sum(scenario.chunks[:failure.call - 1])
    end = begin + scenario.chunks[failure.call - 1]
    return streamed(scenario, scenario.reply[:begin] + scenario.reply[end:], [*before, failed, *rest])


def opening_fails(scenario, failure, before, failed, _rest):
    return Run(b"", b"", failure.number, b"".join(scenario.wire), [*before, failed, *RELEASING])


def flushless(calls):
    return [call for call in calls if not call.startswith("exit-flush")]


def newline_fails(scenario, _failure, before, failed, rest):
    """The newline behind a printed reply, or behind the last words of a run without memory."""
    output = {"stderr": scenario.stderr[:-1]} if scenario.code == -6 else {"stdout": scenario.stdout[:-1]}
    return scenario.outcome(calls=flushless([*before, failed, *rest]), **output)


def message_fails(scenario, _failure, before, failed, rest):
    return scenario.outcome(stderr=b"\n" if scenario.code == -6 else b"", calls=[*before, failed, *rest])


def help_fails(scenario, _failure, before, failed, rest):
    return scenario.outcome(stdout=b"", calls=flushless([*before, failed, *rest]))


def flush_fails(scenario, _failure, before, failed, _rest):
    """What printf and putchar have left in the buffer is lost: all of the help text, or the newline behind a reply."""
    kept = b"" if scenario.connections == 0 else scenario.stdout[:-1]
    return scenario.outcome(stdout=kept, calls=[*before, failed])


AFTER = {
    "setvbuf": unbuffered,
    "malloc": no_memory,
    "calloc": no_memory,
    "socket": no_connection(b"socket error"),
    "fcntl": no_connection(b"socket error"),
    "close": goes_on,
    "setsockopt": no_connection(b"set timeout error"),
    "connect": no_connection(b"connect error"),
    "sigaction": goes_on,
    "madvise": goes_on,
    "send": sending_fails,
    "recv": receiving_fails,
    "write": writing_fails,
    "open": opening_fails,
    "printf": help_fails,
    "vfprintf": message_fails,
    "putc": newline_fails,
    "perror": message_fails,
    "exit-flush": flush_fails,
}


def calls_of(scenario, function):
    """The positions of a function's calls in the scenario's run."""
    return [i for i, call in enumerate(scenario.calls) if call.split()[0] == function]


def expected(scenario, failure):
    position = calls_of(scenario, failure.function)[failure.call - 1]
    calls = scenario.calls
    failed = f"{calls[position]} = -1 {failure.number}"
    return AFTER[failure.function](scenario, failure, calls[:position], failed, calls[position + 1:])


def assert_same(outcome, wanted, plan):
    if wanted.calls[-1] is ...:  # what follows depends on how the rest is cut
        known = len(wanted.calls) - 1
        outcome, wanted = replace(outcome, calls=outcome.calls[:known]), replace(wanted, calls=wanted.calls[:known])
    assert outcome == wanted, plan


def assert_fails_as_expected(scenario, failure):
    wanted = expected(scenario, failure)
    if 2 in scenario.closed:
        wanted = replace(wanted, stderr=b"")
    is_connected = any(call.startswith("connect") and "=" not in call for call in wanted.calls)
    assert_same(run(scenario, failure.plan(), scenario.connections if is_connected else 0), wanted, failure.plan())


def inject_into_tool(scenario, function):
    """Makes each call of the function fail with each errno, and one call more, which the run must not make."""
    for call, position in enumerate(calls_of(scenario, function), 1):
        for error in ERRORS_OF[function]:
            assert_fails_as_expected(scenario, Failure(function, call, error))
    beyond = Failure(function, len(calls_of(scenario, function)) + 1, ERRORS_OF[function][0])
    assert run(scenario, beyond.plan()) == scenario.outcome(), beyond.plan()
    return len(calls_of(scenario, function)) * len(ERRORS_OF[function])


def inject_into_c_library(scenario):
    """The C library's own allocations, until there is no n-th: nothing may come of their failure."""
    for call in count(1):
        outcome = run(scenario, f"libc-malloc:{call}:error:12")
        made = [line for line in outcome.calls if not line.startswith("libc-malloc")]
        assert replace(outcome, calls=flushless(made)) == scenario.outcome(calls=flushless(scenario.calls)), call
        if len(made) == len(outcome.calls):
            return call - 1


@pytest.mark.parametrize("scenario", SCENARIOS, ids=lambda scenario: f"{scenario.name}-{scenario.failures}")
def test_every_call_fails(scenario):
    assert run(scenario, "") == scenario.outcome()
    injected = sum(inject_into_tool(scenario, function) for function in scenario.functions if function != "libc-malloc")
    injected += inject_into_c_library(scenario)
    assert injected == scenario.failures


def test_second_json_leaves_the_first_copy_to_the_end_of_the_process():
    once = next(scenario for scenario in SCENARIOS if scenario.name == "fitness-config-set-checked")
    calls = list(once.calls)
    calls.insert(calls.index("malloc"), "malloc")
    twice = replace(once, words=("-j", "{}", *once.words), calls=calls)
    assert run(twice, "") == twice.outcome()


# The zero byte behind a payload counts: its pages are provided from 128 KiB to 4 MiB.
@pytest.mark.parametrize("length, madvise", [(131070, []), (131071, ["madvise 23 0"]), (4194303, ["madvise 23 0"]),
                                             (4194304, [])])
def test_pages_are_provided_up_to_a_limit(length, madvise):
    announced = exchange("announced", "fitness-stats-get", 6, struct.pack(">II", 0, length),
                         ["recv 8 256", "malloc", *madvise, f"recv {length} 256", "free", "vfprintf 2", "write 0",
                          *PRINTING], request_table.PRINTED, stdout=b"\n", stderr=INCOMPLETE)
    assert run(announced, "") == announced.outcome()


# The first chunk's text ends at its zero byte, so that the last one fits in to the byte.
def test_stream_fills_the_buffer_to_its_end():
    filled = stream("filled", b"a" * 64 + b"\0" * 959 + b"b" * 65472,
                    ["recv 1023 0", *[MSG_DONTWAIT] * 64, "write 65536", "recv 1023 0"], (65536,),
                    stdout=b"a" * 64 + b"b" * 65472)
    assert run(filled, "") == filled.outcome()


# ---- Calls that do a part of what they are asked to. ----

def shortened(scenario, line, call, length, before, rest):
    """The outcome when this call is granted no more than the length, which is less than it asks for."""
    function, asked = line.split()[0], int(line.split()[1])
    done = [*before, f"{line} = {length}"]
    if function == "send":  # neither noticed nor repeated
        wire = list(scenario.wire)
        wire[call - 1] = wire[call - 1][:length]
        return scenario.outcome(wire=b"".join(wire), calls=[*done, *rest])
    if scenario.reply_class == request_table.STREAMED:
        return short_stream(scenario, function, asked, length, done, rest)
    if function == "write":  # one write, and the newline behind it all the same
        return scenario.outcome(stdout=scenario.stdout[:length] + b"\n", calls=[*done, *rest])
    if call == 1:  # bytes of the header that never came are zero
        status, announced = struct.unpack(">II", scenario.reply[:length].ljust(8, b"\0"))
        assert announced == 0
        return answered(scenario, status, None, done)
    return replace(answered(scenario, 0, None, [*done, "free", "vfprintf 2"]), stderr=INCOMPLETE)


def short_stream(scenario, function, asked, length, done, rest):
    if function == "write" and length > 0:  # the rest is written by a further call
        return scenario.outcome(calls=[*done, f"write {asked - length}", *rest])
    if function == "recv" and length > 0:  # the rest comes with the next call
        return scenario.outcome(calls=[*done, ...])
    if function == "write":  # an output that takes nothing any more
        return streamed(scenario, b"", [*done, *rest])
    read, pending = gathered(scenario, done[:-1])  # the end of the stream
    return streamed(scenario, scenario.reply[:read], [*done, *([f"write {pending}"] if pending else []), *RELEASING])


def lengths_below(asked):
    return range(asked) if asked <= 16 else (0, 1, 2, asked // 2, asked - 1)


def short_calls(scenario):
    """The calls that can be short, each as its line, its number among the calls of its function, and its position."""
    for function in ("send", "recv", "write"):
        for call, position in enumerate(calls_of(scenario, function), 1):
            yield scenario.calls[position], call, position


def make_short(scenario, line, call, position, length):
    wanted = shortened(scenario, line, call, length, scenario.calls[:position], scenario.calls[position + 1:])
    plan = f"{line.split()[0]}:{call}:short:{length}"
    assert_same(run(scenario, plan), wanted, plan)


SHORTENED = [scenario for scenario in SCENARIOS if scenario.wire and not scenario.given and not scenario.closed
             and scenario.name not in ("printed-large", "long-stream")]


@pytest.mark.parametrize("scenario", SHORTENED, ids=lambda scenario: f"{scenario.name}-{scenario.shorts}")
def test_every_call_is_short(scenario):
    made = 0
    for line, call, position in short_calls(scenario):
        for length in lengths_below(int(line.split()[1])):
            make_short(scenario, line, call, position, length)
            made += 1
    assert made == scenario.shorts


@pytest.mark.parametrize("total", [TOTAL], ids="{0[0]}-failures-{0[1]}-short-calls".format)
def test_total(total):
    """The sum of what the tests above have counted; the test's name tells it."""
    assert sorted(COUNTS) == sorted(scenario.name for scenario in SCENARIOS)
    assert (sum(scenario.failures for scenario in SCENARIOS), sum(scenario.shorts for scenario in SCENARIOS)) == total


def test_every_function_in_use_is_known():
    used = imports(TOOL) | imports(PLATFORM_LIBRARY)
    assert used - HARMLESS - INJECTED - PLATFORM == set()
    assert INJECTED <= {line.split()[-1] for line in subprocess.run(
        ["nm", "-D", "--defined-only", LIBRARY], capture_output=True, check=True, text=True).stdout.splitlines()}


def test_tool_shows_its_messages_through_the_platform_library():
    assert imports(TOOL) & {"stderr", "vfprintf", "__vfprintf_chk", "fputc"} == set()


def test_every_errno_is_used_and_every_function_reached():
    assert set(ERRORS) == {error for errors in ERRORS_OF.values() for error in errors}
    reached = {call.split()[0] for scenario in SCENARIOS for call in scenario.calls}
    assert set(ERRORS_OF) - {"libc-malloc"} <= reached


def test_a_failure_is_noticed():
    """The comparison that all of this rests on can fail."""
    scenario = SCENARIOS[0]
    with pytest.raises(AssertionError):
        assert_same(run(scenario, "sigaction:1:error:22"), scenario.outcome(), "")
    with pytest.raises(AssertionError):
        assert_same(run(scenario, "write:1:error:5"), scenario.outcome(), "")
