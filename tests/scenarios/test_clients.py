"""Other clients edit what they like, in one transaction and in any order; whether it is taken or refused, datastore, table,
engine and switch have the same after it."""

import json
import os
import random
import subprocess
import time
from pathlib import Path

import pytest

from helpers import join, neighbours, quietly
from lab import Ticks, eventually
from lab.system import USER
from steps import table

PORTS = range(1, 5)
GROUP, PORT = "/olt-lacp:channel-group/group[id='{}']{}", "gigabitethernet 0/{}"
TRUNK = "/olt-ifm:up-link-ports/interface[name='gigabitethernet 0/{}']/olt-lacp:trunk/{}"
PRIORITY = "/olt-lacp:global-configuration/system-priority"
ACTIVE, SHORT, COLLECTING = 1, 2, 16  # of a port's state
CHOICES = ("src-mac", "dst-mac", "src-dst-mac", "src-ip", "dst-ip", "src-dst-ip")


class Client:
    def __init__(self, system):
        self._process = subprocess.Popen(
            ["/usr/bin/python3", Path(__file__).with_name("other_client.py"), system.programs.prefix / "lib", "edit"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, env={**os.environ, **system.environment},
            user=USER, group=USER, extra_groups=[])  # the daemon wakes its subscriber through files
        assert self._process.stdout.readline() == "ready\n"

    def apply(self, edits, refused_by=None, before=False):
        print(json.dumps([edits, refused_by, before]), file=self._process.stdin, flush=True)
        return int(self._process.stdout.readline())

    def close(self):
        self._process.communicate()


def group(number, leaf="", value=None):
    return GROUP.format(number, leaf and f"/{leaf}"), value


def member(number, port, value=""):
    return group(number, f"member-port[.='{PORT.format(port)}']", value)


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


def differences(system):
    """What is not the same everywhere, in words."""
    configured = {number: (entry.type, entry.load_balance or "src-mac", entry.members)
                  for number, entry in system.datastore.groups().items() if entry.type}
    with system.shell() as shell:
        shell.run("configure terminal")
        shown = table(shell.run("show channel-group detail"))
    trunks = {trunk["group"]: (trunk["criterion"], set(trunk["members"])) for trunk in system.state()["trunks"]}
    trunk = {int(name[-1]): (interface["interface-basic"]["link-status"], interface.get("olt-lacp:trunk", {}))
             for name, interface in system.datastore.interfaces().items()}
    up = {port for port, (status, _) in trunk.items() if status == "up"}
    wanted, engine, collecting, found = {}, {}, {}, []
    for number in (number for number, row in configured.items() if row[0] == "dynamic"):
        sides = neighbours(system, number)
        wanted |= {port: (number, leaves.get("mode") != "passive", leaves.get("timeout") == "short",
                          leaves.get("priority", 32768))
                   for port, (_, leaves) in trunk.items() if leaves.get("channel-group") == number}
        engine |= {port: (own.key, bool(own.state & ACTIVE), bool(own.state & SHORT), own.priority)
                   for port, (own, _) in sides.items()}
        collecting[number] = {port for port, (own, partner) in sides.items() if own.state & partner.state & COLLECTING}
    links = {number: members & up if kind == "manual" else members for number, (kind, _, members) in configured.items()}
    for what, expected, seen in (
            ("table", {number: (*row, links[number]) for number, row in configured.items()}, shown),
            ("settings", wanted, engine), ("engine", {number: configured[number][2] for number in collecting}, collecting),
            ("switch", {number: (row[1], links[number]) for number, row in configured.items() if links[number]}, trunks)):
        found += [f"{what}: {seen} for {expected}"] * (seen != expected)
    return found


@pytest.fixture(scope="module")
def edited(lab):
    left, right = lab.pair(len(PORTS))
    quietly(right, *(line for port in PORTS for line in join(port, 1, "active", "lacp timeout short")))
    client = Client(left)
    yield left, client
    client.close()


def agree(system, what, within=Ticks.of(2)):
    eventually(f"the same everywhere after {what}", lambda: differences(system), lambda found: not found, within)


@pytest.mark.parametrize("seed, rounds", [(1, 60), *(pytest.param(seed, 300, marks=pytest.mark.nightly)
                                                     for seed in range(2, 6))])
def test_random_edits_leave_one_truth(edited, seed, rounds):
    system, client = edited
    chance, taken = random.Random(seed), 0
    for number in range(rounds):
        edits = random_edits(chance)
        refused_by = chance.choice((None, None, None, "olt-lacp", "olt-ifm"))
        flapping = chance.choice(PORTS) if chance.random() < 0.3 else None
        if flapping:
            system.set_link(flapping, up=False)
        result = client.apply(edits, refused_by, chance.random() < 0.3)
        taken += result == 0
        if flapping:
            system.set_link(flapping, up=True)
        if number % 20 == 19:
            time.sleep(Ticks.NOT_FORMED)  # dynamic groups form
        agree(system, f"edit {number} (result {result}): {edits}, refused by {refused_by}, flapping {flapping}")
    assert taken > rounds / 4


def test_a_member_that_a_client_takes_out_comes_back(edited):
    """And a stranger in the list of a dynamic group goes."""
    system, client = edited
    for number in range(1, 5):
        client.apply([group(number)])
    formed = [edit for port in PORTS for edit in ((TRUNK.format(port, "channel-group"), str(port // 3 * 2 + 1)),
                                                  (TRUNK.format(port, "mode"), None))]
    assert client.apply([*formed, group(1, "lacp-type", "dynamic"), group(3, "lacp-type", "manual"),
                         member(3, 3)]) == 0
    system.await_trunk(1, {1, 2}, Ticks.REFORM)
    for edit in (member(1, 2, None), member(1, 4)):
        assert client.apply([edit]) == 0
        agree(system, edit)
        assert system.trunks() == {1: {1, 2}, 3: {3}}
