import os
import re
import subprocess
import sys
from pathlib import Path

import pytest

TESTS = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TESTS.parent))

from lab.netns import Namespace  # noqa: E402 (needs the path above)
from machine import Machine  # noqa: E402


def pytest_addoption(parser):
    parser.addoption("--build", default=os.environ.get("LACPD_BUILD_DIR", str(TESTS.parent / "build")),
                     help="build directory of the package under test")


@pytest.fixture(scope="session")
def build(pytestconfig):
    return Path(pytestconfig.getoption("--build")).resolve()


@pytest.fixture(scope="session")
def package(build, tmp_path_factory):
    """The package of what is built, as target "package" makes it, but beside the build directory."""
    folder = tmp_path_factory.mktemp("package")
    result = subprocess.run(["cpack", "--config", build / "CPackConfig.cmake", "-B", folder], capture_output=True,
                            text=True, check=False)
    assert result.returncode == 0, result.stdout + result.stderr
    [file] = folder.glob("*.deb")
    return file


@pytest.fixture(scope="session")
def hidden(build):
    """What an installed program must not need: the build directory and the libraries that were built for it."""
    cache = (build / "CMakeCache.txt").read_text(encoding="utf-8")
    return [str(build), re.search(r"^LACPD_DEPS_PREFIX:PATH=(.*)$", cache, re.MULTILINE)[1]]


@pytest.fixture(scope="module")
def namespace():
    made = Namespace(f"lacpd-packaging-{os.getpid()}")
    yield made
    made.remove()


@pytest.fixture(scope="module")
def machine(hidden, namespace, tmp_path_factory):
    made = Machine(tmp_path_factory.mktemp("machine") / "layers", hidden, namespace)
    yield made
    made.close()


@pytest.fixture(scope="module")
def installed(machine, package):
    """A machine on which the package has just been installed."""
    machine.run("dpkg", "-i", package)
    return machine
