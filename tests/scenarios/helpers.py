"""What several scenarios do."""

import contextlib
import json
import os
import re
import subprocess
import sys
from collections import namedtuple
from pathlib import Path

from lab import eventually
from lab.system import USER

# One side of a port in the display of neighbours.
Side = namedtuple("Side", "system_priority system flags priority key number state")

_SIDE = re.compile(r"ystem ID:0x([0-9a-f]{4}), +([0-9a-f.]+).*?"
                   r"^gigabitEthernet0/(\d\d) (\S+) +(\d+) +([\d ]+?) +(\S+) *$", re.MULTILINE | re.DOTALL)


def enter(port, *commands):
    """Lines that configure one port."""
    return [f"interface gigabitEthernet 0/{port}", *commands, "exit"]


def join(port, group, mode, *commands):
    return enter(port, f"channel-group {group} mode {mode}", *commands)


def leave(port, group):
    return enter(port, f"no channel-group {group}")


def quietly(system, *commands):
    """Configures; the shell must have nothing to say."""
    answer = system.configure(*commands)
    assert answer.strip() == "", f"{system.name} answered {answer!r} to {commands}"


@contextlib.contextmanager
def in_the_way(system, *order, user=USER, umask=-1):
    """Another client of the system's datastore that locks, refuses, stalls or edits, see other_client.py; what asks it to."""
    words = [sys.executable, Path(__file__).with_name("other_client.py"), system.programs.prefix / "lib", *order]
    client = subprocess.Popen([*map(str, words)], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, bufsize=1,
                              env={**os.environ, **system.environment}, umask=umask,
                              user=user, group=user, extra_groups=[])  # the daemon wakes it through its files
    try:
        assert client.stdout.readline() == "ready\n"
        yield lambda edits, refusal=None: client.stdin.write(f"{json.dumps([edits, refusal])}\n") and int(
            client.stdout.readline())
    finally:
        client.communicate()


def neighbours(system, group):
    """(this side, the partner) by port of a group, from the shell."""
    sides = {}
    for system_priority, address, port, flags, priority, numbers, state in _SIDE.findall(
            system.configure(f"show channel-group {group} port")):
        *_, key, number = map(int, numbers.split())
        sides.setdefault(int(port), []).append(
            Side(int(system_priority, 16), address, flags, int(priority), key, number, int(state, 16)))
    return {port: tuple(pair) for port, pair in sides.items()}


def await_groups(systems, trunks, within):
    """Waits until the switch of every system has exactly these trunks, and the datastore the same members."""
    eventually(f"trunks and members {trunks}", lambda: {
        system.name: (system.trunks(), {group: system.datastore.members(group) for group in trunks})
        for system in systems}, lambda seen: all(of == (trunks, trunks) for of in seen.values()), within)


def dotted(mac):
    """An address as displays and datastore show it."""
    digits = mac.replace(":", "")
    return ".".join(digits[at:at + 4] for at in (0, 4, 8))


def ping(source, address, count=20, sender=None, options=()):
    """Answers to `count` pings of a system's user."""
    words = ("-I", sender) if sender else ()
    result = subprocess.run([*source.host.enter(), "ping", "-q", "-c", str(count), "-i", "0.02", "-W", "2", *words,
                             *options, address], capture_output=True, text=True, check=False)
    return int(re.search(r"(\d+) received", result.stdout)[1])


def crossings(system, ports):
    """How often user frames have left and entered by ports, and how many the host has sent and got."""
    counts = [*map(system.traffic, ports), system.state()["traffic"]["host"]]
    return [sum(count[way]["frames"] for count in counts[:-1]) for way in ("tx", "rx")] + [
        counts[-1][way]["frames"] for way in ("rx", "tx")]
