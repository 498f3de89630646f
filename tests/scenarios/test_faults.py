"""Faults around a running daemon: it survives each, loses nothing that is configured and needs no restart."""

import functools
import signal
import time

import pytest

from faults import form, in_the_way, processor_seconds, report, seconds_until_formed, slow
from helpers import join, leave, quietly
from lab import Capture, Ticks, eventually, stays
from lab.wire import SLOW_PROTOCOLS_ADDRESS

LOST = {2: {3}}


@pytest.fixture(scope="module")
def started(pair):
    form(pair)
    daemons = [system.daemon.pid for system in pair]
    yield pair
    assert [system.daemon.pid for system in pair] == daemons
    assert [system.daemon.status for system in pair] == [None, None], "no restart"


@pytest.fixture
def formed(started):
    """Whatever the test before has left behind."""
    for system in started:
        for port in (1, 2, 3):
            system.set_link(port, up=True)
    seconds_until_formed(started)
    return started


# ---- the CPU interface

def lose_cpu_interface(pair, lose, bring_back):
    daemon = pair[0].daemon
    used = processor_seconds(daemon)
    lose()
    seconds_until_formed(pair, Ticks.LOST_SHORT, LOST)
    assert processor_seconds(daemon) - used < 1.0, "no thread spins while the interface is away"
    bring_back()
    report("ethv0 lost", seconds_until_formed(pair))


@slow
def test_the_cpu_interface_goes_down_and_up(formed):
    left, _ = formed
    lose_cpu_interface(formed, *(functools.partial(left.namespace.ip, "link", "set", "ethv0", state)
                                 for state in ("down", "up")))


def speak_elsewhere(system):
    """A stranger's LACPDU for port 1, tagged as the switch does it, on another interface of the terminal."""
    system.namespace.ip("link", "add", "lan0", "type", "veth", "peer", "name", "lan1")
    for name in ("lan0", "lan1"):
        system.namespace.ip("link", "set", name, "up")
    stranger = bytes.fromhex("01010114 8000029988776655 0001 8000 0001 3d000000 0214".replace(" ", ""))
    tag = bytes.fromhex("9082 0000 0000 0001 0000 0000 8100 0001 8809".replace(" ", ""))
    with Capture(system.namespace, "lan1") as wire:
        wire.send(SLOW_PROTOCOLS_ADDRESS + bytes.fromhex("029988776655") + tag + stranger.ljust(110, b"\0"))
    trunks = system.trunks()
    stays("nobody else speaks", system.trunks, lambda seen: seen == trunks and seen[1] == {1, 2}, Ticks.FAST_PERIOD)


def test_the_cpu_interface_is_made_again(formed):
    left, _ = formed
    lose_cpu_interface(formed, left.remove_cpu_interface, left.add_cpu_interface)
    speak_elsewhere(left)
    assert left.daemon.output().count("LACP Msg: interface ethv0 has now index ") == 1


# ---- the driver service

def change_memberships(system):
    """Joins, leaves, and ends as it began except for port 2, which has moved into the manual group."""
    quietly(system, *leave(3, 2), *join(3, 3, "on"), *leave(3, 3), *join(3, 2, "on"), *leave(2, 1), *join(2, 2, "on"))


def driver_service_away(pair, seconds):
    left, _ = pair
    left.stop_switch()
    until = time.monotonic() + seconds
    change_memberships(left)
    left.set_link(3, up=False)
    time.sleep(max(until - time.monotonic(), 0))
    left.start_switch()
    left.await_trunk(2, {2}, Ticks.LINK)
    left.await_trunk(1, {1}, Ticks.FORM)
    left.set_link(3, up=True)
    left.await_trunk(2, {2, 3}, Ticks.LINK)
    quietly(left, *leave(2, 2), *join(2, 1, "active", "lacp timeout short"))
    report(f"driver service away for {seconds} s", seconds_until_formed(pair))


def test_memberships_change_while_the_driver_service_is_away(formed):
    driver_service_away(formed, 0)


@slow
def test_the_driver_service_is_away_for_a_minute(formed):
    driver_service_away(formed, 60)


# ---- the datastore

def test_a_locked_datastore_refuses_commands_and_delays_members(formed):
    left, right = formed
    with in_the_way(left, "lock"):
        right.set_link(2, up=False)
        stays("left: members stay while the lock holds", lambda: left.datastore.members(1), lambda m: m == {1, 2}, 2)
        right.set_link(2, up=True)
        right.set_link(1, up=False)  # its removal and its return are refused in turn
        started = time.monotonic()
        assert "failed" in left.configure(*join(3, 3, "on")).lower()
        refused = time.monotonic() - started
    right.set_link(1, up=True)
    report(f"datastore locked (a command was refused after {refused:.1f} s)", seconds_until_formed(formed))


@slow
@pytest.mark.parametrize("count", [1, 3])
def test_refused_member_writes_are_made_up_for(formed, count):
    left, right = formed
    with in_the_way(left, "refuse", count):
        right.set_link(1, up=False)
        left.await_members(1, {2}, Ticks.of(count))
        right.set_link(1, up=True)
    report(f"member writes refused {count} times", seconds_until_formed(formed))


def test_a_refused_attachment_is_made_up_for(formed):
    left, right = formed
    right.set_link(2, up=False)  # port 1 stays, and with it the aggregator
    left.await_members(1, {1}, Ticks.LINK)
    with in_the_way(left, "refuse", 3):
        right.set_link(2, up=True)
        eventually("left: attached and refused", left.daemon.output,
                   lambda text: "add interface to lacp-group database failed!" in text, Ticks.FORM)
        assert left.trunks()[1] == {1} == left.datastore.members(1), "the trunk is what the datastore holds"
        # Each time the port stands by for twice as long, and waits three ticks to be attached again.
        report("attachment refused 3 times", seconds_until_formed(formed, Ticks.of(2 + 4 + 8 + 3 * 5)))


# ---- a stalled dispatcher, a stopped daemon

def stall_dispatcher(pair, seconds):
    left, right = pair
    with in_the_way(left, "stall", seconds):
        right.set_link(1, up=False)
        time.sleep(seconds)
        right.set_link(1, up=True)
    report(f"dispatcher waits {seconds} s for the datastore", seconds_until_formed(pair, 2 * seconds + Ticks.FORM))


def test_the_dispatcher_waits_for_the_datastore(formed):
    stall_dispatcher(formed, 5)


@slow
def test_the_dispatcher_waits_for_the_datastore_beyond_the_time_out(formed):
    stall_dispatcher(formed, 30)


def stop_daemon(pair, seconds):
    left, right = pair
    left.daemon.send_signal(signal.SIGSTOP)
    right.await_trunk(1, set(), Ticks.LOST_SHORT)
    time.sleep(max(seconds - Ticks.LOST_SHORT, 0))
    left.daemon.send_signal(signal.SIGCONT)
    report(f"daemon stopped for {seconds} s", seconds_until_formed(pair))


def test_the_daemon_is_stopped_for_a_while(formed):
    stop_daemon(formed, 10)


@slow
def test_the_daemon_is_stopped_for_a_hundred_seconds(formed):
    stop_daemon(formed, 100)
