"""Long tests and those that wait for a timeout start first; the others run meanwhile.

A build without the stand-in daemon, such as one for another machine, skips the tests that use it.
"""

import os
import signal

import pytest

# A shell lets the commands that it runs in the background ignore SIGINT, and their children would ignore it, too.
signal.signal(signal.SIGINT, signal.default_int_handler)

collect_ignore_glob = []
if "PLAXD_STANDIN" not in os.environ:
    collect_ignore_glob += ["test_standin_*.py", "test_documents.py", "test_load.py"]


if not collect_ignore_glob:
    from standin_process import kill_leftovers

    @pytest.fixture(autouse=True)
    def leftover_standins():
        """Ends the stand-ins that a failed test left running. A test that passes must have ended its own."""
        yield
        assert not kill_leftovers(), "a stand-in was left running"


LONG = ("test_document[docs/fleet.md", "test_many_runs", "test_build_in_another_directory", "bad-day.json",
        "test_every_call_fails[long-stream]", "test_children_that_stay", "`timeout` ended the run")


def takes_long(item):
    return item.get_closest_marker("xdist_group") is not None or any(name in item.nodeid for name in LONG)


def pytest_collection_modifyitems(items):
    items.sort(key=takes_long, reverse=True)
