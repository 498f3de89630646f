"""Ports that leave, come back and change groups."""

from helpers import join, leave, quietly
from lab import Capture, Lacpdu, Ticks, stays


def test_values_survive_leaving_and_coming_back(pair):
    left, right = pair
    quietly(right, *join(1, 1, "active", "lacp timeout short"))
    quietly(left, *join(1, 1, "passive", "lacp timeout short", "lacp port-priority 100"))
    for system in pair:
        system.await_trunk(1, {1}, Ticks.FORM)
    before = left.configured()
    assert before == ["interface gigabitEthernet 0/1", " channel-group 1 mode passive", " lacp timeout short",
                      " lacp port-priority 100"]

    quietly(left, *leave(1, 1))
    left.await_trunk(1, set(), Ticks.LINK)
    assert left.configured() == []

    quietly(left, *join(1, 1, "passive"))  # while the partner still speaks: a passive port waits to be spoken to
    for system in pair:
        system.await_trunk(1, {1}, Ticks.FORM)
    assert left.configured() == before
    # What the daemon really uses is what it tells the other side.
    actor = last_actor(left, right, 1)
    assert actor.port_priority == 100
    assert actor.state & 0x03 == 0x02, "passive, short timeout"


def test_the_last_port_takes_the_group_along_and_its_choice_stays(pair):
    left, _ = pair
    quietly(left, "channel-group 1 load-balance src-dst-ip")
    assert left.datastore.groups()[1].type == "dynamic"
    quietly(left, *leave(1, 1))
    left.await_trunk(1, set(), Ticks.LINK)
    group = left.datastore.groups()[1]
    assert (group.type, group.load_balance, group.members) == (None, "src-dst-ip", [])


def test_the_group_can_take_the_other_type(pair):
    left, _ = pair
    quietly(left, *join(1, 1, "on"))
    left.await_trunk(1, {1}, Ticks.LINK)
    assert left.trunk(1)["criterion"] == "src-dst-ip"
    assert left.datastore.groups()[1].type == "manual"
    assert left.configured() == ["interface gigabitEthernet 0/1", " channel-group 1 mode on",
                                 "channel-group 1 load-balance src-dst-ip"]


def test_a_port_moves_straight_to_another_group(pair):
    left, right = pair
    quietly(left, *leave(1, 1))
    quietly(right, *leave(1, 1))
    for system in pair:
        quietly(system, *join(1, 2, "active", "lacp timeout short"), *join(2, 2, "active", "lacp timeout short"))
    for system in pair:
        system.await_trunk(2, {1, 2}, Ticks.FORM)
    for system in pair:
        quietly(system, *join(2, 3, "active"))
    for system in pair:
        system.await_trunk(2, {1}, Ticks.FORM)
        system.await_trunk(3, {2}, Ticks.FORM)
        assert (system.datastore.members(2), system.datastore.members(3)) == ({1}, {2})


def test_a_port_moves_straight_to_a_group_of_the_other_type(pair):
    for system in pair:
        quietly(system, *join(2, 4, "on"))
        system.await_trunk(4, {2}, Ticks.LINK)
        system.await_trunk(3, set(), Ticks.LINK)
        groups = system.datastore.groups()
        assert 3 not in groups, "its last port has left"
        assert groups[4].type == "manual"
        assert system.trunks()[2] == {1}


def test_a_port_named_twice_is_in_its_group_once(pair):
    left, right = pair
    for system in pair:
        quietly(system, *join(2, 4, "on"), *join(1, 2, "active"))
        assert system.datastore.members(4) == {2}
        assert system.datastore.members(2) == {1}
    stays("trunks do not move", lambda: [system.trunks() for system in (left, right)],
          lambda trunks: trunks == [{2: {1}, 4: {2}}] * 2, Ticks.NOT_FORMED / 2)
    quietly(left, *leave(2, 4))
    left.await_trunk(4, set(), Ticks.LINK)
    assert 4 not in left.datastore.groups()


def last_actor(sender, receiver, port):
    with Capture(receiver.namespace, receiver.port_interface(port)) as capture:
        frames = capture.frames(1, Ticks.of(3))
    assert frames, f"{sender.name} sends no LACPDU on port {port}"
    return Lacpdu(frames[0].data).actor
