"""Faults around a running daemon: it survives each, loses nothing that is configured and needs no restart; and a daemon
that is killed within a command leaves a system that the next one finds in order. Starts that meet a lock or no switch."""

import contextlib
import itertools
import os
import subprocess
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest
from scapy.contrib.lacp import LACP

from helpers import await_groups, enter, in_the_way, join, leave, quietly
from lab import Capture, Lab, LabError, Programs, ShellError, Ticks, eventually, stays
from lab.wire import SLOW_PROTOCOLS_ADDRESS

FORMED = {1: {1, 2}, 2: {3}}
CLOCK = "/usr/lib/{}-linux-gnu/faketime/libfaketimeMT.so.1".format(os.uname().machine)


def small_disk(system):
    """Moves a system's files, before it starts, to a disk that can be filled."""
    disk = system.directory / "disk"
    disk.mkdir()
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=16m,mode=755", "tmpfs", disk], check=True)
    for name in ("repository", "shm", "run"):  # the datastore's files, also those in memory, and the daemon's own
        subprocess.run(["mv", system.directory / name, disk], check=True)
        (system.directory / name).symlink_to(disk / name)
    return disk


@contextlib.contextmanager
def full(disk):
    with pytest.raises(OSError), open(disk / "filling", "wb", buffering=0) as file:
        while True:
            file.write(bytes(4096))
    yield
    (disk / "filling").unlink()


@pytest.fixture(scope="module")
def bench(lab):
    """A pair, the left one with a disk of its own and a clock that obeys."""
    pair = left, right = lab.pair(3, start=False)
    left.disk, left.clock = small_disk(left), left.directory / "clock"
    left.clock.write_text("+0")
    left.start_switch()
    left.start_daemon(environment={"LD_PRELOAD": CLOCK, "FAKETIME_TIMESTAMP_FILE": str(left.clock),
                                   "FAKETIME_DONT_FAKE_MONOTONIC": "1", "FAKETIME_NO_CACHE": "1", "FAKETIME_DISABLE_SHM": "1"})
    right.start()
    for system in pair:
        quietly(system, *(line for port in (1, 2) for line in join(port, 1, "active", "lacp timeout short")),
                *join(3, 2, "on"))
    yield pair
    left.stop()
    subprocess.run(["umount", "-l", left.disk], check=True)


def await_formed(bench):
    """For good: what is seen first may be from before the fault showed."""
    await_groups(bench, FORMED, Ticks.FORM)
    with contextlib.suppress(LabError):
        stays("formed", lambda: [system.trunks() for system in bench], lambda seen: seen == [FORMED] * 2, 1.5)
        return
    await_groups(bench, FORMED, Ticks.FORM)


@pytest.fixture
def pair(bench):
    """Formed before and after each fault, by the same daemons."""
    await_formed(bench)
    daemons = [system.daemon.pid for system in bench]
    yield bench
    await_formed(bench)
    assert [(system.daemon.pid, system.daemon.status) for system in bench] == [(pid, None) for pid in daemons]


def processor_seconds(process):
    fields = Path(f"/proc/{process.pid}/stat").read_text("ascii").rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def test_the_cpu_interface_is_made_again(pair):
    left, _ = pair
    used = processor_seconds(left.daemon)
    left.remove_cpu_interface()
    await_groups(pair, {2: {3}}, Ticks.LOST_SHORT)
    assert processor_seconds(left.daemon) - used < 1.0, "no thread spins while the interface is away"
    left.add_cpu_interface()
    await_groups(pair, FORMED, Ticks.FORM)
    assert left.daemon.output().count("LACP Msg: interface ethv0 has now index ") == 1


def test_a_stranger_speaks_on_another_interface(pair):
    left, _ = pair
    left.namespace.ip("link", "add", "lan0", "up", "type", "veth", "peer", "name", "lan1")
    left.namespace.ip("link", "set", "lan1", "up")
    tagged = bytes.fromhex("9082 00000000 0001 00000000 8100 0001 8809 01") + bytes(
        LACP(actor_system_priority=32768, actor_system="02:99:88:77:66:55", actor_key=1, actor_state=0x3d))
    with Capture(left.namespace, "lan1") as wire:
        wire.send(SLOW_PROTOCOLS_ADDRESS + bytes.fromhex("029988776655") + tagged)
    stays("nobody else speaks", left.trunks, lambda seen: seen == FORMED, Ticks.FAST_PERIOD)


def test_a_locked_datastore_refuses_commands_and_delays_members(pair):
    left, right = pair
    with in_the_way(left, "lock"):
        right.set_link(2, up=False)
        stays("members while the lock holds", lambda: left.datastore.members(1), lambda members: members == {1, 2}, 2)
        right.set_link(2, up=True)
        right.set_link(1, up=False)  # its removal and its return are refused in turn
        assert "failed" in left.configure(*join(3, 3, "on"))
    right.set_link(1, up=True)


def test_refused_member_writes_are_made_up_for(pair):
    left, right = pair
    right.set_link(2, up=False)
    await_groups(pair, {1: {1}, 2: {3}}, Ticks.LINK)
    with in_the_way(left, "edit") as ask:
        ask([], (1, "olt-lacp", False, 3))
        right.set_link(2, up=True)
        eventually("attached and refused", left.daemon.output,
                   lambda text: "add interface to lacp-group database failed!" in text, Ticks.FORM)
        assert left.trunks()[1] == {1} == left.datastore.members(1), "the trunk is what the datastore holds"
        # Each time the port stands by for twice as long, and waits three ticks to be attached again.
        await_groups(pair, FORMED, Ticks.of(2 + 4 + 8 + 3 * 5))


def test_the_dispatcher_waits_for_the_datastore(pair):
    left, right = pair
    with in_the_way(left, "stall", 5):
        right.set_link(1, up=False)
        time.sleep(5)
        right.set_link(1, up=True)
    await_groups(pair, FORMED, 10 + Ticks.FORM)


def test_the_wall_clock_jumps(pair):
    """There and back by twice as much."""
    left, right = pair
    left.clock.write_text("+400d")
    stays("formed", lambda: [system.trunks() for system in pair], lambda seen: seen == [FORMED] * 2,
          Ticks.LOST_SHORT / 2)
    right.set_link(2, up=False)
    left.await_trunk(1, {1}, Ticks.LINK)
    left.clock.write_text("-400d")
    right.set_link(2, up=True)
    await_groups(pair, FORMED, Ticks.FORM)
    quietly(left, *leave(3, 2), *join(3, 2, "on"))
    left.clock.write_text("+0")


def test_a_full_disk_refuses_and_loses_nothing(pair):
    left, right = pair
    with left.shell() as shell:
        assert "Configuration saved" in shell.run("write memory")
        saved, configured = left.configuration_file.read_text("utf-8"), left.configured()
        with full(left.disk):
            for _ in range(2):  # the second would take the place of the backup as well
                answer = shell.run("write memory")
                assert "No space left on device" in answer and "Configuration saved" not in answer
            assert left.configuration_file.read_text("utf-8") == saved
            assert "failed" in left.configure(*join(3, 3, "on"))
            assert left.configured() == configured
            right.set_link(2, up=False)
            stays("the daemon runs", lambda: left.daemon.status, lambda status: status is None, Ticks.LOST_SHORT / 2)
            assert "lacpd.resume cannot be written: No space left on device" in left.daemon.output()
        left.await_trunk(1, {1}, Ticks.FORM)
        right.set_link(2, up=True)
        await_groups(pair, FORMED, Ticks.FORM)
        quietly(left, *join(3, 3, "on"))
        assert "Configuration saved" in shell.run("write memory")
        assert "channel-group 3 mode on" in left.configuration_file.read_text("utf-8")
    quietly(left, *join(3, 2, "on"))


# ---- killed within a command

COMMANDS = {  # what goes before, the command, the trunks it leads to, what undoes it
    "join a manual group": ([], join(1, 1, "on"), {1: {1}}, leave(1, 1)),
    "join a dynamic group": ([], join(1, 1, "active"), {}, leave(1, 1)),
    "leave a manual group": (join(1, 1, "on"), leave(1, 1), {}, []),
    "leave a dynamic group": (join(1, 1, "active"), leave(1, 1), {}, []),
    "move to another group": (join(1, 1, "on"), join(1, 2, "on"), {2: {1}}, leave(1, 2)),
}


@pytest.fixture(scope="module")
def alone(lab):
    system = lab.system("alone", ports=1)
    lab.loose_cable(system, 1)
    system.start()
    return system


@pytest.mark.parametrize("when", ["change", "done"])  # before others take it, and when they have
@pytest.mark.parametrize("name", COMMANDS)
def test_a_daemon_killed_within_a_command(alone, name, when):
    before, command, trunks, undo = COMMANDS[name]
    for call in itertools.count(1):
        assert (alone.configured(), alone.datastore.groups()) == ([], {}), "start-up clears what the killed one left"
        quietly(alone, *before)
        with in_the_way(alone, "kill", alone.daemon.pid, when, call):
            with contextlib.suppress(ShellError, OSError, LabError):
                alone.configure(*command)
        killed = None
        with contextlib.suppress(LabError):
            killed = alone.daemon.wait(within=0.5)
        if killed:
            assert killed == -9
            alone.start_daemon()
            quietly(alone, *before, *command)
        eventually(f"trunks at call {call}", alone.trunks, lambda seen: seen == trunks, Ticks.LINK)
        quietly(alone, *undo)
        if not killed:
            assert call > 1
            break


# ---- starts that meet a lock or no switch: nothing configured is lost, nothing waits for ever

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


def test_a_start_beside_others(left):
    left.start()
    left.await_trunk(1, {1, 2}, Ticks.of(3))
    with in_the_way(left, "edit", user="root", umask=0o077), in_the_way(left, "edit", umask=0o022):
        quietly(left, *enter(2, "no channel-group 1"), *join(2, 2, "active"))
        assert left.trunks() == {1: {1}}, "subscribers of any user are no hindrance"
    with Capture(left.namespace, "cpu0") as wire:
        for frame in range(2000):
            wire.send(bytes(12) + b"\x90\x82\0")
            if frame == 0:
                left.daemon.wait_for_output("Msg: Parse msg error.", Ticks.LINK)
    left.daemon.wait_for_output(" more within 10 seconds", 12)
    assert left.daemon.output().count("Msg: Parse msg error.") == 21
