"""LACPDUs at the end of a cable, and a partner made by hand."""

import struct

import pytest

from helpers import join, quietly
from lab import Capture, Lacpdu, Ticks
from lab.wire import ACTIVITY, AGGREGATION, COLLECTING, DEFAULTED, DISTRIBUTING, EXPIRED, TIMEOUT
from lab.wire import SLOW_PROTOCOLS_ADDRESS as SLOW
from lab.wire import SYNCHRONIZATION as SYNC

PARTNER = bytes.fromhex("0200000000ee")
NOBODY = (0, bytes(6), 0, 0, 0, 0)


@pytest.fixture(scope="module")
def system(lab):
    terminal = lab.system("left", ports=2)
    terminal.ends = {port: lab.loose_cable(terminal, port) for port in (1, 2)}
    terminal.start()
    return terminal


@pytest.fixture
def wire(lab, system):
    with Capture(lab.bench, system.ends[1]) as capture:
        yield capture


def lacpdu(state, partner, key=7, port=9):
    """A frame of the partner, which has `partner` recorded about us."""
    pdu = bytes([1, 1, 1, 20]) + struct.pack("!H6sHHHB3x", 1000, PARTNER, key, 2000, port, state)
    pdu += bytes([2, 20]) + struct.pack("!H6sHHHB3x", *partner)
    pdu += bytes([3, 16, 0, 0]) + bytes(12) + bytes(2) + bytes(50)
    return SLOW + PARTNER + bytes.fromhex("8809") + pdu


def exchange(capture, until, state, within):
    """Answers every frame until one is as wanted; returns that one."""
    seen = None
    for frame in capture.each(within):
        seen = Lacpdu(frame.data)
        if until(seen):
            return seen
        capture.send(lacpdu(state(seen), seen.actor))
    raise AssertionError(f"not within {within} s; last: {seen and (seen.actor, seen.partner)}")


def test_nothing_is_sent_before_a_port_joins(wire):
    assert wire.frames(1, Ticks.of(0)) == []


def test_the_first_frame_byte_for_byte(system, wire):
    quietly(system, *join(1, 1, "active", "lacp timeout short", "lacp port-priority 258"),
            "lacp system-priority 4660")
    found = []
    for frame in wire.each(Ticks.FORM):
        found.append(frame)
        if Lacpdu(frame.data).actor.port_priority == 258:
            break
    data = found[-1].data
    assert len(data) == 124
    pdu = Lacpdu(data)
    assert pdu.destination == SLOW
    assert pdu.source == bytes.fromhex(system.mac.replace(":", ""))
    assert pdu.type == 0x8809
    assert pdu.head == bytes([1, 1, 1, 20])
    assert pdu.actor._replace(state=0) == (4660, pdu.source, 1, 258, 1, 0)
    assert pdu.actor.state & (ACTIVITY | TIMEOUT | AGGREGATION) == ACTIVITY | TIMEOUT | AGGREGATION
    assert pdu.actor_reserved == bytes(3)
    assert pdu.partner_head == bytes([2, 20])
    assert pdu.partner_reserved == bytes(3)
    assert pdu.collector == bytes([3, 16, 0x0A, 0x00])
    assert pdu.rest == bytes(64)


def test_a_partner_is_told_back_and_gets_the_trunk(system, wire):
    def answer(seen):
        sync = SYNC | COLLECTING | DISTRIBUTING if seen.actor.state & SYNC else SYNC
        return ACTIVITY | TIMEOUT | AGGREGATION | sync

    full = SYNC | COLLECTING | DISTRIBUTING
    pdu = exchange(wire, lambda seen: seen.actor.state & full == full and seen.partner.system == PARTNER, answer,
                   Ticks.FORM)
    assert pdu.actor.state == ACTIVITY | TIMEOUT | AGGREGATION | full
    assert pdu.partner[:5] == (1000, PARTNER, 7, 2000, 9)
    assert pdu.partner.state & (ACTIVITY | TIMEOUT | AGGREGATION | SYNC) == ACTIVITY | TIMEOUT | AGGREGATION | SYNC
    system.await_trunk(1, {1}, Ticks.LINK)


def test_a_partner_with_the_short_timeout_hears_every_two_ticks(wire):
    state = ACTIVITY | TIMEOUT | AGGREGATION | SYNC | COLLECTING | DISTRIBUTING
    times = []
    for frame in wire.each(30):
        wire.send(lacpdu(state, Lacpdu(frame.data).actor))
        times.append(frame.time)
        if len(times) == 6:
            break
    gaps = [later - earlier for earlier, later in zip(times, times[1:])]
    assert len(gaps) == 5
    assert all(1.5 < gap < 3.5 for gap in gaps), gaps  # one frame may be late, none may be missing
    assert abs(sum(gaps) / len(gaps) - Ticks.FAST_PERIOD) < 0.3, gaps


def test_a_marker_is_answered(wire):
    body = bytes([2, 1, 1, 16]) + struct.pack("!H6sI", 9, PARTNER, 0x01020304) + bytes(2) + bytes(2) + bytes(90)
    wire.send(SLOW + PARTNER + bytes.fromhex("8809") + body)
    replies = [frame.data for frame in wire.each(Ticks.of(2)) if frame.data[14] == 2]
    assert len(replies) == 1
    assert replies[0][14:] == bytes([2, 1, 2, 16]) + body[4:]


def test_a_silent_partner_is_given_up(wire):
    ours = Lacpdu(wire.frames(1, Ticks.FORM)[0].data).actor
    wire.send(lacpdu(ACTIVITY | TIMEOUT | AGGREGATION | SYNC | COLLECTING | DISTRIBUTING, ours))
    states = []
    for frame in wire.each(Ticks.LOST_SHORT):
        states.append(Lacpdu(frame.data).actor.state)
        if states[-1] & DEFAULTED:
            break
    assert any(state & EXPIRED for state in states) and states[-1] & DEFAULTED, states


def test_noise_changes_nothing(system, wire):
    head = SLOW + PARTNER + bytes.fromhex("8809")
    for data in (head, head + bytes([1]), head + bytes([9]) + bytes(109), head + bytes([1] * 1400),
                 head + bytes([2]) + bytes([255] * 109),
                 bytes.fromhex("ffffffffffff") + PARTNER + bytes.fromhex("9082") + bytes(60),
                 bytes.fromhex("ffffffffffff") + PARTNER + bytes.fromhex("0800") + bytes(60)):
        wire.send(data)
    wire.send(lacpdu(ACTIVITY | TIMEOUT | AGGREGATION, NOBODY))
    exchange(wire, lambda seen: seen.partner.system == PARTNER, lambda seen: ACTIVITY | TIMEOUT | AGGREGATION,
             Ticks.of(8))
    assert (system.daemon.status, system.switch.status) == (None, None)
