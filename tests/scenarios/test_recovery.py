"""Parts that go away and come back while trunks live."""

import pytest

from helpers import enter, join, quietly
from lab import Ticks, eventually


@pytest.fixture(scope="module")
def formed(pair):
    for system in pair:
        quietly(system, *join(1, 1, "active", "lacp timeout short"), *join(2, 1, "active", "lacp timeout short"),
                *join(3, 2, "on"))
        with system.shell() as shell:
            shell.run("write memory")
    for system in pair:
        await_formed(system)
    return pair


def await_formed(system):
    """Both trunks as configured, asked for by the daemon that runs now."""
    eventually(f"{system.name}: trunk 1 with ports 1 and 2, trunk 2 with port 3", lambda: system.state()["trunks"],
               lambda trunks: [(trunk["group"], trunk["members"], trunk["stale"]) for trunk in trunks]
               == [(1, [1, 2], False), (2, [3], False)], Ticks.FORM)


def test_the_driver_service_comes_back(formed):
    left, right = formed
    left.stop_switch()
    left.start_switch()
    for system in (left, right):
        await_formed(system)


def test_a_link_lost_while_the_driver_service_is_away_is_noticed(formed):
    left, right = formed
    left.stop_switch()
    left.set_link(2, up=False)
    right.await_trunk(1, {1}, Ticks.LINK)
    left.start_switch()
    left.await_trunk(1, {1}, Ticks.FORM)
    left.await_trunk(2, {3}, Ticks.LINK)
    left.set_link(2, up=True)
    for system in (left, right):
        await_formed(system)


def test_the_daemon_comes_back_with_what_was_written(formed):
    left, right = formed
    written = left.configured()
    quietly(left, "channel-group 1 load-balance dst-ip", "lacp system-priority 9", *enter(2, "lacp port-priority 7"))
    assert left.configured() != written
    assert left.stop_daemon() == 0
    assert left.trunks()[2] == {3}, "the switch goes on without the daemon"
    left.start_daemon()
    for system in (left, right):
        await_formed(system)
    assert left.configured() == written
    assert left.trunk(1)["criterion"] == "src-mac"


def test_a_killed_daemon_comes_back(formed):
    left, right = formed
    left.daemon.stop(number=9)
    left.start_daemon()
    for system in (left, right):
        await_formed(system)


def test_a_daemon_without_its_configuration_leaves_no_trunk(formed):
    left, right = formed
    text = left.configuration_file.read_text(encoding="utf-8")
    left.stop_switch()
    left.start_switch("--stale-grace", "3")
    await_formed(left)
    left.stop_daemon()
    left.write_configuration("hostname left\npassword lab\n")
    left.start_daemon()
    eventually("left: no trunk", left.trunks, lambda trunks: trunks == {}, 3 + Ticks.LINK)
    right.await_trunk(1, set(), Ticks.LOST_SHORT)
    left.stop_daemon()
    left.write_configuration(text)
    left.start_daemon()
    for system in (left, right):
        await_formed(system)


def test_a_group_deleted_by_another_client_takes_its_trunk_along(formed):
    left, right = formed
    left.datastore.delete_group(2)
    left.await_trunk(2, set(), Ticks.LINK)
    left.datastore.delete_group(1)
    left.await_trunk(1, set(), Ticks.LINK)
    right.await_trunk(1, set(), Ticks.LOST_SHORT)
    assert right.trunks() == {2: {3}}


def test_the_deleted_groups_can_be_configured_again(formed):
    left, right = formed
    quietly(left, *join(1, 1, "active", "lacp timeout short"), *join(2, 1, "active", "lacp timeout short"),
            *join(3, 2, "on"))
    for system in (left, right):
        await_formed(system)
