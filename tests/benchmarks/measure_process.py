#!/usr/bin/env python3
"""What two whole systems take: time from a command or a cut to the trunk request, memory, processor.

    tests/benchmarks/measure_process.py [--build=DIR] [--cuts=N] [--idle=SECONDS] [--urgent]        as root
"""

import argparse
import fcntl
import math
import os
import random
import re
import socket
import statistics
import struct
import sys
import time
from datetime import datetime
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))

from lab import Capture, Lab, Lacpdu, Programs, Ticks, eventually  # noqa: E402 (needs the path above)
from lab.process import Process  # noqa: E402
from lab.ticks import TICK  # noqa: E402
from lab.wire import DISTRIBUTING  # noqa: E402

PORTS = [1, 2, 3, 4]
SET_FLAGS, FLAGS = 0x8914, 0x1002  # SIOCSIFFLAGS; broadcast and multicast, and 1 for "up"
missed = []


def add(figure, result, aim="", met=True):
    if not met:
        missed.append(figure)
    print(f"| {figure} | {result} | {aim and f'{aim}: ' + ('met' if met else 'missed')} |", flush=True)


def add_times(figure, seconds, aim_ms=math.inf):
    times = sorted(1000 * value for value in seconds)
    at_99 = times[min(len(times) - 1, int(len(times) * 0.99))]
    add(figure, f"median {statistics.median(times):.1f} ms, 99th percentile {at_99:.1f} ms, highest {times[-1]:.1f} ms",
        f"99th percentile under {aim_ms} ms" if aim_ms < math.inf else "", at_99 < aim_ms)


class Pair:
    """Two systems with all their ports in one group. Cables are cut at the right end, the left one is watched."""

    def __init__(self, lab, mode):
        self.left, self.right = self.ends = [lab.system(name, ports=len(PORTS)) for name in ("left", "right")]
        # The kernel tells at once about a lost carrier of a virtual cable whose ends have different numbers, each in
        # its namespace; otherwise it collects such news for up to a second.
        self.right.namespace.ip("link", "add", "spare0", "type", "veth", "peer", "name", "spare1")
        for port in PORTS:
            lab.cable(self.left, port, self.right, port)
        for system in self.ends:
            system.start()
            system.configure(*(line for port in PORTS for line in (
                f"interface gigabitEthernet 0/{port}", f"channel-group 1 mode {mode}", "lacp timeout short", "exit")))
        self._control = self.right.namespace.call(socket.socket)
        self._news = Process("news", [*self.left.namespace.enter(), "ip", "-ts", "monitor", "link"], {},
                             self.left.directory / "news.out")
        self.await_formed()

    def await_formed(self):
        for system in self.ends:
            system.await_trunk(1, PORTS, Ticks.FORM)

    def set_link(self, port, up):
        fcntl.ioctl(self._control, SET_FLAGS, struct.pack("16sH22x", f"ge{port}".encode(), FLAGS | up))

    def told(self, port, after):
        """When the kernel told of a lost carrier: what comes before is not the programs' time."""
        line = rf"\[(\S+)\] \d+: ge{port}@\S+ <NO-CARRIER"
        return eventually(f"news of port {port}", lambda: [
            moment for moment in (datetime.fromisoformat(text).timestamp() for text in re.findall(
                line, self._news.output())) if moment >= after], bool, 10)[0]

    def timed(self, gone, act, *arguments):
        """The moment just before an action, and the one at which the trunk without some ports is printed."""
        rest = ",".join(str(port) for port in PORTS if port not in gone)
        line = re.compile("^trunk 1: " + (f"members {rest} " if rest else "removed"), re.MULTILINE)
        with open(self.left.switch.log, encoding="utf-8") as log:
            log.seek(0, os.SEEK_END)
            started, _, text = time.time(), act(*arguments), log.read()
            while not line.search(text):
                assert time.time() < started + 10, f"no line {line}: {text}"
                time.sleep(0.0001)
                text += log.read()
            return started, time.time()


def measure_commands(pair, count):
    with pair.left.shell() as shell:
        for line in ("configure terminal", "interface gigabitEthernet 0/4"):
            shell.run(line)
        moments = [(pair.timed([4], shell.run, "no channel-group 1"),
                    pair.timed([], shell.run, "channel-group 1 mode on")) for _ in range(count)]
    for what, pairs in zip(("leaves", "joins"), zip(*moments)):
        add_times(f"shell command to trunk request, port {what}", [seen - started for started, seen in pairs])


def measure_cuts(pair, count, kind):
    """Rounds in which all ports go, at moments that have nothing to do with the ticks; then all links come back."""
    times, own_times, chance = [], [], random.Random(1)
    while len(times) < count:
        order = chance.sample(PORTS, len(PORTS))
        for number, port in enumerate(order, 1):
            time.sleep(chance.uniform(0.05, 0.45))
            cut, seen = pair.timed(order[:number], pair.set_link, port, False)
            times.append(seen - cut)
            own_times.append(seen - pair.told(port, cut))
        for port in PORTS:
            pair.set_link(port, True)
        pair.await_formed()
    add_times(f"cut to trunk request, {kind} group", times, 20)
    add_times("the same from the kernel's notice on", own_times)


def measure_forming(pair, count):
    """From a link that comes back to the first LACPDU that says Distributing."""
    ticks = []
    for _ in range(count):
        pair.timed([1], pair.set_link, 1, False)
        moment = time.monotonic()
        pair.set_link(1, True)
        with Capture(pair.right.namespace, pair.right.port_interface(1)) as capture:
            # The last moment is at a tick, so what the first one lacks counts as a whole tick.
            ticks.append(next(math.ceil((frame.time - moment) / TICK) for frame in capture.each(Ticks.FORM)
                              if Lacpdu(frame.data).actor.state & DISTRIBUTING))
        pair.await_formed()
    add("link up to distributing, as the LACPDU says", f"median {statistics.median(ticks):.0f} ticks, {min(ticks)} to "
        f"{max(ticks)}, n={len(ticks)}; arithmetic minimum 5")


def measure_rest(process, seconds):
    def nanoseconds():
        return {task: int((task / "schedstat").read_text().split()[0]) for task in (process / "task").iterdir()}
    before = nanoseconds()
    time.sleep(seconds)
    used = {task: (after - before.get(task, 0)) / 1000 / seconds for task, after in nanoseconds().items()}
    share = sum(used.values()) / 1e6
    add(f"processor at rest, {seconds:.0f} s", f"{share:.3%} of a core", "under 0.5 %", share < 0.005)
    for task, value in used.items():
        add(f"of it {(task / 'comm').read_text().strip()}", f"{value:.0f} us a second")
    memory = dict(re.findall(r"^(\w+): +(\d+) kB", (process / "smaps_rollup").read_text(), re.MULTILINE))
    rss, pss = int(memory["Rss"]) / 1024, int(memory["Pss"]) / 1024
    add("resident memory", f"{rss:.1f} MB; {pss:.1f} MB with shared pages divided", "under 30 MB", rss < 30)


def main():
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--build", default="build")
    parser.add_argument("--cuts", type=int, default=200)
    parser.add_argument("--idle", type=float, default=600)
    parser.add_argument("--urgent", action="store_true", help="real-time priority, for a machine with other work")
    options = parser.parse_args()
    print(f"load before: {os.getloadavg()[0]:.2f}\n\n| Figure | Result | Aim |\n|---|---|---|")
    if options.urgent:  # whatever is started takes it over
        os.sched_setscheduler(0, os.SCHED_RR, os.sched_param(1))
    with Lab(Programs(options.build)) as lab:
        pair = Pair(lab, "on")
        measure_commands(pair, options.cuts // 2)
        measure_cuts(pair, options.cuts, "manual")
    with Lab(Programs(options.build)) as lab:
        pair = Pair(lab, "active")
        measure_rest(Path(f"/proc/{pair.left.daemon.pid}"), options.idle)
        measure_cuts(pair, options.cuts, "dynamic")
        measure_forming(pair, max(options.cuts // 10, 1))
    sys.exit(bool(missed))


if __name__ == "__main__":
    main()
