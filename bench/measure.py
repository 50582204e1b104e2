"""Measures the tool beside the yardstick client and prints Markdown tables.

usage: measure.py BUILD_FOLDER [--rounds N] [--plots FOLDER]
"""

import argparse
import contextlib
import os
import pathlib
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


class Bench:
    """The programs that were built, and a folder for sockets and outputs."""

    def __init__(self, build, folder, rounds):
        self.build = pathlib.Path(build)
        self.folder = pathlib.Path(folder)
        self.rounds = rounds
        self.tool = str(self.build / "sbin/plax-tool")

    def words(self, program, text):
        places = {"s": str(self.folder / "peer.uds"), "o": str(self.folder / "output")}
        return [program, *text.format(**places).split()]

    def pair(self, workload, yardstick="yardstick"):
        _, _, tool_words, yardstick_words = workload
        return self.words(self.tool, tool_words), self.words(str(self.build / yardstick), yardstick_words)

    @contextlib.contextmanager
    def peer(self, length):
        peer = subprocess.Popen([self.build / "peer-daemon", self.folder / "peer.uds", str(length)], stdout=subprocess.PIPE)
        peer.stdout.readline()
        try:
            yield
        finally:
            peer.terminate()
            peer.wait()
            peer.stdout.close()

    def timed(self, first, second, rounds=None):
        """Gives (wall microseconds, page faults, peak KiB) of two commands, run in turn."""
        command = [self.build / "paired-timer", str(rounds or self.rounds), str(len(first)), *first, *second]
        run = subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, check=True)
        lines = [line for line in run.stderr.splitlines() if re.fullmatch(r"[\d.]+ \d+ \d+", line)]
        return [tuple(map(float, line.split())) for line in lines]


def instructions(words):
    run = subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", *words],
                         stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, errors="replace", check=False)
    return int(re.search(r"Collected : (\d+)", run.stderr).group(1))


def system_calls(words):
    """All calls, and those after the loader, whose last act is to unmap its cache."""
    with tempfile.NamedTemporaryFile("r") as trace:
        subprocess.run(["strace", "-o", trace.name, *words], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)
        calls = [line for line in trace.read().splitlines() if re.match(r"\w+\(", line)]
    loader_end = next(place for place, call in enumerate(calls) if call.startswith("munmap("))
    return len(calls), len(calls) - loader_end - 1


def rounds_for(length, rounds):
    """Fewer rounds where each moves many bytes."""
    return max(11, rounds // max(1, length // (256 * KIB)))


def ratio(a, b):
    return f"{a} / {b} = **{a / b:.2f}**"


def measure_workloads(bench):
    print("Tool / yardstick = ratio. Instructions are given against the yardstick as a compiler makes it, and against one")
    print("that is hardened like the tool.\n")
    print("| workload | instructions | hardened alike | system calls, after the loader | page faults | peak KiB | wall µs | MiB/s |")
    print("|---|---|---|---|---|---|---|---|")
    for workload in WORKLOADS:
        name, length = workload[:2]
        with bench.peer(length):
            tool, yardstick = bench.pair(workload)
            hardened = bench.pair(workload, "bin/yardstick-hardened")[1]
            spent = instructions(tool)
            (wall, faults, peak), (wall0, faults0, peak0) = bench.timed(tool, yardstick, rounds_for(length, bench.rounds))
            calls, calls0 = system_calls(tool), system_calls(yardstick)
            throughput = f"{length / MIB / wall * 1e6:.0f} / {length / MIB / wall0 * 1e6:.0f} = **{wall0 / wall:.2f}**"
            print("|", name, "|", ratio(spent, instructions(yardstick)), "|", f"{spent / instructions(hardened):.2f}", "|",
                  f"{calls[0]} / {calls0[0]}, **{calls[1]}** / {calls0[1]}", "|", ratio(int(faults), int(faults0)), "|",
                  f"{int(peak)} / {int(peak0)}", "|", ratio(round(wall), round(wall0)), "|",
                  throughput if length >= 64 * MIB else "", "|", flush=True)


def measure_steps(bench):
    """What lies between the yardstick and the tool: each with and without something that the other has."""
    steps = [
        ("the yardstick, hardened like the tool", "bin/yardstick-hardened"),
        ("the yardstick, with the tool's allocations", "bin/yardstick-allocating"),
        ("the yardstick, linked with the private library by an absolute name", "bin/yardstick-with-library-here"),
        ("the yardstick, linked with it as the tool is", "bin/yardstick-with-library"),
        ("the tool, with the library inside the program", "bin/tool-with-library-inside"),
        ("the same, bound when first called", "bin/tool-with-library-inside-bound-late"),
        ("the tool, bound when first called", "bin/tool-bound-late"),
        ("the tool, with the library by an absolute name", "bin/tool-with-library-here"),
        ("the tool", "sbin/plax-tool"),
    ]
    print("\n| ratio to the yardstick | instructions | wall | component-manual-move, wall | -h, instructions |")
    print("|---|---|---|---|---|")
    for name, program in steps:
        exchange, move, help_text = (step_ratios(bench, program, WORKLOADS[place]) for place in (0, 5, 7))
        print(f"| {name} | {exchange[0]:.3f} | {exchange[1]:.3f} | {move[1]:.3f} | {help_text[0]:.3f} |", flush=True)


def step_ratios(bench, program, workload):
    """The instructions and the wall time of a program, which is a tool or a yardstick, over those of the yardstick."""
    _, length, tool_words, yardstick_words = workload
    with bench.peer(length):
        own = bench.words(str(bench.build / program), yardstick_words if "yardstick" in program else tool_words)
        plain = bench.words(str(bench.build / "yardstick"), yardstick_words)
        (wall, _, _), (wall0, _, _) = bench.timed(own, plain)
        return instructions(own) / instructions(plain), wall / wall0


def measure_alternatives(bench):
    """What a user would take instead for one exchange, and peers of the same kind with their own daemons."""
    python = ("import socket,struct,sys;s=socket.socket(socket.AF_UNIX);s.connect(sys.argv[1]);s.sendall(struct.pack('>II',6,0));"
              "n=struct.unpack('>II',s.recv(8,socket.MSG_WAITALL))[1];sys.stdout.buffer.write(s.recv(n,socket.MSG_WAITALL))")
    socket = str(bench.folder / "peer.uds")
    send = r"printf '\0\0\0\6\0\0\0\0'"
    rivals = [
        ("socat", ["sh", "-c", f"{send} | socat -t 5 - UNIX-CONNECT:{socket}"]),
        ("nc -U -N", ["sh", "-c", f"{send} | nc -U -N {socket}"]),
        ("Python script", ["/usr/bin/python3", "-S", "-c", python, socket]),
    ]
    print("\n| instead of `fitness-stats-get`, 100 B | wall µs | the tool in the same run | times the tool |")
    print("|---|---|---|---|")
    with bench.peer(100):
        tool = bench.pair(WORKLOADS[0])[0]
        for name, words in rivals:
            show_rival(bench, name, words, tool)
        with peer_daemons(bench.folder) as peers:
            for name, words in peers:
                show_rival(bench, name, words, tool)


def show_rival(bench, name, words, tool):
    (wall, _, _), (own, _, _) = bench.timed(words, tool, max(11, bench.rounds // 5))
    print(f"| {name} | {wall:.0f} | {own:.0f} | {wall / own:.1f} |", flush=True)


@contextlib.contextmanager
def peer_daemons(folder):
    """Starts the daemons of two peers on this machine, and gives the clients' command lines for a status."""
    chrony = folder / "chrony"
    chrony.mkdir(mode=0o700)
    shutil.chown(chrony, "_chrony", "_chrony")
    (chrony / "conf").write_text(f"bindcmdaddress {chrony}/sock\ncmdport 0\nport 0\nlocal\npidfile {chrony}/pid\n")
    knot = folder / "knot"
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


def measure_growth(bench):
    """Wall time and peak size as the answer grows, and wall time as the clients grow in number."""
    curves = {"reply": grow(bench, WORKLOADS[0], [KIB << shift for shift in range(0, 17, 2)]),
              "stream": grow(bench, WORKLOADS[2], [MIB << shift for shift in range(0, 11, 2)]),
              "clients": crowd(bench, [1, 10, 100, 1000])}
    for name, points in curves.items():
        print(f"\n| {name} | tool ms | yardstick ms | ratio | tool peak KiB |\n|---|---|---|---|---|")
        for size, own, other, peak in points:
            shown = size if name == "clients" else f"{size // KIB} KiB"
            print(f"| {shown} | {own / 1e3:.2f} | {other / 1e3:.2f} | {own / other:.2f} | {int(peak) if peak else ''} |", flush=True)
    return curves


def grow(bench, workload, lengths):
    points = []
    for length in lengths:
        with bench.peer(length):
            (wall, _, peak), (wall0, _, _) = bench.timed(*bench.pair(workload), rounds=max(5, rounds_for(length, bench.rounds) // 2))
        points.append((length, wall, wall0, peak))
    return points


def crowd(bench, counts):
    """Wall time until so many clients, started together, have all been answered."""
    points = []
    with bench.peer(100):
        tool, yardstick = bench.pair(WORKLOADS[0])
        for count in counts:
            together = [["sh", "-c", f"for i in $(seq {count}); do {' '.join(words)} & done; wait"] for words in (tool, yardstick)]
            (wall, _, _), (wall0, _, _) = bench.timed(*together, rounds=5 if count > 100 else 21)
            points.append((count, wall, wall0, None))
    return points


def draw(curves, folder):
    import matplotlib  # only those who want plots need it
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
        figure.savefig(pathlib.Path(folder) / f"performance-{name}.svg", metadata={"Date": None})


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build")
    parser.add_argument("--rounds", type=int, default=1000, help="timed runs of each program in a small workload")
    parser.add_argument("--plots", metavar="FOLDER", help="draw the growth curves there as SVG")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="plax-bench-") as folder:
        os.chmod(folder, 0o755)
        bench = Bench(options.build, folder, options.rounds)
        measure_workloads(bench)
        measure_steps(bench)
        measure_alternatives(bench)
        curves = measure_growth(bench)
    if options.plots:
        draw(curves, options.plots)


if __name__ == "__main__":
    main()
