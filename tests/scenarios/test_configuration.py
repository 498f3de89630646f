"""The running configuration: its text, written and replayed."""

import pytest

from helpers import enter, join, quietly
from lab import Ticks, eventually

COMMANDS = [
    *join(1, 1, "active", "lacp timeout short", "lacp port-priority 100"),
    *join(2, 1, "passive", "lacp timeout long"),
    *join(3, 2, "on"),
    "channel-group 1 load-balance src-dst-ip",
    "channel-group 4 load-balance dst-mac",
    "lacp system-priority 65535",
]

LINES = """\
interface gigabitEthernet 0/1
 channel-group 1 mode active
 lacp timeout short
 lacp port-priority 100
interface gigabitEthernet 0/2
 channel-group 1 mode passive
 lacp timeout long
interface gigabitEthernet 0/3
 channel-group 2 mode on
channel-group 1 load-balance src-dst-ip
channel-group 4 load-balance dst-mac
lacp system-priority 65535
""".splitlines()


@pytest.fixture(scope="module")
def system(lab):
    terminal = lab.system("left", ports=4)
    for port in (1, 2, 3, 4):
        lab.loose_cable(terminal, port)
    terminal.start()
    return terminal


def test_nothing_configured_is_nothing_written(system):
    assert system.configured() == []


def test_what_was_typed_is_what_is_shown(system):
    quietly(system, *COMMANDS)
    assert system.configured() == LINES


def test_the_whole_text(system):
    text = [line for line in system.running_config().splitlines() if not line.startswith(("!", "frr version "))]
    assert text == ["", "Current configuration:", "frr defaults traditional", "hostname left", "password lab",
                    *LINES, "end"]


def test_a_written_configuration_replays(system):
    with system.shell() as shell:
        before = shell.run("show running-config")
        assert "Configuration saved to" in shell.run("write memory")
    trunks = system.trunks()
    assert trunks == {2: {3}}

    assert system.stop_daemon() == 0
    system.start_daemon()
    eventually("the configuration is replayed", system.running_config, lambda text: text == before, Ticks.of(3))
    assert system.trunks() == trunks
    eventually("the trunk is asked for again", lambda: system.trunk(2)["stale"], lambda stale: not stale,
               Ticks.of(3))


def test_written_twice_is_the_same_file(system):
    first = system.configuration_file.read_text(encoding="utf-8")
    with system.shell() as shell:
        shell.run("write memory")
    second = system.configuration_file.read_text(encoding="utf-8")
    assert without_comments(first) == without_comments(second)


def test_defaults_are_not_written(system):
    quietly(system, "lacp system-priority default", *enter(1, "lacp port-priority default"))
    assert system.datastore.system_priority() == 32768
    assert system.datastore.trunk(1)["priority"] == 32768
    lines = system.configured()
    assert not [line for line in lines if "priority" in line]


def test_all_sets_every_group(system):
    quietly(system, "channel-group all load-balance src-ip")
    choices = {number: group.load_balance for number, group in system.datastore.groups().items()}
    assert choices == {1: "src-ip", 2: "src-ip", 3: "src-ip", 4: "src-ip"}
    assert [line for line in system.configured() if "load-balance" in line] == [
        f"channel-group {number} load-balance src-ip" for number in (1, 2, 3, 4)]


def test_prompts_say_where_one_is(system):
    with system.shell(enable=False) as shell:
        assert shell.prompt == "left> "
        shell.run("enable")
        assert shell.prompt == "left# "
        shell.run("configure terminal")
        assert shell.prompt == "left(config)# "
        shell.run("interface gigabitEthernet 0/3")
        assert shell.prompt == "left(config-if-ge0/3)# "
        shell.run("interface gigabitethernet 0/4")
        assert shell.prompt == "left(config-if-ge0/4)# "
        shell.run("quit")
        assert shell.prompt == "left(config)# "


def without_comments(text):
    return [line for line in text.splitlines() if not line.startswith("!")]

