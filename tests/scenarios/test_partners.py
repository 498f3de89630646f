"""Ports of one group that see different partners, partners that move, and a cable that comes back."""

import re
import time

import pytest

from helpers import await_groups, await_machines, dotted, enter, join, leave, neighbours, ping, quietly
from lab import Ticks, eventually, stays

# Another port becomes the aggregator: selection within two ticks, the partner's answer in two more, wait_while (3).
OTHER_AGGREGATOR = Ticks.of(2 + 2 + 3)
STANDBY = {"selection": "STANDBY", "mux": "WAITING", "forwards": False}
SERVING = {"receive": "CURRENT", "selection": "SELECTED", "mux": "COL_DISTR", "forwards": True}
ALONE = {"receive": "DEFAULTED", "selection": "SELECTED", "mux": "COL_DISTR"}
FAST = "lacp timeout short"


@pytest.fixture(scope="module")
def systems(lab):
    """Left's ports 1 and 2 go to right, 3 and 4 to other's 1 and 2, 7 and 8 to other's 3 and 4."""
    left, right, other = lab.system("left", ports=8), lab.system("right", ports=3), lab.system("other", ports=6)
    for port in (1, 2):
        lab.cable(left, port, right, port)
        lab.cable(left, port + 2, other, port)
        lab.cable(left, port + 6, other, port + 2)
    left.ends, other.ends = ({port: lab.loose_cable(system, port) for port in (5, 6)} for system in (left, other))
    right.end = lab.loose_cable(right, 3)
    lab.patch(left.ends[5], right.end)
    for system, group_of in ((left, {1: 1, 2: 1, 3: 1, 4: 1, 7: 2, 8: 2, 5: 3, 6: 3}), (right, {1: 1, 2: 1, 3: 3}),
                             (other, {1: 1, 2: 1, 3: 2, 4: 3})):
        system.add_host()
        system.start()
        quietly(system, *(line for port, group in group_of.items() for line in join(port, group, "active", FAST)))
        with system.shell() as shell:
            shell.run("write memory")
    return left, right, other


def test_ports_of_another_partner_or_key_stand_by(systems):
    left, right, other = systems
    await_groups([left], {1: {1, 2}, 2: {7}, 3: {5}}, Ticks.FORM)
    await_groups([right], {1: {1, 2}, 3: {3}}, Ticks.FORM)
    await_machines(left, Ticks.FORM, p1=SERVING, p2=SERVING, p3=STANDBY, p4=STANDBY, p7=SERVING, p8=STANDBY)
    stays("left's trunks", left.trunks, lambda trunks: trunks == {1: {1, 2}, 2: {7}, 3: {5}}, Ticks.NOT_FORMED / 2)
    seen = neighbours(left, 1) | neighbours(left, 2)
    assert {port: pair[1].system for port, pair in seen.items()} == {
        port: dotted((right if port < 3 else other).mac) for port in (1, 2, 3, 4, 7, 8)}
    assert (seen[7][1].key, seen[8][1].key) == (2, 3)
    assert (ping(right, left.host_address), ping(other, left.host_address, count=3)) == (20, 0), "they stand by"


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
    await_machines(left, Ticks.of(3), p1={**ALONE, "aggregator": 1}, p2={**ALONE, "aggregator": 2})
    mine, partner = neighbours(left, 1)[1]
    assert mine.flags.endswith("I") and (partner.system, partner.key) == ("0000.0000.0000", 0)
    assert ping(other, left.host_address) == 20
    right.start_daemon()
    quietly(other, *join(3, 3, "active"))
    await_groups([left], {1: {1, 2}, 2: {7, 8}, 3: {5}}, Ticks.FORM)
    await_machines(left, Ticks.FORM, p3=STANDBY, p4=STANDBY)


def moved(system):
    """How often partners came to ports 5 and 6 from another port."""
    rows = system.configure("show channel-group information")
    return [*map(int, re.findall(r"^0[56] +[UD][UD](?: +\d+){7} +(\d+)(?: +\d+){2}$", rows, re.MULTILINE))]


def test_a_partner_that_moves_to_another_port_is_followed(systems, lab):
    left, right, _ = systems
    assert moved(left) == [0, 0]
    lab.patch(right.end, left.ends[6])
    # Heard on the new port within two ticks; the old one starts over at once and not after the timeout.
    await_groups([left], {1: {1, 2}, 2: {7, 8}, 3: {6}}, Ticks.of(2) + OTHER_AGGREGATOR)
    await_groups([right], {1: {1, 2}, 3: {3}}, Ticks.FORM)
    assert moved(left) == [0, 1] and neighbours(right, 3)[3][1].number == 6
    assert left.state()["ports"][4]["published"] == "up"


def crossings(system):
    """User frames out of and into ports 5 and 6, and those that the host sent and got."""
    counts = [*map(system.traffic, (5, 6)), system.state()["traffic"]["host"]]
    return [sum(count[way]["frames"] for count in counts[:2]) for way in ("tx", "rx")] + [
        counts[2][way]["frames"] for way in ("rx", "tx")]


@pytest.mark.parametrize("mode", ["active", "on"])
def test_a_cable_back_to_the_same_system_does_no_harm(systems, lab, mode):
    left, _, other = systems
    for port in (1, 2) if mode == "active" else (5, 6):
        quietly(other, *leave(port, 1))
    lab.patch(other.ends[5], other.ends[6])
    other.await_trunk(1, set(), Ticks.LINK)
    quietly(other, *(line for port in (5, 6) for line in join(port, 1, mode, *[FAST] * (mode == "active"))))
    await_groups([other], {1: {5, 6}, 3: {3, 4}}, Ticks.FORM)
    before = crossings(other)
    assert ping(other, "10.77.255.255", count=10, options=("-b",)) == 0
    counted = eventually("each frame crosses once", lambda: crossings(other), lambda seen: len(
        {now - then for now, then in zip(seen, before)}) == 1 and seen[0] >= before[0] + 10, Ticks.LINK)
    time.sleep(0.5)
    assert crossings(other) == counted, "frames go round"
    assert left.trunks() == {1: {1, 2}, 2: {7, 8}, 3: {6}}
