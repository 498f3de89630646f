import os
import sys
from pathlib import Path

import pytest

TESTS = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TESTS))

from switchbench import SwitchBench  # noqa: E402 (needs the path above)


def pytest_addoption(parser):
    parser.addoption("--switch", default=os.environ.get("OLT_SWITCH", str(TESTS.parent / "build/switch/olt-switch")),
                     help="the program under test")


@pytest.fixture
def bench(pytestconfig, tmp_path):
    with SwitchBench(pytestconfig.getoption("--switch"), tmp_path) as stand:
        yield stand


@pytest.fixture
def switch(bench):
    """A running switch with ports 1 to 3."""
    bench.start()
    return bench
