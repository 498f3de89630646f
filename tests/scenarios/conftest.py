import os
import sys
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT))

from lab import Lab, Programs  # noqa: E402 (needs the path above)


def pytest_addoption(parser):
    parser.addoption("--build", default=os.environ.get("LACPD_BUILD_DIR", str(ROOT / "build")),
                     help="build directory of the programs under test")
    parser.addoption("--record", action="store_true", help="write what is answered into the transcripts")


@pytest.fixture(scope="module")
def lab(pytestconfig):
    with Lab(Programs(pytestconfig.getoption("--build"))) as bench:
        yield bench


@pytest.fixture(scope="module")
def pair(lab):
    """Two running systems with users behind them and three cables between the ports of equal numbers."""
    return lab.pair(3)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item):
    report = (yield).get_result()
    bench = getattr(item, "funcargs", {}).get("lab")
    if report.failed and bench is not None:
        report.sections.append(("logs of the systems", bench.logs()))
