"""A listener whose connections the test accepts itself, or leaves in the backlog."""

import contextlib
import os
import socket
import tempfile


@contextlib.contextmanager
def listening(backlog):
    """A listener whose accept waits up to 10 seconds, and its path."""
    with tempfile.TemporaryDirectory(prefix="plaxd-") as directory, socket.socket(socket.AF_UNIX) as listener:
        path = os.path.join(directory, "plaxd.uds")
        listener.bind(path)
        listener.listen(backlog)
        listener.settimeout(10)
        yield listener, path


@contextlib.contextmanager
def fill_backlog(path):
    """Connects until the backlog is full. Yields the connections."""
    with contextlib.ExitStack() as stack:
        waiting = []
        with contextlib.suppress(BlockingIOError):
            while True:
                peer = stack.enter_context(socket.socket(socket.AF_UNIX))
                peer.setblocking(False)
                peer.connect(path)
                waiting.append(peer)
        yield waiting
