#!/usr/bin/python3
"""Changes the tool's source in one place at a time and shows whether the tests notice.

usage: mutate.py SOURCE_FOLDER WORK_FOLDER EQUIVALENTS.txt [--shard K/N] [--only FILE]

Each mutant is made in a copy of the tree in WORK_FOLDER, built there, and given to the tests: first those that do not
wait, then all. A mutant that does not compile, or that a test fails on, is killed. One that survives must be listed in
EQUIVALENTS.txt with the reason why no test can tell it from the original: file, changed line, reason, separated by
" | ". Prints the survivors that are not listed, and killed / made; exits with 1 if there are any.
"""

import argparse
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys

ROOMS = ("include", "cli", "link", "requests", "platform")
BUILD_LIMIT = 300  # seconds
TEST_LIMIT = 180
QUICK_TESTS = ("help", "options", "run", "rules", "requests", "callback_block", "exchange", "streams", "descriptors")
WAITING_TESTS = ("fault_injection", "timeouts")

# What is changed to what: every match of the pattern in a line of code makes a mutant for each replacement.
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
    """Yields the positions of lines that are code: no comments, no includes, no assertions about shapes."""
    for position, line in enumerate(lines):
        text = line.strip()
        if text and not text.startswith(("//", "#", "static_assert", "template", "using ")):
            yield position


def negate(line, start, end, replacement):
    """`if (` becomes `if (!(`, with the condition's own end found again."""
    if replacement != "if (!":
        return line[:start] + replacement + line[end:]
    depth = 1
    for position in range(end, len(line)):
        depth += {"(": 1, ")": -1}.get(line[position], 0)
        if depth == 0:
            return f"{line[:start]}if (!({line[end:position]})){line[position + 1:]}"
    return None


def mutants_of_line(line):
    """Yields every changed form of one line; None stands for the line left out."""
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
    """Yields (line number, what was done, new text) for each mutant of a file."""
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
    """Runs a command in a group of its own, with everything it started gone afterwards."""
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
    """The copy of the tree in which mutants are made, and its build."""

    def __init__(self, source, folder):
        self.folder = pathlib.Path(folder).resolve()
        shutil.rmtree(self.folder, ignore_errors=True)
        shutil.copytree(source, self.folder / "tree", ignore=shutil.ignore_patterns("build", ".git"))
        self.build = self.folder / "build"
        configure = ["cmake", "-S", self.folder / "tree", "-B", self.build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
                     "-DPLAX_BUILD_STANDIN=OFF"]
        if not succeeds(configure, BUILD_LIMIT) or not self.survives_tests():
            sys.exit("the tree as it is does not build, or does not pass its own tests")

    def survives_tests(self):
        targets = ["plax-tool", "unit-tests", "hangup", "fault-injection"]
        return (succeeds(["cmake", "--build", self.build, "--target", *targets], BUILD_LIMIT) and self._pytest(QUICK_TESTS)
                and succeeds([self.build / "bin" / "unit-tests"], TEST_LIMIT) and self._pytest(WAITING_TESTS))

    def _pytest(self, names):
        tests = [self.folder / f"tree/tests/end_to_end/test_{name}.py" for name in names]
        environment = {**os.environ, "PLAX_TOOL": str(self.build / "sbin/plax-tool"), "PYTHONDONTWRITEBYTECODE": "1",
                       "PLAX_HANGUP_LIBRARY": str(self.build / "tests/libhangup.so"),
                       "PLAX_FAULT_INJECTION": str(self.build / "tests/fault_injection/libfault-injection.so")}
        command = ["pytest-3", "-x", "-q", "-n", "2", "--dist", "loadgroup", "-p", "no:cacheprovider", *tests]
        return succeeds(command, TEST_LIMIT, env=environment)


def listed(path):
    rows = [line.split(" | ") for line in pathlib.Path(path).read_text().splitlines() if line and not line.startswith("#")]
    for row in rows:
        if len(row) != 3:
            sys.exit(f"{path}: not file, changed line and reason: {' | '.join(row)}")
    return {(row[0], row[1]) for row in rows}


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("source")
    parser.add_argument("work")
    parser.add_argument("equivalents")
    parser.add_argument("--shard", default="0/1", help="K/N: only every N-th mutant, from the K-th on")
    parser.add_argument("--only", default="", help="only files whose path contains this")
    options = parser.parse_args()
    shard, shards = map(int, options.shard.split("/"))

    tree = Tree(options.source, options.work)
    equivalent = listed(options.equivalents)
    files = [path for room in ROOMS for path in sorted((tree.folder / "tree" / room).glob("*.[hc]*"))
             if path.suffix in (".h", ".cpp") and options.only in str(path)]
    mutants = [(path, *mutant) for path in files for mutant in mutants_of_file(path.read_text())][shard::shards]
    survivors = []
    for path, number, what, text in mutants:
        name = str(path.relative_to(tree.folder / "tree"))
        original = path.read_text()
        path.write_text(text)
        if tree.survives_tests():
            known = (name, what) in equivalent
            print(f"{'equivalent' if known else 'SURVIVED'}: {name}:{number}: {what}", flush=True)
            survivors += [] if known else [what]
        path.write_text(original)
    equivalents_met = 0
    print(f"{len(mutants) - len(survivors)} of {len(mutants)} mutants killed or listed")
    sys.exit(1 if survivors or not mutants else equivalents_met)


if __name__ == "__main__":
    main()
