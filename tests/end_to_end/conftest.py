"""The tests that wait for a timeout or take long begin first, so that the others run meanwhile and none is left over.

Tests that use the stand-in daemon are left out where it is not built, as on a build for another machine.
"""

import os

import pytest

collect_ignore_glob = []
if "PLAXD_STANDIN" not in os.environ:
    collect_ignore_glob += ["test_standin_*.py", "test_documents.py", "test_load.py"]


if not collect_ignore_glob:
    from standin_process import kill_leftovers

    @pytest.fixture(autouse=True)
    def leftover_standins():
        """A test that fails leaves no stand-in running, and one that passes must have ended its own."""
        yield
        assert not kill_leftovers(), "a stand-in was left running"


LONG = ("test_timeouts.py", "temporarily unavailable", "20 seconds", "in time", "test_stay_silent", "test_document[docs/fleet.md", "test_many_runs",
        "test_two_builds_are_the_same_bytes")


def pytest_collection_modifyitems(items):
    items.sort(key=lambda item: not any(name in item.nodeid for name in LONG))
