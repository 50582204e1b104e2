"""The first look at the tool in README.md shows what really happens."""

import pathlib
import re

import pytest

from console_document import STANDIN, read_steps, run_steps

README = pathlib.Path(__file__).parents[2].joinpath("README.md").read_text(encoding="utf-8")


@pytest.mark.skipif(not STANDIN, reason="this build has no stand-in daemon")
def test_first_look(tmp_path):
    steps = read_steps(re.search(r"^## A first look\n(.*?)^## ", README, flags=re.MULTILINE | re.DOTALL).group(1))
    assert len(steps) == 9
    assert run_steps(steps, tmp_path) == steps
