"""Manual groups: the trunk is what is configured and has a link."""

import pytest

from helpers import join, leave, quietly
from lab import Ticks, eventually

PORTS = 6


@pytest.fixture(scope="module")
def system(lab):
    terminal = lab.system("left", ports=PORTS)
    for port in range(1, PORTS + 1):
        lab.loose_cable(terminal, port)
    terminal.start()
    return terminal


def await_criterion(system, group, criterion, code):
    eventually(f"trunk {group} spreads by {criterion}", lambda: system.trunk(group),
               lambda trunk: trunk is not None and (trunk["criterion"], trunk["code"]) == (criterion, code),
               Ticks.LINK)


def test_configured_ports_are_the_trunk(system):
    quietly(system, *join(1, 1, "on"), *join(2, 1, "on"))
    system.await_trunk(1, {1, 2}, Ticks.LINK)
    assert system.datastore.members(1) == {1, 2}
    assert system.datastore.groups()[1].type == "manual"


def test_the_trunk_follows_the_links(system):
    system.set_link(1, up=False)
    system.await_trunk(1, {2}, Ticks.LINK)
    system.set_link(2, up=False)
    system.await_trunk(1, set(), Ticks.LINK)
    assert system.datastore.members(1) == {1, 2}, "a manual member stays one without its link"
    system.set_link(2, up=True)
    system.await_trunk(1, {2}, Ticks.LINK)
    system.set_link(1, up=True)
    system.await_trunk(1, {1, 2}, Ticks.LINK)


def test_a_port_without_link_joins_with_its_link(system):
    system.set_link(3, up=False)
    eventually("link status is down", lambda: system.datastore.link_status(3), lambda text: text == "down",
               Ticks.LINK)
    quietly(system, *join(3, 1, "on"))
    assert system.datastore.members(1) == {1, 2, 3}
    assert system.trunks()[1] == {1, 2}
    system.set_link(3, up=True)
    system.await_trunk(1, {1, 2, 3}, Ticks.LINK)


@pytest.mark.parametrize("criterion, code", [("src-ip", 0), ("dst-ip", 1), ("src-mac", 9), ("dst-mac", 10),
                                             ("src-dst-ip", 18), ("src-dst-mac", 19)])
def test_a_load_balance_choice_reaches_the_trunk(system, criterion, code):
    quietly(system, f"channel-group 1 load-balance {criterion}")
    await_criterion(system, 1, criterion, code)
    assert system.trunks()[1] == {1, 2, 3}


def test_a_choice_made_before_the_first_port_is_used(system):
    quietly(system, "channel-group 3 load-balance dst-mac")
    assert system.datastore.groups()[3].type is None
    quietly(system, *join(5, 3, "on"))
    system.await_trunk(3, {5}, Ticks.LINK)
    await_criterion(system, 3, "dst-mac", 10)


def test_leaving_ports_leave_the_trunk(system):
    quietly(system, *join(4, 1, "on"))
    system.await_trunk(1, {1, 2, 3, 4}, Ticks.LINK)
    for port, rest in ((4, {1, 2, 3}), (1, {2, 3}), (2, {3}), (3, set())):
        quietly(system, *leave(port, 1))
        system.await_trunk(1, rest, Ticks.LINK)
        assert system.datastore.members(1) == rest
    assert system.trunks() == {3: {5}}
