"""The tests that wait for a timeout begin first, so that all the others run while they wait.

Tests that use the stand-in daemon are left out where it is not built, as on a build for another machine.
"""

import os

collect_ignore_glob = []
if "PLAXD_STANDIN" not in os.environ:
    collect_ignore_glob += ["test_standin_*.py", "test_fleet_document.py", "test_load.py", "test_readme.py"]


def waits_long(item):
    group = item.get_closest_marker("xdist_group")
    return group is not None and group.args[0] in ("timeouts", "stay silent")


def pytest_collection_modifyitems(items):
    items.sort(key=waits_long, reverse=True)
