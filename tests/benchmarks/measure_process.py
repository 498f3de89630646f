#!/usr/bin/env python3
"""What two whole systems take: time from a command or a cut to the trunk request, memory, processor.

    tests/benchmarks/measure_process.py [--build=DIR] [--cuts=N] [--idle=SECONDS] [--urgent]        as root

The moment of a cut is read from the monotonic clock just before the kernel is told to take the far end of a cable down;
the moment of a trunk request when the line that the switch prints for it can be read.
"""

import argparse
import ctypes
import math
import os
import random
import re
import select
import socket
import statistics
import struct
import sys
import threading
import time
from collections import namedtuple
from contextlib import contextmanager
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))

from lab import Capture, Lab, LabError, Lacpdu, Programs, Ticks, eventually  # noqa: E402 (needs the path above)
from lab.ticks import TICK  # noqa: E402

PORTS = range(1, 9)
GROUP_PORTS = 4
DISTRIBUTING = 0x20
PATIENCE = 10.0
# Ticks from a link to distribution in a group that is formed: the periodic machine starts on the first tick, the
# LACPDUs of both sides go on the second, the group's next selection is on the third, wait_while counts twice and
# expires on the fifth, on which the port attaches, distributes and says so.
FEWEST_TICKS = 5
Row = namedtuple("Row", "figure aim result met")  # met: True, False, or None without an aim


class Table:
    def __init__(self):
        self.rows = []

    def add(self, figure, result, aim="", met=None):
        self.rows.append(Row(figure, aim, result, met))
        print(f"{figure}: {result}" + (f" (aim: {aim}, {'met' if met else 'MISSED'})" if aim else ""), flush=True)


def spread(times):
    """Median, 99th percentile and highest of times in seconds, as milliseconds."""
    ordered = sorted(times)
    at_99 = ordered[min(len(ordered) - 1, int(len(ordered) * 0.99))]
    return statistics.median(ordered) * 1000, at_99 * 1000, ordered[-1] * 1000


def spread_text(times):
    return "median {:.1f} ms, 99th percentile {:.1f} ms, highest {:.1f} ms, ".format(*spread(times)) + f"n={len(times)}"


# ---- moments --------------------------------------------------------------------------------------------------

class Printed:
    """Lines that a program appends to a file, with the time at which they can be read."""

    _MODIFIED = 0x2

    def __init__(self, path):
        libc = ctypes.CDLL(None, use_errno=True)
        self._notify = libc.inotify_init1(os.O_CLOEXEC)
        if self._notify < 0 or libc.inotify_add_watch(self._notify, os.fsencode(path), self._MODIFIED) < 0:
            raise OSError(ctypes.get_errno(), f"{path} cannot be watched")
        self._file = open(path, encoding="utf-8")
        self._file.seek(0, os.SEEK_END)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        os.close(self._notify)
        self._file.close()

    def skip(self):
        self._file.read()

    def moment_of(self, pattern):
        """Waits for a line; the time just after it was written."""
        text = ""
        give_up = time.monotonic() + PATIENCE
        while time.monotonic() < give_up:
            now = time.monotonic()
            text += self._file.read()
            if re.search(pattern, text, re.MULTILINE):
                return now
            if select.select([self._notify], [], [], PATIENCE)[0]:
                os.read(self._notify, 4096)
        raise LabError(f"no line {pattern!r}; seen {text!r}")


class LinkSwitch:
    """Takes an interface of a namespace up and down by one message to the kernel."""

    _NEWLINK, _REQUEST, _UP = 16, 1, 1

    def __init__(self, namespace, interface):
        self._socket = namespace.call(lambda: socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 0))
        self._index = namespace.call(lambda: socket.if_nametoindex(interface))
        self.is_up = True

    def set(self, up):
        """The moment just before."""
        self.is_up = up
        body = struct.pack("=BxHiII", socket.AF_UNSPEC, 0, self._index, self._UP if up else 0, self._UP)
        message = struct.pack("=IHHII", 16 + len(body), self._NEWLINK, self._REQUEST, 0, 0) + body
        moment = time.monotonic()
        self._socket.send(message)
        return moment

    def close(self):
        self._socket.close()


class Notices:
    """When the kernel told about a lost carrier in a namespace: what comes before is not the programs' time."""

    _LINK_GROUP, _NEWLINK, _LOWER_UP = 1, 16, 0x10000

    def __init__(self, namespace):
        def listen():
            notices = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 0)
            notices.bind((0, self._LINK_GROUP))
            return notices
        self._socket = namespace.call(listen)
        self._lost = []
        threading.Thread(target=self._follow, daemon=True).start()

    def _follow(self):
        while True:
            message = self._socket.recv(65536)
            now = time.monotonic()
            _, kind, _, _, _ = struct.unpack_from("=IHHII", message)
            _, _, index, flags, _ = struct.unpack_from("=BxHiII", message, 16)
            if kind == self._NEWLINK and not flags & self._LOWER_UP:
                self._lost.append((index, now))

    def first_after(self, index, moment):
        def found():
            return [at for number, at in self._lost if number == index and at >= moment]
        return eventually(f"a notice of interface {index}", found, bool, PATIENCE)[0]


# ---- systems --------------------------------------------------------------------------------------------------

def port_lines(port, *commands):
    return [f"interface gigabitEthernet 0/{port}", *commands, "exit"]


@contextmanager
def formed_pair(programs, ports, mode):
    """Two systems whose ports are in full groups: 1 to 4 in group 1, 5 to 8 in group 2."""
    with Lab(programs) as lab:
        systems = [lab.system(name, ports=len(ports)) for name in ("left", "right")]
        shift_interface_numbers(systems[1])
        for port in ports:
            lab.cable(systems[0], port, systems[1], port)
        for system in systems:
            system.start()
        for system in systems:
            system.configure(*(line for port in ports for line in port_lines(
                port, f"channel-group {group_of(port)} mode {mode}", "lacp timeout short")))
        for system in systems:
            for group in {group_of(port) for port in ports}:
                system.await_trunk(group, {port for port in ports if group_of(port) == group}, Ticks.FORM)
        yield systems


def shift_interface_numbers(system):
    """The kernel tells at once about a lost carrier of a virtual cable whose ends have different numbers, each in its
    namespace; otherwise it collects such news for up to a second."""
    system.namespace.ip("link", "add", "spare0", "type", "veth", "peer", "name", "spare1")


def group_of(port):
    return 1 + (port - 1) // GROUP_PORTS


def members_of(group):
    return {port for port in PORTS if group_of(port) == group}


def members_line(members, group):
    names = ",".join(map(str, sorted(members)))
    return rf"^trunk {group}: " + (rf"members {names} " if members else "removed")


# ---- figures --------------------------------------------------------------------------------------------------

def measure_commands(programs, table, count):
    """A port of a manual group leaves and joins by the shell."""
    joins, leaves = [], []
    with formed_pair(programs, range(1, GROUP_PORTS + 1), "on") as (left, _):
        with Printed(left.switch.log) as printed, left.shell() as shell:
            for line in ("configure terminal", "interface gigabitEthernet 0/4"):
                shell.run(line)
            for _ in range(count):
                for command, members, times in (("no channel-group 1", {1, 2, 3}, leaves),
                                                ("channel-group 1 mode on", {1, 2, 3, 4}, joins)):
                    started = time.monotonic()
                    shell.run(command)
                    times.append(printed.moment_of(members_line(members, 1)) - started)
    table.add("shell command to trunk request, port joins", spread_text(joins))
    table.add("shell command to trunk request, port leaves", spread_text(leaves))


def measure_cuts(programs, table, count, mode):
    """Rounds of eight cuts, at moments that have nothing to do with the ticks; then all links come back. A group's
    lowest port is its aggregator and goes last: the others would have to form anew without it."""
    times, own_times, moments = [], [], random.Random(1)
    order = sorted(PORTS, key=lambda port: (-((port - 1) % GROUP_PORTS), port))
    with formed_pair(programs, PORTS, mode) as (left, right):
        links = {port: LinkSwitch(right.namespace, right.port_interface(port)) for port in PORTS}
        indexes = {port: left.namespace.call(lambda: socket.if_nametoindex(left.port_interface(port)))
                   for port in PORTS}
        notices = Notices(left.namespace)
        with Printed(left.switch.log) as printed:
            while len(times) < count:
                for system in (left, right):
                    for group in (1, 2):
                        system.await_trunk(group, members_of(group), Ticks.FORM)
                for port in order[:count - len(times)]:
                    time.sleep(moments.uniform(0.05, 0.45))
                    cut_at, seen_at = cut(printed, links, port)
                    times.append(seen_at - cut_at)
                    own_times.append(seen_at - notices.first_after(indexes[port], cut_at))
                for link in links.values():
                    link.set(up=True)
        for link in links.values():
            link.close()
    kind = "manual" if mode == "on" else "dynamic"
    _, at_99, _ = spread(times)
    table.add(f"cut to trunk request, {kind} group", spread_text(times), "99th percentile under 20 ms", at_99 < 20)
    table.add(f"of it from the kernel's notice on, {kind} group", spread_text(own_times))


def cut(printed, links, port):
    """The moments of the cut and of the request for the trunk without the port."""
    group = group_of(port)
    rest = {other for other in members_of(group) if links[other].is_up and other != port}
    printed.skip()
    moment = links[port].set(up=False)
    return moment, printed.moment_of(members_line(rest, group))


def measure_forming(programs, table, count):
    """From a link that comes back to the first LACPDU that says Distributing."""
    ticks = []
    with formed_pair(programs, range(1, GROUP_PORTS + 1), "active") as (left, right):
        link = LinkSwitch(right.namespace, right.port_interface(1))
        for _ in range(count):
            link.set(up=False)
            left.await_trunk(1, {2, 3, 4}, Ticks.LINK)
            moment = link.set(up=True)
            with Capture(right.namespace, right.port_interface(1)) as capture:
                # The last moment is at a tick, so what the first one lacks counts as a whole tick.
                ticks.append(math.ceil((first_distributing(capture, left) - moment) / TICK))
            left.await_trunk(1, {1, 2, 3, 4}, Ticks.FORM)
        link.close()
    table.add("link up to distributing, as the LACPDU says", f"median {statistics.median(ticks):.0f} ticks, lowest "
              f"{min(ticks)}, highest {max(ticks)}, n={len(ticks)}; arithmetic minimum {FEWEST_TICKS}")


def first_distributing(capture, sender):
    give_up = time.monotonic() + Ticks.FORM
    while time.monotonic() < give_up:
        for frame in capture.frames(1, 1.0):
            actor = Lacpdu(frame.data).actor
            if actor.system.hex(":") == sender.mac and actor.state & DISTRIBUTING:
                return time.monotonic()
    raise LabError(f"{sender.name} does not distribute")


def run_times(pid):
    """Nanoseconds on a processor, by thread."""
    times = {}
    for task in Path(f"/proc/{pid}/task").iterdir():
        name = (task / "comm").read_text(encoding="utf-8").strip()
        times[name, task.name] = int((task / "schedstat").read_text(encoding="utf-8").split()[0])
    return times


def measure_rest(programs, table, seconds):
    """A formed group of four ports that nothing happens to."""
    with formed_pair(programs, range(1, GROUP_PORTS + 1), "active") as (left, _):
        pid = left.daemon.pid
        before, started = run_times(pid), time.monotonic()
        time.sleep(seconds)
        after, passed = run_times(pid), time.monotonic() - started
        used = {key: (after[key] - before.get(key, 0)) / 1e9 for key in after}
        share = sum(used.values()) / passed * 100
        memory = dict(re.findall(r"^(\w+): +(\d+) kB", Path(f"/proc/{pid}/smaps_rollup").read_text(encoding="utf-8"),
                                 re.MULTILINE))
    table.add(f"processor at rest, {passed:.0f} s", f"{share:.3f} % of a core", "under 0.5 %", share < 0.5)
    for (name, _), value in sorted(used.items(), key=lambda item: -item[1]):
        table.add(f"  thread {name}", f"{value / passed * 1e6:.0f} us a second")
    resident = int(memory["Rss"]) / 1024
    table.add("resident memory", f"{resident:.1f} MB, {int(memory['Pss']) / 1024:.1f} MB with shared pages divided",
              "under 30 MB", resident < 30)


def add_options(parser):
    parser.add_argument("--build", default="build")
    parser.add_argument("--cuts", type=int, default=200)
    parser.add_argument("--idle", type=float, default=600, help="seconds of rest")
    parser.add_argument("--urgent", action="store_true",
                        help="real-time priority for everything measured, for a machine that has other work")


def measure(options, table):
    if options.urgent:
        os.sched_setscheduler(0, os.SCHED_RR, os.sched_param(1))
    programs = Programs(options.build)
    measure_commands(programs, table, options.cuts // 2)
    for mode in ("on", "active"):
        measure_cuts(programs, table, options.cuts, mode)
    measure_forming(programs, table, max(options.cuts // 10, 1))
    measure_rest(programs, table, options.idle)


def main():
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    add_options(parser)
    measure(parser.parse_args(), Table())


if __name__ == "__main__":
    main()
