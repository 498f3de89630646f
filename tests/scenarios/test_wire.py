"""Frames at the end of a cable: a partner made by hand, and floods."""

import contextlib
import re
import threading
from pathlib import Path

import pytest
from scapy.all import Ether
from scapy.contrib.lacp import LACP, MarkerProtocol, SlowProtocol

from helpers import await_groups, enter, join, leave, quietly
from lab import Capture, Ticks, stays
from lab.wire import ACTIVITY, AGGREGATION, COLLECTING, DISTRIBUTING, SLOW_PROTOCOLS_ADDRESS, SYNCHRONIZATION, TIMEOUT

ASKING = ACTIVITY | TIMEOUT | AGGREGATION
IN_USE = SYNCHRONIZATION | COLLECTING | DISTRIBUTING
STATE = "_system_priority _system _key _port_priority _port_number _state".split()
PARTNER = "02:00:00:00:00:ee"
SLOW_FRAME = bytes(Ether(dst=SLOW_PROTOCOLS_ADDRESS.hex(":"), src=PARTNER, type=0x8809))
PORTS, FORMED = (1, 2, 3), {1: {1, 2}, 2: {3}}
JUMBO, GROWTH_KIB = 9000, 2048


def frame(pdu, source=PARTNER):
    return Ether(dst=SLOW_PROTOCOLS_ADDRESS.hex(":"), src=source) / SlowProtocol() / pdu


def marker(kind):
    """Marker (1) or its response (2) of a port."""
    return frame(MarkerProtocol(marker_type=kind, requester_port=9, requester_system=PARTNER,
                                requester_transaction_id=0x01020304))


def answer(seen, state):
    """The LACPDU of a partner that has heard this one."""
    return frame(LACP(actor_system_priority=1000, actor_system=PARTNER, actor_key=7, actor_port_priority=2000,
                      actor_port_number=9, actor_state=state,
                      **{f"partner{name}": getattr(seen, f"actor{name}") for name in STATE}))


@pytest.fixture(scope="module")
def system(lab):
    terminal = lab.system("alone", ports=1)
    terminal.end = lab.loose_cable(terminal, 1)
    terminal.start()
    return terminal


def test_frames(lab, system):
    with Capture(lab.bench, system.end) as wire:
        quietly(system, *join(1, 1, "passive"))
        assert wire.frames(1, within=4 * Ticks.FAST_PERIOD) == [], "neither end speaks first"
        quietly(system, *leave(1, 1), "lacp system-priority 4660", *enter(1, "lacp timeout short", "lacp port-priority 258"),
                *join(1, 1, "active"))
        talk = ((Ether(data)[LACP], data, moment) for moment, data in wire.each(3 * Ticks.FORM))
        seen, data, _ = next(talk)
        assert data == bytes(frame(LACP(
            actor_system_priority=4660, actor_system=system.mac, actor_key=1, actor_port_priority=258,
            actor_port_number=1, actor_state=seen.actor_state,
            **{f"partner{name}": getattr(seen, f"partner{name}") for name in STATE},
            collector_max_delay=0x0A00), system.mac)) and len(data) == 124

        def persuade():
            """A partner is told back and gets the trunk."""
            for seen, _, _ in talk:
                if seen.actor_state & IN_USE == IN_USE and seen.partner_system == PARTNER:
                    break
                sync = IN_USE if seen.actor_state & SYNCHRONIZATION else SYNCHRONIZATION
                wire.send(answer(seen, ASKING | sync))
            assert seen.actor_state == ASKING | IN_USE
            assert [getattr(seen, f"partner{name}") for name in STATE[:5]] == [1000, PARTNER, 7, 2000, 9]
            system.await_trunk(1, {1}, Ticks.LINK)

        persuade()
        times = []  # with the short timeout it hears every two ticks
        while len(times) < 5:
            seen, _, moment = next(talk)
            wire.send(answer(seen, ASKING | IN_USE))
            times.append(moment)
        gaps = [later - earlier for earlier, later in zip(times, times[1:])]
        assert abs(sum(gaps) / 4 - Ticks.FAST_PERIOD) < 0.3 and all(1.5 < gap < 3.5 for gap in gaps), gaps
        wire.send(bytes(12) + bytes(answer(seen, ASKING))[12:])  # to another destination
        assert next(talk)[0].actor_state == ASKING | IN_USE
        for noise in (b"", b"\1", b"\x09" + bytes(109), b"\1" * 1400, b"\2" + b"\xff" * 109):
            wire.send(SLOW_FRAME + noise)
        for kind in (0x9082, 0x0800):
            wire.send(bytes(Ether(dst="ff:ff:ff:ff:ff:ff", src=PARTNER, type=kind)) + bytes(60))
        wire.send(answer(seen, ASKING))
        persuade()
        wire.send(marker(1))
        replies = [data for _, data in wire.each(Ticks.FAST_PERIOD) if data[14] == 2]
        assert [reply[14:] for reply in replies] == [bytes(marker(2))[14:]]


@contextlib.contextmanager
def flood(system, frames):
    """Frames into every port at once, as fast as they go, from the far end of its cables; counts them."""
    running, counts = [True], []

    def send(port):
        count = 0
        with Capture(system.namespace, system.port_interface(port)) as wire:
            while running:
                for frame in frames[port]:
                    with contextlib.suppress(OSError):  # the cable is full
                        wire.send(frame)
                        count += 1
        counts.append(count)

    threads = [threading.Thread(target=send, args=(port,)) for port in PORTS]
    for thread in threads:
        thread.start()
    yield counts
    running.clear()
    for thread in threads:
        thread.join()


def resident_kib(process):
    return int(re.search(r"VmRSS:\s+(\d+)", Path(f"/proc/{process.pid}/status").read_text("ascii"))[1])


def test_a_flood_on_every_port(pair):
    """Partners are kept, the queue has room for ticks and configuration, memory stays."""
    left, right = pair
    for system in pair:
        for name in ("ethv0", "cpu0", *map(system.port_interface, PORTS)):
            system.namespace.ip("link", "set", name, "mtu", JUMBO + 200)
        quietly(system, *(line for port in (1, 2) for line in join(port, 1, "active", "lacp timeout short")),
                *join(3, 2, "on"))
    await_groups(pair, FORMED, Ticks.FORM)
    frames = {}
    for port in PORTS:
        with Capture(left.namespace, left.port_interface(min(port, 2))) as wire:
            lacpdu = wire.frames(1, Ticks.of(3))[0].data
        asks, answers = (bytes(marker(kind)) for kind in (1, 2))
        frames[port] = 16 * [lacpdu, asks, asks[:15], answers, SLOW_FRAME + b"\x09" + bytes(109),
                             asks.ljust(JUMBO, b"\xff"), lacpdu.ljust(JUMBO, b"\xff")]
    said, before = len(left.daemon.output()), resident_kib(left.daemon)
    with flood(right, frames) as counts:
        stays("trunks", lambda: [system.trunks() for system in pair], lambda seen: seen == [FORMED] * 2,
              Ticks.LOST_SHORT / 2)
        quietly(left, *enter(3, "lacp port-priority 100"), *enter(3, "lacp port-priority default"))
    await_groups(pair, FORMED, Ticks.FORM)
    said = left.daemon.output()[said:]
    assert sum(counts) > 10000 and "receives more PDUs than can be taken" in said
    # Counted, because the text of a failure would be of any length.
    assert [said.count(words) for words in ("queue is full", "Tick send failed")] == [0, 0]
    assert resident_kib(left.daemon) - before < GROWTH_KIB
