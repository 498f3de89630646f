#!/usr/bin/env python3
"""Frames a second that the switch forwards from the host into a trunk, and back, beside what a bridge forwards.

    tests/switch/measure_forwarding.py [--seconds N] [--rounds N]        as root

Both forward over the same veth pairs, one after the other in turns: frames go into one end of a pair as fast as the
kernel takes them and are counted where they come out, at a priority that leaves other programs little say.
LACPD_BUILD_DIR names another build directory than build.
"""

import argparse
import contextlib
import ctypes
import json
import os
import statistics
import struct
import threading
import time
from pathlib import Path

from test_switch import BUILD, CREATE, SRC_DST_IP, Bench, Lab, Programs, packet

SIZES, BATCH, URGENT = (64, 512, 1514), 64, -15


def received(namespace):
    """Frames that have come in over the cables of a namespace."""
    return sum(link["stats64"]["rx"]["packets"] for link in json.loads(namespace.ip("-s", "-j", "link")))


@contextlib.contextmanager
def sending(wire, size):
    """Sends batches of frames of as many flows, as sendmmsg(2) takes them, as long as the block runs."""
    frames = [ctypes.create_string_buffer(packet(sip=flow).ljust(size, b"\0"), size) for flow in range(BATCH)]
    parts = [ctypes.create_string_buffer(struct.pack("PN", ctypes.addressof(frame), size)) for frame in frames]
    batch = b"".join(struct.pack("PIPNPNi4xI4x", 0, 0, ctypes.addressof(part), 1, 0, 0, 0, 0) for part in parts)
    stop, library = threading.Event(), ctypes.CDLL(None)

    def send():
        while not stop.is_set():
            library.sendmmsg(wire.fileno(), batch, BATCH, 0)
    sender = threading.Thread(target=send, daemon=True)
    sender.start()
    time.sleep(0.3)
    yield
    stop.set()
    sender.join()


@contextlib.contextmanager
def bridge(bench):
    """The host's cable and one member's in a bridge without filters: every frame has one way to go."""
    namespace = bench.system.namespace
    for setting in Path("/proc/sys/net/bridge").glob("bridge-nf-call-*"):
        namespace.call(lambda setting=setting: setting.write_text("0", encoding="ascii"))
    namespace.ip("link", "add", "br0", "up", "type", "bridge")
    for interface in ("hostsw", "ge1"):
        namespace.ip("link", "set", interface, "master", "br0")
    time.sleep(0.2)
    yield
    namespace.ip("link", "del", "br0")


@contextlib.contextmanager
def switch(bench):
    bench.restart("--no-datastore")
    bench.ask((CREATE, 1, SRC_DST_IP, 0b011, 2))
    yield
    bench.system.stop_switch()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--seconds", type=float, default=1.0, help="of one measurement")
    parser.add_argument("--rounds", type=int, default=3)
    options = parser.parse_args()
    os.nice(URGENT)
    with contextlib.suppress(OSError):  # where the kernel shares time out by session
        os.setsid()
        Path("/proc/self/autogroup").write_text(str(URGENT), encoding="ascii")
    print(f"{os.cpu_count()} processors, load {os.getloadavg()[0]:.1f}, median of {options.rounds} rounds of "
          f"{options.seconds} s\nbytes  way             bridge/s   switch/s  ratio")
    with Lab(Programs(BUILD)) as lab:
        bench = Bench(lab)
        bench.plug_in("host", 1)
        for size in SIZES:
            for way, end, sink in (("host->trunk", "host", lab.bench), ("trunk->host", 1, bench.system.host)):
                rates = {bridge: [], switch: []}
                for forwarder in (*rates,) * options.rounds:
                    with forwarder(bench), sending(bench.wires[end], size):
                        first, began = received(sink), time.monotonic()
                        time.sleep(options.seconds)
                        rates[forwarder].append((received(sink) - first) / (time.monotonic() - began))
                base, ours = map(statistics.median, rates.values())
                print(f"{size:>5}  {way:<12} {base:>10,.0f} {ours:>10,.0f}  {ours / base:.2f}", flush=True)


if __name__ == "__main__":
    main()
