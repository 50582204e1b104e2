"""Measures the stand-in daemon: its relay beside socat, and its service of many clients. Prints Markdown tables."""

import argparse
import contextlib
import os
import pathlib
import resource
import select
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import time

from measure import GIB, MIB, Bench, Tables, describe_machine, ratio, wait_until_answered

STATS = struct.pack(">II", 1, 0)
FITNESS_STATS_GET = struct.pack(">II", 6, 0)

CLIENTS = 10000
DELAY = 10  # seconds: all clients have to be connected by then
SCRIPT_RUNS = 200


@contextlib.contextmanager
def daemon(bench, path, words):
    """Starts a daemon, waits until it answers at the path, and yields its process."""
    process = subprocess.Popen(words, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        wait_until_answered([bench.tool, "-s", path, "fix-concats"])
        yield process
    finally:
        process.terminate()
        process.wait()


def standin(bench, command, *words):
    """The path of a new stand-in's socket, and its command line."""
    path = str(bench.directory / f"{command}.uds")
    program = str(bench.build / "bin/plaxd-standin")
    return path, [program, command, "--socket", path, "--log", "/dev/null", *words]


@contextlib.contextmanager
def relays(bench):
    """Yields the ways to the peer daemon: for each its name, the path, and the process in between, if any."""
    peer = str(bench.directory / "peer.uds")
    rival = str(bench.directory / "socat.uds")
    path, words = standin(bench, "relay", "--to", peer)
    with contextlib.ExitStack() as stack:
        with bench.peer(0):
            relay = stack.enter_context(daemon(bench, path, words))
            socat = stack.enter_context(
                daemon(bench, rival, ["socat", f"UNIX-LISTEN:{rival},fork,backlog=128", f"UNIX-CONNECT:{peer}"]))
        yield [("direct", peer, None), ("relay", path, relay), ("socat", rival, socat)]


def peak(pid):
    """The peak size in KiB of a process and of its children that are running."""
    status = pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii")
    own = next(int(line.split()[1]) for line in status.splitlines() if line.startswith("VmHWM:"))
    children = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text(encoding="ascii").split()
    return own + sum(map(peak, children))


def stream(path, process):
    """Reads a stream of 1 GiB. Returns the bytes per second, and the peak size of the process in between."""
    size, received, buffer = 0, 0, bytearray(1 << 16)
    with socket.socket(socket.AF_UNIX) as client:
        start = time.perf_counter()
        client.connect(path)
        client.sendall(STATS)
        while received < GIB:
            count = client.recv_into(buffer)
            if count == 0:
                sys.exit(f"{path}: the stream ended after {received} bytes")
            received += count
            if process is not None and size == 0 and received >= GIB / 2:
                size = peak(process.pid)
        return GIB / (time.perf_counter() - start), size


def exchange(path):
    """Returns the microseconds until a reply of 100 bytes has come."""
    with socket.socket(socket.AF_UNIX) as client:
        start = time.perf_counter()
        client.connect(path)
        client.sendall(FITNESS_STATS_GET)
        reply = client.recv(108, socket.MSG_WAITALL)
        taken = time.perf_counter() - start
    if len(reply) != 108:
        sys.exit(f"{path}: a reply of {len(reply)} bytes")
    return taken * 1e6


def in_turn(ways, rounds, measure):
    """Measures each way once per round. Returns what was measured, by the name of the way."""
    measured = {name: [] for name, _, _ in ways}
    for _ in range(rounds):
        for name, path, process in ways:
            measured[name].append(measure(path, process))
    return measured


def measure_relay(bench, tables):
    tables.add("relay", "figure", "direct", "relay", "socat", "relay / socat")
    with relays(bench) as ways:
        with bench.peer(GIB):
            streams = in_turn(ways, max(3, bench.rounds // 100), stream)
        speeds = {name: statistics.median(speed for speed, _ in runs) / MIB for name, runs in streams.items()}
        add_relay_row(tables, "1 GiB stream, MiB/s", speeds)
        with bench.peer(100):
            exchanges = in_turn(ways, bench.rounds, lambda path, _: exchange(path))
        wall = {name: statistics.median(runs) for name, runs in exchanges.items()}
        add_relay_row(tables, "100 B exchange, µs", wall)
        added = {name: wall[name] - wall["direct"] for name in ("relay", "socat")}
        add_relay_row(tables, "added to it, µs", added)
        add_relay_row(tables, "peak during the stream, KiB",
                      {name: max(size for _, size in streams[name]) for name in ("relay", "socat")})


def add_relay_row(tables, figure, values):
    cells = [f"{values[name]:.0f}" if name in values else "" for name in ("direct", "relay", "socat")]
    tables.add("relay", figure, *cells, f"**{values['relay'] / values['socat']:.2f}**")


def measure_runs(bench, tables, path):
    """Runs of the tool, beside the same runs with the peer daemon, which does nothing but answer."""
    tables.add("serve", "runs of `fix-concats` a second", "serve / peer daemon")
    with bench.peer(0):
        for name, at_once in [("one after the other", 1), ("8 at a time", 8)]:
            commands = [["sh", "-c", f"seq {SCRIPT_RUNS} | xargs -P {at_once} -I @ {bench.tool} -s {place} fix-concats"]
                        for place in (path, bench.directory / "peer.uds")]
            (wall, _, _), (wall0, _, _) = bench.timed(*commands, rounds=5)
            tables.add("serve", name, ratio(round(SCRIPT_RUNS / wall * 1e6), round(SCRIPT_RUNS / wall0 * 1e6)))


def connect(path):
    client = socket.socket(socket.AF_UNIX)
    client.connect(path)
    client.sendall(FITNESS_STATS_GET)
    return client


def await_replies(clients):
    """Returns the time when the last client has its reply of 8 bytes."""
    poller = select.epoll()
    waiting = {client.fileno(): client for client in clients}
    for descriptor in waiting:
        poller.register(descriptor, select.EPOLLIN)
    while waiting:
        for descriptor, _ in poller.poll():
            reply = waiting.pop(descriptor).recv(9)
            poller.unregister(descriptor)
            if reply != bytes(8):
                sys.exit(f"a waiting client received {reply!r}")
    return time.perf_counter()


def measure_crowd(tables, path, process):
    """Clients that all wait for a delayed reply together."""
    with contextlib.ExitStack() as stack:
        start = time.perf_counter()
        clients = [stack.enter_context(connect(path)) for _ in range(CLIENTS)]
        connected = time.perf_counter() - start
        answered = await_replies(clients) - start
    tables.add("crowd", "clients", "connected after, s", "delay, s", "answered after, s", "peak KiB")
    tables.add("crowd", CLIENTS, f"{connected:.2f}", DELAY, f"{answered:.2f}", peak(process.pid))
    if connected > DELAY:
        sys.exit(f"the first of {CLIENTS} clients had its reply before the last one was connected")


def measure_serve(bench, tables):
    answers = bench.directory / "answers.json"
    answers.write_text(f'{{"answers": {{"fitness-stats-get": {{"delayMs": {DELAY * 1000}}}}}}}')
    path, words = standin(bench, "serve", "--answers", str(answers))
    with daemon(bench, path, words) as process:
        measure_runs(bench, tables, path)
        measure_crowd(tables, path, process)


def raise_descriptor_limit():
    """Both this program and the stand-in need a descriptor for each client."""
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if hard < CLIENTS + 100:
        sys.exit(f"{CLIENTS} clients need as many descriptors; the limit is {hard}")
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("build")
    parser.add_argument("--rounds", type=int, default=500, help="exchanges of 100 bytes each way")
    parser.add_argument("--update", metavar="DOCUMENT", type=pathlib.Path, help="put the tables into that document")
    options = parser.parse_args()
    raise_descriptor_limit()
    with tempfile.TemporaryDirectory(prefix="plax-bench-") as directory:
        bench = Bench(options.build, directory, options.rounds)
        tables = Tables()
        describe_machine(tables, "standin machine")
        measure_relay(bench, tables)
        measure_serve(bench, tables)
    if options.update:
        tables.write_into(options.update)


if __name__ == "__main__":
    main()
