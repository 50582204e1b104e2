"""Preloads the library built from hangup.cpp into the tool."""

import os

import pytest

from harness import RUNNER

HANGUP_LIBRARY = os.environ.get("PLAX_HANGUP_LIBRARY", "")

needs_preloading = pytest.mark.skipif(bool(RUNNER), reason="the library is loaded into the runner")


def preloaded(**settings):
    """The environment that preloads the library with these settings."""
    assert HANGUP_LIBRARY, "PLAX_HANGUP_LIBRARY names the library built from hangup.cpp"
    return {"LD_PRELOAD": HANGUP_LIBRARY, **settings,
            "ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"}
