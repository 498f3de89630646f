"""What a running system shows of its groups, and what it costs."""

import re
from pathlib import Path

from model import DEFAULT_CHOICE, DEFAULT_PRIORITY, GROUPS

_TYPES = {"Manual Channel-group": "manual", "LACP Protocol": "dynamic"}
_MEMORY_GROUP = "--- qmem lacpd daemon's memory ---"


def _table(text):
    """`show channel-group detail` as {group: (type, load balance, members, uplinks)}."""
    groups = {}
    for block in re.split(r"^-+\n", text, flags=re.MULTILINE):
        fields = dict(re.findall(r"^Channel-group ([^:]+):\s+(.*)$", block, re.MULTILINE))
        if fields.get("Used") != "Used":
            continue
        members = {int(port) for port in re.findall(r"gigabitEthernet 0/(\d+)", block)}
        uplinks = {int(port) for port in re.findall(r"gigabitethernet 0/(\d+)", block)}
        counts = tuple(int(fields[name].strip("()")) for name in ("Port Member", "Uplink Port Member"))
        assert counts == (len(members), len(uplinks)), f"counts of group {fields['ID']} do not fit its ports: {text}"
        groups[int(fields["ID"])] = (_TYPES[fields["Type"]], fields["Load Balance"], members, uplinks)
    return groups


def _aggregators(text):
    """Aggregator of each port that collects and distributes, from `show channel-group interface all`."""
    rows = re.findall(r"^ +(\d+) +\d+ +\d+ +\d+ +(\d+) +\d +Col +Dis", text, re.MULTILINE)
    return {int(port): int(aggregator) for port, aggregator in rows}


def observe(system, expected):
    """The same shape as model.expectation()."""
    groups, interfaces = system.datastore.groups(), system.datastore.interfaces()
    trunks = {port: interfaces[f"gigabitethernet 0/{port}"].get("olt-lacp:trunk", {})
              for port in range(1, system.ports + 1)}
    with system.shell() as shell:
        table = _table(shell.run("show channel-group detail"))
        shell.run("configure terminal")
        aggregators = _aggregators(shell.run("show channel-group interface all"))
    return {
        "trunks": {trunk["group"]: (trunk["criterion"], set(trunk["members"])) if not trunk["stale"] else "stale"
                   for trunk in system.state()["trunks"]},
        "table": table,
        "members": {number: (entry.type, entry.load_balance or DEFAULT_CHOICE,
                             {int(name.rpartition("/")[2]) for name in entry.members})
                    for number, entry in groups.items() if number in GROUPS and (entry.type or entry.members)},
        # Ports without a partner collect for themselves and ports without LACP show what they had: no drift.
        "aggregators": {port: aggregators.get(port) for port in expected["aggregators"]},
        "ports": {port: (trunk.get("channel-group", 0), trunk.get("mode"), trunk.get("timeout", "long"),
                         trunk.get("priority", DEFAULT_PRIORITY)) for port, trunk in trunks.items()},
        "priority": system.datastore.system_priority() or DEFAULT_PRIORITY,
    }


def memory(system):
    """Allocations of the daemon's own memory types, as the framework counts them."""
    with system.shell() as shell:
        text = shell.run("show memory").partition(_MEMORY_GROUP)[2]
    rows = re.findall(r"^(.+?) +: +(\d+) +(\d+|variable) +(\d+)", text, re.MULTILINE)
    assert rows, "no memory display"
    return sum(int(count) for _, count, _, _ in rows), sum(int(total) for *_, total in rows)


def usage(pid):
    status = dict(re.findall(r"^(\w+):\s+(\d+)", Path(f"/proc/{pid}/status").read_text(encoding="utf-8"),
                             re.MULTILINE))
    return {"rss": int(status["VmRSS"]), "threads": int(status["Threads"]),
            "files": len(list(Path(f"/proc/{pid}/fd").iterdir()))}
