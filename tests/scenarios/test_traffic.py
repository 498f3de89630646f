"""What users notice: traffic over trunks, while links fail and come back, others flap and settings change."""

import contextlib
import time
from concurrent.futures import ThreadPoolExecutor

import pytest

from helpers import enter, join, leave, quietly
from lab import Capture, Flow, Lacpdu, Ticks, eventually
from lab.wire import TIMEOUT as SHORT

MEMBERS = (1, 2, 3)  # 1 is the aggregator's port
FLAPPING, MIXED, FLAPS = (4, 6), 7, 50  # aggregator's port of group 2, manual group 3; timeouts long and short
STEADY = 0.5
GROUPS = {2: {4, 5}, 3: {6}, 4: {7}}


def await_trunks(systems, trunks, within):
    eventually(f"trunks {trunks}", lambda: [system.trunks() for system in systems],
               lambda seen: seen == [trunks] * len(systems), within)


@pytest.fixture(scope="module")
def pair(lab):
    systems = lab.pair(7)
    for system, mode, timeout in zip(systems, ("active", "passive"), ("long", "short")):
        quietly(system, *(line for port in (4, 5) for line in join(port, 2, mode, "lacp timeout short")),
                *join(6, 3, "on"), *join(MIXED, 4, mode, f"lacp timeout {timeout}"),
                "channel-group 1 load-balance src-ip")
    await_trunks(systems, GROUPS, Ticks.FORM)
    return systems


@pytest.fixture(scope="module", params=["on", "active"])
def formed(pair, request):
    """Group 1 of all members, manual or dynamic, with flows both ways over each member."""
    for system, mode in zip(pair, (request.param, request.param.replace("active", "passive"))):
        quietly(system, *(line for port in MEMBERS for line in join(port, 1, mode, "lacp timeout short")))
    await_trunks(pair, {1: set(MEMBERS), **GROUPS}, Ticks.FORM)
    yield [(*ends, ends[0].address_over(member, ends[1]), member) for ends in (pair, pair[::-1]) for member in MEMBERS]
    for system in pair:
        quietly(system, *(line for port in MEMBERS for line in leave(port, 1)))


@contextlib.contextmanager
def flows(ways, outages):
    """Flows around a failure; over a member without an outage in seconds no packet may be lost."""
    running = [(member, Flow(source, target, address, 300).__enter__()) for source, target, address, member in ways]
    time.sleep(STEADY)
    yield
    time.sleep(STEADY)
    with ThreadPoolExecutor() as pool:
        list(pool.map(lambda flow: flow[1].__exit__(), running))
    for member, flow in running:
        report, outage = flow.report, outages.get(member, 0)
        print(f"member {member}: {report.lost} of {report.sent} lost, {report.outage * 1000:.0f} ms")
        assert report.sent > 100 and report.duplicates == 0
        assert report.lost <= outage * report.rate, f"member {member}: {report}"


def test_a_member_fails_and_comes_back(pair, formed):
    for up, left_over, outage in ((False, {2, 3}, Ticks.LINK), (True, {1, 2, 3}, Ticks.LINK)):
        with flows(formed, {1: outage}):
            for system in pair:  # as a broken fibre does
                system.set_link(1, up)
            await_trunks(pair, {1: left_over, **GROUPS}, Ticks.FORM)


def unharmed_timeouts(captures, seconds):
    """Each side of group 4 sends as the other one asks."""
    fast, slow = ([Lacpdu(frame.data).actor.state & SHORT for frame in capture.each(within=0)] for capture in captures)
    assert abs(len(fast) - seconds / Ticks.FAST_PERIOD) <= 2 and set(fast) == {0}, (fast, seconds)
    assert len(slow) <= 1 + seconds / 31 and set(slow) <= {SHORT}, (slow, seconds)


def test_flaps_and_settings_of_others_disturb_nobody(pair, formed):
    with flows(formed, {}), contextlib.ExitStack() as stack:
        captures = [stack.enter_context(Capture(system.namespace, system.port_interface(MIXED)))
                    for system in pair[::-1]]
        started = time.monotonic()
        with pair[0].shell() as shell:
            for line in ("configure terminal", "interface gigabitEthernet 0/4"):
                shell.run(line)
            for turn in range(FLAPS):
                for up in (False, True):
                    for port in FLAPPING:
                        pair[turn % 2].set_link(port, up)
                # The shell's thread waits for the datastore's, which answers from the daemon's own records.
                assert shell.run("show lacp database actor information").count("ret 0") == 9
        for port in FLAPPING:
            pair[0].set_link(port, False)
        quietly(pair[0], *enter(5, "lacp port-priority 9"), "channel-group 2 load-balance dst-ip")
        await_trunks(pair, {1: set(MEMBERS), 2: {5}, 4: {7}}, Ticks.FORM)
        for port in FLAPPING:
            pair[0].set_link(port, True)
        await_trunks(pair, {1: set(MEMBERS), **GROUPS}, Ticks.FORM)
        unharmed_timeouts(captures, time.monotonic() - started)
    with flows(formed[:1], {}):
        for criterion in ("dst-ip", "src-dst-ip", "dst-mac", "src-dst-mac", "src-mac", "src-ip"):
            quietly(pair[0], f"channel-group 1 load-balance {criterion}")
            eventually(criterion, lambda: pair[0].trunk(1)["criterion"],
                       lambda seen, now=criterion: seen == now, Ticks.LINK)
