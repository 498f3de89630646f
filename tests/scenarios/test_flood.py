"""Floods from the wire: partners are kept, the queue has room for ticks and configuration, memory stays."""

import re
import threading
import time
from pathlib import Path

import pytest
from scapy.all import Ether
from scapy.contrib.lacp import MarkerProtocol, SlowProtocol

from helpers import await_groups, enter, join, quietly
from lab import Capture, Ticks, stays

SECONDS = Ticks.LOST_SHORT / 2  # longer than a short timeout lasts
PORTS, FORMED = (1, 2, 3), {1: {1, 2}, 2: {3}}
JUMBO, GROWTH_KIB = 9000, 2048
HEAD = bytes(Ether(dst="01:80:c2:00:00:02", src="02:00:00:00:0a:01", type=0x8809))
MARKER, RESPONSE = (bytes(Ether(HEAD) / SlowProtocol() / MarkerProtocol(marker_type=kind)) for kind in (1, 2))
SHORT = [HEAD + bytes([subtype]) + bytes(size) for subtype in (1, 2) for size in (0, 40)]
FLOODS = {
    "every kind": lambda lacpdu: [lacpdu, MARKER, MARKER[:15], RESPONSE, MARKER.ljust(JUMBO, b"\xff"),
                                  lacpdu.ljust(JUMBO, b"\xff")],
    "the partner's LACPDUs": lambda lacpdu: [lacpdu],
    # A LACPDU of zeros is one of another partner: that port is lost while it comes, and back afterwards.
    "short frames": lambda lacpdu: SHORT,
}


class Flood:
    """Frames into every port of a system at once, as fast as they go, from the far end of its cables."""

    def __init__(self, far, frames):
        self.sent, self._running = 0, True
        self._threads = [threading.Thread(target=self._send, args=(far, port, frames[port] * 16)) for port in PORTS]

    def _send(self, far, port, frames):
        with Capture(far.namespace, far.port_interface(port)) as wire:
            while self._running:
                for frame in frames:
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


def resident_kib(process):
    return int(re.search(r"VmRSS:\s+(\d+)", Path(f"/proc/{process.pid}/status").read_text("ascii"))[1])


@pytest.mark.parametrize("kind", [pytest.param(kind, marks=[pytest.mark.nightly] * (kind != "every kind"))
                                  for kind in FLOODS])
def test_a_flood_on_every_port(pair, kind):
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
            frames[port] = FLOODS[kind](wire.frames(1, Ticks.of(3))[0].data)
    said, before = len(left.daemon.output()), resident_kib(left.daemon)
    with Flood(right, frames) as flood:
        if kind == "short frames":
            time.sleep(SECONDS)
        else:
            stays("trunks", lambda: [system.trunks() for system in pair], lambda seen: seen == [FORMED] * 2, SECONDS)
        quietly(left, *enter(3, "lacp port-priority 100"), *enter(3, "lacp port-priority default"))
    await_groups(pair, FORMED, Ticks.FORM)
    said = left.daemon.output()[said:]
    print(f"{kind}: {flood.sent} frames, {resident_kib(left.daemon) - before} KiB more")
    assert flood.sent > 10000 and "receives more PDUs than can be taken" in said
    # Counted, because the text of a failure would be of any length.
    assert [said.count(words) for words in ("queue is full", "Tick send failed")] == [0, 0]
    assert resident_kib(left.daemon) - before < GROWTH_KIB
