"""Runs that wait for a timeout of the tool. All of them start when a test asks for the first result.

Their tests form one group: spread over worker processes, each worker would wait for all runs.
"""

from concurrent.futures import ThreadPoolExecutor
from functools import cache

import pytest

in_one_worker = pytest.mark.xdist_group("waiting")
waiting = []


@cache
def start_all():
    """Waits for all runs, so that none of them goes on beside a test. Returns the finished ones."""
    with ThreadPoolExecutor(len(waiting)) as threads:
        return {run: threads.submit(run) for run in waiting}


def together(run):
    """Lets the function run with the others. Returns a function that returns its result, or raises its exception."""
    waiting.append(run)
    return lambda: start_all()[run].result()
