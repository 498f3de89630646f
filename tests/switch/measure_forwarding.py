#!/usr/bin/python3
"""What the switch forwards from the host into a trunk, and back, beside what a bridge forwards.

    nice -n -15 tests/switch/measure_forwarding.py [--seconds N] [--rounds N]        as root

Bridge, switch and switch with --kernel-forwarding use the same veth pairs, one after the other in turns. Frames go into one
end of a pair as fast as the kernel takes them and are counted where they come out; then one TCP connection, plain and within
a VXLAN tunnel. LACPD_BUILD_DIR names another build directory than build.
"""

import argparse
import contextlib
import ctypes
import json
import os
import statistics
import struct
import subprocess
import threading
import time
from pathlib import Path

from test_switch import BUILD, CREATE, SRC_DST_IP, Bench, Lab, Programs, packet

SIZES, BATCH = (64, 512, 1514), 64
PLAIN, TUNNEL = "10.77.9.", "10.78.9."  # the networks of the TCP connections


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
def switch(bench, *options):
    bench.restart("--no-datastore", *options)
    bench.ask((CREATE, 1, SRC_DST_IP, 0b001, 1))
    yield
    bench.system.stop_switch()


def kernel(bench):
    return switch(bench, "--kernel-forwarding")


def frames(bench, way, size, seconds):
    end, sink = ("host", bench.lab.bench) if way == "host->trunk" else (1, bench.system.host)
    with sending(bench.wires[end], size):
        first, began = received(sink), time.monotonic()
        time.sleep(seconds)
        return (received(sink) - first) / (time.monotonic() - began)


def address_ends(bench):
    """The user and the far end of port 1 get addresses, and a tunnel between them."""
    for here, there, (namespace, interface) in ((1, 2, bench.ends["host"]), (2, 1, bench.ends[1])):
        namespace.ip("address", "add", f"{PLAIN}{here}/24", "dev", interface)
        namespace.ip("link", "add", "tunnel", "type", "vxlan", "id", 5, "dstport", 4789, "remote", f"{PLAIN}{there}",
                     "dev", interface)
        namespace.ip("address", "add", f"{TUNNEL}{here}/24", "dev", "tunnel")
        namespace.ip("link", "set", "tunnel", "up")


def tcp(bench, way, network, seconds):
    """Gbit/s that arrive."""
    server = subprocess.Popen([*bench.lab.bench.enter(), "iperf3", "-s", "-1"], stdout=subprocess.DEVNULL)
    time.sleep(0.3)
    result = subprocess.run([*bench.system.host.enter(), "iperf3", "-J", "-c", f"{network}2", "-t", str(seconds),
                             *(["-R"] if way == "trunk->host" else [])], capture_output=True, text=True, check=False)
    server.terminate()
    server.wait()
    return json.loads(result.stdout)["end"]["sum_received"]["bits_per_second"] / 1e9


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--seconds", type=float, default=1.0, help="of one measurement")
    parser.add_argument("--rounds", type=int, default=3)
    options = parser.parse_args()
    print(f"{os.cpu_count()} processors, load {os.getloadavg()[0]:.1f}, median of {options.rounds} rounds of "
          f"{options.seconds} s\n{'':<24} bridge       switch       kernel")
    with Lab(Programs(BUILD)) as lab:
        bench = Bench(lab)
        bench.plug_in("host", 1)
        rows = [(f"frames a second, {size} B", frames, size) for size in SIZES]
        rows += [("TCP, Gbit/s", tcp, PLAIN), ("TCP in VXLAN, Gbit/s", tcp, TUNNEL)]
        for name, measure, argument in rows:
            if argument == PLAIN:
                address_ends(bench)
            for way in ("host->trunk", "trunk->host"):
                rates = {bridge: [], switch: [], kernel: []}
                for forwarder in (*rates,) * options.rounds:
                    with forwarder(bench):
                        rates[forwarder].append(measure(bench, way, argument, options.seconds))
                base, *ours = map(statistics.median, rates.values())
                print(f"{name:<22} {way} {base:>10,.1f}", *(f"{own:>10,.1f} {own / base:.2f}" for own in ours), flush=True)


if __name__ == "__main__":
    main()
