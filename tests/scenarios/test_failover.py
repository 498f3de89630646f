"""Links that flap in some groups, while others serve."""

import contextlib
import itertools

import pytest

from helpers import await_groups, join, neighbours, quietly
from lab import Capture, Flow, Lacpdu, Ticks, eventually
from lab.wire import TIMEOUT as SHORT

FLAPS = 100
FLAPPING = (3, 6)  # the aggregator's port of group 2, and a manual group
MIXED = 5          # long timeout on the left, short on the right
ALL_UP = {1: {1, 2}, 2: {3, 4}, 3: {5}, 4: {6}}
SOME_DOWN = {1: {1, 2}, 2: {4}, 3: {5}}


@pytest.fixture(scope="module")
def pair(lab):
    left, right = lab.system("left", ports=6), lab.system("right", ports=6)
    for port in range(1, 7):
        lab.cable(left, port, right, port)
    for system, mode, mixed in ((left, "active", "long"), (right, "passive", "short")):
        system.add_host()
        system.start()
        quietly(system, *(line for port, group in ((1, 1), (2, 1), (3, 2), (4, 2))
                          for line in join(port, group, mode, "lacp timeout short")),
                *join(MIXED, 3, mode, f"lacp timeout {mixed}"), *join(6, 4, "on"))
    await_groups((left, right), ALL_UP, Ticks.FORM)
    return left, right


def flap(pair, times, up):
    """Each link goes down and up that often, by turns at either end, and is left up or down."""
    for system, _ in zip(itertools.cycle(pair), range(times)):
        for state in (False, True):
            for port in FLAPPING:
                system.set_link(port, state)
    if not up:
        for port in FLAPPING:
            pair[0].set_link(port, up=False)


def shown_members(system, group):
    """Ports of a group in the shell's own list."""
    text = system.configure(f"show channel-group {group} detail")
    members = text.partition("Port Member:")[2].partition("Uplink Port Member:")[0]
    return {int(line.rpartition("/")[2]) for line in members.splitlines() if "/" in line}


@contextlib.contextmanager
def unharmed(pair):
    """Nothing happens to flows over group 1, and the ports of group 3 send as the other end asks."""
    left, right = pair
    with contextlib.ExitStack() as stack:
        flows = [stack.enter_context(Flow(*ends)) for ends in ((left, right), (right, left))]
        fast, slow = (stack.enter_context(Capture(system.namespace, system.port_interface(MIXED)))
                      for system in (right, left))
        yield
        heard = {name: [Lacpdu(frame.data) for frame in capture.each(within=0)]
                 for name, capture in (("fast", fast), ("slow", slow))}
    for flow in flows:
        assert (flow.report.lost, flow.report.duplicates, flow.report.reordered) == (0, 0, 0)
    seconds = flows[0].report.sent / flows[0].report.rate
    assert abs(len(heard["fast"]) - seconds / Ticks.FAST_PERIOD) <= 2, (len(heard["fast"]), seconds)
    assert len(heard["slow"]) <= 1 + seconds / 31, (len(heard["slow"]), seconds)
    assert {pdu.actor.state & SHORT for pdu in heard["fast"]} == {0}, "it has the long timeout itself"
    assert {pdu.actor.state & SHORT for pdu in heard["slow"]} <= {SHORT}


def test_timeouts_of_both_sides_are_shown(pair):
    left, right = pair
    for system, flags in ((left, ("SA", "FP")), (right, ("FP", "SA"))):
        eventually(f"{system.name}: flags are {flags}", lambda s=system: neighbours(s, 3)[MIXED],
                   lambda sides, wanted=flags: tuple(side.flags for side in sides) == wanted, Ticks.of(4))


def test_a_hundred_flaps_end_right_and_disturb_nobody(pair):
    with unharmed(pair):
        for up, trunks in ((False, SOME_DOWN), (True, ALL_UP)):
            flap(pair, FLAPS // 2, up)
            await_groups(pair, trunks, Ticks.FORM)
            for system in pair:
                assert shown_members(system, 2) == trunks[2]
                assert shown_members(system, 4) == {6}, "a manual member stays one without its link"
    for system in pair:
        assert (system.daemon.status, system.switch.status) == (None, None)
        assert system.state()["ports"][2]["published"] == "up"
