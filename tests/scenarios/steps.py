"""What happens to two cabled systems, in words, and what has to come of it.

Steps are lines like "left join 1 2 active": a system, a word (a method of Steps), port or group, values. What is configured
is read from the datastore; agree() holds everything else that a system shows against it, and its groups against what two
such configurations have to form."""

import re
import signal
import time
from collections import namedtuple

from helpers import enter, neighbours, quietly
from lab import LabError, Ticks, eventually
from lab.wire import ACTIVITY, COLLECTING, TIMEOUT

PORTS = GROUPS = (1, 2, 3, 4)
DEFAULT = 32768
TYPES = {"Manual Channel-group": "manual", "LACP Protocol": "dynamic"}

Port = namedtuple("Port", "group mode timeout priority up")


class Side:
    """One system's configuration and links; `cables` leads from an own port to the far one."""

    def __init__(self, system, cables=None):
        self.cables, self.ports = cables, {}
        self.groups = {number: group for number, group in system.datastore.groups().items() if group.type}
        for name, entry in system.datastore.interfaces().items():
            leaves = entry.get("olt-lacp:trunk", {})
            self.ports[int(name.rpartition("/")[2])] = Port(
                leaves.get("channel-group", 0), leaves.get("mode"), leaves.get("timeout"),
                leaves.get("priority", DEFAULT), entry["interface-basic"]["link-status"] == "up")

    def of(self, group):
        return {number for number, port in self.ports.items() if port.group == group}

    def key(self, port):
        """The dynamic group that the port runs LACP for, or 0."""
        group = self.ports[port].group
        return group if group in self.groups and self.groups[group].type == "dynamic" else 0

    def selected(self, far, group):
        """The aggregator's port, the best that hears its partner, by each port that goes to the same partner key."""
        keys = {port: far.key(self.cables[port]) for port in self.of(group) if self.key(port) and self.ports[port].up
                and {self.ports[port].mode, far.ports[self.cables[port]].mode} != {"passive"}}
        keys = {port: key for port, key in keys.items() if key}
        best = min(keys, key=lambda port: (self.ports[port].priority, port), default=None)
        return {port: best for port, key in keys.items() if key == keys[best]}

    def formed(self, far):
        """Aggregators by member of a dynamic group: both ends have to select a port."""
        return {port: best for number in self.groups for port, best in self.selected(far, number).items()
                if self.cables[port] in far.selected(self, far.key(self.cables[port]))}

    def links(self, group):
        """Members of the group's trunk."""
        kind, _, members = self.groups[group]
        return {port for port in members if kind == "dynamic" or self.ports[port].up}

    def lines(self, priority):
        """The running configuration."""
        text = []
        for number, port in self.ports.items():
            if port.group in self.groups:
                text += [f"interface gigabitEthernet 0/{number}", f" channel-group {port.group} mode {port.mode}"]
                if self.key(number):
                    text += [f" lacp timeout {port.timeout}"] * (port.timeout is not None)
                    text += [f" lacp port-priority {port.priority}"] * (port.priority != DEFAULT)
        return text, [f"lacp system-priority {priority}"] * (priority != DEFAULT)


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


def contradictions(system, side):
    """Where shell, engine and switch are not as the datastore has it, in words."""
    groups = {number: (kind, choice or "src-mac", members, side.links(number))
              for number, (kind, choice, members) in side.groups.items()}
    trunks = {number: row[1::2] for number, row in groups.items() if row[3]}
    settings = {port: (side.key(port), mode != "passive", timeout == "short", priority)
                for port, (_, mode, timeout, priority, up) in side.ports.items() if side.key(port) and up}
    sides = {port: pair for number, row in groups.items() if row[0] == "dynamic"
             for port, pair in neighbours(system, number).items()}
    with system.shell() as shell:
        shell.run("configure terminal")
        shown = table(shell.run("show channel-group detail"))
    return [f"{system.name} {what}: {seen} for {expected}" for what, expected, seen in (
        ("table", groups, shown),
        ("settings", settings, {port: (own.key, bool(own.state & ACTIVITY), bool(own.state & TIMEOUT), own.priority)
                                for port, (own, _) in sides.items()}),
        ("engine", set().union(*(row[2] for row in groups.values() if row[0] == "dynamic")),
         {port for port, (own, partner) in sides.items() if own.state & partner.state & COLLECTING}),
        ("switch", trunks, {trunk["group"]: (trunk["criterion"], set(trunk["members"])) if not trunk["stale"] else "stale"
                            for trunk in system.state()["trunks"]})) if seen != expected]


def agree(system, what, within=Ticks.of(2)):
    eventually(f"the same everywhere after {what}", lambda: contradictions(system, Side(system)), lambda found: not found,
               within)


class Steps:
    def __init__(self, lab):
        self.lab, self.pair = lab, lab.pair(len(PORTS))
        self.systems = dict(zip(("left", "right"), self.pair))
        self.cables = {system: {port: port for port in PORTS} for system in self.pair}
        self.history = []

    def take(self, line):
        """A step; False if it does not fit what is configured."""
        name, word, *values = line.split()
        values = [int(value) if value.isdigit() else value for value in values]
        taken = getattr(self, word)(self.systems[name], *values) is not False
        if taken:
            self.history.append(line)
        return taken

    def differences(self):
        sides = [Side(system, self.cables[system]) for system in self.pair]
        found = []
        for system, side, far in zip(self.pair, sides, sides[::-1]):
            formed, priority = side.formed(far), system.datastore.system_priority()
            with system.shell() as shell:
                shell.run("configure terminal")
                rows = shell.run("show channel-group interface all")
            aggregators = dict(re.findall(r"^ +(\d+) +\d+ +\d+ +\d+ +(\d+) +\d +Col +Dis", rows, re.MULTILINE))
            partners = {port: pair[1].number for number in side.groups for port, pair in neighbours(system, number).items()}
            ports, last = side.lines(DEFAULT if priority is None else priority)
            choices = [f"channel-group {number} load-balance {group.load_balance}"
                       for number, group in sorted(system.datastore.groups().items()) if group.load_balance]
            found += contradictions(system, side) + [
                f"{system.name} {what}: {seen} for {expected}" for what, expected, seen in (
                    ("members", set(formed), set().union(*(group.members for group in side.groups.values()
                                                           if group.type == "dynamic"))),
                    # Ports without a partner collect for themselves and ports without LACP show what they had.
                    ("aggregators", formed, {port: int(aggregators.get(str(port), 0)) for port in formed}),
                    ("partners", {port: side.cables[port] for port in formed},
                     {port: partners.get(port) for port in formed}),
                    ("configuration", ports + choices + last, system.configured())) if seen != expected]
        return found

    def agree(self, within):
        """Waits until both systems are as they have to be, and sees that they stay so."""
        started = time.monotonic()
        eventually(f"both as configured after {self.history[-1:]}", self.differences, lambda found: not found, within)
        took = time.monotonic() - started
        time.sleep(Ticks.FAST_PERIOD / 2)
        if found := self.differences():
            raise LabError(f"no longer as configured after {self.history[-1:]}: {found}")
        return took

    # ---- typed

    def join(self, system, port, group, mode):
        side, kind = Side(system), "manual" if mode == "on" else "dynamic"
        answer = system.configure(*enter(port, f"channel-group {group} mode {mode}"))
        if group in side.groups and side.groups[group].type != kind:
            assert "failed! This group is already in other mode" in answer, answer
            return True
        assert not answer.strip() and Side(system).ports[port][:2] == (group, mode), answer
        return True

    def leave(self, system, port):
        group = Side(system).ports[port].group
        if group == 0:
            return False
        quietly(system, *enter(port, f"no channel-group {group}"))
        side = Side(system)
        assert side.ports[port].group == 0 and (side.of(group) or group not in side.groups)
        return True

    def timeout(self, system, port, value):
        quietly(system, *enter(port, f"lacp timeout {value}"))

    def priority(self, system, port, value):
        quietly(system, *enter(port, f"lacp port-priority {value}"))

    def system_priority(self, system, value):
        quietly(system, f"lacp system-priority {value}")

    def spread(self, system, group, choice):
        quietly(system, f"channel-group {group} load-balance {choice}")

    # ---- by another client of the datastore

    def edit_mode(self, system, port, mode):
        return bool(Side(system).key(port)) and system.datastore.set_trunk(port, mode=mode)

    def edit_port(self, system, port, timeout, priority):
        system.datastore.set_trunk(port, timeout=timeout, priority=priority)

    def move(self, system, port, group):
        side = Side(system)
        if not side.key(port) or side.ports[port].group == group or group not in side.groups or \
                side.groups[group].type != "dynamic":
            return False
        return system.datastore.set_trunk(port, channel_group=group)

    # ---- links and programs

    def link(self, system, port, state):
        system.set_link(port, state == "up")

    def cross(self, left, one, other):
        """Two cables are pulled and plugged in again, crossed."""
        if one == other:
            return False
        right, cables = self.pair[1], self.cables[left]
        ends = cables[other], cables[one]
        for port in (one, other):
            left.namespace.ip("link", "del", left.port_interface(port))
        for port, end in zip((one, other), ends):
            self.lab.cable(left, port, right, end)
            cables[port], self.cables[right][end] = end, port
        return True

    def stop(self, system, seconds):
        system.daemon.send_signal(signal.SIGSTOP)
        time.sleep(seconds)
        system.daemon.send_signal(signal.SIGCONT)

    def daemon(self, system, number):
        """What is running is written; the daemon is ended by this signal and starts anew with it."""
        with system.shell() as shell:
            shell.run("write memory")
        before = system.configured()
        system.restart_daemon(getattr(signal, number))
        eventually("the configuration is read", system.configured, lambda seen: seen == before, Ticks.LINK)

    def switch_off(self, system):
        system.stop_switch()

    def switch_on(self, system):
        return system.switch.status is not None and system.start_switch()

    def wait(self, _, seconds):
        time.sleep(seconds)
