"""A daemon that ends and starts again: nobody notices, unless something has changed meanwhile; then links form anew."""

import contextlib
import time

import pytest

from helpers import enter, join, quietly
from lab import Flow, Ticks
from ovs import OpenVSwitch

PORTS = (1, 2)


class Bench:
    """One system, with a dynamic group of two cables to a system of ours and one to a partner of another make."""

    def __init__(self, lab):
        self.own, self.ours = lab.system("own", 4), lab.system("ours", 2)
        self.other = lab.add(OpenVSwitch, "other")
        for port in PORTS:
            lab.cable(self.own, port, self.ours, port)
            lab.cable(self.own, port + 2, self.other, port)
        for system in (self.own, self.ours):
            system.add_host()
            system.start()
        self.other.start()
        self.other.add_bond("bond", list(PORTS), "lacp=active other_config:lacp-time=fast")
        self.file = self.own.run_directory / "lacpd.resume"

    def configure(self, timeout):
        for system, group, ports in ((self.ours, 1, PORTS), (self.own, 1, PORTS), (self.own, 2, (3, 4))):
            quietly(system, *(line for port in ports for line in join(port, group, "active", f"lacp timeout {timeout}")))
        rate = "fast" if timeout == "short" else "slow"
        self.other.configure(f"set port bond other_config:lacp-time={rate}")
        with self.own.shell() as shell:
            shell.run("write memory")
        self.await_formed()

    def await_formed(self, within=Ticks.FORM + 35):
        self.own.await_trunk(1, {1, 2}, within)
        self.own.await_trunk(2, {3, 4}, within)
        self.ours.await_trunk(1, {1, 2}, within)
        self.own.await_members(1, {1, 2}, within)

    def losses(self):
        return [self.other.losses(port) for port in PORTS]

    def restart(self, number, away, change=lambda: None):
        self.own.stop_daemon(number)
        change()
        time.sleep(away)
        self.own.start_daemon()


@pytest.fixture(scope="module")
def bench(lab):
    return Bench(lab)


@pytest.mark.parametrize("timeout, number, away", [
    ("short", 9, 0), ("short", 15, 0), ("short", 9, 1.5), ("long", 15, 0), ("long", 9, 10)])
def test_nobody_notices(bench, timeout, number, away):
    bench.configure(timeout)
    time.sleep(2)
    losses = bench.losses()
    pair = bench.own, bench.ours
    with contextlib.ExitStack() as stack:
        flows = [stack.enter_context(Flow(*ends, address)) for ends in (pair, pair[::-1])
                 for address in ends[0].host_addresses[:2]]
        time.sleep(0.5)
        bench.restart(number, away)
        bench.own.daemon.wait_for_output("4 of 4 member ports go on", 5)
        time.sleep(4)
    assert bench.losses() == losses
    print([flow.report for flow in flows])
    assert all(flow.report.lost <= 1 for flow in flows)
    bench.await_formed(1)
