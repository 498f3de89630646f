"""Other clients edit what they like, in one transaction and in any order, and refuse what the shell or a client writes; whether
it is taken or refused, datastore, table, engine and switch have the same after it."""

import os
import random
import time

import pytest

from helpers import enter, in_the_way, join, leave, quietly
from lab import Ticks
from steps import agree

PORTS = range(1, 6)
GROUP, PORT = "/olt-lacp:channel-group/group[id='{}']{}", "gigabitethernet 0/{}"
TRUNK = "/olt-ifm:up-link-ports/interface[name='gigabitethernet 0/{}']/olt-lacp:trunk/{}"
PRIORITY = "/olt-lacp:global-configuration/system-priority"
CHOICES = ("src-mac", "dst-mac", "src-dst-mac", "src-ip", "dst-ip", "src-dst-ip")


def group(number, leaf="", value=None):
    return GROUP.format(number, leaf and f"/{leaf}"), value


def member(number, port, value=""):
    return group(number, f"member-port[.='{PORT.format(port)}']", value)


@pytest.fixture(scope="module")
def left(lab):
    return lab.pair(len(PORTS))[0]


@pytest.fixture(scope="module")
def client(left):
    with in_the_way(left, "edit") as ask:
        yield ask


BALANCED = "channel-group {} load-balance {}".format
COMMANDS = [  # what goes before; what is refused; how often that leaves all as it was; lists and modes that it leads to
    ([], join(2, 3, "passive"), 3, {3: set()}, {2: "passive"}),
    ([], join(1, 1, "on"), 4, {1: {1}}, {1: "on"}),
    ([BALANCED(1, "dst-ip"), *join(2, 1, "on")], join(1, 1, "on"), 3, {1: {1, 2}}, {1: "on", 2: "on"}),
    ([BALANCED(1, "src-ip")], join(1, 1, "active"), 3, {1: set()}, {1: "active"}),
    (join(1, 2, "active"), join(1, 2, "passive"), 1, {2: set()}, {1: "passive"}),
    ([*join(1, 1, "on"), *join(2, 1, "on")], leave(1, 1), 2, {1: {2}}, {2: "on"}),
    ([BALANCED(4, "src-ip"), *join(1, 4, "active")], leave(1, 4), 1, {4: set()}, {}),
    (join(1, 1, "passive"), join(1, 2, "active"), 6, {2: set()}, {1: "active"}),
    ([*join(1, 1, "on"), *join(2, 1, "on")], join(1, 2, "on"), 7, {1: {2}, 2: {1}}, {1: "on", 2: "on"}),
    (join(5, 1, "on"), enter(5, "lacp port-priority 7"), 1, {1: {5}}, {5: "on"}),
]


def held(system):
    return system.datastore.groups(), {name: entry.get("olt-lacp:trunk") for name, entry in
                                       system.datastore.interfaces().items()}


@pytest.mark.parametrize("before, lines, times, lists, modes", COMMANDS)
def test_a_refused_command_changes_nothing(left, client, before, lines, times, lists, modes):
    assert client([("/olt-lacp:channel-group", None), *((TRUNK.format(port, ".")[:-2], None) for port in PORTS)]) == 0
    quietly(left, *before)
    was = held(left)
    for number, early in [*((number, True) for number in range(1, times + 1)), (1, False), (times, False)]:
        client([], (number, None, early, 1))
        said = left.configure(*lines)
        assert "failed" in said and held(left) == was, f"refusal {number}, early: {early}: {said}"
        agree(left, said)
    client([])
    quietly(left, *lines)
    groups, trunks = held(left)
    assert {number: entry.members for number, entry in groups.items()} == lists
    assert {int(name[-1]): entry["mode"] for name, entry in trunks.items() if entry and "mode" in entry} == modes
    agree(left, lines)


def random_edits(chance):
    """Up to six leaves, mostly of what belongs together."""
    port, number = chance.choice(PORTS), chance.randint(1, 4)
    kinds = {
        "type": lambda: [group(number, "lacp-type", chance.choice(("manual", "dynamic")))],
        "no type": lambda: [group(number, "lacp-type"), group(number, "member-port")],
        "no group": lambda: [group(number)],
        "members": lambda: [member(chance.randint(1, 4), chance.choice(PORTS), chance.choice(("", None)))],
        "no members": lambda: [group(number, "member-port")],
        "spread": lambda: [group(number, "load-balance", chance.choice((None, *CHOICES)))],
        "join": lambda: [(TRUNK.format(port, "channel-group"), str(chance.randint(0, 4)))],
        "leaf": lambda: [(TRUNK.format(chance.choice(PORTS), leaf), value) for leaf, value in [chance.choice((
            ("mode", "passive"), ("mode", "active"), ("mode", None), ("timeout", "short"), ("timeout", "long"),
            ("timeout", None), ("priority", "7"), ("priority", None), ("channel-group", None)))]],
        "system": lambda: [(PRIORITY, chance.choice((None, "100", "200")))],
        "whole manual": lambda: [group(number, "lacp-type", "manual"), *(member(other, port, None) for other in
                                 {1, 2, 3, 4} - {number}), member(number, port),
                                 (TRUNK.format(port, "channel-group"), str(number))],
        "whole dynamic": lambda: [group(number, "lacp-type", "dynamic"), (TRUNK.format(port, "timeout"), "short"),
                                  (TRUNK.format(port, "channel-group"), str(number))],
    }
    edits = [edit for _ in range(chance.randint(1, 3)) for edit in kinds[chance.choice(list(kinds))]()]
    chance.shuffle(edits)
    return edits


@pytest.fixture(scope="module")
def edited(lab, left, client):
    quietly(lab.systems[1], *(line for port in PORTS for line in join(port, 1, "active", "lacp timeout short")))
    return left


def test_random_edits_leave_one_truth(edited, client):
    chance, taken, rounds = random.Random(1), 0, int(os.environ.get("LACPD_EDITS", "60"))
    for number in range(rounds):
        edits, flapping = random_edits(chance), chance.choice(PORTS) if chance.random() < 0.3 else None
        refusal = chance.choice((None, None, None, "olt-lacp", "olt-ifm"))
        refusal = refusal and (1, refusal, chance.random() < 0.3, 1)
        if flapping:
            edited.set_link(flapping, up=False)
        result = client(edits, refusal)
        taken += result == 0
        if flapping:
            edited.set_link(flapping, up=True)
        if number % 20 == 19:
            time.sleep(Ticks.NOT_FORMED)  # dynamic groups form
        agree(edited, f"edit {number} (result {result}): {edits}, refusal {refusal}, flapping {flapping}")
    assert taken > rounds / 4


def test_members_are_what_the_engine_and_four_at_most_allow(edited, client):
    """A member that a client takes out comes back, a stranger in the list of a dynamic group goes."""
    for number in range(1, 5):
        client([group(number)])
    formed = [edit for port in PORTS for edit in ((TRUNK.format(port, "channel-group"), str(port // 3 * 2 + 1)),
                                                  (TRUNK.format(port, "mode"), None))]
    manual = group(3, "lacp-type", "manual")
    assert client([*formed, manual, *(member(3, port) for port in PORTS)]) != 0
    assert client([*formed, group(1, "lacp-type", "dynamic"), manual, member(3, 3)]) == 0
    assert client([group(3, "load-balance"), *(member(3, port) for port in PORTS if port != 3)]) != 0
    assert client([member(3, 9)]) != 0, "there is no such port"
    edited.await_trunk(1, {1, 2}, Ticks.REFORM)
    for edit in (member(1, 2, None), member(1, 4)):
        assert client([edit]) == 0
        agree(edited, edit)
        assert edited.trunks() == {1: {1, 2}, 3: {3}}
