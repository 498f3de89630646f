"""Floods from the wire: partners are kept, the queue has room for ticks and configuration, memory stays."""

import threading
import time

import pytest

from faults import form, report, resident_kib, seconds_until_formed, slow
from helpers import enter, quietly
from lab import Capture, Ticks, stays
from lab.wire import SLOW_PROTOCOLS_ADDRESS

SECONDS = Ticks.LOST_SHORT / 2  # longer than a short timeout lasts
PORTS = (1, 2, 3)
FORMED = {1: {1, 2}, 2: {3}}
JUMBO_MTU = 9000
GROWTH_KIB = 2048


def slow_frame(pdu, source=bytes.fromhex("020000000a01")):
    return SLOW_PROTOCOLS_ADDRESS + source + bytes.fromhex("8809") + pdu


MARKER = bytes.fromhex("0201 0110 0001 020000000b01 00000001 0000 0000".replace(" ", "")).ljust(110, b"\0")
FLOODS = {
    "markers": lambda lacpdu: [slow_frame(MARKER)],
    "marker responses": lambda lacpdu: [slow_frame(MARKER[:2] + b"\x02" + MARKER[3:])],
    "the partner's LACPDUs": lambda lacpdu: [lacpdu],
    "LACPDUs and Markers": lambda lacpdu: [lacpdu, slow_frame(MARKER)],
    "short frames": lambda lacpdu: [slow_frame(bytes([subtype]) + bytes(size))
                                    for subtype in (1, 2) for size in (0, 40)],
    "jumbo frames": lambda lacpdu: [slow_frame(MARKER.ljust(JUMBO_MTU, b"\xff")), lacpdu.ljust(JUMBO_MTU, b"\xff")],
    "frames of every kind": lambda lacpdu: [lacpdu, slow_frame(MARKER), slow_frame(MARKER[:1]),
                                            *FLOODS["jumbo frames"](lacpdu), *FLOODS["marker responses"](lacpdu)],
}
QUICK = ("frames of every kind",)
# A LACPDU of zeros is one of another partner: that port is lost while it comes, and back afterwards.
MISLEADING = ("short frames",)


@pytest.fixture(scope="module")
def formed(pair):
    for system in pair:
        for name in ("ethv0", "cpu0", *(system.port_interface(port) for port in PORTS)):
            system.namespace.ip("link", "set", name, "mtu", JUMBO_MTU + 200)
    form(pair)
    return pair


class Flood:
    """Frames into every port of a system at once, as fast as they go, from the far end of its cables."""

    def __init__(self, far, frames_for):
        self.sent = 0
        self._running = True
        self._threads = [threading.Thread(target=self._send, args=(far, port, frames_for)) for port in PORTS]

    def _send(self, far, port, frames_for):
        with Capture(far.namespace, far.port_interface(port)) as wire:
            frames = frames_for[port]
            while self._running:
                for frame in frames * 16:
                    try:
                        wire.send(frame)
                        self.sent += 1
                    except OSError:  # the cable is full
                        time.sleep(0)

    def __enter__(self):
        for thread in self._threads:
            thread.start()
        return self

    def __exit__(self, *_):
        self._running = False
        for thread in self._threads:
            thread.join()


def lacpdu_from_partner(near, port):
    with Capture(near.namespace, near.port_interface(port)) as wire:
        return wire.frames(1, 31 * Ticks.FAST_PERIOD)[0].data


@pytest.mark.parametrize("kind", [kind if kind in QUICK else pytest.param(kind, marks=slow) for kind in FLOODS])
def test_a_flood_on_every_port(formed, kind):
    left, right = formed
    lacpdus = {port: lacpdu_from_partner(left, port) for port in (1, 2)}
    frames_for = {port: FLOODS[kind](lacpdus[min(port, 2)]) for port in PORTS}
    said, before, counted = len(left.daemon.output()), resident_kib(left.daemon), left.state()["cpu"]["sent"]
    with Flood(right, frames_for) as flood:
        if kind in MISLEADING:
            time.sleep(SECONDS)
        else:
            stays("left: trunks", left.trunks, lambda trunks: trunks == FORMED, SECONDS)
            stays("right: trunks", right.trunks, lambda trunks: trunks == FORMED, 1)
        quietly(left, *enter(3, f"lacp port-priority {100 + flood.sent % 2}"))
    took = left.state()["cpu"]["sent"] - counted
    print(f"\n{kind}: {flood.sent} frames sent, {took} reached the daemon, "
          f"{resident_kib(left.daemon) - before} KiB more")
    report(f"flood of {kind}", seconds_until_formed(formed))
    said = left.daemon.output()[said:]
    # Counted, because the text of a failure would be of any length.
    assert [said.count(words) for words in ("queue is full", "Tick send failed")] == [0, 0]
    assert resident_kib(left.daemon) - before < GROWTH_KIB
