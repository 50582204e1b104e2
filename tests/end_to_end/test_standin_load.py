"""Many clients at once: every request is answered and logged exactly once."""

import threading
from collections import Counter

from harness import Outcome, finish_tool, frame, start_tool
from standin_process import Standin, read_all

CLIENTS = 200
REQUESTS_OF_EACH = 50


def uuid(client, request):
    return f"{client:08x}-0000-0000-0000-{request:08x}0001"


def serve_all(plaxd):
    """All clients are connected before any of them sends, and all send before any of them reads."""
    for number in range(REQUESTS_OF_EACH):
        clients = [plaxd.connect() for _ in range(CLIENTS)]
        for client, connection in enumerate(clients):
            connection.sendall(frame(14, uuid(client, number).encode()))
        assert [read_all(connection) for connection in clients] == [frame(0, b"bytes to move: 0")] * CLIENTS
        for connection in clients:
            connection.close()


def expect_each_once(plaxd):
    assert plaxd.summary["requests"] == 10000
    assert Counter(line["fields"]["uuid"] for line in plaxd.entries) == {
        uuid(client, request): 1 for client in range(CLIENTS) for request in range(REQUESTS_OF_EACH)}
    assert [line["connection"] for line in plaxd.entries] == list(range(1, 10001))


def test_ten_thousand_requests():
    with Standin("--strict") as plaxd:
        serve_all(plaxd)
    expect_each_once(plaxd)
    assert (plaxd.code, plaxd.summary) == (
        0, {"requests": 10000, "broken": 0, "warned": 0, "commands": {"info-rebalance": {"answered": 10000}}})


def test_ten_thousand_requests_through_a_relay():
    with Standin() as plaxd:
        with Standin("--to", plaxd.path, command="relay") as relay:
            serve_all(relay)
    expect_each_once(relay)
    expect_each_once(plaxd)


def test_two_hundred_tools_at_once():
    """All tools wait for their answers at the same time."""
    with Standin().answers({"info-rebalance": {"delayMs": 2000, "text": "done"}}) as plaxd:
        tools = [start_tool("-s", plaxd.path, "info-rebalance", "-u", uuid(0, number)) for number in range(CLIENTS)]
        assert [finish_tool(process) for process in tools] == [Outcome(b"done\n", b"", 0)] * CLIENTS
    assert Counter(line["fields"]["uuid"] for line in plaxd.entries) == {
        uuid(0, number): 1 for number in range(CLIENTS)}


def test_list_of_answers_under_load():
    """Each answer of a list is given once, also to simultaneous clients."""
    answers = [{"status": number} for number in range(1, CLIENTS + 1)]
    with Standin().answers({"fix-concats": answers}) as plaxd:
        replies = []
        clients = [threading.Thread(target=lambda: replies.append(plaxd.exchange(frame(13)))) for _ in range(CLIENTS)]
        for client in clients:
            client.start()
        for client in clients:
            client.join()
    assert sorted(replies) == [frame(number) for number in range(1, CLIENTS + 1)]
