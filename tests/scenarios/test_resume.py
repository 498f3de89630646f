"""A daemon that ends and starts again: nobody notices, unless something has changed meanwhile; then links form anew."""

import contextlib
import signal
import time
from concurrent.futures import ThreadPoolExecutor

import pytest

from helpers import await_groups, join, leave, quietly
from lab import Flow, Ticks, eventually
from lab.openvswitch import OpenVSwitch
from lab.system import System
from lab.waiting import POLL
from lab.wire import EXPIRED, TIMEOUT

PORTS = (1, 2)
LOST = 4.0  # seconds: a partner that has heard nothing since the restart says so


class Bench:
    """Two systems with a dynamic group of two cables: one to a system of ours, one to a partner of another make."""

    def __init__(self, lab):
        self.pairs = (lab.system("own", 2), lab.system("ours", 2)), (lab.system("beside", 2), lab.add(OpenVSwitch, "other"))
        (self.own, self.ours), (self.beside, self.other) = self.pairs
        self.restarting = self.own, self.beside
        for pair in self.pairs:
            for port in PORTS:
                lab.cable(pair[0], port, pair[1], port)
        for system in (*self.restarting, self.ours):
            system.add_host()
            system.start()
        self.other.start()
        self.other.add_host("10.77.99.1")
        self.other.add_bond("bond", list(PORTS), "lacp=active other_config:lacp-time=fast")

    def form(self, timeout):
        """Anew: a changed timeout is told with the next LACPDU, which may be long in coming."""
        for system in (*self.restarting, self.ours):
            system.configure(*(line for port in PORTS for line in leave(port, 1)))
            quietly(system, *(line for port in PORTS for line in join(port, 1, "active", f"lacp timeout {timeout}")))
        rate = "fast" if timeout == "short" else "slow"
        self.other.configure(f"set port bond other_config:lacp-time={rate}")
        for system in self.restarting:
            with system.shell() as shell:
                shell.run("write memory")
        both = TIMEOUT if timeout == "short" else 0
        eventually("the partner has both timeouts", self.other.members, lambda seen: all(
            member.enabled and member.actor.state & member.partner.state & TIMEOUT == both and
            (member.actor.state | member.partner.state) & (EXPIRED | TIMEOUT) == both
            for member in seen.values()), Ticks.FORM)
        self.await_formed()

    def await_formed(self, within=Ticks.FORM):
        await_groups([*self.restarting, self.ours], {1: {1, 2}}, within)

    def losses(self):
        return [self.other.losses(port) for port in PORTS]

    def restart(self, number, away, change=lambda: None):
        for system in self.restarting:
            system.stop_daemon(number)
            assert number == signal.SIGTERM or system.speak_for_daemon() == ""
        change()
        time.sleep(away / 4 if self.own.programs.slowed else away)
        assert away < 3 or "the daemon has not been serving; partners" in self.own.speak_for_daemon()
        with ThreadPoolExecutor() as pool:
            list(pool.map(System.start_daemon, self.restarting))


@pytest.fixture(scope="module")
def bench(lab):
    return Bench(lab)


# Our LACPDUs come every two seconds where the partner waits for three; at an end of the daemon another one leaves.
@pytest.mark.parametrize("timeout, number, away", [
    ("short", signal.SIGTERM, 1.9), ("short", signal.SIGKILL, 1.9), ("long", signal.SIGKILL, 8)])
def test_nobody_notices(bench, timeout, number, away):
    bench.form(timeout)
    losses = bench.losses()
    with contextlib.ExitStack() as stack:
        flows = [stack.enter_context(Flow(*ends, address)) for pair in bench.pairs for ends in (pair, pair[::-1])
                 for address in ends[0].host_addresses[:2]]
        bench.restart(number, away)
        for system in bench.restarting:
            system.daemon.wait_for_output("2 of 2 member ports go on", Ticks.LINK)
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
    bench.own.daemon.wait_for_output("0 of 2 member ports go on", Ticks.LINK)
    bench.beside.daemon.wait_for_output("2 of 2 member ports go on", Ticks.LINK)  # until their partner is heard
    await_groups([bench.own, bench.ours], {1: {2}}, Ticks.FORM)
    await_groups([bench.beside], {1: {1, 2}}, Ticks.FORM)
    eventually("the partner uses both ports", bench.other.members, lambda seen: all(
        member.enabled and member.actor.key == 77 for member in seen.values()), Ticks.FORM)
    bench.own.set_link(1, True)
