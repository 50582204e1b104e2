#!/usr/bin/python3
"""Changes the tool's source in one place at a time and checks that the tests notice.

usage: mutate.py SOURCE_DIRECTORY WORK_DIRECTORY [--jobs N] [--only FILE]

Each mutant is built in a copy of the tree in WORK_DIRECTORY and tested there, with the quickest tests first. A mutant
that does not compile or that fails a test is killed. Survivors are printed with their places, for a person to judge:
either they behave like the original, or a test is missing. The last line is killed / made.
"""

import argparse
import concurrent.futures
import os
import pathlib
import queue
import re
import shutil
import signal
import subprocess
import sys

LAYERS = ("include", "cli", "link", "requests", "platform")
BUILD_LIMIT = 300  # seconds
TEST_LIMIT = 120
QUICK_TESTS = ("tables_agree", "run", "help", "callback_block", "requests", "rules", "poisoned_memory", "descriptors",
               "streams", "exchange", "options")
WAITING_TESTS = ("completions", "fault_injection", "timeouts")

# Pattern and replacements: every match in a line of code makes a mutant for each replacement.
REPLACEMENTS = [
    (r" == ", [" != "]),
    (r" != ", [" == "]),
    (r" < (?!0\b|-)", [" <= "]),
    (r" < ", [" >= "]),
    (r" > ", [" >= ", " <= "]),
    (r" >= ", [" > ", " < "]),
    (r" <= ", [" < ", " > "]),
    (r" && ", [" || "]),
    (r" \|\| ", [" && "]),
    (r" \+ ", [" - "]),
    (r" - ", [" + "]),
    (r" % ", [" / "]),
    (r" / ", [" * "]),
    (r" \* (?=\d)", [" + "]),
    (r" >> ", [" << "]),
    (r" & ", [" | "]),
    (r" \| ", [" & "]),
    (r" \+= ", [" -= ", " = "]),
    (r"\+\+", ["--"]),
    (r"if \(", ["if (!"]),
    (r"\btrue\b", ["false"]),
    (r"\bfalse\b", ["true"]),
    (r"\bmet \? nullptr : message", ["met ? message : nullptr"]),
]
NUMBER = re.compile(r"(?<![\w.\"'%])(?:0x[0-9a-f]+|\d+)(?![\w.\"'])")
TABLE_ROW = re.compile(r"^\s*\{.*\},$")
STATEMENT = re.compile(r"^\s+(?!return|const |static |case |break|else|if|for|while|auto |\}|[A-Z]\w+ \w+\{)[\w*:>\-(\[\].+]+.*;$")


def code_lines(lines):
    """Yields the positions of code lines: no comments, includes or static assertions."""
    for position, line in enumerate(lines):
        text = line.strip()
        if text and not text.startswith(("//", "#", "static_assert", "template", "using ")):
            yield position


def negate(line, start, end, replacement):
    """Negates the condition of an `if`."""
    if replacement != "if (!":
        return line[:start] + replacement + line[end:]
    depth = 1
    for position in range(end, len(line)):
        depth += {"(": 1, ")": -1}.get(line[position], 0)
        if depth == 0:
            return f"{line[:start]}if (!({line[end:position]})){line[position + 1:]}"
    return None


def mutants_of_line(line):
    """Yields every changed form of one line; None removes the line."""
    code = line.split(" // ")[0]
    outside_text = re.sub(r'"(?:[^"\\]|\\.)*"', lambda text: "\0" * len(text.group()), code)
    for pattern, replacements in REPLACEMENTS:
        for match in re.finditer(pattern, outside_text):
            for replacement in replacements:
                changed = negate(line, match.start(), match.end(), replacement)
                if changed is not None:
                    yield changed
    for match in NUMBER.finditer(outside_text):
        yield f"{line[:match.start()]}({match.group()} + 1){line[match.end():]}"
    for match in re.finditer(r'"((?:[^"\\]|\\.)+)"', code):
        yield f'{line[:match.start()]}"~{match.group(1)}"{line[match.end():]}'
    if STATEMENT.match(code):
        yield None


def mutants_of_file(text):
    """Yields (line number, description, new text) for each mutant of a file."""
    lines = text.splitlines()
    for position in code_lines(lines):
        for changed in mutants_of_line(lines[position]):
            kept = [] if changed is None else [changed]
            what = f"without {lines[position].strip()}" if changed is None else changed.strip()
            yield position + 1, what, "\n".join(lines[:position] + kept + lines[position + 1:]) + "\n"
        following = lines[position + 1:position + 2]
        if following and TABLE_ROW.match(lines[position]) and TABLE_ROW.match(following[0]):
            swapped = lines[:position] + [following[0], lines[position]] + lines[position + 2:]
            yield position + 1, f"swapped with the next: {lines[position].strip()}", "\n".join(swapped) + "\n"


def succeeds(command, limit, **options):
    """Runs a command in its own process group, and ends the group afterwards."""
    process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True,
                               **options)
    try:
        return process.wait(limit) == 0
    except subprocess.TimeoutExpired:
        return False
    finally:
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        process.wait()


class Tree:
    """A copy of the tree and its build, for one mutant at a time."""

    def __init__(self, source, directory):
        self.source = directory / "tree"
        self.build = directory / "build"
        shutil.rmtree(directory, ignore_errors=True)
        shutil.copytree(source, self.source, ignore=shutil.ignore_patterns("build", ".git"))
        configure = ["cmake", "-S", self.source, "-B", self.build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
                     "-DBUILD_TESTING=ON", "-DPLAX_BUILD_STANDIN=OFF", "-DCMAKE_COMPILE_WARNING_AS_ERROR=ON"]
        if not succeeds(configure, BUILD_LIMIT) or not self._passes():
            sys.exit("the tree as it is does not build, or does not pass its own tests")

    def survives(self, name, text):
        """Whether the tests pass with `text` in the file `name`. Restores the file."""
        path = self.source / name
        original = path.read_text()
        path.write_text(text)
        try:
            return self._passes()
        finally:
            path.write_text(original)

    def _passes(self):
        return (self._builds("plax-tool", "completions", "hangup", "fault-injection") and self._pytest(QUICK_TESTS)
                and self._builds("unit-tests") and succeeds([self.build / "bin" / "unit-tests"], TEST_LIMIT)
                and self._pytest(WAITING_TESTS))

    def _builds(self, *targets):
        return succeeds(["cmake", "--build", self.build, "--target", *targets], BUILD_LIMIT)

    def _pytest(self, names):
        tests = [self.source / f"tests/end_to_end/test_{name}.py" for name in names]
        environment = {**os.environ, "PLAX_TOOL": str(self.build / "sbin/plax-tool"), "PYTHONDONTWRITEBYTECODE": "1",
                       "PLAX_COMPLETIONS": str(self.build / "completions"),
                       "PLAX_HANGUP_LIBRARY": str(self.build / "tests/libhangup.so"),
                       "PLAX_FAULT_INJECTION": str(self.build / "tests/fault_injection/libfault-injection.so")}
        return succeeds(["pytest-3", "-x", "-q", "-p", "no:cacheprovider", *tests], TEST_LIMIT, env=environment)


def mutants_below(source, only):
    """Yields (file, line number, description, new text) for each mutant of the files whose path contains `only`."""
    for layer in LAYERS:
        for path in sorted((source / layer).glob("*.[hc]*")):
            name = str(path.relative_to(source))
            if path.suffix in (".h", ".cpp") and only in name:
                for mutant in mutants_of_file(path.read_text()):
                    yield name, *mutant


def count_survivors(mutants, source, work, jobs):
    """Prints each mutant that survives, testing `jobs` mutants at a time. Returns the number of survivors."""
    trees = queue.SimpleQueue()

    def attempt(mutant):
        name, number, what, text = mutant
        tree = trees.get()
        survived = tree.survives(name, text)
        trees.put(tree)
        if survived:
            print(f"survived: {name}:{number}: {what}", flush=True)
        return survived

    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        for tree in pool.map(lambda job: Tree(source, work / str(job)), range(jobs)):
            trees.put(tree)
        return sum(pool.map(attempt, mutants))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("source", type=lambda text: pathlib.Path(text).resolve())
    parser.add_argument("work", type=lambda text: pathlib.Path(text).resolve())
    parser.add_argument("--jobs", type=int, default=len(os.sched_getaffinity(0)), help="mutants tried at a time")
    parser.add_argument("--only", default="", help="only files whose path contains this")
    options = parser.parse_args()

    mutants = list(mutants_below(options.source, options.only))
    survived = count_survivors(mutants, options.source, options.work, options.jobs)
    print(f"{len(mutants)} made, {len(mutants) - survived} killed, {survived} survived")
    sys.exit(0 if mutants else 1)


if __name__ == "__main__":
    main()
