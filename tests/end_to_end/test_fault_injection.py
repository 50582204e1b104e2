"""Makes every call of the C library in a run fail once, with every errno of that function.

A preloaded library records the calls of a run without failures, then makes each of them fail in turn. Each run must
match in full: standard output, standard error, exit code, output file, and the bytes that the daemon received. There is
a run for each command and reply class, and for other ends: error replies, usage errors, the help text, closed standard
descriptors, no daemon. The tests do not prescribe which calls a run makes.

Preloading cannot reach the calls that the C library makes itself, except its allocations and the flush at exit.
Functions that only compute, such as strtoul, have no failure to inject: HARMLESS lists them. Add every new function
that the tool uses to HARMLESS or to ERRORS_OF.
"""

import os
import struct
import subprocess
from dataclasses import dataclass, replace
from functools import cache
from itertools import count

import pytest

import request_table
from binaries import PLATFORM_LIBRARY, imports
from command_line import INCOMPLETE, USAGE, cut_listing
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
}

# The errnos in each function's manual page, and in unix(7) for sockets. The pages of the output functions list none:
# these functions fail when their write(2) does.
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
    "printf": WRITE_ERRORS,
    "vfprintf": WRITE_ERRORS,
    "putc": WRITE_ERRORS,
    "perror": WRITE_ERRORS,
    "exit-flush": WRITE_ERRORS,
}

# Symbols of the C library without a failure to inject: they compute, release memory, or end the run.
HARMLESS = set("""
    __errno_location __isoc23_sscanf __isoc23_strtoul __isoc99_sscanf __libc_start_main __memcpy_chk __memset_chk
    __snprintf_chk __stack_chk_fail __strlen_chk abort free getopt_long htonl memcmp memcpy memmove memset ntohl
    optarg optind snprintf sscanf stderr stdout strcmp strerror strlen strnlen strtoul""".split())
# The symbols of the functions in ERRORS_OF.
INJECTED = set("""
    __printf_chk __vfprintf_chk calloc close connect fcntl fcntl64 fputc malloc open open64 perror printf putc
    putchar recv send setsockopt setvbuf sigaction socket vfprintf write""".split())
PLATFORM = {"Panic", "QRT_ReturnStatusToString", "UtilSafeStrdup0", "Warning"}

PANIC = {
    "malloc": b"PLAX_SafeMalloc:2888: Failed to allocate new memory\n",
    "calloc": b"PLAX_SafeCalloc:2898: Failed to allocate new memory\n",
}
MSG_DONTWAIT = "64"


@dataclass(frozen=True)
class Run:
    """The outcome of a run."""
    stdout: bytes
    stderr: bytes
    code: int
    wire: bytes
    file: bytes = b""  # the content of the output file


@dataclass(frozen=True)
class Scenario:
    """A run without failures."""
    name: str
    words: tuple
    reply: bytes = b""
    wire: tuple = ()  # the bytes of each send
    stdout: bytes = b""
    stderr: bytes = b""
    code: int = 0
    file: bytes = b""
    reply_class: str = ""
    given: tuple = ()  # failures that are part of the scenario
    closed: tuple = ()  # standard descriptors that the caller has closed
    functions: tuple = tuple(ERRORS_OF)
    connections: int = 1

    def outcome(self, **changes):
        return replace(Run(self.stdout, self.stderr, self.code, b"".join(self.wire), self.file), **changes)


@dataclass(frozen=True)
class Failure:
    """One call that fails."""
    function: str
    call: int  # 1 is the first call of the function
    error: str
    line: str = ""  # the call as it is recorded
    before: tuple = ()  # the run's calls up to this one

    @property
    def number(self):
        return ERRORS[self.error][0]

    @property
    def text(self):
        return ERRORS[self.error][1]

    def plan(self):
        return f"{self.function}:{self.call}:error:{self.number}"


def say(data):
    """A step that sends the bytes, if the tool has not closed the connection, and reads the request in either case."""
    def step(daemon):
        try:
            daemon.connection.sendall(data)
        except OSError:
            pass
    return step


def run(scenario, plan, connections=None):
    """Runs the scenario with the planned failures. Returns the outcome and the record of its calls.

    The daemon sends its reply first, and reads until the tool ends.
    """
    connections = scenario.connections if connections is None else connections
    with open(os.memfd_create("calls"), "r+b") as log:
        with ScriptedDaemon(say(scenario.reply), read_request=False, connections=connections) as plaxd:
            path = os.path.join(plaxd.directory, "output")
            words = [path if word == "OUTPUT" else word for word in scenario.words]
            outcome = tool("-s", plaxd.path, *words, pass_fds=[log.fileno()], preexec_fn=closing(scenario.closed), env={
                "LD_PRELOAD": LIBRARY, "PLAX_FAULT_LOG": str(log.fileno()), "PLAX_FAULT_AWAIT": "1",
                "PLAX_FAULT_PLAN": ",".join([plan, *scenario.given] if plan else scenario.given)})
            content = open(path, "rb").read() if os.path.exists(path) else b""
        log.seek(0)
        calls = log.read().decode().splitlines()
    return Run(cut_listing(outcome.stdout), outcome.stderr, outcome.code, plaxd.received, content), calls


def closing(descriptors):
    if not descriptors:
        return None
    def close_them():
        for descriptor in descriptors:
            os.close(descriptor)
    return close_them


@cache
def calls_of(scenario):
    """The calls of the scenario's run, which must have the expected outcome."""
    outcome, calls = run(scenario, "")
    assert outcome == scenario.outcome()
    return calls


def calls_to(scenario, *functions):
    """The run's calls of these functions: line, number among the calls of that function, and all calls before."""
    counts = dict.fromkeys(functions, 0)
    for position, line in enumerate(calls_of(scenario)):
        function = line.split()[0]
        if function in counts:
            counts[function] += 1
            yield line, counts[function], tuple(calls_of(scenario)[:position])


# ---- The runs without failures. ----

ANSWERS = {
    request_table.PRINTED: (frame(0, b"abc"), b"abc\n"),
    request_table.CHECKED: (frame(0, b"ok"), b""),
    request_table.UNANSWERED: (b"", b""),
    request_table.STREAMED: (b"abc\ndef\n", b"abc\ndef\n"),
}


def of_row(row):
    """The scenario of a command."""
    reply, stdout = ANSWERS[row.reply]
    wire = (struct.pack(">II", row.code, len(row.least_payload)), row.least_payload)[:2 if row.least_payload else 1]
    return Scenario(request_table.name(row), row.least, reply, wire, stdout, reply_class=row.reply)


def exchange(name, word, number, reply, reply_class, **more):
    """The scenario of a command without payload."""
    more = {"words": (word,), **more}
    return Scenario(name, reply=reply, wire=(struct.pack(">II", number, 0),), reply_class=reply_class, **more)


def printed(name, reply, **more):
    return exchange(name, "fitness-stats-get", 6, reply, request_table.PRINTED, **more)


def checked(name, reply, **more):
    return exchange(name, "what-if-cancel", 18, reply, request_table.CHECKED, **more)


def stream(name, reply, **more):
    return exchange(name, "stats", 1, reply, request_table.STREAMED, **{"stdout": reply, **more})


def usage(name, words, stderr=b"", code=1):
    return Scenario(name, words, stdout=USAGE, stderr=stderr, code=code, connections=0)


ERROR_STATUS = 0x01020305
BUSY = b"Error received: Status 0x01020305: busy\n"
LONG = b"0123456789abcdef" * 4125  # 66000 bytes: more than the tool buffers

SCENARIOS = [
    *map(of_row, request_table.ROWS),
    printed("printed-empty", frame(0), stdout=b"\n"),
    printed("printed-error", frame(ERROR_STATUS, b"busy"), stderr=BUSY, code=5),
    checked("checked-error", frame(ERROR_STATUS, b"busy"), stderr=BUSY, code=5),
    checked("checked-error-unexplained", frame(ERROR_STATUS), stderr=BUSY.replace(b"busy", b"(null)"), code=5),
    printed("printed-incomplete", struct.pack(">II", 0, 10) + b"abcd", stdout=b"\n", stderr=INCOMPLETE),
    checked("checked-incomplete", struct.pack(">II", ERROR_STATUS, 10) + b"abcd", stderr=INCOMPLETE),
    stream("stream-empty", b""),
    stream("stream-of-two-chunks", LONG[:1500]),
    stream("stream-to-file", b"abc", words=("-o", "OUTPUT", "stats"), stdout=b"", file=b"abc"),
    stream("long-stream", LONG),
    usage("help", ("-h", "stats"), code=0),
    usage("unknown-command", ("nonsense",), b"Unrecognized command: nonsense\n"),
    usage("option-error", ("-m8", "stats"), b"Failed to parse recoveryMode: 8\n"),
    usage("rule-error", ("crawler",), b"UUID must be provided (specify with --uuid)\n"),
    Scenario("no-daemon", ("-s", "/nonexistent/plaxd.uds", "fix-concats"), code=1, connections=0,
             stderr=b"connect error: No such file or directory\n"),
    printed("standard-input-closed", frame(0, b"abc"), stdout=b"abc\n", closed=(0,)),
    printed("standard-output-closed", frame(0, b"abc"), code=9, closed=(1,)),
    checked("standard-error-closed", frame(0), closed=(2,)),
    printed("payload-not-received", frame(0, b"abc"), stdout=b"\0\0\0\n", given=("recv:2:error:104",),
            functions=("calloc", "malloc", "write", "putc", "exit-flush")),
    Scenario("no-memory", ("stats",), stderr=PANIC["calloc"], code=-6, connections=0, given=("calloc:1:error:12",),
             functions=("vfprintf", "putc", "libc-malloc")),
]


# ---- The outcome of a failure ----

def nothing_changes(scenario, _failure):
    return scenario.outcome()


def sent(scenario, before):
    return b"".join(scenario.wire[:sum(call.startswith("send") for call in before)])


def no_memory(scenario, failure):
    return Run(b"", PANIC[failure.function], -6, sent(scenario, failure.before))


def no_connection(what):
    return lambda _scenario, failure: Run(b"", what + b": " + failure.text + b"\n", 1, b"")


def sending_fails(scenario, failure):
    is_silent = scenario.reply_class == request_table.UNANSWERED or scenario.words[-1] == "stats"
    stderr = b"" if is_silent else b"Sending command failed: " + failure.text + b"\n"
    return Run(b"", stderr, failure.number, sent(scenario, failure.before))


def answered(scenario, status, payload):
    """The outcome of a framed reply with this status and payload (None: no payload)."""
    if status != 0:
        text = b"(null)" if payload is None else payload.split(b"\0")[0]
        return Run(b"", b"Error received: Status 0x%08x: %s\n" % (status, text), status & 0xff, b"".join(scenario.wire))
    if scenario.reply_class == request_table.CHECKED:
        return Run(b"", b"", 0, b"".join(scenario.wire))
    if 1 in scenario.closed:
        return scenario.outcome()
    return Run((payload or b"") + b"\n", b"", 0, b"".join(scenario.wire))


def receiving_fails(scenario, failure):
    if scenario.reply_class == request_table.STREAMED:
        return stream_fails(scenario, failure)
    if failure.call == 1:
        return Run(b"", b"Error received: " + failure.text + b": (null)\n", failure.number, b"".join(scenario.wire))
    status, length = struct.unpack(">II", scenario.reply[:8])
    return answered(scenario, status, b"\0" * length)


def streamed(scenario, content, code=0):
    """The outcome of a stream of which this content was received."""
    return scenario.outcome(code=code, **{"file" if scenario.file else "stdout": content})


def text_read(scenario, before):
    """The length of the stream that these calls have read."""
    return min(len(scenario.reply), sum(int(call.split()[1]) for call in before if call.startswith("recv")))


def stream_fails(scenario, failure):
    may_wait = failure.line.split()[2] != MSG_DONTWAIT
    if failure.error == "EAGAIN" and not may_wait:  # the daemon pauses; a later call reads the rest
        return scenario.outcome()
    return streamed(scenario, scenario.reply[:text_read(scenario, failure.before)], failure.number)


def text_written(calls):
    return sum(int(call.split()[1]) for call in calls if call.startswith("write"))


def writing_fails(scenario, failure):
    if scenario.reply_class != request_table.STREAMED:
        return scenario.outcome(stdout=b"", code=failure.number)
    begin, end = text_written(failure.before), text_written([*failure.before, failure.line])
    return streamed(scenario, scenario.reply[:begin] + scenario.reply[end:])


def opening_fails(scenario, failure):
    return Run(b"", b"", failure.number, b"".join(scenario.wire))


def newline_fails(scenario, _failure):
    """Fails the newline after a printed reply, or after the message of a run without memory."""
    return scenario.outcome(**({"stderr": scenario.stderr[:-1]} if scenario.code == -6
                               else {"stdout": scenario.stdout[:-1]}))


def message_fails(scenario, _failure):
    return scenario.outcome(stderr=b"\n" if scenario.code == -6 else b"")


def help_fails(scenario, _failure):
    return scenario.outcome(stdout=b"")


def flush_fails(scenario, _failure):
    """The buffer of printf and putchar is lost: the whole help text, or the newline after a reply."""
    return scenario.outcome(stdout=b"" if scenario.connections == 0 else scenario.stdout[:-1])


AFTER = {
    "setvbuf": nothing_changes,
    "malloc": no_memory,
    "calloc": no_memory,
    "socket": no_connection(b"socket error"),
    "fcntl": no_connection(b"socket error"),
    "close": nothing_changes,
    "setsockopt": no_connection(b"set timeout error"),
    "connect": no_connection(b"connect error"),
    "sigaction": nothing_changes,
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


def assert_fails_as_expected(scenario, failure):
    wanted = AFTER[failure.function](scenario, failure)
    if 2 in scenario.closed:
        wanted = replace(wanted, stderr=b"")
    has_connected = any(call.startswith("connect") for call in failure.before)
    connections = scenario.connections if has_connected or wanted.code == scenario.code else 0
    outcome, calls = run(scenario, failure.plan(), connections)
    assert outcome == wanted, failure.plan()
    assert f"{failure.line} = -1 {failure.number}" in calls, failure.plan()


def inject_into_tool(scenario):
    """Makes each call fail with each errno. Returns the number of failures."""
    failures = [Failure(line.split()[0], call, error, line, before)
                for line, call, before in calls_to(scenario, *scenario.functions)
                for error in ERRORS_OF[line.split()[0]]]
    for failure in failures:
        assert_fails_as_expected(scenario, failure)
    return len(failures)


def inject_into_c_library(scenario):
    """Makes the C library's own allocations fail, one per run, which must not change the outcome."""
    for call in count(1):
        outcome, calls = run(scenario, f"libc-malloc:{call}:error:12")
        assert outcome == scenario.outcome(), call
        if not any(line.startswith("libc-malloc") for line in calls):
            return


def named(scenario):
    return scenario.name


@pytest.mark.parametrize("scenario", SCENARIOS, ids=named)
def test_every_call_fails(scenario):
    assert inject_into_tool(scenario) > 0
    if "libc-malloc" in scenario.functions:
        inject_into_c_library(scenario)


# ---- Short calls ----

def shortened(scenario, line, call, length, before):
    """The outcome when this call transfers only `length` bytes, fewer than requested."""
    function = line.split()[0]
    if function == "send":  # neither noticed nor repeated
        wire = list(scenario.wire)
        wire[call - 1] = wire[call - 1][:length]
        return scenario.outcome(wire=b"".join(wire))
    if scenario.reply_class == request_table.STREAMED:
        return short_stream(scenario, function, length, before)
    if function == "write":  # a single write, and the newline in any case
        return scenario.outcome(stdout=scenario.stdout[:length] + b"\n")
    if call == 1:  # missing bytes of the header are zero
        status, announced = struct.unpack(">II", scenario.reply[:length].ljust(8, b"\0"))
        assert announced == 0
        return answered(scenario, status, None)
    return replace(answered(scenario, 0, None), stderr=INCOMPLETE)


def short_stream(scenario, function, length, before):
    if length > 0:  # a further call transfers the rest
        return scenario.outcome()
    if function == "write":  # the output accepts no more bytes
        return streamed(scenario, b"")
    return streamed(scenario, scenario.reply[:text_read(scenario, before)])  # the end of the stream


def lengths_below(asked):
    return range(asked) if asked <= 16 else (0, 1, 2, asked // 2, asked - 1)


SHORTENED = [scenario for scenario in SCENARIOS if scenario.wire and not scenario.given and not scenario.closed
             and scenario.name != "long-stream"]


@pytest.mark.parametrize("scenario", SHORTENED, ids=named)
def test_every_call_is_short(scenario):
    plans = [(line, call, length, before) for line, call, before in calls_to(scenario, "send", "recv", "write")
             for length in lengths_below(int(line.split()[1]))]
    assert plans
    for line, call, length, before in plans:
        outcome, calls = run(scenario, f"{line.split()[0]}:{call}:short:{length}")
        assert outcome == shortened(scenario, line, call, length, before), (line, length)
        assert f"{line} = {length}" in calls


# ---- Properties that no outcome shows ----

def lines_of(scenario, *functions):
    return [line for line, _, _ in calls_to(scenario, *functions)]


# Also in runs that do not use them, such as for the help text.
@pytest.mark.parametrize("scenario", [scenario for scenario in SCENARIOS if scenario.code >= 0], ids=named)
def test_list_buffers_come_first_and_go_last(scenario):
    calls = [call for call in calls_of(scenario) if not call.startswith("exit-flush")]
    assert (calls[0], calls[-1]) == ("calloc", "free")


@pytest.mark.parametrize("row", request_table.ROWS, ids=request_table.name)
def test_receive_timeout_is_the_only_option_of_the_socket(row):
    assert lines_of(of_row(row), "setsockopt") == [f"setsockopt 1 20 {row.timeout} 0"]


@pytest.mark.parametrize("row", request_table.rows_of(request_table.UNANSWERED), ids=request_table.name)
def test_nothing_is_asked_of_the_daemon_after_a_request_without_answer(row):
    *_, (_, _, before) = calls_to(of_row(row), "send")
    assert set(calls_of(of_row(row))[len(before) + 1:]) == {"free"}


def test_output_file_is_created_with_all_permissions_of_the_mask():
    assert [lines_of(scenario, "open") for scenario in SCENARIOS if scenario.file] == [["open 577 666"]]


def test_second_json_leaves_the_first_copy_to_the_end_of_the_process():
    once = next(scenario for scenario in SCENARIOS if scenario.name == "fitness-config-set-checked")
    twice = replace(once, words=("-j", "{}", *once.words))
    assert lines_of(twice, "malloc") == lines_of(once, "malloc") + ["malloc"]
    assert calls_of(twice).count("free") == calls_of(once).count("free")


# A zero byte cuts the first chunk to a length with which the last one fills the buffer exactly.
def test_stream_fills_the_buffer_to_its_end():
    filled = stream("filled", b"a" * 64 + b"\0" * 959 + b"b" * 65472, stdout=b"a" * 64 + b"b" * 65472)
    assert lines_of(filled, "write") == ["write 65536"]


def test_every_function_in_use_is_known():
    used = imports(TOOL) | imports(PLATFORM_LIBRARY)
    assert used - HARMLESS - INJECTED - PLATFORM == set()
    assert INJECTED <= {line.split()[-1] for line in subprocess.run(
        ["nm", "-D", "--defined-only", LIBRARY], capture_output=True, check=True, text=True).stdout.splitlines()}


def test_tool_shows_its_messages_through_the_platform_library():
    assert imports(TOOL) & {"stderr", "vfprintf", "__vfprintf_chk", "fputc"} == set()


def test_every_errno_is_used_and_every_function_reached():
    assert set(ERRORS) == {error for errors in ERRORS_OF.values() for error in errors}
    reached = {call.split()[0] for scenario in SCENARIOS for call in calls_of(scenario)}
    assert set(ERRORS_OF) - {"libc-malloc"} <= reached


def test_a_failure_is_noticed():
    """Two changed outcomes must compare unequal: the comparison can fail."""
    stats = SCENARIOS[0]
    for plan in ("send:1:short:3", "write:1:error:5"):
        assert run(stats, plan)[0] != stats.outcome()
