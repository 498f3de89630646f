"""A daemon that ends and starts again: nobody notices, unless something has changed meanwhile; then links form anew."""

import contextlib
import signal
import time

import pytest

from helpers import await_groups, join, leave, quietly
from lab import Flow, Ticks, eventually
from lab.waiting import POLL
from lab.wire import EXPIRED, TIMEOUT
from ovs import OpenVSwitch

PORTS = (1, 2)
LOST = 4.0  # seconds: a partner that has heard nothing since the restart says so


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

    def form(self, timeout):
        """Anew: a changed timeout is told with the next LACPDU, which may be long in coming."""
        for system, ports in ((self.ours, PORTS), (self.own, (*PORTS, 3, 4))):
            system.configure(*(line for port in ports for line in leave(port, (port + 1) // 2)))
            quietly(system, *(line for port in ports for line in join(
                port, (port + 1) // 2, "active", f"lacp timeout {timeout}")))
        rate = "fast" if timeout == "short" else "slow"
        self.other.configure(f"set port bond other_config:lacp-time={rate}")
        with self.own.shell() as shell:
            shell.run("write memory")
        both = TIMEOUT if timeout == "short" else 0
        eventually("the partner has both timeouts", self.other.members, lambda seen: all(
            member.enabled and member.actor.state & member.partner.state & TIMEOUT == both and
            (member.actor.state | member.partner.state) & (EXPIRED | TIMEOUT) == both
            for member in seen.values()), Ticks.FORM)
        self.await_formed()

    def await_formed(self, within=Ticks.FORM):
        await_groups([self.own], {1: {1, 2}, 2: {3, 4}}, within)
        await_groups([self.ours], {1: {1, 2}}, within)

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


# Our LACPDUs come every two seconds where the partner waits for three.
@pytest.mark.parametrize("timeout, number, away", [("short", signal.SIGKILL, 0.5), ("long", signal.SIGTERM, 8)])
def test_nobody_notices(bench, timeout, number, away):
    bench.form(timeout)
    losses, pair = bench.losses(), (bench.own, bench.ours)
    with contextlib.ExitStack() as stack:
        flows = [stack.enter_context(Flow(*ends, address)) for ends in (pair, pair[::-1])
                 for address in ends[0].host_addresses[:2]]
        bench.restart(number, away)
        bench.own.daemon.wait_for_output("4 of 4 member ports go on", Ticks.LINK)
        time.sleep(LOST)
    assert bench.losses() == losses
    assert [flow.report.lost for flow in flows if flow.report.lost > 1] == []
    bench.await_formed(POLL)


def test_what_has_changed_forms_anew(bench):
    bench.form("short")

    def change():
        bench.own.set_link(1, False)
        saved = bench.own.configuration_file.read_text()
        bench.own.write_configuration(saved.replace(" channel-group 1", " lacp port-priority 7\n channel-group 1"))
        bench.other.configure(" -- ".join(f"set interface ge{port} other_config:lacp-aggregation-key=77"
                                          for port in PORTS))
    bench.restart(signal.SIGKILL, 0, change)
    bench.own.daemon.wait_for_output("2 of 4 member ports go on", Ticks.LINK)  # until their partner is heard
    for system in (bench.own, bench.ours):
        await_groups([system], {1: {2}, **({2: {3, 4}} if system is bench.own else {})}, Ticks.FORM)
    eventually("the partner uses both ports", bench.other.members, lambda seen: all(
        member.enabled and member.actor.key == 77 for member in seen.values()), Ticks.FORM)
