#!/usr/bin/env python3
"""What two whole systems take and what their users lose, as the tables of docs/performance.md.

    tests/scenarios/measure_systems.py [--build=DIR] [--runs=N] [--cuts=N] [--idle=SECONDS]       as root

Two systems, three cables, short timeouts; port 1 is the aggregator's. First times from a command or a cut to the line that
the switch prints for the new trunk, and what the daemon takes at rest. Then flows of 1,000 packets a second around each
failure, one each way over every member: packets lost; longest time without one. A cut takes both ends down, as a broken
fibre does; when times are taken the other end waits for the kernel's notice."""

import argparse
import contextlib
import os
import random
import re
import statistics
import sys
import threading
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))

from lab import Flow, Lab, Programs, Ticks  # noqa: E402 (needs the path above)
from helpers import await_groups, join, leave, quietly  # noqa: E402

MEMBERS = (1, 2, 3)
STEADY = 1.0     # seconds of flow before and after
SELECTION = 3.0  # seconds in which a group that will form anew has begun to
AWAY = 15        # longer than a partner is waited for
GROUPS = {"Manual": ("on", 32768), "Dynamic": ("active", 32768),
          "Dynamic, port 1 has priority 100": ("active", 100)}


class Bench:
    """A formed group, and what can happen to it."""

    def __init__(self, lab):
        # The kernel tells at once of a lost carrier of a virtual cable whose ends have different numbers, each in its
        # namespace; otherwise it collects such news for up to a second.
        self.pair = [lab.system(name, len(MEMBERS)) for name in ("left", "right")]
        self.pair[1].namespace.ip("link", "add", "spare0", "type", "veth", "peer", "name", "spare1")
        for port in MEMBERS:
            lab.cable(self.pair[0], port, self.pair[1], port)
        for system in self.pair:
            system.add_host()
            system.start()
        self.flows = []  # source, target, address, the member over which it leaves

    def form(self, mode, priority):
        for system in self.pair:
            quietly(system, *(line for port in MEMBERS for line in join(port, 1, mode, "lacp timeout short")),
                    "interface gigabitEthernet 0/1", f"lacp port-priority {priority}", "exit",
                    "channel-group 1 load-balance src-ip")
            with system.shell() as shell:
                shell.run("write memory")
        self.await_formed()

    def part(self):
        for system in self.pair:
            quietly(system, *(line for port in MEMBERS for line in leave(port, 1)))

    def await_formed(self):
        await_groups(self.pair, {1: set(MEMBERS)}, Ticks.FORM)

    def set_link(self, up):
        for end in self.pair:
            threading.Thread(target=end.set_link, args=(1, up)).start()
        time.sleep(SELECTION)

    # Every failure leaves the group formed, or without port 1.

    def cut(self):
        self.set_link(False)
        for system in self.pair:
            system.await_trunk(1, {2, 3}, Ticks.FORM)

    def restore(self):
        self.set_link(True)
        self.await_formed()

    def restart_daemon(self, away=0):
        self.pair[0].daemon.stop(number=9)
        time.sleep(away)
        self.pair[0].start_daemon()
        time.sleep(SELECTION)
        self.await_formed()

    def restart_switch(self):
        self.pair[0].switch.stop(number=9)
        self.pair[0].start_switch()
        self.await_formed()

    def measure(self, failure):
        """(member, report) of every flow around a failure."""
        self.flows = self.flows or [(*ends, ends[0].address_over(member, ends[1]), member)
                                    for ends in (self.pair, self.pair[::-1]) for member in MEMBERS]
        with contextlib.ExitStack() as stack:
            flows = [(member, stack.enter_context(Flow(*flow))) for *flow, member in self.flows]
            time.sleep(STEADY)
            failure()
            time.sleep(STEADY)
        return [(member, flow.report) for member, flow in flows]

    def timed(self, left_over, act, *arguments):
        """Milliseconds from just before an action to the line for the trunk with these ports."""
        line = re.compile(f"^trunk 1: members {','.join(map(str, left_over))} ", re.MULTILINE)
        with open(self.pair[0].switch.log, encoding="utf-8") as log:
            log.seek(0, os.SEEK_END)
            started, _, text = time.monotonic(), act(*arguments), log.read()
            while not line.search(text):
                assert time.monotonic() < started + 10, f"no line {line}: {text}"
                time.sleep(0.0001)
                text += log.read()
            return (time.monotonic() - started) * 1000


def add_times(figure, values):
    values = sorted(values)
    print(f"| {figure} | median {statistics.median(values):.1f} ms, 99th percentile "
          f"{values[int(len(values) * 0.99)]:.1f} ms, highest {values[-1]:.1f} ms |", flush=True)


def measure_times(bench, options):
    for kind, (mode, priority) in list(GROUPS.items())[:2]:
        bench.form(mode, priority)
        if mode == "on":
            with bench.pair[0].shell() as shell:
                for line in ("configure terminal", "interface gigabitEthernet 0/3"):
                    shell.run(line)
                times = [(bench.timed((1, 2), shell.run, "no channel-group 1"),
                          bench.timed(MEMBERS, shell.run, "channel-group 1 mode on")) for _ in range(options.cuts // 2)]
            for what, values in zip(("leaves", "joins"), zip(*times)):
                add_times(f"shell command to trunk request, port {what}", values)
        else:
            measure_rest(Path(f"/proc/{bench.pair[0].daemon.pid}"), options.idle)
        cuts = []
        while len(cuts) < options.cuts:  # at moments that have nothing to do with the ticks
            port = random.choice(MEMBERS)
            time.sleep(random.uniform(0.05, 1.05))
            cuts.append(bench.timed([member for member in MEMBERS if member != port],
                                    bench.pair[1].set_link, port, False))
            bench.pair[1].set_link(port, True)
            bench.await_formed()
        add_times(f"cut to trunk request, {kind.lower()} group", cuts)
        bench.part()


def measure_rest(process, seconds):
    def nanoseconds():
        return {task: int((task / "schedstat").read_text().split()[0]) for task in (process / "task").iterdir()}
    before = nanoseconds()
    time.sleep(seconds)
    used = {task: (after - before.get(task, 0)) / 1000 / seconds for task, after in nanoseconds().items()}
    memory = dict(re.findall(r"^(\w+): +(\d+) kB", (process / "smaps_rollup").read_text(), re.MULTILINE))
    busiest = max(used, key=used.get)
    print(f"| processor at rest, {seconds:.0f} s | {sum(used.values()) / 1e6:.3%} of a core |\n"
          f"| of it {(busiest / 'comm').read_text().strip()} | {used[busiest]:.0f} us a second |\n"
          f"| resident memory, with shared pages divided | {', '.join(memory[name] for name in ('Rss', 'Pss'))} kB |")


def measure_failures(bench, add):
    failures = {"port 1 cut": bench.cut, "port 1 back": bench.restore,
                "daemon killed, starts again": bench.restart_daemon,
                f"daemon killed, away for {AWAY} s": lambda: bench.restart_daemon(AWAY),
                "switch killed, starts again": bench.restart_switch}
    for group, (mode, priority) in GROUPS.items():
        bench.form(mode, priority)
        for what, failure in failures.items():
            for member, report in bench.measure(failure) if priority != 100 or "killed" not in what else ():
                add(f"{what}; flows over {'port 1' if member == 1 else 'ports 2 and 3'}", group, report)
        bench.part()


def span(values):
    least, most = (f"{value:.0f}" for value in (min(values), max(values)))
    return least if least == most else f"{least} to {most}"


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default=str(Path(__file__).resolve().parents[2] / "build"))
    parser.add_argument("--runs", type=int, default=3, help="of the failures")
    parser.add_argument("--cuts", type=int, default=60, help="whose time is taken; 0: no times")
    parser.add_argument("--idle", type=float, default=120, help="seconds at rest")
    options = parser.parse_args()
    reports = {}
    with Lab(Programs(options.build)) as lab:
        bench = Bench(lab)
        if options.cuts:
            print(f"load {os.getloadavg()[0]:.1f}\n\n| Figure | Result |\n|---|---|")
            measure_times(bench, options)
        for _ in range(options.runs):
            measure_failures(bench, lambda what, group, one: reports.setdefault(what, {}).setdefault(group, []).append(one))
    print(f"\n{options.runs} runs\n\n| What happens | " + " | ".join(GROUPS) + " |\n" + "|---" * (1 + len(GROUPS)) + "|")
    for what, of in reports.items():
        print(f"| {what} | " + " | ".join(
            f"{span([one.lost for one in of[group]])}; {span([one.outage * 1000 for one in of[group]])} ms"
            if group in of else "" for group in GROUPS) + " |")


if __name__ == "__main__":
    main()
