"""Starts that meet a refusal, a lock or no switch: nothing configured is lost, nothing waits for ever."""

import time
from concurrent.futures import ThreadPoolExecutor

import pytest

from helpers import enter, in_the_way, join, quietly
from lab import Capture, Lab, Programs, Ticks, eventually

LINES = ["hostname left", "password lab", "interface gigabitEthernet 0/1", " channel-group 1 mode on",
         "interface gigabitEthernet 0/2", " channel-group 1 mode on", "lacp system-priority 7"]
LOCKED = "waiting for the datastore, which is locked by the client with datastore session"


@pytest.fixture
def left(pytestconfig):
    """A system with two ports and a configuration; nothing runs yet."""
    with Lab(Programs(pytestconfig.getoption("--build"))) as lab:
        system = lab.system("left", 2)
        for port in (1, 2):
            lab.loose_cable(system, port)
        system.write_configuration("\n".join([*LINES, ""]))
        yield system


def seconds(action, *arguments):
    begin = time.monotonic()
    return action(*arguments), time.monotonic() - begin


def ends(system):
    status, took = seconds(system.stop_daemon)
    assert status == 0 and took < 2, f"status {status} after {took:.1f} s"


def test_the_start_waits_for_the_switch_and_for_a_lock(left):
    left.daemon = left.launch_daemon(environment={"KEL_DB_INVENTORY_WAIT": "infinity"})
    left.daemon.wait_for_output("waiting for the switch, however long it takes", Ticks.LINK)
    ends(left)
    left.daemon = left.launch_daemon(environment={"KEL_DB_INVENTORY_WAIT": "infinity"})
    left.start_switch()
    left.await_trunk(1, {1, 2}, Ticks.of(3))
    with in_the_way(left, "lock"), left.shell() as one, left.shell() as other, ThreadPoolExecutor() as pool:
        for line in ("configure terminal", "interface gigabitEthernet 0/1"):
            one.run(line)
        refused = pool.submit(seconds, one.run, "channel-group 2 mode active")
        while not refused.done():
            assert seconds(other.run, "show channel-group detail")[1] < 0.5
        said, took = refused.result()
        assert "failed" in said and 1 < took < 3 and one.prompt == "left(config-if-ge0/1)# "
        answers = [pool.submit(seconds, one.run, "lacp port-priority 9"),
                   pool.submit(seconds, other.configure, "lacp system-priority 9")]
        assert all("failed" in said and took < 3 for said, took in (answer.result() for answer in answers))
        stuck = pool.submit(one.run, "lacp port-priority 9")
        ends(left)
        assert stuck.exception()
        for signalled in (True, False):
            left.daemon = left.launch_daemon()
            left.daemon.wait_for_output(LOCKED, Ticks.LINK)
            if signalled:
                ends(left)
    eventually("the last line", left.datastore.system_priority, lambda priority: priority == 7, Ticks.of(3))
    assert left.trunks() == {1: {1, 2}} and left.daemon.output().count(LOCKED) == 1


def test_what_others_do(left):
    left.start()
    left.await_trunk(1, {1, 2}, Ticks.of(3))
    with in_the_way(left, "refuse", 0, user="root", umask=0o077), in_the_way(left, "refuse", 0, umask=0o022):
        quietly(left, *enter(2, "no channel-group 1"), *join(2, 2, "active"))
        assert left.trunks() == {1: {1}}, "subscribers of any user are no hindrance"
    with Capture(left.namespace, "cpu0") as wire:
        for frame in range(2000):
            wire.send(bytes(12) + b"\x90\x82\0")
            if frame == 0:
                left.daemon.wait_for_output("Msg: Parse msg error.", Ticks.LINK)
    left.daemon.wait_for_output(" more within 10 seconds", 12)
    assert left.daemon.output().count("Msg: Parse msg error.") == 21
