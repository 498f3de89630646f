import os
import sys
from pathlib import Path

import pytest

TESTS = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TESTS))

from lab import Lab, Programs  # noqa: E402 (needs the path above)


def pytest_addoption(parser):
    parser.addoption("--build", default=os.environ.get("LACPD_BUILD_DIR", str(TESTS.parent / "build")),
                     help="build directory of the programs under test")


@pytest.fixture(scope="session")
def programs(pytestconfig):
    return Programs(pytestconfig.getoption("--build"))


@pytest.fixture(scope="module")
def lab(programs):
    with Lab(programs) as bench:
        yield bench


@pytest.fixture(scope="module")
def pair(lab):
    """Two running systems with three cables between the ports of equal numbers."""
    left, right = lab.system("left", ports=3), lab.system("right", ports=3)
    for port in (1, 2, 3):
        lab.cable(left, port, right, port)
    left.start()
    right.start()
    return left, right


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    bench = item.funcargs.get("lab") if hasattr(item, "funcargs") else None
    if report.failed and bench is not None:
        report.sections.append(("logs of the systems", bench.logs()))
