"""What stands in a daemon's way, and what the scenarios of faults share."""

import contextlib
import mmap
import os
import struct
import subprocess
import time

import pytest

from helpers import join, quietly
from lab import LabError, Ticks, eventually, stays
from lab.system import USER

SETTLED = 1.5  # longer than a fault takes to show

slow = pytest.mark.skipif(not os.environ.get("LACPD_SLOW_FAULTS"), reason="takes minutes; LACPD_SLOW_FAULTS=1 runs it")


def program(programs, name):
    """A program or module of this folder."""
    return programs.lacpd.parents[3] / "tests/scenarios" / name


@contextlib.contextmanager
def in_the_way(system, *order):
    """Another client of the system's datastore that locks, refuses or stalls."""
    client = subprocess.Popen([program(system.programs, "fault_client"), *map(str, order)], stdin=subprocess.PIPE,
                              stdout=subprocess.PIPE, env={**os.environ, **system.environment},
                              user=USER, group=USER, extra_groups=[])  # the daemon wakes it through its files
    try:
        if client.stdout.readline() != b"ready\n":
            raise LabError(f"fault_client {order} is not ready")
        yield client
    finally:
        client.communicate()


class Orders:
    """What the preloaded module does to the daemon; see fault_shim.cpp."""

    _LAYOUT = struct.Struct("=qiii")
    _FIELDS = ("shift_seconds", "before_apply", "after_apply", "in_handler")

    def __init__(self, system):
        path = system.directory / "orders"
        path.write_bytes(bytes(self._LAYOUT.size))
        path.chmod(0o666)
        self.environment = {"LD_PRELOAD": str(program(system.programs, "libfault_shim.so")),
                            "FAULT_ORDERS": str(path)}
        with open(path, "r+b") as file:
            self._map = mmap.mmap(file.fileno(), self._LAYOUT.size)

    def give(self, **orders):
        self._LAYOUT.pack_into(self._map, 0, *(orders.get(field, 0) for field in self._FIELDS))

    def left(self, field):
        return self._LAYOUT.unpack_from(self._map)[self._FIELDS.index(field)]


def form(pair, timeout="short"):
    """Group 1 with ports 1 and 2, dynamic; group 2 with port 3, manual."""
    for system in pair:
        quietly(system, *(line for port in (1, 2) for line in join(port, 1, "active", f"lacp timeout {timeout}")),
                *join(3, 2, "on"))
    return seconds_until_formed(pair)


def seconds_until_formed(pair, within=Ticks.FORM, trunks=None):
    """Waits until members and trunks of all are as configured, for good; how long that took."""
    trunks = trunks or {1: {1, 2}, 2: {3}}
    start = time.monotonic()

    def differing():
        """Those seen otherwise: the trunks, and the members of each group."""
        return [(system.name, seen) for system in pair
                for seen in [(system.trunks(), {group: system.datastore.members(group) for group in trunks})]
                if seen != (trunks, trunks)]

    while True:
        eventually(f"trunks and members {trunks}", differing, lambda seen: not seen,
                   max(within - (time.monotonic() - start), 0))
        took = time.monotonic() - start
        try:
            stays(f"trunks and members {trunks}", differing, lambda seen: not seen, SETTLED)
            return took
        except LabError:  # what was seen came before the fault showed
            pass


def report(fault, seconds):
    """One line for the reader of the output (pytest -s)."""
    print(f"\n{fault}: as configured again after {seconds:.1f} s")


def processor_seconds(process):
    fields = open(f"/proc/{process.pid}/stat", encoding="ascii").read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def resident_kib(process):
    for line in open(f"/proc/{process.pid}/status", encoding="ascii"):
        if line.startswith("VmRSS"):
            return int(line.split()[1])
    raise LabError(f"{process.name} has no memory")
