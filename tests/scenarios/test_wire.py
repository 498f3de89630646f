"""Frames at the end of a cable, and a partner made by hand."""

import pytest
from scapy.all import Ether
from scapy.contrib.lacp import LACP

from helpers import PARTNER, SLOW_FRAME, enter, frame, join, leave, marker, quietly
from lab import Capture, Ticks
from lab.wire import ACTIVITY, AGGREGATION, COLLECTING, DISTRIBUTING, SYNCHRONIZATION, TIMEOUT

ASKING = ACTIVITY | TIMEOUT | AGGREGATION
IN_USE = SYNCHRONIZATION | COLLECTING | DISTRIBUTING
STATE = "_system_priority _system _key _port_priority _port_number _state".split()


def answer(seen, state):
    """The LACPDU of a partner that has heard this one."""
    return frame(LACP(actor_system_priority=1000, actor_system=PARTNER, actor_key=7, actor_port_priority=2000,
                      actor_port_number=9, actor_state=state,
                      **{f"partner{name}": getattr(seen, f"actor{name}") for name in STATE}))


@pytest.fixture(scope="module")
def system(lab):
    terminal = lab.system("left", ports=1)
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
