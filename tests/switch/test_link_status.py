"""What the switch writes into a datastore."""

import os
import shutil
import subprocess
import tempfile
from pathlib import Path
from types import SimpleNamespace

import pytest

from lab.datastore import Datastore
from lab.waiting import eventually
from switchbench import PORTS, SOON

ROOT = Path(__file__).resolve().parents[2]


def datastore_programs():
    prefix = os.environ.get("LACPD_DEPS_PREFIX") or subprocess.run(
        [ROOT / "scripts/deps.sh", "--prefix"], check=True, capture_output=True, text=True).stdout.strip()
    return SimpleNamespace(sysrepocfg=Path(prefix) / "bin/sysrepocfg", sysrepoctl=Path(prefix) / "bin/sysrepoctl",
                           datastore_setup=ROOT / "scripts/datastore.sh")


@pytest.fixture
def stand(bench):
    """The bench with a private datastore."""
    directory = Path(tempfile.mkdtemp(prefix="switch-test-", dir="/dev/shm"))
    try:
        bench.datastore = Datastore(directory, datastore_programs())
        bench.datastore.install()
        yield bench
        bench.process.stop()
    finally:
        shutil.rmtree(directory, ignore_errors=True)


def statuses(stand):
    return {name.rpartition("/")[2]: entry["interface-basic"]["link-status"]
            for name, entry in stand.datastore.interfaces().items()}


def published(stand):
    return {str(port["port"]): port["published"] for port in stand.state()["ports"]}


def test_every_entry_is_there_with_its_carrier_when_the_switch_is_ready(stand):
    stand.namespace.ip("link", "set", "far2", "down")
    stand.start()
    assert statuses(stand) == {"1": "up", "2": "down", "3": "up"}
    assert published(stand) == statuses(stand)
    assert stand.state()["datastore"] == {"written": len(PORTS), "failed": 0}


def test_carriers_are_written_one_by_one(stand):
    stand.start()
    for state in ("down", "up"):
        for port in PORTS:
            stand.namespace.ip("link", "set", f"far{port}", state)
        wanted = {str(port): state for port in PORTS}
        eventually(f"every port is {state}", lambda: statuses(stand), lambda found, wanted=wanted: found == wanted,
                   SOON)
    eventually("what is published", lambda: published(stand), lambda found: found == statuses(stand), SOON)
    assert stand.state()["datastore"] == {"written": 3 * len(PORTS), "failed": 0}


def test_entries_of_an_earlier_switch_are_corrected(stand):
    stand.start()
    stand.process.stop()
    stand.namespace.ip("link", "set", "far3", "down")
    stand.start()
    assert statuses(stand) == {"1": "up", "2": "up", "3": "down"}


def test_a_removed_entry_is_made_again_by_the_next_change(stand):
    stand.start()
    stand.datastore.edit("olt-ifm", '<up-link-ports><interface nc:operation="delete">'
                                    "<name>gigabitethernet 0/2</name></interface></up-link-ports>")
    assert set(statuses(stand)) == {"1", "3"}
    stand.namespace.ip("link", "set", "far2", "down")
    eventually("port 2 is down", lambda: statuses(stand).get("2"), lambda status: status == "down", SOON)
    assert stand.state()["datastore"]["failed"] == 1


def test_a_datastore_without_modules_is_named(bench):
    directory = Path(tempfile.mkdtemp(prefix="switch-test-", dir="/dev/shm"))
    try:
        bench.datastore = Datastore(directory, datastore_programs())
        result = bench.run()
        assert result.returncode == 1
        assert "olt-switch: the datastore cannot be used" in result.stderr and "--no-datastore" in result.stderr
        assert "switch runs" not in result.stdout
    finally:
        shutil.rmtree(directory, ignore_errors=True)
