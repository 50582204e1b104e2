"""docs/fleet.md does what it shows, against 64 stand-in daemons."""

import pathlib

import pytest

from console_document import STANDIN, read_steps, run_steps

DOCUMENT = pathlib.Path(__file__).parents[2].joinpath("docs", "fleet.md").read_text(encoding="utf-8")


@pytest.mark.skipif(not STANDIN, reason="this build has no stand-in daemon")
def test_document(tmp_path):
    steps = read_steps(DOCUMENT)
    assert len(steps) == 28
    assert run_steps(steps, tmp_path) == steps
