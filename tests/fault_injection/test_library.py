"""Tests the fault-injection library: planned calls fail as planned, all others succeed, and every call is recorded."""

import os
import subprocess

import pytest

LIBRARY = os.environ["PLAX_FAULT_INJECTION"]
PROBE = os.environ["PLAX_FAULT_PROBE"]


def probe(*calls, plan="", **environment):
    """Runs the probe. Returns its exit status, its standard output, its report of the calls, and the library's record."""
    with open(os.memfd_create("record"), "r+b") as record:
        run = subprocess.run([PROBE, *calls], capture_output=True, pass_fds=[record.fileno()], timeout=30, check=False,
                             env={"LD_PRELOAD": LIBRARY, "PLAX_FAULT_LOG": str(record.fileno()),
                                  "PLAX_FAULT_PLAN": plan, **environment})
        record.seek(0)
        return run.returncode, run.stdout, run.stderr.decode(), record.read().decode()


# The result and the record of each call: of one that succeeds, and of one that fails with errno 5. The probe frees all
# memory that it gets.
CALLS = [
    ("malloc", "1 0", "malloc{}\nfree\n", "0 5"),
    ("calloc", "1 0", "calloc{}\nfree\n", "0 5"),
    ("socket", "0 0", "socket 1 1 0{}\n", "-1 5"),
    ("setsockopt", "0 0", "setsockopt 1 20 7 8{}\n", "-1 5"),
    ("connect", "-1 2", "connect 110{}\n", "-1 5"),
    ("fcntl", "200 0", "fcntl 100 0 200{}\n", "-1 5"),
    ("close", "0 0", "close 101{}\n", "-1 5"),
    ("sigaction", "0 0", "sigaction 13{}\n", "-1 5"),
    ("send", "10 0", "send 10 16384{}\n", "-1 5"),
    ("recv", "-1 11", "recv 10 64{}\n", "-1 5"),
    ("write", "10 0", "write 10{}\n", "-1 5"),
    ("open", "0 0", "open 65 640{}\n", "-1 5"),
    ("printf", "7 0", "printf{}\n", "-1 5"),
    ("vfprintf", "8 0", "vfprintf 1{}\n", "-1 5"),
    ("putc", "120 0", "putc 1{}\n", "-1 5"),
    ("setvbuf", "0 0", "setvbuf 1{}\n", "-1 5"),
]
OUTPUT = {"write": b"0123456789", "printf": b"3 words", "vfprintf": b"3 values", "putc": b"x"}
PENDING = {"printf": "exit-flush 7\n", "vfprintf": "exit-flush 8\n", "putc": "exit-flush 1\n"}


@pytest.mark.parametrize("call, result, record, _failed", CALLS, ids=[row[0] for row in CALLS])
def test_call_goes_through(call, result, record, _failed):
    assert probe(call) == (0, OUTPUT.get(call, b""), f"{call} {result}\n", record.format("") + PENDING.get(call, ""))


@pytest.mark.parametrize("call, _result, record, failed", CALLS, ids=[row[0] for row in CALLS])
def test_call_fails(call, _result, record, failed):
    assert probe(call, plan=f"{call}:1:error:5") == (0, b"", f"{call} {failed}\n", record.format(" = -1 5"))


@pytest.mark.parametrize("call, result, record, failed", CALLS, ids=[row[0] for row in CALLS])
def test_only_the_chosen_call_fails(call, result, record, failed):
    code, _, told, recorded = probe(call, "sigaction", call, plan=f"{call}:2:error:5")
    if call == "sigaction":
        assert told == "sigaction 0 0\nsigaction -1 5\nsigaction 0 0\n"
    else:
        assert told == f"{call} {result}\nsigaction 0 0\n{call} {failed}\n"
    assert (code, recorded.count(" = "), record.format(" = -1 5") in recorded) == (0, 1, True)


def test_perror():
    code, _, told, record = probe("perror")
    assert (code, told.splitlines()[0], record) == (0, "words: No such file or directory", "perror\n")
    assert probe("perror", plan="perror:1:error:5") == (0, b"", "perror 0 5\n", "perror = -1 5\n")


@pytest.mark.parametrize("length", [0, 1, 9])
def test_short_calls(length):
    plan = f"send:1:short:{length},recv:2:short:{length},write:1:short:{length}"
    told = f"send {length} 131\nsend 10 0\nrecv 10 0\nrecv {length} 131\nwrite {length} 131\nwrite 10 0\n"
    record = (f"send 10 16384 = {length}\nsend 10 16384\nrecv 10 64\nrecv 10 64 = {length}\n"
              f"write 10 = {length}\nwrite 10\n")
    if length == 0:  # receiving 0 bytes is no error, as none were requested
        assert probe("send", "send", "recv", "recv", "write", "write", plan=plan)[3] == record
    else:
        assert probe("send", "send", "recv", "recv", "write", "write", plan=plan) == (
            0, b"0123456789"[:length] + b"0123456789", told, record)


def test_short_call_is_never_longer_than_asked():
    assert probe("write", plan="write:1:short:11") == (0, b"0123456789", "write 10 131\n", "write 10 = 11\n")


@pytest.mark.parametrize("error", [4, 11, 28, 32])
def test_flush_at_exit_fails(error):
    assert probe("printf", plan=f"exit-flush:1:error:{error}") == (
        0, b"", "printf 7 0\n", f"printf\nexit-flush 7 = -1 {error}\n")


def test_nothing_to_flush_at_exit():
    assert probe("write", plan="exit-flush:1:error:5") == (0, b"0123456789", "write 10 0\n", "write 10\n")


def test_allocations_of_the_c_library_are_counted_apart():
    # The C library allocates the buffer of standard output. Without it, every character is written separately.
    assert probe("printf", plan="libc-malloc:1:error:12") == (
        0, b"3 words", "printf 7 12\n", "printf\nlibc-malloc = -1 12\n")
    # The probe's own call does not count. Some versions of the C library allocate later, for the probe's message.
    *told, recorded = probe("malloc", plan="libc-malloc:1:error:12")
    assert told == [0, b"", "malloc 1 0\n"]
    assert recorded in ("malloc\nfree\n", "malloc\nfree\nlibc-malloc = -1 12\n")


def test_abort_is_recorded():
    assert probe("no such call") == (-6, b"", "", "abort\n")


def test_awaits_the_last_word():
    # The peer has closed before recv is called, so recv does not wait, and all bytes are there.
    assert probe("send", "close", "recv", PLAX_FAULT_AWAIT="1")[2] == "send 10 0\nclose 0 0\nrecv 10 0\n"


@pytest.mark.parametrize("plan", [
    "send", "send:1", "send:1:error", "send:1:error:x", "send:1:wrong:5", "nothing:1:error:5", "send:1:error:5;",
    "send:1:error:5,recv", ",".join(["send:1:error:5"] * 9),
])
def test_unreadable_plan(plan):
    code, stdout, told, record = probe("send", plan=plan)
    assert (code, stdout, record) == (99, b"", "")
    assert told.startswith("fault injection: cannot carry out ")
