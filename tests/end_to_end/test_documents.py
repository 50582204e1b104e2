"""Every console block of the documents runs, and prints the output shown."""

import pathlib

import pytest

from console_document import STANDIN, read_steps, run_steps

SOURCE = pathlib.Path(__file__).parents[2]

# The number of commands in each, so that no block goes unnoticed.
DOCUMENTS = [("README.md", 12), ("docs/fleet.md", 39), ("docs/scripting.md", 41),
             ("docs/troubleshooting.md", 5)]


@pytest.mark.skipif(not STANDIN, reason="this build has no stand-in daemon")
@pytest.mark.parametrize("name, count", DOCUMENTS)
def test_document(name, count, tmp_path):
    steps = read_steps(SOURCE.joinpath(name).read_text(encoding="utf-8"))
    assert len(steps) == count
    assert run_steps(steps, tmp_path) == steps
