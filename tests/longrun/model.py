"""What two cabled systems are configured for, and what has to come of it."""

from dataclasses import dataclass, field

GROUPS = (1, 2, 3, 4)
DEFAULT_PRIORITY = 32768
DEFAULT_CHOICE = "src-mac"


@dataclass
class Port:
    group: int = 0
    mode: str | None = None
    timeout: str = "long"
    priority: int = DEFAULT_PRIORITY
    member: bool = False       # in the list of a manual group
    up: bool = True


@dataclass
class Group:
    type: str | None = None
    former: str | None = None  # the type of an entry that another client has deleted
    choice: str = DEFAULT_CHOICE


def type_for(mode):
    return "manual" if mode == "on" else "dynamic"


@dataclass
class Side:
    """One system's configuration and cables: `cables` leads from an own port to the far one."""

    ports: dict = field(default_factory=lambda: {port: Port() for port in (1, 2, 3, 4)})
    groups: dict = field(default_factory=lambda: {group: Group() for group in GROUPS})
    cables: dict = field(default_factory=dict)
    priority: int = DEFAULT_PRIORITY

    # ---- changes

    def takes(self, group, mode):
        entry = self.groups[group]
        return entry.type in (None, type_for(mode))

    def join(self, port, group, mode):
        entry = self.ports[port]
        if entry.group not in (0, group):
            self.leave(port)
        entry.group, entry.mode, entry.member = group, mode, mode == "on"
        self.set_type(group, type_for(mode))

    def leave(self, port):
        entry = self.ports[port]
        group, entry.group, entry.mode, entry.member = entry.group, 0, None, False
        if not any(other.group == group for other in self.ports.values()):
            self.groups[group].type = self.groups[group].former = None

    def set_type(self, group, kind):
        self.groups[group].type, self.groups[group].former = kind, None

    def delete(self, group):
        self.groups[group] = Group(former=self.groups[group].type)
        for port in self.of(group):
            self.ports[port].member = False

    def forget_unwritten(self):
        """A restarted daemon has what the configuration file says: nothing of idle and manual ports, no idle group."""
        for port in self.ports.values():
            kind = self.groups[port.group].type if port.group else None
            port.member = kind == "manual"
            if kind != "dynamic":
                port.timeout, port.priority = "long", DEFAULT_PRIORITY
        for number, group in self.groups.items():
            if not self.of(number):
                group.type = None

    def of(self, group):
        return [number for number, port in self.ports.items() if port.group == group]

    # ---- consequences

    def key(self, port):
        """The dynamic group that the port runs LACP for, or 0."""
        group = self.ports[port].group
        return group if group and self.groups[group].type == "dynamic" else 0


def has_link(near, far, port):
    end = near.cables.get(port)
    return end is not None and near.ports[port].up and far.ports[end].up


def talks(near, far, port):
    """Both ends run LACP and one of them begins."""
    if not has_link(near, far, port):
        return False
    end = near.cables[port]
    modes = (near.ports[port].mode, far.ports[end].mode)
    return bool(near.key(port) and far.key(end)) and "active" in modes


def selected(near, far, group):
    """The ports that go to the group's best one, and that one: the others have the same partner key (43.4.14)."""
    candidates = [port for port in near.of(group) if talks(near, far, port)]
    if not candidates:
        return set(), None
    best = min(candidates, key=lambda port: (near.ports[port].priority, port))
    key = far.key(near.cables[best])
    return {port for port in candidates if far.key(near.cables[port]) == key}, best


def expectation(near, far):
    """What each of the three places and the protocol display must show."""
    expected = {"trunks": {}, "table": {}, "members": {}, "aggregators": {}}
    for number, group in near.groups.items():
        if group.type is None:
            continue
        if group.type == "manual":
            members = {port for port in near.of(number) if near.ports[port].member}
        else:
            members, best = selected(near, far, number)
            expected["aggregators"].update(dict.fromkeys(members, best))
        uplinks = {port for port in members if has_link(near, far, port)}
        expected["members"][number] = (group.type, group.choice, members)
        expected["table"][number] = (group.type, group.choice, members, uplinks)
        if uplinks:
            expected["trunks"][number] = (group.choice, uplinks)
    expected["ports"] = {number: (port.group, port.mode, port.timeout, port.priority)
                         for number, port in near.ports.items()}
    expected["priority"] = near.priority
    return expected
