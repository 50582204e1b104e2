"""Measures the tool beside the yardstick client, or beside another build of it, and prints Markdown tables."""

import argparse
import collections
import contextlib
import os
import pathlib
import platform
import re
import shutil
import subprocess
import sys
import tempfile
import time

KIB, MIB, GIB = 1 << 10, 1 << 20, 1 << 30
UUID = "52e6f3a1-0c94-4d1b-9a77-3f2b8c5d6e01"

# Name, bytes that the daemon answers, words of the tool, words of the yardstick; {s} is the socket, {o} a file.
WORKLOADS = [
    ("fitness-stats-get, 100 B", 100, "-s {s} fitness-stats-get", "{s} p 6 0"),
    ("fitness-stats-get, 1 MiB", MIB, "-s {s} fitness-stats-get", "{s} p 6 0"),
    ("stats, 100 B", 100, "-s {s} stats", "{s} s 1 0"),
    ("stats, 64 MiB", 64 * MIB, "-s {s} stats", "{s} s 1 0"),
    ("stats, 64 MiB to a file", 64 * MIB, "-s {s} -o {o} stats", "{s} s 1 0 {o}"),
    ("component-manual-move", 0, f"-s {{s}} -u {UUID} -n {UUID} component-manual-move", "{s} c 33 189464"),
    ("set-global-exclusion-list", 0, f"-s {{s}} -x {UUID} set-global-exclusion-list", "{s} c 34 94728"),
    ("-h", 0, "-h", "h"),
    ("usage error", 0, "nonsense", "u"),
]

# Goals that must stay met: workload, figure, and the upper limit of its ratio to the yardstick.
GOALS = [
    ("fitness-stats-get, 100 B", "instructions", 1.40),
    ("fitness-stats-get, 100 B", "wall", 1.35),
    ("fitness-stats-get, 100 B", "page faults", 1.25),
    ("fitness-stats-get, 1 MiB", "wall", 1.20),
    ("stats, 64 MiB", "wall", 0.85),
    ("component-manual-move", "instructions", 1.50),
    ("component-manual-move", "wall", 1.30),
    ("-h", "instructions", 1.40),
]


class Bench:
    """The programs that were built, and a directory for sockets and outputs."""

    def __init__(self, build, directory, rounds):
        self.build = pathlib.Path(build)
        self.directory = pathlib.Path(directory)
        self.rounds = rounds
        self.tool = str(self.build / "sbin/plax-tool")
        self.yardstick = str(self.build / "bin/yardstick")

    def words(self, program, text):
        places = {"s": str(self.directory / "peer.uds"), "o": str(self.directory / "output")}
        return [program, *text.format(**places).split()]

    def pair(self, workload):
        _, _, tool_words, yardstick_words = workload
        return self.words(self.tool, tool_words), self.words(self.yardstick, yardstick_words)

    @contextlib.contextmanager
    def peer(self, length):
        peer = subprocess.Popen([self.build / "peer-daemon", self.directory / "peer.uds", str(length)],
                                stdout=subprocess.PIPE)
        peer.stdout.readline()
        try:
            yield
        finally:
            peer.terminate()
            peer.wait()
            peer.stdout.close()

    def timed(self, first, second, rounds=None):
        """Returns (wall microseconds, page faults, peak KiB) of each of two commands, run alternately."""
        command = [self.build / "paired-timer", str(rounds or self.rounds), str(len(first)), *first, *second]
        run = subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, check=True)
        lines = [line for line in run.stderr.splitlines() if re.fullmatch(r"[\d.]+ \d+ \d+", line)]
        return [tuple(map(float, line.split())) for line in lines]


def instructions(words):
    run = subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", *words],
                         stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, errors="replace", check=False)
    return int(re.search(r"Collected : (\d+)", run.stderr).group(1))


def system_calls(words):
    """The number of all calls, and of those after the loader, which unmaps its cache last."""
    with tempfile.NamedTemporaryFile("r") as trace:
        subprocess.run(["strace", "-o", trace.name, *words], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)
        calls = [line for line in trace.read().splitlines() if re.match(r"\w+\(", line)]
    loader_end = next(place for place, call in enumerate(calls) if call.startswith("munmap("))
    return len(calls), len(calls) - loader_end - 1


def rounds_for(length, rounds):
    """The number of rounds: the longer the answer, the fewer."""
    return max(11, rounds // max(1, length // (256 * KIB)))


class Tables:
    """The tables by their names in the document. Each row is printed as soon as it is measured."""

    def __init__(self):
        self.lines = collections.defaultdict(list)

    def add(self, table, *cells):
        first = table not in self.lines
        lines = ["| " + " | ".join(map(str, cells)) + " |", *(["|---" * len(cells) + "|"] if first else [])]
        print(*([""] if first else []), *lines, sep="\n", flush=True)
        self.lines[table] += lines

    def write_into(self, document):
        """Replaces the tables of the document. A comment with the name of a table precedes it."""
        text = document.read_text(encoding="utf-8")
        for name, lines in self.lines.items():
            rows = "\n".join([*lines, ""])
            text, count = re.subn(rf"(?<=<!-- table: {name} -->\n)(\|.*\n)*", lambda _, rows=rows: rows, text)
            if count != 1:
                sys.exit(f"{document}: {count} tables {name}")
        document.write_text(text, encoding="utf-8")


def describe_machine(tables, table):
    compiler = subprocess.run(["c++", "-dumpfullversion"], stdout=subprocess.PIPE, text=True, check=True).stdout.strip()
    system, linux = platform.freedesktop_os_release()["PRETTY_NAME"], ".".join(platform.release().split(".")[:2])
    tables.add(table, "system", "compiler", "processors", "load at the start")
    tables.add(table, f"{system}, Linux {linux}", f"g++ {compiler}", os.cpu_count(), f"{os.getloadavg()[0]:.1f}")


def ratio(a, b):
    return f"{a} / {b} = **{a / b:.2f}**"


def measure_workloads(bench, tables):
    """Returns the ratios by workload and figure."""
    tables.add("workloads", "workload", "instructions", "system calls, after the loader", "page faults", "peak KiB",
               "wall µs", "MiB/s")
    reached = {}
    for workload in WORKLOADS:
        name, length = workload[:2]
        with bench.peer(length):
            tool, yardstick = bench.pair(workload)
            (wall, faults, peak), (wall0, faults0, peak0) = bench.timed(tool, yardstick, rounds_for(length, bench.rounds))
            spent, spent0 = instructions(tool), instructions(yardstick)
            calls, calls0 = system_calls(tool), system_calls(yardstick)
        throughput = f"{length / MIB / wall * 1e6:.0f} / {length / MIB / wall0 * 1e6:.0f} = **{wall0 / wall:.2f}**"
        tables.add("workloads", name, ratio(spent, spent0), f"{calls[0]} / {calls0[0]}, **{calls[1]}** / {calls0[1]}",
                   ratio(int(faults), int(faults0)), f"{int(peak)} / {int(peak0)}", ratio(round(wall), round(wall0)),
                   throughput if length >= 64 * MIB else "")
        for figure, own, other in [("instructions", spent, spent0), ("wall", wall, wall0), ("page faults", faults, faults0)]:
            reached[name, figure] = own / other
    return reached


def compare_with_goals(reached, tables):
    tables.add("goals", "ratio to the yardstick", "at most", "reached")
    for name, figure, limit in GOALS:
        value = reached[name, figure]
        tables.add("goals", f"{name}: {figure}", f"{limit:.2f}", f"{value:.2f}" + (", **missed**" if value > limit else ""))


def measure_library(bench, tables):
    """The cost of the private library being a separate file: adds it to the yardstick, and removes it from the tool."""
    tables.add("library", "ratio to the yardstick", "instructions", "wall", "component-manual-move, wall",
               "-h, instructions")
    for name, program in [("the yardstick, linked with the private library", "bin/yardstick-with-library"),
                          ("the tool, with the library inside the program", "bin/tool-with-library-inside"),
                          ("the tool", "sbin/plax-tool")]:
        exchange, move, help_text = (step_ratios(bench, program, WORKLOADS[place]) for place in (0, 5, 7))
        tables.add("library", name, *(f"{value:.3f}" for value in (exchange[0], exchange[1], move[1], help_text[0])))


def step_ratios(bench, program, workload):
    """The instructions and the wall time of a tool or a yardstick, divided by those of the yardstick."""
    _, length, tool_words, yardstick_words = workload
    own = bench.words(str(bench.build / program), yardstick_words if "yardstick" in program else tool_words)
    return ratios(bench, own, bench.words(bench.yardstick, yardstick_words), length)[:2]


def ratios(bench, own, other, length):
    """Instructions, wall time and page faults of one command, divided by those of another."""
    with bench.peer(length):
        (wall, faults, _), (wall0, faults0, _) = bench.timed(own, other, rounds_for(length, bench.rounds))
        return instructions(own) / instructions(other), wall / wall0, faults / faults0


def measure_against(bench, other_build):
    """This tool, divided by another build of it."""
    tables = Tables()
    tables.add("against", "workload", "instructions", "wall", "page faults")
    other = str(pathlib.Path(other_build) / "sbin/plax-tool")
    for name, length, words, _ in WORKLOADS:
        measured = ratios(bench, bench.words(bench.tool, words), bench.words(other, words), length)
        tables.add("against", name, *(f"{value:.3f}" for value in measured))


def measure_alternatives(bench, tables):
    """Other ways to make one exchange, and similar clients with their own daemons."""
    python = ("import socket,struct,sys;s=socket.socket(socket.AF_UNIX);s.connect(sys.argv[1]);s.sendall(struct.pack('>II',6,0));"
              "n=struct.unpack('>II',s.recv(8,socket.MSG_WAITALL))[1];sys.stdout.buffer.write(s.recv(n,socket.MSG_WAITALL))")
    socket = str(bench.directory / "peer.uds")
    send = r"printf '\0\0\0\6\0\0\0\0'"
    rivals = [
        ("socat", ["sh", "-c", f"{send} | socat -t 5 - UNIX-CONNECT:{socket}"]),
        ("nc -U -N", ["sh", "-c", f"{send} | nc -U -N {socket}"]),
        ("Python script", ["/usr/bin/python3", "-S", "-c", python, socket]),
    ]
    tables.add("alternatives", "instead of `fitness-stats-get`, 100 B", "wall µs", "the tool in the same run",
               "times the tool")
    with bench.peer(100):
        for name, words in rivals:
            measure_rival(bench, tables, name, words)
        with peer_daemons(bench.directory) as peers:
            for name, words in peers:
                measure_rival(bench, tables, name, words)


def measure_rival(bench, tables, name, words):
    (wall, _, _), (own, _, _) = bench.timed(words, bench.pair(WORKLOADS[0])[0], max(11, bench.rounds // 5))
    tables.add("alternatives", name, f"{wall:.0f}", f"{own:.0f}", f"{wall / own:.1f}")


@contextlib.contextmanager
def peer_daemons(directory):
    """Starts the daemons of two similar clients, and yields the clients' command lines for a status."""
    chrony = directory / "chrony"
    chrony.mkdir(mode=0o700)
    shutil.chown(chrony, "_chrony", "_chrony")
    (chrony / "conf").write_text(f"bindcmdaddress {chrony}/sock\ncmdport 0\nport 0\nlocal\npidfile {chrony}/pid\n")
    knot = directory / "knot"
    knot.mkdir()
    (knot / "conf").write_text(f"server:\n    rundir: {knot}\n    user: root:root\ndatabase:\n"
                               f"    storage: {knot}\nlog:\n  - target: stderr\n    any: critical\n")
    daemons = [subprocess.Popen(words, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
               for words in (["chronyd", "-x", "-n", "-f", chrony / "conf"], ["knotd", "-c", knot / "conf"])]
    try:
        clients = [("chronyc tracking, its own daemon", ["chronyc", "-h", str(chrony / "sock"), "tracking"]),
                   ("knotc status, its own daemon", ["knotc", "-s", str(knot / "knot.sock"), "status"])]
        for _, words in clients:
            wait_until_answered(words)
        yield clients
    finally:
        for daemon in daemons:
            daemon.terminate()
            daemon.wait()


def wait_until_answered(words):
    for _ in range(100):
        if subprocess.run(words, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False).returncode == 0:
            return
        time.sleep(0.1)
    sys.exit(f"no answer: {' '.join(words)}")


def measure_growth(bench, tables):
    """Wall time and peak size by length of the answer, and wall time by number of clients."""
    curves = {"reply": grow(bench, WORKLOADS[0], [KIB << shift for shift in range(0, 17, 2)]),
              "stream": grow(bench, WORKLOADS[2], [MIB << shift for shift in range(0, 11, 2)]),
              "clients": crowd(bench, [1, 10, 100, 1000])}
    for name, points in curves.items():
        tables.add(name, name, "tool ms", "yardstick ms", "ratio", "tool peak KiB")
        for size, own, other, peak in points:
            shown = size if name == "clients" else f"{size // KIB} KiB"
            tables.add(name, shown, f"{own / 1e3:.2f}", f"{other / 1e3:.2f}", f"{own / other:.2f}",
                       int(peak) if peak else "")
    return curves


def grow(bench, workload, lengths):
    points = []
    for length in lengths:
        with bench.peer(length):
            (wall, _, peak), (wall0, _, _) = bench.timed(*bench.pair(workload), rounds=max(5, rounds_for(length, bench.rounds) // 2))
        points.append((length, wall, wall0, peak))
    return points


def crowd(bench, counts):
    """Wall time until all clients of a group, started together, have ended."""
    points = []
    with bench.peer(100):
        tool, yardstick = bench.pair(WORKLOADS[0])
        for count in counts:
            together = [["sh", "-c", f"for i in $(seq {count}); do {' '.join(words)} & done; wait"] for words in (tool, yardstick)]
            (wall, _, _), (wall0, _, _) = bench.timed(*together, rounds=5 if count > 100 else 21)
            points.append((count, wall, wall0, None))
    return points


def draw(curves, directory):
    import matplotlib  # needed for plots only
    matplotlib.use("svg")
    from matplotlib import pyplot
    for name, points in curves.items():
        figure, axes = pyplot.subplots(figsize=(6, 4))
        sizes = [point[0] for point in points]
        axes.loglog(sizes, [point[1] / 1e3 for point in points], "o-", label="plax-tool")
        axes.loglog(sizes, [point[2] / 1e3 for point in points], "x--", label="yardstick")
        axes.set_xlabel("clients at once" if name == "clients" else f"{name} bytes")
        axes.set_ylabel("wall, ms (median)")
        axes.legend()
        figure.tight_layout()
        figure.savefig(pathlib.Path(directory) / f"performance-{name}.svg", metadata={"Date": None})


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build")
    parser.add_argument("--rounds", type=int, default=1000, help="timed runs of each program in a small workload")
    parser.add_argument("--update", metavar="DOCUMENT", type=pathlib.Path,
                        help="put the tables into that document, and draw the growth curves beside it")
    parser.add_argument("--against", metavar="BUILD", help="only compare with the tool in that build directory")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="plax-bench-") as directory:
        os.chmod(directory, 0o755)
        bench = Bench(options.build, directory, options.rounds)
        if options.against:
            measure_against(bench, options.against)
            return
        tables = Tables()
        describe_machine(tables, "machine")
        compare_with_goals(measure_workloads(bench, tables), tables)
        measure_library(bench, tables)
        measure_alternatives(bench, tables)
        curves = measure_growth(bench, tables)
    if options.update:
        tables.write_into(options.update)
        draw(curves, options.update.parent)


if __name__ == "__main__":
    main()
