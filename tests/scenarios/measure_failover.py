#!/usr/bin/env python3
"""What a user loses when something fails: flows of 1,000 packets a second around each failure, as one table.

    tests/scenarios/measure_failover.py [--build=DIR] [--runs=NUMBER] [--one-end]       as root

Two systems, three cables, short timeouts; port 1 is the aggregator's. A flow each way over every member: the one over
port 1 leaves there while all three are in the trunk. Cells: packets lost; longest time without a packet, of all runs.
A cut takes both ends down, as a broken fibre does. With --one-end the other end waits for the kernel's notice.
"""

import argparse
import contextlib
import sys
import threading
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))

from lab import Flow, Lab, Programs, Ticks  # noqa: E402 (needs the path above)
from helpers import address_on, await_groups, join, leave, quietly  # noqa: E402

MEMBERS = (1, 2, 3)
STEADY = 1.0     # seconds of flow before and after
SELECTION = 3.0  # seconds in which a group that will form anew has begun to
AWAY = 15        # longer than a partner is waited for
GROUPS = {"Manual": ("on", 32768), "Dynamic": ("active", 32768),
          "Dynamic, port 1 has priority 100": ("active", 100)}


class Bench:
    """A formed group, and what can happen to it."""

    def __init__(self, lab, one_end):
        self.pair = lab.pair(len(MEMBERS))
        self.cut_ends = self.pair[1:] if one_end else self.pair
        self.flows = []  # source, target, address, the member over which it leaves

    def form(self, mode, priority):
        for system in self.pair:
            quietly(system, *(line for port in MEMBERS for line in join(port, 1, mode, "lacp timeout short")),
                    "interface gigabitEthernet 0/1", f"lacp port-priority {priority}", "exit",
                    "channel-group 1 load-balance src-ip")
            with system.shell() as shell:
                shell.run("write memory")
        self.await_formed()
        self.flows = self.flows or [(*ends, address_on(*ends, member, MEMBERS), member)
                                    for ends in (self.pair, self.pair[::-1]) for member in MEMBERS]

    def await_formed(self):
        await_groups(self.pair, {1: set(MEMBERS)}, Ticks.FORM)

    def set_link(self, up):
        for end in self.cut_ends:
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
        with contextlib.ExitStack() as stack:
            flows = [(member, stack.enter_context(Flow(*flow))) for *flow, member in self.flows]
            time.sleep(STEADY)
            failure()
            time.sleep(STEADY)
        return [(member, flow.report) for member, flow in flows]


def one_run(bench, add):
    failures = {"port 1 cut": bench.cut, "port 1 back": bench.restore,
                "daemon killed, starts again": bench.restart_daemon,
                f"daemon killed, away for {AWAY} s": lambda: bench.restart_daemon(AWAY),
                "switch killed, starts again": bench.restart_switch}
    for group, (mode, priority) in GROUPS.items():
        bench.form(mode, priority)
        for what, failure in failures.items():
            for member, report in bench.measure(failure) if priority != 100 or "killed" not in what else ():
                add(f"{what}; flows over {'port 1' if member == 1 else 'ports 2 and 3'}", group, report)
        for system in bench.pair:
            quietly(system, *(line for port in MEMBERS for line in leave(port, 1)))


def span(values):
    least, most = (f"{value:.0f}" for value in (min(values), max(values)))
    return least if least == most else f"{least} to {most}"


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default=str(Path(__file__).resolve().parents[2] / "build"))
    parser.add_argument("--runs", type=int, default=3)
    parser.add_argument("--one-end", action="store_true")
    options = parser.parse_args()
    reports = {}
    with Lab(Programs(options.build)) as lab:
        bench = Bench(lab, options.one_end)
        for _ in range(options.runs):
            one_run(bench, lambda what, group, one: reports.setdefault(what, {}).setdefault(group, []).append(one))
    print(f"{options.runs} runs\n\n| What happens | " + " | ".join(GROUPS) + " |\n" + "|---" * (1 + len(GROUPS)) + "|")
    for what, of in reports.items():
        print(f"| {what} | " + " | ".join(
            f"{span([one.lost for one in of[group]])}; {span([one.outage * 1000 for one in of[group]])} ms"
            if group in of else "" for group in GROUPS) + " |")


if __name__ == "__main__":
    main()
