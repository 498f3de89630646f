"""Starts that meet a refusal, a lock, no switch or another daemon: nothing configured is lost, nothing waits for ever."""

import os
import signal
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor
from contextlib import contextmanager
from pathlib import Path

import pytest

from helpers import enter, join, quietly
from lab import Capture, Lab, Programs, Ticks, eventually

CLIENT = Path(__file__).parent / "fault_client.py"
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


@contextmanager
def client(system, *words, user=None, umask=-1):
    """Another client of the datastore, see fault_client.py, until the block ends."""
    with subprocess.Popen([sys.executable, CLIENT, system.programs.prefix / "lib", *map(str, words)], user=user,
                          umask=umask, env={**os.environ, **system.datastore.environment}, stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE, text=True, group=user) as process:
        assert process.stdout.readline() == "ready\n"
        yield
        process.stdin.close()


def seconds(action, *arguments):
    begin = time.monotonic()
    return action(*arguments), time.monotonic() - begin


def ends(system):
    status, took = seconds(system.stop_daemon)
    assert status == 0 and took < 2, f"status {status} after {took:.1f} s"


def test_refused_lines_are_not_lost(left):
    left.start_daemon(environment={"KEL_DB_INVENTORY_WAIT": "0"})
    left.daemon.wait_for_output("line 4 refused: interface gigabitEthernet 0/1, channel-group 1 mode on: ", Ticks.LINK)
    with left.shell() as shell:
        for command in ("write memory", "copy running-config startup-config"):
            said = shell.run(command)
            assert "stays as it was" in said and "line 6: interface gigabitEthernet 0/2, channel-group 1 mode on" in said
        assert "! refused at the start, line 4: interface gigabitEthernet 0/1" in shell.run("show running-config")
    left.start_switch()
    left.daemon.wait_for_output("interface 0/1 was not there at the start: restart lacpd to take it!", Ticks.LINK)
    assert left.configuration_file.read_text().splitlines() == LINES
    lines = left.configuration_file.read_text()
    left.write_configuration(f"{lines}interface gigabitEthernet 0/2\nchannel-group 1 mode active\nno such line\n")
    left.restart_daemon()
    left.await_trunk(1, {1, 2}, Ticks.of(3))
    assert {"line 9: interface gigabitEthernet 0/2, channel-group 1 mode active", "line 10: no such line"} <= {
        line.strip() for line in left.configure("do write memory").splitlines()}
    quietly(left, *enter(1, "no channel-group 1"), *enter(2, "no channel-group 1"),
            *join(2, 1, "active"))
    left.write_configuration(lines)  # its refused lines are configured by now, or no longer there
    assert "Configuration saved" in left.configure("do write memory")
    assert " channel-group 1 mode active" in left.configuration_file.read_text().splitlines()


def test_the_start_waits_for_the_switch_and_for_a_lock(left):
    left.daemon = left.launch_daemon(environment={"KEL_DB_INVENTORY_WAIT": "infinity"})
    left.daemon.wait_for_output("waiting for the switch, however long it takes", Ticks.LINK)
    ends(left)
    left.daemon = left.launch_daemon(environment={"KEL_DB_INVENTORY_WAIT": "infinity"})
    left.start_switch()
    left.await_trunk(1, {1, 2}, Ticks.of(3))
    with client(left, "lock"), left.shell() as one, left.shell() as other, ThreadPoolExecutor() as pool:
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


def test_a_check_and_a_second_daemon_change_nothing(left):
    left.start_switch("--stale-grace", "1")
    left.start_daemon()
    left.await_trunk(1, {1, 2}, Ticks.of(3))
    state = [left.datastore.read(module) for module in ("olt-lacp", "olt-ifm")]
    other = left.run_directory / "other.conf"
    other.write_text("password lab\ninterface gigabitEthernet 0/2\n channel-group 1 mode active\n"
                     "int g 0/1\nchannel-group 1 mode on\n lacp timeout medium\nlacp system-priority 1\n int g 0/9\n"
                     " channel-group 1 load-balance src-ip\nend\n")
    said = subprocess.run([*left.namespace.enter(), left.programs.lacpd, "-C", "-f", other], capture_output=True,
                          text=True, check=False, env={**os.environ, **left.environment})
    assert said.returncode == 1 and [line.partition(" refused: ")[0] for line in said.stderr.splitlines()] == [
        f"lacpd: {other} line {number}" for number in (5, 6, 8)]
    other.write_text("password lab\nlacp system-priority 1\nchannel-group 1 load-balance src-ip\n")
    second = left.launch_daemon("--log-level", "debug", name="second", configuration=other, port=2705)
    second.wait_for_output(f"process {left.daemon.pid} already serves", Ticks.LINK)
    time.sleep(2.5)  # longer than the switch keeps what a new daemon does not ask for
    assert left.trunks() == {1: {1, 2}}
    assert second.stop() == 0 and state == [left.datastore.read(module) for module in ("olt-lacp", "olt-ifm")]


def test_the_background(left):
    left.start_switch()
    parent = left.launch_daemon("-d", name="background")
    parent.wait(Ticks.of(10))
    assert parent.status == 0 and left.listens() and left.trunks() == {1: {1, 2}}
    child = int((left.run_directory / "background.pid").read_text())
    os.kill(child, signal.SIGTERM)
    eventually("the child ends", lambda: Path(f"/proc/{child}").exists(), lambda there: not there, 2)
    assert left.launch_daemon("-d", "-u", "nobody-of-that-name").wait(Ticks.LINK) != 0


def test_other_users_subscribe(left):
    left.start()
    left.await_trunk(1, {1, 2}, Ticks.of(3))
    with client(left, "refuse", 0, umask=0o077), client(left, "refuse", 0, user="daemon", umask=0o022):
        quietly(left, *enter(2, "no channel-group 1"), *join(2, 2, "active"))
        assert left.trunks() == {1: {1}}


def test_what_others_provoke_is_counted(left):
    left.start()
    with Capture(left.namespace, "cpu0") as wire:
        for frame in range(2000):
            wire.send(bytes(12) + b"\x90\x82\0")
            if frame == 0:
                left.daemon.wait_for_output("Msg: Parse msg error.", Ticks.LINK)
    left.daemon.wait_for_output(" more within 10 seconds", 12)
    assert left.daemon.output().count("Msg: Parse msg error.") == 21
