"""Ports of one group that see different partners, cables that move, and a cable that comes back."""

import re
import time

import pytest

from helpers import await_groups, await_machines, dotted, enter, join, leave, neighbours, ping, quietly
from lab import Ticks, eventually, stays

# Another port becomes the aggregator: selection within two ticks, the partner's answer in two more, wait_while (3).
OTHER_AGGREGATOR = Ticks.of(2 + 2 + 3)
STANDBY = {"selection": "STANDBY", "mux": "WAITING", "forwards": False}
SERVING = {"receive": "CURRENT", "selection": "SELECTED", "mux": "COL_DISTR", "forwards": True}
FAST = "lacp timeout short"


@pytest.fixture(scope="module")
def systems(lab):
    """Three systems. Left's ports 1 and 2 go to right, 3 and 4 to other; 7 and 8 to other's 3 and 4."""
    left, right, other = lab.system("left", ports=8), lab.system("right", ports=3), lab.system("other", ports=6)
    for port in (1, 2):
        lab.cable(left, port, right, port)
        lab.cable(left, port + 2, other, port)
        lab.cable(left, port + 6, other, port + 2)
    left.ends = {port: lab.loose_cable(left, port) for port in (5, 6)}
    other.ends = {port: lab.loose_cable(other, port) for port in (5, 6)}
    right.end = lab.loose_cable(right, 3)
    lab.patch(left.ends[5], right.end)
    for system in (left, right, other):
        system.add_host()
        system.start()
    return left, right, other


def await_left_and_right(systems, left_trunks, within, right_trunks=None):
    left, right, _ = systems
    await_groups([left], left_trunks, within)
    await_groups([right], right_trunks or {1: {1, 2}, 3: {3}}, within)


def test_ports_of_another_partner_or_key_stand_by(systems):
    left, right, other = systems
    for system, group_of in ((left, {1: 1, 2: 1, 3: 1, 4: 1, 7: 2, 8: 2, 5: 3, 6: 3}), (right, {1: 1, 2: 1, 3: 3}),
                             (other, {1: 1, 2: 1, 3: 2, 4: 3})):
        quietly(system, *(line for port, group in group_of.items() for line in join(port, group, "active", FAST)))
    with right.shell() as shell:
        shell.run("write memory")
    await_left_and_right(systems, {1: {1, 2}, 2: {7}, 3: {5}}, Ticks.FORM)
    await_machines(left, Ticks.FORM, p1=SERVING, p2=SERVING, p3=STANDBY, p4=STANDBY, p7=SERVING, p8=STANDBY)
    stays("left's trunks do not move", left.trunks, lambda trunks: trunks == {1: {1, 2}, 2: {7}, 3: {5}},
          Ticks.NOT_FORMED / 2)
    assert {port: pair[1].system for port, pair in neighbours(left, 1).items()} == {
        1: dotted(right.mac), 2: dotted(right.mac), 3: dotted(other.mac), 4: dotted(other.mac)}
    assert {port: pair[1].key for port, pair in neighbours(left, 2).items()} == {7: 2, 8: 3}
    assert ping(right, left.host_address) == 20
    assert ping(other, left.host_address, count=3) == 0, "its ports stand by"


def test_the_port_priority_chooses_the_partner(systems):
    left, _, other = systems
    quietly(left, *enter(3, "lacp port-priority 100"))
    await_groups([left], {1: {3, 4}, 2: {7}, 3: {5}}, OTHER_AGGREGATOR)
    await_machines(left, OTHER_AGGREGATOR, p1=STANDBY, p2=STANDBY, p3=SERVING, p4=SERVING)
    assert ping(other, left.host_address) == 20
    quietly(left, *enter(3, "lacp port-priority default"))
    await_groups([left], {1: {1, 2}, 2: {7}, 3: {5}}, OTHER_AGGREGATOR)


def test_those_that_stand_by_take_over_and_give_back(systems):
    left, right, other = systems
    right.daemon.stop(number=9)
    quietly(other, *leave(3, 2))
    await_machines(left, Ticks.LOST_SHORT, p1={"receive": "EXPIRED"}, p2={"receive": "EXPIRED"})
    await_groups([left], {1: {3, 4}, 2: {8}}, Ticks.LOST_SHORT + OTHER_AGGREGATOR)
    alone = {"receive": "DEFAULTED", "selection": "SELECTED", "mux": "COL_DISTR"}
    await_machines(left, Ticks.of(3), p1={**alone, "aggregator": 1}, p2={**alone, "aggregator": 2})
    mine, partner = neighbours(left, 1)[1]
    assert mine.flags.endswith("I") and (partner.system, partner.key) == ("0000.0000.0000", 0)
    assert ping(other, left.host_address) == 20

    right.start_daemon()
    quietly(other, *join(3, 3, "active"))
    await_left_and_right(systems, {1: {1, 2}, 2: {7, 8}, 3: {5}}, Ticks.FORM)
    await_machines(left, Ticks.FORM, p3=STANDBY, p4=STANDBY)
    assert other.datastore.members(3) == {3, 4}


def test_crossed_cables_aggregate_and_are_seen(systems, lab):
    left, right, _ = systems
    for port in (1, 2):
        left.namespace.ip("link", "del", left.port_interface(port))
    left.await_trunk(1, {3, 4}, OTHER_AGGREGATOR)
    lab.cable(left, 1, right, 2)
    lab.cable(left, 2, right, 1)
    await_left_and_right(systems, {1: {1, 2}, 2: {7, 8}, 3: {5}}, Ticks.FORM)
    assert {port: pair[1].number for port, pair in neighbours(left, 1).items() if port < 3} == {1: 2, 2: 1}


def moved(system, port):
    """The counter of partners that came to a port from another one."""
    rows = system.configure("show channel-group information")
    return int(re.search(rf"^{port:02} +[UD][UD](?: +\d+){{7}} +(\d+)(?: +\d+){{2}}$", rows, re.MULTILINE)[1])


def test_a_partner_that_moves_to_another_port_is_followed(systems, lab):
    left, right, _ = systems
    assert (moved(left, 5), moved(left, 6)) == (0, 0)
    lab.patch(right.end, left.ends[6])
    # Heard on the new port within two ticks; the old one starts over at once and not after the timeout.
    await_groups([left], {1: {1, 2}, 2: {7, 8}, 3: {6}}, Ticks.of(2) + OTHER_AGGREGATOR)
    assert (moved(left, 5), moved(left, 6)) == (0, 1)
    await_groups([right], {1: {1, 2}, 3: {3}}, Ticks.FORM)
    assert neighbours(right, 3)[3][1].number == 6
    assert left.datastore.link_status(5) == "up"


def crossings(system, ports):
    """User frames that went out of and came in over these ports, and those that the host sent and got."""
    traffic = system.state()["traffic"]
    counts = [system.traffic(port) for port in ports]
    return (*(sum(count[way]["frames"] for count in counts) for way in ("tx", "rx")),
            *(traffic["host"][way]["frames"] for way in ("rx", "tx")))


@pytest.mark.parametrize("mode", ["active", "on"])
def test_a_cable_back_to_the_same_system_does_no_harm(systems, lab, mode):
    left, _, other = systems
    for port in (1, 2) if mode == "active" else (5, 6):
        quietly(other, *leave(port, 1))
    lab.patch(other.ends[5], other.ends[6])
    other.await_trunk(1, set(), Ticks.LINK)
    quietly(other, *(line for port in (5, 6) for line in join(port, 1, mode, *([FAST] if mode == "active" else []))))
    await_groups([other], {1: {5, 6}, 3: {3, 4}}, Ticks.FORM)
    before = crossings(other, (5, 6))
    assert ping(other, "10.77.255.255", count=10, options=("-b",)) == 0
    eventually("all frames are counted", lambda: crossings(other, (5, 6)),
               lambda seen: len({now - then for now, then in zip(seen, before)}) == 1 and seen != before, Ticks.LINK)
    counted = crossings(other, (5, 6))
    assert counted[0] - before[0] >= 10
    time.sleep(0.5)
    assert crossings(other, (5, 6)) == counted, "frames go round"
    assert left.trunks() == {1: {1, 2}, 2: {7, 8}, 3: {6}}
    await_machines(left, 0, p7=SERVING)
