"""Two daemons and the protocol between them."""

import signal

from helpers import enter, join, leave, quietly
from lab import Capture, Lacpdu, Ticks, eventually, stays
from lab.wire import COLLECTING, DEFAULTED, DISTRIBUTING, EXPIRED, SYNCHRONIZATION
from lab.wire import TIMEOUT as SHORT

SYNC_AND_FORWARDING = SYNCHRONIZATION | COLLECTING | DISTRIBUTING


def test_two_active_sides_form_a_group_of_two_ports(pair):
    for system in pair:
        quietly(system, *join(1, 1, "active", "lacp timeout short"), *join(2, 1, "active", "lacp timeout short"))
    for system in pair:
        system.await_trunk(1, {1, 2}, Ticks.FORM)
        system.await_members(1, {1, 2}, Ticks.LINK)
        assert system.datastore.groups()[1].type == "dynamic"


def test_a_cut_link_leaves_both_trunks_at_once(pair):
    left, right = pair
    right.set_link(2, up=False)
    for system in pair:
        system.await_trunk(1, {1}, Ticks.LINK)
        system.await_members(1, {1}, Ticks.LINK)
        eventually("link status is down", lambda s=system: s.datastore.link_status(2), lambda text: text == "down",
                   Ticks.LINK)
    assert left.configured() == right.configured(), "a lost link must not change what is configured"


def test_a_restored_link_comes_back(pair):
    pair[1].set_link(2, up=True)
    for system in pair:
        system.await_trunk(1, {1, 2}, Ticks.FORM)
        system.await_members(1, {1, 2}, Ticks.LINK)


def test_two_passive_sides_stay_silent_and_form_nothing(pair):
    left, right = pair
    with Capture(right.namespace, right.port_interface(3)) as capture:
        for system in pair:
            quietly(system, *join(3, 2, "passive"))
        stays("no trunk 2", lambda: [system.trunks() for system in pair],
              lambda trunks: not any(2 in of_one for of_one in trunks), Ticks.NOT_FORMED / 2)
        assert [system.datastore.members(2) for system in pair] == [set(), set()]
        assert capture.frames(1, within=0.1) == []


def test_one_side_turned_active_wakes_the_passive_one(pair):
    left, right = pair
    quietly(left, *join(3, 2, "active"))
    for system in pair:
        system.await_trunk(2, {3}, Ticks.FORM)
        system.await_members(2, {3}, Ticks.LINK)
        assert system.trunks()[1] == {1, 2}
    assert right.datastore.trunk(3)["mode"] == "passive"


def test_a_silent_partner_is_given_up_and_taken_back(pair):
    left, right = pair
    for system in pair:
        quietly(system, *leave(3, 2))
    for system in pair:
        quietly(system, *enter(3, "lacp timeout short", "channel-group 2 mode active"))
    with Capture(right.namespace, right.port_interface(3)) as capture:
        await_actor(capture, SYNC_AND_FORWARDING | SHORT, EXPIRED | DEFAULTED, Ticks.FORM)
        right.daemon.send_signal(signal.SIGSTOP)
        try:
            await_actor(capture, EXPIRED, 0, Ticks.LOST_SHORT)
            await_actor(capture, DEFAULTED, EXPIRED, Ticks.LOST_SHORT)
            left.await_trunk(2, set(), Ticks.LOST_SHORT)
            left.await_trunk(1, set(), Ticks.LOST_SHORT)
            assert left.datastore.members(1) == set()
        finally:
            right.daemon.send_signal(signal.SIGCONT)
    for system in pair:
        system.await_trunk(2, {3}, Ticks.FORM)
        system.await_trunk(1, {1, 2}, Ticks.FORM)


def await_actor(capture, wanted, unwanted, within):
    """Waits for a LACPDU whose sender's state has some bits and lacks others."""
    seen = []
    for frame in capture.each(within):
        state = Lacpdu(frame.data).actor.state
        seen.append(f"{state:02x}")
        if state & wanted == wanted and state & unwanted == 0:
            return
    raise AssertionError(f"no state with {wanted:02x} and without {unwanted:02x} within {within:.1f} s: {seen}")
