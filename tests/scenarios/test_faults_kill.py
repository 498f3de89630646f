"""A daemon killed within a configuration command: the next one finds a system that works."""

import pytest

from faults import Orders, slow
from helpers import join, leave, quietly
from lab import LabError, ShellError, Ticks, eventually

MOST_CALLS = 12  # of one command


@pytest.fixture(scope="module")
def system(lab):
    one = lab.system("one", ports=2)
    for port in (1, 2):
        lab.loose_cable(one, port)
    one.start_switch()
    return one


def start(system, orders):
    system.start_daemon(environment=orders.environment)


def killed_by(system, orders, field, call, lines):
    """Gives the command with the order to die; whether the daemon has died of it."""
    orders.give(**{field: call})
    try:
        system.configure(*lines)
    except (ShellError, OSError, EOFError, LabError):
        pass
    if orders.left(field) > 0:
        return False
    assert system.daemon.wait(within=5) == -9
    return True


def test_orders_reach_the_daemon(system):
    """Or the scenarios below would end at once."""
    orders = Orders(system)
    start(system, orders)
    assert killed_by(system, orders, "before_apply", 1, join(1, 1, "on"))


# What goes before, the command, the trunks it leads to, what undoes it.
COMMANDS = {
    "join a manual group": ([], join(1, 1, "on"), {1: {1}}, leave(1, 1)),
    "join a dynamic group": ([], join(1, 1, "active"), {}, leave(1, 1)),
    "leave a manual group": (join(1, 1, "on"), leave(1, 1), {}, []),
    "leave a dynamic group": (join(1, 1, "active"), leave(1, 1), {}, []),
    "move to another group": (join(1, 1, "on"), join(1, 2, "on"), {2: {1}}, leave(1, 2)),
}


CASES = [(name, field) for name in COMMANDS for field in ("after_apply", "in_handler", "before_apply")]
QUICK = [case for case in CASES if case[1] == "after_apply" or case == ("join a dynamic group", "in_handler")]


@pytest.mark.parametrize("name, field", [case if case in QUICK else pytest.param(*case, marks=slow) for case in CASES])
def test_a_daemon_killed_within_a_command(system, name, field):
    before, command, trunks, undo = COMMANDS[name]
    orders = Orders(system)
    system.stop_daemon()
    start(system, orders)
    for call in range(1, MOST_CALLS + 1):
        orders.give()
        assert system.configured() == [], "start-up clears what the killed one left"
        quietly(system, *before)
        if not killed_by(system, orders, field, call, command):
            orders.give()
            quietly(system, *undo)
            break
        start(system, orders)
        assert system.configured() == [] and system.datastore.groups() == {}
        quietly(system, *before, *command)
        eventually(f"call {call}: trunks {trunks}", system.trunks, lambda seen: seen == trunks, Ticks.LINK)
        quietly(system, *undo)
    else:
        pytest.fail(f"more than {MOST_CALLS} calls")
    assert call > 1, "no step was tried"
    print(f"\n{name}: killed at each of {call - 1} calls, {field}")
