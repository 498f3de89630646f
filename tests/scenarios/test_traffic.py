"""What a user notices: traffic over trunks, while links fail and come back and settings change."""

import contextlib
import random
import time

import pytest

from helpers import address_on, join, leave, member_in_use, ping, quietly, sent
from lab import Flow, Ticks, eventually, transfer

MEMBERS = (1, 2)
OUTSIDE = 3
STEADY = 0.5   # seconds of flow before and after what happens
PINGS = 20
TRANSFER = 8 << 20

# How long a flow may be interrupted. A member that goes from a trunk takes its own flows along until the switch is
# told, which needs no tick. When the port goes whose aggregator the group uses, the others leave the trunk for another
# aggregator: selection on one of the next two ticks, then wait_while, three ticks.
ANOTHER_AGGREGATOR = Ticks.of(2 + 3)
# The same when it comes back, only that one side changes first and the other learns of it within two ticks.
AGGREGATOR_BACK = Ticks.of(2 + 2 + 3)
# A port that comes back is in one side's trunk earlier than in the other's, which drops what comes in until then: it
# may lag by a LACPDU (two ticks) and wait_while.
MEMBER_BACK = Ticks.of(2 + 3)


@pytest.fixture(scope="module")
def pair(lab):
    """Two running systems with users behind them and three cables."""
    left, right = lab.system("left", ports=3), lab.system("right", ports=3)
    for port in (*MEMBERS, OUTSIDE):
        lab.cable(left, port, right, port)
    for system in (left, right):
        system.add_host()
        system.start()
    return left, right


@pytest.fixture
def say(capsys):
    """Prints past pytest, so that figures are seen in every run."""
    def tell(text):
        with capsys.disabled():
            print(f"\n  {text}")
    return tell


def describe(report):
    return (f"{report.lost} of {report.sent} packets lost, {report.reordered} reordered, longest silence "
            f"{report.outage * 1000:.0f} ms, at {report.rate:.0f} packets/s")


def await_trunks(systems, ports, within):
    for system in systems:
        system.await_trunk(1, ports, within)


def spread_by_source(systems):
    for system in systems:
        quietly(system, "channel-group 1 load-balance src-ip")
        eventually(f"{system.name}: trunk 1 spreads by src-ip", lambda s=system: s.trunk(1)["criterion"],
                   lambda seen: seen == "src-ip", Ticks.LINK)


@contextlib.contextmanager
def observed(pair, addresses, say, what, outage):
    """Flows both ways around what happens; neither may be interrupted for longer than the bound."""
    left, right = pair
    with Flow(left, right, addresses[0]) as there, Flow(right, left, addresses[1]) as back:
        time.sleep(STEADY)
        yield
        time.sleep(STEADY)
    for system, report in ((left, there.report), (right, back.report)):
        say(f"{what}, from {system.name}: {describe(report)}")
        assert report.sent > 0 and report.duplicates == 0
        assert report.outage < outage
        assert report.lost < outage * report.rate


def cut_and_restore(pair, port, say, kind, cut_outage, restore_outage):
    """The member that carries the flows loses its link and gets it back."""
    left, right = pair
    addresses = address_on(left, right, port, MEMBERS), address_on(right, left, port, MEMBERS)
    with observed(pair, addresses, say, f"{kind}: link {port} cut", cut_outage):
        assert [member_in_use(system, MEMBERS) for system in pair] == [port, port]
        right.set_link(port, up=False)
        await_trunks(pair, set(MEMBERS) - {port}, Ticks.LINK + cut_outage)
        assert all(member_in_use(system, MEMBERS) != port for system in pair)
    with observed(pair, addresses, say, f"{kind}: link {port} restored", restore_outage):
        right.set_link(port, up=True)
        await_trunks(pair, set(MEMBERS), Ticks.FORM)
        assert [member_in_use(system, MEMBERS) for system in pair] == [port, port]


# ---- manual group

def test_users_reach_each_other_over_a_manual_group(pair):
    left, right = pair
    for system in pair:
        quietly(system, *(line for port in MEMBERS for line in join(port, 1, "on")))
    await_trunks(pair, set(MEMBERS), Ticks.LINK)
    assert ping(left, right.host_address) == PINGS
    assert ping(right, left.host_address) == PINGS
    for system in pair:
        assert system.traffic(OUTSIDE)["tx"]["frames"] == system.traffic(OUTSIDE)["rx"]["frames"] == 0


def test_segments_and_checksums_arrive_whole(pair):
    left, right = pair
    data = random.Random(1).randbytes(TRANSFER)
    assert transfer(left, right, data, within=20) == data


def test_the_criterion_decides_which_members_carry(pair):
    left, right = pair
    used = {}
    for criterion in ("src-ip", "src-mac"):
        quietly(left, f"channel-group 1 load-balance {criterion}")
        eventually(f"trunk 1 spreads by {criterion}", lambda: left.trunk(1)["criterion"],
                   lambda seen, wanted=criterion: seen == wanted, Ticks.LINK)
        ping(left, right.host_address, count=1)  # the neighbour's address is known from here on
        before = sent(left, MEMBERS)
        for address in left.host_addresses:
            assert ping(left, right.host_address, count=5, sender=address) == 5
        used[criterion] = {port for port, count in sent(left, MEMBERS).items() if count - before[port] >= 5}
    assert used["src-ip"] == set(MEMBERS)
    assert len(used["src-mac"]) == 1, "all have the same MAC address"


def test_a_new_criterion_under_traffic_loses_nothing(pair, say):
    left, right = pair
    with Flow(left, right) as flow:
        for criterion in ("dst-ip", "src-dst-ip", "src-ip", "dst-mac", "src-dst-mac", "src-mac"):
            quietly(left, f"channel-group 1 load-balance {criterion}")
            eventually(f"trunk 1 spreads by {criterion}", lambda: left.trunk(1)["criterion"],
                       lambda seen, wanted=criterion: seen == wanted, Ticks.LINK)
            time.sleep(0.2)
    say(f"six criteria one after the other: {describe(flow.report)}")
    assert flow.report.sent > 1000
    assert (flow.report.lost, flow.report.duplicates) == (0, 0)


def test_a_manual_group_survives_a_cut_link(pair, say):
    spread_by_source(pair)
    cut_and_restore(pair, 2, say, "manual group", Ticks.LINK, Ticks.LINK)


def test_nothing_passes_without_a_group(pair):
    left, right = pair
    for system in pair:
        quietly(system, *(line for port in MEMBERS for line in leave(port, 1)))
    await_trunks(pair, set(), Ticks.LINK)
    before = left.state()["traffic"]["host"]["rx"]["dropped"]
    assert ping(left, right.host_address, count=3) == 0
    assert left.state()["traffic"]["host"]["rx"]["dropped"] > before


# ---- dynamic group

def test_users_reach_each_other_over_a_dynamic_group(pair):
    left, right = pair
    for system, mode in zip(pair, ("active", "passive")):
        quietly(system, *(line for port in MEMBERS for line in join(port, 1, mode)))
    await_trunks(pair, set(MEMBERS), Ticks.FORM)
    assert ping(left, right.host_address) == PINGS
    assert ping(right, left.host_address) == PINGS


def test_a_dynamic_group_survives_a_cut_link(pair, say):
    spread_by_source(pair)
    cut_and_restore(pair, 2, say, "dynamic group", Ticks.LINK, MEMBER_BACK)


def test_a_dynamic_group_survives_the_loss_of_its_aggregator(pair, say):
    cut_and_restore(pair, 1, say, "dynamic group, aggregator's port", ANOTHER_AGGREGATOR, AGGREGATOR_BACK)
