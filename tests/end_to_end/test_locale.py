"""The caller's locale changes nothing: numbers keep their decimal point."""

import subprocess
import sys

import pytest

from command_line import SOCKET_OPTION, ask, record, succeeds
from harness import environment, frame

pytestmark = pytest.mark.xdist_group("locale")  # the fixture makes it once

DECIMAL_COMMA = "de_DE.UTF-8"


@pytest.fixture(name="decimal_comma", scope="module")
def make_locale_with_a_decimal_comma(tmp_path_factory):
    """The environment of a caller with this locale, which is built here and need not be installed."""
    directory = tmp_path_factory.mktemp("locales")
    subprocess.run(["localedef", "-i", "de_DE", "-f", "UTF-8", directory / DECIMAL_COMMA], check=True)
    return {"LOCPATH": str(directory), "LC_ALL": DECIMAL_COMMA}


def test_locale_has_a_decimal_comma(decimal_comma):
    program = "import locale; locale.setlocale(locale.LC_ALL, ''); print(locale.format_string('%.2f', 0.75))"
    run = subprocess.run([sys.executable, "-c", program], env=environment(**decimal_comma), stdout=subprocess.PIPE,
                         check=True)
    assert run.stdout == b"0,75\n"


# The bits of 0.75, and of the 0 before the comma.
@pytest.mark.parametrize("word, bits", [("0.75", 0x3fe8000000000000), ("0,75", 0)])
def test_decimal_point_stays_a_point(word, bits, decimal_comma):
    run = ask(SOCKET_OPTION, "start-proactive-rebalance", "3600", word, env=decimal_comma)
    assert run == (succeeds(), frame(10, record("QQQQ", 3600, bits, 1800, 14913081)))
