"""What happens to two cabled systems, in words, and what has to come of it.

Steps are lines like "left join 1 2 active": a system, a word (a method of Steps), port or group, values. Each is taken
by system and model alike; then agree() holds everything that a system shows against what the model knows."""

import re
import signal
import time
from dataclasses import dataclass, field

from helpers import enter, neighbours, quietly
from lab import LabError, Ticks, eventually

PORTS = GROUPS = (1, 2, 3, 4)
DEFAULT = 32768
TYPES = {"Manual Channel-group": "manual", "LACP Protocol": "dynamic"}


@dataclass
class Port:
    group: int = 0
    mode: str | None = None
    timeout: str | None = None
    priority: int = DEFAULT
    listed: bool = False       # in the list of a manual group
    up: bool = True


@dataclass
class Group:
    type: str | None = None
    former: str | None = None  # the type of an entry that another client has deleted
    choice: str | None = None


@dataclass
class Side:
    """One system's configuration and cables: `cables` leads from an own port to the far one."""

    ports: dict = field(default_factory=lambda: {port: Port() for port in PORTS})
    groups: dict = field(default_factory=lambda: {group: Group() for group in GROUPS})
    cables: dict = field(default_factory=lambda: {port: port for port in PORTS})
    priority: int = DEFAULT

    def of(self, group):
        return {number for number, port in self.ports.items() if port.group == group}

    def leave(self, port):
        entry = self.ports[port]
        group, entry.group, entry.mode, entry.listed = entry.group, 0, None, False
        if not self.of(group):
            self.groups[group].type = self.groups[group].former = None

    def key(self, port):
        """The dynamic group that the port runs LACP for, or 0."""
        group = self.ports[port].group
        return group if group and self.groups[group].type == "dynamic" else 0

    def linked(self, far, port):
        return self.ports[port].up and far.ports[self.cables[port]].up

    def selected(self, far, group):
        """The aggregator's port, the best that hears its partner, by each port that goes to the same partner key."""
        keys = {port: far.key(self.cables[port]) for port in self.of(group) if self.key(port)
                and self.linked(far, port)
                and "active" in (self.ports[port].mode, far.ports[self.cables[port]].mode)}
        keys = {port: key for port, key in keys.items() if key}
        best = min(keys, key=lambda port: (self.ports[port].priority, port), default=None)
        return {port: best for port, key in keys.items() if key == keys[best]}

    def lines(self):
        """The running configuration."""
        text = []
        for number, port in self.ports.items():
            if port.group and self.groups[port.group].type:
                text += [f"interface gigabitEthernet 0/{number}", f" channel-group {port.group} mode {port.mode}"]
                if self.key(number):
                    text += [f" lacp timeout {port.timeout}"] * (port.timeout is not None)
                    text += [f" lacp port-priority {port.priority}"] * (port.priority != DEFAULT)
        text += [f"channel-group {number} load-balance {group.choice}" for number, group in self.groups.items()
                 if group.choice]
        return text + [f"lacp system-priority {self.priority}"] * (self.priority != DEFAULT)

    def restart(self):
        """What is not in the running configuration is forgotten."""
        for number, port in self.ports.items():
            kind = self.groups[port.group].type if port.group else None
            if kind != "dynamic":
                self.ports[number] = Port(up=port.up) if not kind else Port(port.group, "on", listed=True, up=port.up)
        for number, group in self.groups.items():
            self.groups[number] = Group(group.type if self.of(number) else None, choice=group.choice)

    def expected(self, far):
        """What shell, datastore and switch have to show."""
        table, trunks, aggregators = {}, {}, {}
        for number, group in self.groups.items():
            if group.type is None:
                continue
            mine = {port: best for port, best in self.selected(far, number).items()
                    if self.cables[port] in far.selected(self, far.key(self.cables[port]))}
            members = set(mine) if group.type == "dynamic" else {
                port for port in self.of(number) if self.ports[port].listed}
            links = {port for port in members if self.linked(far, port)}
            choice = group.choice or "src-mac"
            aggregators.update(mine)
            table[number] = (group.type, choice, members, links)
            if links:
                trunks[number] = (choice, links)
        return {"display": table, "trunks": trunks, "aggregators": aggregators,
                "partners": {port: self.cables[port] for port in aggregators}, "configuration": self.lines(),
                "members": {number: row[2] for number, row in table.items()}}


def table(text):
    """`show channel-group detail` by group."""
    groups = {}
    for block in re.split(r"^-+\n", text, flags=re.MULTILINE):
        fields = dict(re.findall(r"^Channel-group ([^:]+):\s+(.*)$", block, re.MULTILINE))
        if fields.get("Used") == "Used":
            ports = [{int(port) for port in re.findall(name + r" 0/(\d+)", block)}
                     for name in ("gigabitEthernet", "gigabitethernet")]
            assert [fields[f"{kind}Port Member"] for kind in ("", "Uplink ")] == [f"({len(of)})" for of in ports], text
            groups[int(fields["ID"])] = (TYPES[fields["Type"]], fields["Load Balance"], *ports)
    return groups


def shown(system, expected):
    with system.shell() as shell:
        shell.run("configure terminal")
        groups, rows = table(shell.run("show channel-group detail")), shell.run("show channel-group interface all")
    aggregators = dict(re.findall(r"^ +(\d+) +\d+ +\d+ +\d+ +(\d+) +\d +Col +Dis", rows, re.MULTILINE))
    return {"display": groups, "configuration": system.configured(),
            "trunks": {trunk["group"]: (trunk["criterion"], set(trunk["members"])) if not trunk["stale"] else "stale"
                       for trunk in system.state()["trunks"]},
            "members": {number: group.members for number, group in system.datastore.groups().items()
                        if group.type or group.members},
            "partners": {port: sides[1].number for group, (kind, *_) in groups.items() if kind == "dynamic"
                         for port, sides in neighbours(system, group).items() if port in expected["partners"]},
            # Ports without a partner collect for themselves and ports without LACP show what they had.
            "aggregators": {port: int(aggregators.get(str(port), 0)) for port in expected["aggregators"]}}


class Steps:
    def __init__(self, lab):
        self.lab, self.pair = lab, lab.pair(len(PORTS))
        self.systems = dict(zip(("left", "right"), self.pair))
        self.sides = {name: Side() for name in self.systems}
        self.history = []

    def take(self, line):
        """A step; False if it does not fit what is configured."""
        name, word, *values = line.split()
        values = [int(value) if value.isdigit() else value for value in values]
        taken = getattr(self, word)(self.systems[name], self.sides[name], *values) is not False
        if taken:
            self.history.append(line)
        return taken

    def agree(self, within):
        """Waits until both systems are as the model has them, and sees that they stay so."""
        sides = list(self.sides.values())
        expected = [side.expected(far) for side, far in zip(sides, sides[::-1])]

        def differences():
            return [f"{system.name} {place}: expected {wanted[place]}, seen {seen}"
                    for system, wanted in zip(self.pair, expected)
                    for place, seen in shown(system, wanted).items() if seen != wanted[place]]

        started = time.monotonic()
        eventually(f"both as configured after {self.history[-1:]}", differences, lambda found: not found, within)
        took = time.monotonic() - started
        time.sleep(Ticks.FAST_PERIOD / 2)
        if found := differences():
            raise LabError(f"no longer as configured after {self.history[-1:]}: {found}")
        return took

    # ---- typed

    def join(self, system, side, port, group, mode):
        entry, kind = side.ports[port], "manual" if mode == "on" else "dynamic"
        if side.groups[group].former not in (None, kind):
            return False
        answer = system.configure(*enter(port, f"channel-group {group} mode {mode}"))
        if side.groups[group].type not in (None, kind):
            assert "failed! This group is already in other mode" in answer, answer
            return True
        assert not answer.strip(), answer
        if entry.group not in (0, group):
            side.leave(port)
        entry.group, entry.mode, entry.listed = group, mode, mode == "on"
        side.groups[group].type, side.groups[group].former = kind, None
        return True

    def leave(self, system, side, port):
        if side.ports[port].group == 0:
            return False
        quietly(system, *enter(port, f"no channel-group {side.ports[port].group}"))
        return side.leave(port)

    def timeout(self, system, side, port, value):
        quietly(system, *enter(port, f"lacp timeout {value}"))
        side.ports[port].timeout = value

    def priority(self, system, side, port, value):
        quietly(system, *enter(port, f"lacp port-priority {value}"))
        side.ports[port].priority = value

    def system_priority(self, system, side, value):
        quietly(system, f"lacp system-priority {value}")
        side.priority = value

    def spread(self, system, side, group, choice):
        quietly(system, f"channel-group {group} load-balance {choice}")
        side.groups[group].choice = choice

    # ---- by another client of the datastore

    def edit(self, system, side, port, **leaves):
        system.datastore.set_trunk(port, **leaves)
        vars(side.ports[port]).update(leaves)

    def edit_mode(self, system, side, port, mode):
        if not side.key(port):
            return False
        return self.edit(system, side, port, mode=mode)

    def edit_port(self, system, side, port, timeout, priority):
        self.edit(system, side, port, timeout=timeout, priority=priority)

    def move(self, system, side, port, group):
        if not side.key(port) or side.groups[group].type != "dynamic" or side.ports[port].group == group:
            return False
        system.datastore.set_trunk(port, channel_group=group)
        side.ports[port].group = group

    def delete(self, system, side, group):
        if side.groups[group].type is None:
            return False
        system.datastore.delete_group(group)
        side.groups[group] = Group(former=side.groups[group].type)
        for port in side.of(group):
            side.ports[port].listed = False

    def create(self, system, side, group):
        kind = side.groups[group].former
        if kind is None:
            return False
        members = side.of(group) if kind == "manual" else set()
        system.datastore.set_group(group, lacp_type=kind,
                                   member_port=[f"gigabitethernet 0/{port}" for port in members])
        side.groups[group].type, side.groups[group].former = kind, None
        for port in members:
            side.ports[port].listed = True

    # ---- links and programs

    def link(self, system, side, port, state):
        system.set_link(port, state == "up")
        side.ports[port].up = state == "up"

    def cross(self, _, side, one, other):
        """Two cables are pulled and plugged in again, crossed."""
        if one == other:
            return False
        (left, right), far = self.pair, self.sides["right"]
        ends = side.cables[other], side.cables[one]
        for port in (one, other):
            left.namespace.ip("link", "del", left.port_interface(port))
        for port, end in zip((one, other), ends):
            self.lab.cable(left, port, right, end)
            side.cables[port], far.cables[end] = end, port
            side.ports[port].up = far.ports[end].up = True

    def stop(self, system, _, seconds):
        system.daemon.send_signal(signal.SIGSTOP)
        time.sleep(seconds)
        system.daemon.send_signal(signal.SIGCONT)

    def daemon(self, system, side, number):
        """What is running is written; the daemon is ended by this signal and starts anew."""
        with system.shell() as shell:
            shell.run("write memory")
        system.restart_daemon(getattr(signal, number))
        side.restart()

    def switch_off(self, system, _):
        system.stop_switch()

    def switch_on(self, system, _):
        if system.switch.status is None:
            return False
        system.start_switch()

    def wait(self, _, __, seconds):
        time.sleep(seconds)
