"""A partner of another make, Open vSwitch: groups form with it, either side changes, it falls silent and comes back."""

import itertools
import time
from collections import namedtuple
from concurrent.futures import ThreadPoolExecutor
from functools import partial
from types import SimpleNamespace

import pytest

from helpers import dotted, enter, neighbours, quietly
from lab.openvswitch import OpenVSwitch
from lab.ticks import TICK
from lab.waiting import POLL
from lab.wire import COLLECTING, DEFAULTED, DISTRIBUTING, SYNCHRONIZATION

IN_USE = SYNCHRONIZATION | COLLECTING | DISTRIBUTING
# In ticks of ours. The partner tells and answers at once, and its Synchronization does not wait for ours.
SELECT, WAIT, SEND = 2, 3, 1  # mux scheduler; wait_while; a LACPDU leaves on the tick after its need
ATTACH = SELECT + WAIT + SEND
START = 3 + ATTACH     # a first LACPDU: periodic, scheduler, sent
LOST = 4 + 4 + SELECT  # the short timeout to EXPIRED, again to DEFAULTED
SECOND = 1             # for datastore, switch and looking

# Groups by the partner's bonds; ticks from a change until both sides agree; the change: words for ovs-vsctl, or a
# function of the groups; ports in use then (None: all); a port that the partner must not lose meanwhile.
Row = namedtuple("Row", "bonds ticks change used kept", defaults=[None, None])


@pytest.fixture(scope="module")
def groups(lab):
    partner, made = lab.add(OpenVSwitch, "partner"), {}
    for place, (name, ports, size) in enumerate(
            (("one", 8, 2), ("two", 8, 2), ("three", 8, 2), ("four", 8, 8), ("five", 4, 4))):
        system = lab.system(name, ports)
        for port in range(1, ports + 1):
            number = (port - 1) // size + 1
            group = made.setdefault(f"{name}{number}", SimpleNamespace(
                partner=partner, system=system, number=number, bond=f"{name}{number}", ports={}))
            group.ports[port] = 8 * place + port  # the partner's
            lab.cable(system, port, partner, group.ports[port])
        system.start()
    partner.start()
    return made


def ours(*lines):
    return lambda group: quietly(group.system, *(line for port in group.ports for line in enter(port, *lines)))


def form(our_mode, their_mode, timeout, rate, group):
    ours(f"channel-group {group.number} mode {our_mode}", f"lacp timeout {timeout}")(group)
    group.partner.add_bond(group.bond, list(group.ports.values()), f"lacp={their_mode} other_config:lacp-time={rate}")


def exchange(one, other):
    for group in (one, other):
        ours(f"no channel-group {group.number}")(group)
    one.number, other.number = other.number, one.number
    for group in (one, other):
        ours(f"channel-group {group.number} mode active")(group)


ONE, TWO, THREE = (" ".join(f"{name}{number}" for number in range(1, 5)) for name in ("one", "two", "three"))
KINDS = [(bond, *modes, *times) for bonds, modes in (  # ours and theirs
    (ONE, ("active", "active")), (TWO, ("active", "passive")), (THREE, ("passive", "active")))
    for bond, times in zip(bonds.split(), itertools.product(("short", "long"), ("fast", "slow")))]
ALL, FOUR = f"{ONE} {TWO} {THREE} five1", range(1, 5)
ROUNDS = {
    "forming": [*(Row(bond, 1 + START, partial(form, *kind)) for bond, *kind in KINDS),
                Row("four1", 1 + START, partial(form, "active", "active", "short", "fast"), FOUR),
                Row("five1", 1 + START, partial(form, "active", "active", "short", "fast"))],
    "other timeouts": [
        *(Row(bond, ATTACH, f"set port {bond} other_config:lacp-time=fast")
          for bond, *kind in KINDS if "slow" in kind),
        *(Row(bond, ATTACH, ours("lacp timeout short")) for bond, *kind in KINDS if "long" in kind)],
    "changes": [
        Row("one1", ATTACH, "set port one1 other_config:lacp-system-priority=100"),
        Row("one2", ATTACH, 'set port one2 other_config:lacp-system-id="02:00:00:00:ee:02"'),
        Row("one3", ATTACH, "set interface ge5 other_config:lacp-aggregation-key=77 -- "
                            "set interface ge6 other_config:lacp-aggregation-key=77"),
        Row("one4", ATTACH, "set interface ge7 other_config:lacp-port-priority=100"),
        Row("two3", ATTACH, "set interface ge13 other_config:lacp-port-id=99"),
        Row("two2", LOST, "set port two2 lacp=off", ()),
        Row("two1", 0, lambda group: group.partner.set_link(9, False), {2}, kept=10),
        Row("five1", ATTACH, "del-bond-iface five1 ge35 -- del-bond-iface five1 ge36 -- add-bond br0 other ge35 ge36"
                             " -- set port other lacp=active other_config:lacp-time=fast", {1, 2}),
        Row("three1", ATTACH, ours("lacp port-priority 100")),
        Row("three2", ATTACH, ours("channel-group 2 mode active")),
        Row("three3 three4", START, exchange)],
    "changes back": [
        Row("one1", ATTACH, "set port one1 lacp=passive"),
        Row("one3", ATTACH, ours("channel-group 3 mode passive")),
        Row("two2", ATTACH, "set port two2 lacp=active"),
        Row("two1", START, lambda group: group.partner.set_link(9, True), kept=10),
        Row("five1", ATTACH, "del-port other -- add-bond-iface five1 ge35 -- add-bond-iface five1 ge36")],
    "a change of the system": [
        Row(ONE, ATTACH, lambda group, *_: quietly(group.system, "lacp system-priority 100"))],
    "silence": [Row(f"{ALL} four1", LOST, lambda group, *_: group.partner.pause(), ())],
    "speech": [Row(ALL, ATTACH, lambda group, *_: group.partner.resume()),
               Row("four1", ATTACH, lambda _: None, FOUR)],
}


def disagreement(group, used, theirs):
    """What both sides say of ports that are not in use on both, or not out of use on both, as wanted."""
    system, wrong = group.system, []
    sides, trunk = neighbours(system, group.number), system.trunks().get(group.number, ())
    members, priority = system.datastore.members(group.number), system.datastore.system_priority() or 32768
    for port, other in group.ports.items():
        here = [side[:2] + side[3:] for side in sides.get(port, ())]
        here[:1] = [(priority, *side[1:]) for side in here[:1]]  # the display always shows the default
        peer = theirs.get(other)
        there = [(*side[:1], dotted(side.system), *side[2:]) for side in (peer.partner, peer.actor)] if peer else []
        uses = [port in trunk, port in members, bool(peer and peer.enabled)]
        if port in used:
            right = all(uses) and here == there and all(state & IN_USE == IN_USE for *_, state in here)
        else:
            right = not any(uses) and all(state & DEFAULTED or not state & SYNCHRONIZATION for *_, state in here[:1])
        if not right:
            wrong.append(f"  {port}: in trunk, member, enabled: {uses}\n    here  {here}\n    there {there}")
    return wrong


@pytest.mark.parametrize("rows", ROUNDS.values(), ids=ROUNDS)
def test_both_sides_agree_after(groups, rows):
    partner, failures = groups["one1"].partner, []

    def change(row):
        if isinstance(row.change, str):
            partner.configure(row.change)
        else:
            row.change(*(groups[bond] for bond in row.bonds.split()))
        return [(row, bond, time.monotonic()) for bond in row.bonds.split()]

    losses = {row.kept: partner.losses(row.kept) for row in rows if row.kept}
    with ThreadPoolExecutor() as pool:
        pending = sum(pool.map(change, rows), [])
    while pending:
        time.sleep(POLL)
        theirs = partner.members()
        for row, bond, moment in list(pending):
            ticks = (time.monotonic() - moment - SECOND) / TICK
            wrong = disagreement(groups[bond], groups[bond].ports if row.used is None else row.used, theirs)
            if wrong and ticks > row.ticks:
                failures += [f"{bond}: not within {row.ticks} ticks of {row.change}", *wrong]
            if not wrong or ticks > row.ticks:
                pending.remove((row, bond, moment))
    failures += [f"the partner did without its port {port}" for port in losses if partner.losses(port) > losses[port]]
    assert not failures, "\n".join(failures)
