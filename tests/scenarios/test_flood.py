"""Floods from the wire: partners are kept, the queue has room for ticks and configuration, memory stays."""

import contextlib
import re
import threading
from pathlib import Path

from helpers import SLOW_FRAME, await_groups, enter, join, marker, quietly
from lab import Capture, Ticks, stays

SECONDS = Ticks.LOST_SHORT / 2  # longer than a short timeout lasts
PORTS, FORMED = (1, 2, 3), {1: {1, 2}, 2: {3}}
JUMBO, GROWTH_KIB = 9000, 2048
MARKER, RESPONSE = (bytes(marker(kind)) for kind in (1, 2))


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
        frames[port] = 16 * [lacpdu, MARKER, MARKER[:15], RESPONSE, SLOW_FRAME + b"\x09" + bytes(109),
                             MARKER.ljust(JUMBO, b"\xff"), lacpdu.ljust(JUMBO, b"\xff")]
    said, before = len(left.daemon.output()), resident_kib(left.daemon)
    with flood(right, frames) as counts:
        stays("trunks", lambda: [system.trunks() for system in pair], lambda seen: seen == [FORMED] * 2, SECONDS)
        quietly(left, *enter(3, "lacp port-priority 100"), *enter(3, "lacp port-priority default"))
    await_groups(pair, FORMED, Ticks.FORM)
    said = left.daemon.output()[said:]
    print(f"{sum(counts)} frames, {resident_kib(left.daemon) - before} KiB more")
    assert sum(counts) > 10000 and "receives more PDUs than can be taken" in said
    # Counted, because the text of a failure would be of any length.
    assert [said.count(words) for words in ("queue is full", "Tick send failed")] == [0, 0]
    assert resident_kib(left.daemon) - before < GROWTH_KIB
