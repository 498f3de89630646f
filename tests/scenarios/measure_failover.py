#!/usr/bin/env python3
"""What a user loses when something fails: flows of 1,000 packets a second both ways around each failure.

    tests/scenarios/measure_failover.py [--build=DIR] [--runs=NUMBER]       as root

Two systems, two cables, short timeouts. Prints a table: packets lost and the longest time without a packet, the least
and the most of all runs and both directions.
"""

import argparse
import contextlib
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))

from lab import Flow, Lab, Programs, Ticks  # noqa: E402 (needs the path above)
from helpers import address_on, await_groups, join, leave, quietly  # noqa: E402

MEMBERS = (1, 2)
STEADY = 1.0     # seconds of flow before and after
AWAY = 15        # longer than a partner is waited for


class Bench:
    """A formed group, and what can happen to it."""

    def __init__(self, lab):
        self.pair = left, right = lab.system("left", ports=2), lab.system("right", ports=2)
        for port in MEMBERS:
            lab.cable(left, port, right, port)
        for system in self.pair:
            system.add_host()
            system.start()

    def form(self, mode):
        for system in self.pair:
            quietly(system, *(line for port in MEMBERS for line in join(port, 1, mode, "lacp timeout short")),
                    "channel-group 1 load-balance src-ip")
            with system.shell() as shell:
                shell.run("write memory")
        self.await_formed()

    def dissolve(self):
        for system in self.pair:
            quietly(system, *(line for port in MEMBERS for line in leave(port, 1)))

    def await_formed(self):
        await_groups(self.pair, {1: set(MEMBERS)}, Ticks.FORM)

    # Every failure leaves the group formed, or with one member less.

    def cut(self, port):
        self.pair[1].set_link(port, up=False)
        for system in self.pair:
            system.await_trunk(1, set(MEMBERS) - {port}, Ticks.FORM)

    def restore(self, port):
        self.pair[1].set_link(port, up=True)
        self.await_formed()

    def restart_daemon(self, away=0):
        self.pair[0].daemon.stop(number=9)
        time.sleep(away)
        self.pair[0].start_daemon()
        time.sleep(2)  # a partner that heard nothing of it needs no forming
        self.await_formed()

    def restart_switch(self):
        self.pair[0].switch.stop(number=9)
        self.pair[0].start_switch()
        self.await_formed()

    def addresses_on(self, member):
        """An address on either side whose flow leaves over this member."""
        return [address_on(source, target, member, MEMBERS) for source, target in (self.pair, self.pair[::-1])]

    def measure(self, addresses, failure):
        """Reports of a flow each way around a failure."""
        with contextlib.ExitStack() as stack:
            flows = [stack.enter_context(Flow(source, target, address))
                     for (source, target), address in zip((self.pair, self.pair[::-1]), addresses)]
            time.sleep(STEADY)
            failure()
            time.sleep(STEADY)
        return [flow.report for flow in flows]


CUTS = {"the member in use": (2, 2), "the aggregator's port, in use": (1, 1),
        "the aggregator's port, the other in use": (1, 2)}  # port that is cut, member that carries


def one_run(bench):
    """(what happens, reports) one after the other."""
    for kind, mode in (("Manual", "on"), ("Dynamic", "active")):
        bench.form(mode)
        for name, (port, carrier) in CUTS.items():
            if port == 1 and mode == "on":
                continue  # all members of a manual group are alike
            addresses = bench.addresses_on(carrier)
            for verb, change in (("cut", bench.cut), ("back", bench.restore)):
                yield f"{kind}: {name}, {verb}", bench.measure(addresses, lambda: change(port))
        for name, failure in (("daemon killed, starts again", bench.restart_daemon),
                              (f"daemon killed, away for {AWAY} s", lambda: bench.restart_daemon(AWAY)),
                              ("switch killed, starts again", bench.restart_switch)):
            yield f"{kind}: {name}", bench.measure(bench.addresses_on(2), failure)
        bench.dissolve()


def span(values):
    least, most = (f"{value:.0f}" for value in (min(values), max(values)))
    return least if least == most else f"{least} to {most}"


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default=str(Path(__file__).resolve().parents[2] / "build"))
    parser.add_argument("--runs", type=int, default=3)
    options = parser.parse_args()
    reports = {}
    with Lab(Programs(options.build)) as lab:
        bench = Bench(lab)
        for _ in range(options.runs):
            for what, both in one_run(bench):
                reports.setdefault(what, []).extend(both)
    print("| What happens | Packets lost | Longest silence, ms |\n|---|---|---|")
    for what, all_of_it in reports.items():
        lost, silence = [one.lost for one in all_of_it], [one.outage * 1000 for one in all_of_it]
        print(f"| {what} | {span(lost)} | {span(silence)} |")


if __name__ == "__main__":
    main()
