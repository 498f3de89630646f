"""Every command that is refused, with its exact answer; nothing changes."""

import pytest

from helpers import enter, join, leave, quietly
from lab import Ticks

OTHER_MODE = "LACP Msg: set channel-group {} to {} mode failed! This group is already in other mode.\n"
NOT_LEFT = "LACP Msg: interface 0/{} delete from channel-group {} failed!\n"
NOT_SPREAD = "LACP Msg: interface 0/{} set channel-group {} load-balance to {} failed!\n"
NO_TIMEOUT = "LACP Msg: interface 0/{} set timeout to {} failed!\n"
NO_PRIORITY = "LACP Msg: interface 0/{} set port-priority to {} failed!\n"
NO_SYSTEM_PRIORITY = "LACP Msg: set system-priority to {} failed!\n"
READABLE, WRITABLE = "0640", "0660"


@pytest.fixture(scope="module")
def system(lab):
    """Group 1 is manual and full, group 2 is dynamic; port 6 is in no group, ports 7 and 8 do not exist."""
    terminal = lab.system("left", ports=6)
    for port in range(1, 7):
        lab.loose_cable(terminal, port)
    terminal.start()
    quietly(terminal, *(line for port in (1, 2, 3, 4) for line in join(port, 1, "on")),
            *join(5, 2, "active", "lacp timeout long"))
    terminal.await_trunk(1, {1, 2, 3, 4}, Ticks.LINK)
    return terminal


def refused(system, commands, answer):
    before = system.configured(), system.trunks(), system.datastore.groups(), system.datastore.interfaces()
    assert system.configure(*commands) == answer
    assert (system.configured(), system.trunks(), system.datastore.groups(), system.datastore.interfaces()) == before


@pytest.mark.parametrize("commands, answer", [
    (join(6, 1, "active"), OTHER_MODE.format(1, "active")),
    (join(6, 1, "passive"), OTHER_MODE.format(1, "passive")),
    (join(6, 2, "on"), OTHER_MODE.format(2, "on")),
    (join(5, 1, "active"), OTHER_MODE.format(1, "active")),
    (join(6, 1, "on"), OTHER_MODE.format(1, "on")),  # a fifth port
    (join(7, 3, "on"), OTHER_MODE.format(3, "on")),
    (join(7, 2, "active"), OTHER_MODE.format(2, "active")),
    (leave(6, 3), NOT_LEFT.format(6, 3)),
    (leave(5, 1), NOT_LEFT.format(5, 1)),
    (leave(7, 1), NOT_LEFT.format(7, 1)),
    (enter(7, "lacp timeout short"), NO_TIMEOUT.format(7, "short")),
    (enter(7, "lacp timeout long"), NO_TIMEOUT.format(7, "long")),
    (enter(8, "lacp port-priority 65535"), NO_PRIORITY.format(8, 65535)),
    (enter(8, "lacp port-priority default"), NO_PRIORITY.format(8, 32768)),
], ids=lambda value: " ".join(value) if isinstance(value, list) else "")
def test_what_does_not_fit(system, commands, answer):
    refused(system, commands, answer)


UNKNOWN = {
    "channel-group 0 load-balance src-ip": None, "channel-group 5 load-balance src-ip": None,
    "channel-group 1 load-balance ip": None, "lacp system-priority 65536": None, "lacp system-priority -1": None,
    "lacp timeout short": None, "channel-group 1 mode on": None, "no channel-group 1": None,
    "show channel-group 5 port": None, "debug lacp all": None,
    "channel-group 5 mode on": 6, "channel-group 1 mode off": 6, "lacp timeout medium": 6,
    "lacp port-priority 65536": 6, "no channel-group 0": 6, "no lacp timeout": 6,
}
INCOMPLETE = {"lacp system-priority": None, "channel-group 1 load-balance": None, "show channel-group": None,
              "interface gigabitEthernet": None, "channel-group 1 mode": 6, "lacp timeout": 6, "no channel-group": 6}


@pytest.mark.parametrize("lines, text", [(UNKNOWN, "% [LACP] Unknown command: {}\n"),
                                         (INCOMPLETE, "% Command incomplete.\n")], ids=["unknown", "incomplete"])
def test_what_is_no_command(system, lines, text):
    commands = [word for line, port in lines.items() for word in (enter(port, line) if port else [line])]
    refused(system, commands, "".join(text.format(line) for line in lines))


@pytest.mark.parametrize("module, commands, answer", [
    ("olt-lacp", ["channel-group 2 load-balance dst-ip"], NOT_SPREAD.format(0, 2, "dst-ip")),
    ("olt-lacp", enter(5) + ["channel-group all load-balance dst-ip"],
     "".join(NOT_SPREAD.format(5, group, "dst-ip") for group in (1, 2, 3, 4))),
    ("olt-lacp", ["lacp system-priority 5"], NO_SYSTEM_PRIORITY.format(5)),
    ("olt-lacp", ["lacp system-priority default"], NO_SYSTEM_PRIORITY.format(32768)),
    ("olt-lacp", join(6, 3, "on"), OTHER_MODE.format(3, "on")),
    ("olt-lacp", leave(1, 1), NOT_LEFT.format(1, 1)),
    ("olt-ifm", enter(5, "lacp timeout short"), NO_TIMEOUT.format(5, "short")),
    ("olt-ifm", enter(5, "lacp port-priority 3"), NO_PRIORITY.format(5, 3)),
    ("olt-ifm", join(6, 2, "active"), OTHER_MODE.format(2, "active")),
    ("olt-ifm", join(6, 3, "on"), OTHER_MODE.format(3, "on")),
    ("olt-ifm", leave(5, 2), NOT_LEFT.format(5, 2)),
], ids=lambda value: " ".join(value) if isinstance(value, list) else "")
def test_what_the_datastore_does_not_take(system, module, commands, answer):
    """The daemon may only read the module."""
    system.datastore.permit(module, READABLE)
    try:
        refused(system, commands, answer)
    finally:
        system.datastore.permit(module, WRITABLE)


def test_what_was_refused_is_taken_afterwards(system):
    quietly(system, "channel-group 2 load-balance dst-ip", "lacp system-priority 5", *enter(5, "lacp timeout short"),
            *leave(1, 1), *join(6, 1, "on"))
    system.await_trunk(1, {2, 3, 4, 6}, Ticks.LINK)
