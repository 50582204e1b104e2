"""The bytes of every request are the same whatever memory held before.

The C library fills fresh heap memory, and a preloaded library fills the stack below `main` before it runs. Otherwise
most of that memory is zero, and a byte that nobody sets would go unnoticed.
"""

import os
import subprocess

import pytest

from binaries import is_sanitized
from harness import RUNNER, TOOL, ScriptedDaemon, frame, tool
from request_table import ROWS, name

# A compiler for the host that the tool was built for.
COMPILER = os.environ.get("PLAX_TOOL_CC", "cc")

# sigaction, the last library call before the request is built, fills the stack again. The caller's struct, mostly zero
# and unused after the call, is filled as well.
FILL_STACK = """
#define _GNU_SOURCE
#include <alloca.h>
#include <dlfcn.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>

static void Fill(void *memory, size_t size)
{
    memset(memory, (int)strtoul(getenv("STACK_FILL"), NULL, 10), size);
    __asm__ volatile("" : : "r"(memory) : "memory");
}

__attribute__((constructor)) static void FillStack(void)
{
    Fill(alloca(2 << 20), 2 << 20);
}

int sigaction(int number, const struct sigaction *action, struct sigaction *old)
{
    int (*next)(int, const struct sigaction *, struct sigaction *) = dlsym(RTLD_NEXT, "sigaction");
    int result = next(number, action, old);
    if (old != NULL) {
        Fill((void *)action, sizeof *action);
    }
    FillStack();
    return result;
}
"""

# Prints 64 fresh bytes of heap, and 64 bytes deep in the stack.
SHOW_FRESH_MEMORY = """
#include <stdlib.h>
#include <unistd.h>
int main(void)
{
    char deep[1 << 20];
    __asm__ volatile("" : : "r"(deep) : "memory");
    char *fresh = malloc(64);
    __asm__ volatile("" : : "r"(fresh) : "memory");
    return write(1, fresh, 64) != 64 || write(1, deep, 64) != 64;
}
"""


def compiled(directory, source, target, *flags):
    path = directory / target
    subprocess.run([COMPILER, "-O1", "-w", "-x", "c", "-", "-o", path, *flags], input=source.encode(), check=True)
    return path


@pytest.fixture(scope="session")
def stack_filler(tmp_path_factory):
    return compiled(tmp_path_factory.mktemp("filler"), FILL_STACK, "fill_stack.so", "-shared", "-fPIC")


def poison(stack_filler, perturb, stack):
    preload = f"LD_PRELOAD={stack_filler}"
    # An emulator passes the preload on to the program that it runs, as it cannot load the library itself.
    variable, value = ("QEMU_SET_ENV", preload) if RUNNER else preload.split("=")
    return {"MALLOC_PERTURB_": perturb, "STACK_FILL": stack, variable: value}


# The C library fills fresh memory with the complement of MALLOC_PERTURB_.
FILLS = {"165": b"\x5a", "90": b"\xa5"}


@pytest.mark.parametrize("perturb, stack", [("165", "90"), ("90", "165")])
def test_memory_is_poisoned(stack_filler, tmp_path, perturb, stack):
    show = compiled(tmp_path, SHOW_FRESH_MEMORY, "show")
    found = subprocess.run([*RUNNER, show], env={**os.environ, **poison(stack_filler, perturb, stack)}, check=True,
                           stdout=subprocess.PIPE).stdout
    assert found == FILLS[perturb] * 128


@pytest.mark.skipif(is_sanitized(TOOL), reason="its memory is the sanitizer's, which must be loaded first")
@pytest.mark.parametrize("perturb, stack", [("165", "90"), ("90", "165")])
@pytest.mark.parametrize("row", ROWS, ids=name)
def test_request_bytes_do_not_depend_on_memory(stack_filler, row, perturb, stack):
    for words, payload in ((row.least, row.least_payload), (row.full, row.full_payload)):
        with ScriptedDaemon() as plaxd:
            run = tool("-s", plaxd.path, *words, env=poison(stack_filler, perturb, stack))
        assert (run.stderr, run.code) == (b"", 0)
        assert plaxd.received == frame(row.code, payload)
