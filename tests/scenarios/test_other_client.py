"""The life of groups that only another client of the datastore configures; the partner is configured by shell."""

import pytest

from helpers import await_groups, dotted, enter, join, neighbours, quietly
from lab import Ticks, eventually
from lab.wire import ACTIVITY, COLLECTING, DISTRIBUTING, SYNCHRONIZATION
from lab.wire import TIMEOUT as SHORT

OTHER_ID = "0200.0000.0abc"
IN_SERVICE = SYNCHRONIZATION | COLLECTING | DISTRIBUTING


@pytest.fixture(scope="module")
def left(pair):
    quietly(pair[1], *join(1, 1, "active", "lacp timeout short"), *join(2, 1, "active", "lacp timeout short"))
    return pair[0]


@pytest.fixture(scope="module")
def right(pair):
    return pair[1]


def await_partner(right, port, within, **wanted):
    """Waits until `right` shows these values of its partner on a port."""
    eventually(f"right sees {wanted} on port {port}", lambda: neighbours(right, 1)[port][1],
               lambda seen: all(getattr(seen, name) == value for name, value in wanted.items()), within)


def test_a_dynamic_group_is_created(left, right):
    store = left.datastore
    store.set_group(1, lacp_type="dynamic", load_balance="src-dst-ip")
    store.set_trunk(1, mode="active", timeout="short", priority=100, channel_group=1)
    store.set_trunk(2, mode="passive", timeout="short", channel_group=1)
    await_groups((left, right), {1: {1, 2}}, Ticks.FORM)
    assert left.trunk(1)["criterion"] == "src-dst-ip"
    await_partner(right, 1, Ticks.of(3), flags="FA", priority=100)
    await_partner(right, 2, Ticks.of(3), flags="FP", priority=32768)
    assert left.configured() == [
        "interface gigabitEthernet 0/1", " channel-group 1 mode active", " lacp timeout short",
        " lacp port-priority 100", "interface gigabitEthernet 0/2", " channel-group 1 mode passive",
        " lacp timeout short", "channel-group 1 load-balance src-dst-ip"]


def test_modes_timeouts_and_priorities_change_at_once(left, right):
    store = left.datastore
    store.set_trunk(1, mode="passive", timeout="long", priority=5)
    store.set_trunk(2, mode="active")
    store.set_group(1, load_balance="dst-mac")
    await_partner(right, 1, Ticks.of(4), flags="SP", priority=5, state=IN_SERVICE | 4)
    await_partner(right, 2, Ticks.of(4), flags="FA", state=IN_SERVICE | ACTIVITY | SHORT | 4)
    eventually("trunk 1 spreads by dst-mac", lambda: left.trunk(1)["criterion"], lambda seen: seen == "dst-mac",
               Ticks.LINK)
    await_groups((left, right), {1: {1, 2}}, Ticks.FORM)
    store.set_trunk(1, mode="active", timeout="short")


@pytest.mark.parametrize("values, seen", [({"system_priority": 100}, {"system_priority": 100}),
                                          ({"system_id": OTHER_ID}, {"system": OTHER_ID})])
def test_the_system_takes_another_rank_or_name_while_it_serves(left, right, values, seen):
    left.datastore.set_global(**values)
    for port in (1, 2):
        await_partner(right, port, Ticks.of(4), **seen)
    await_groups((left, right), {1: {1, 2}}, Ticks.FORM)
    assert neighbours(left, 1)[1][1].system == dotted(right.mac)
    assert "lacp system-priority 100" in left.configured()


def test_the_shell_changes_what_the_other_client_set(left, right):
    quietly(left, "lacp system-priority 7", *enter(2, "lacp port-priority 9"))
    await_partner(right, 2, Ticks.of(4), system_priority=7, system=OTHER_ID, priority=9)
    await_groups((left, right), {1: {1, 2}}, Ticks.FORM)
    assert (left.datastore.system_priority(), left.datastore.trunk(2)["priority"]) == (7, 9)


def test_a_manual_group_beside_it(left, right):
    store = left.datastore
    store.set_group(2, lacp_type="manual", load_balance="dst-ip", member_port=["gigabitethernet 0/3"])
    store.set_trunk(3, mode="on", channel_group=2)
    left.await_trunk(2, {3}, Ticks.LINK)
    assert left.trunk(2)["criterion"] == "dst-ip"
    assert left.configured()[-5:] == ["interface gigabitEthernet 0/3", " channel-group 2 mode on",
                                      "channel-group 1 load-balance dst-mac", "channel-group 2 load-balance dst-ip",
                                      "lacp system-priority 7"]
    store.edit("olt-ifm", "<up-link-ports></up-link-ports>")  # an edit without a change
    assert left.trunks() == {1: {1, 2}, 2: {3}}


def test_ports_leave_and_groups_are_deleted(left, right):
    store = left.datastore
    store.set_trunk(2, channel_group=0)
    await_groups((left,), {1: {1}, 2: {3}}, Ticks.LINK)
    right.await_trunk(1, {1}, Ticks.LOST_SHORT)
    for port, group in ((3, 2), (1, 1)):
        store.set_trunk(port, channel_group=0)
        store.delete_group(group)
    store.edit("olt-lacp", '<global-configuration nc:operation="remove"></global-configuration>')
    await_groups((left,), {}, Ticks.LINK)
    right.await_trunk(1, set(), Ticks.LOST_SHORT)
    assert (left.configured(), left.datastore.groups()) == ([], {})
