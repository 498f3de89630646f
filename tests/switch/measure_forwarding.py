#!/usr/bin/env python3
"""Frames a second that the switch forwards from the host into a trunk, and back, beside what a bridge forwards.

    tests/switch/measure_forwarding.py [OLT-SWITCH] [--seconds N] [--rounds N]        as root

Both forward over the same veth pairs, one after the other in turns: frames go into one end of a pair as fast as the
kernel takes them and are counted where they come out. In a kernel without bridges the reference is what the pair itself
takes. Everything happens in namespaces that are made for it, at a priority that leaves other programs little say.
"""

import argparse
import contextlib
import ctypes
import json
import os
import socket
import statistics
import struct
import sys
import tempfile
import threading
import time
from pathlib import Path

TESTS = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(TESTS))

from lab.netns import Namespace  # noqa: E402 (needs the path above)
from lab.process import Process  # noqa: E402
from switchbench import CREATE, Driver, SOON  # noqa: E402

SIZES = (64, 512, 1514)
BATCH = 64
FLOWS = 64
MEMBERS = (1, 2)
URGENT = -15
SRC_DST_IP = 18
ALL_TYPES = 0x0003


class Iovec(ctypes.Structure):
    _fields_ = [("base", ctypes.c_void_p), ("length", ctypes.c_size_t)]


class Msghdr(ctypes.Structure):
    _fields_ = [("name", ctypes.c_void_p), ("namelen", ctypes.c_uint32), ("iov", ctypes.POINTER(Iovec)),
                ("iovlen", ctypes.c_size_t), ("control", ctypes.c_void_p), ("controllen", ctypes.c_size_t),
                ("flags", ctypes.c_int)]


class Mmsghdr(ctypes.Structure):
    _fields_ = [("header", Msghdr), ("length", ctypes.c_uint32)]


LIBC = ctypes.CDLL(None, use_errno=True)


def udp_frame(flow, size):
    """An Ethernet frame with IPv4 and UDP; flows differ in their source address."""
    source, destination = bytes.fromhex("0200000000") + bytes([flow]), bytes.fromhex("020000000fff")
    length = size - 14
    words = [0x4500, length, 0, 0, 64 << 8 | 17, 0, 10 << 8, flow + 1, 10 << 8, 1 << 8 | 1]
    total = sum(words)
    words[5] = ~((total & 0xFFFF) + (total >> 16)) & 0xFFFF
    ip = struct.pack("!10H", *words)
    return destination + source + b"\x08\x00" + ip + struct.pack("!HHHH", 5000, 5001, length - 20, 0) + bytes(
        size - 14 - 20 - 8)


class Generator:
    """Sends batches of frames on an interface until told to stop."""

    def __init__(self, namespace, interface, size):
        self._socket = namespace.call(lambda: socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0))
        namespace.call(lambda: self._socket.bind((interface, 0)))
        self._frames = [ctypes.create_string_buffer(udp_frame(flow, size), size) for flow in range(FLOWS)]
        self._parts = [Iovec(ctypes.addressof(frame), size) for frame in self._frames]
        self._batch = (Mmsghdr * BATCH)()
        for number, message in enumerate(self._batch):
            message.header.iov = ctypes.pointer(self._parts[number % FLOWS])
            message.header.iovlen = 1
        self._running = True
        self._thread = threading.Thread(target=self._run)

    def _run(self):
        descriptor = self._socket.fileno()
        while self._running:
            LIBC.sendmmsg(descriptor, self._batch, BATCH, 0)

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._running = False
        self._thread.join()
        self._socket.close()


class Stand:
    """A namespace for the forwarder between those of the host and of the neighbour."""

    def __init__(self, directory, program):
        self.directory = directory
        self.program = program
        self.spaces = {name: Namespace(f"measure-{os.getpid()}-{name}") for name in ("host", "plane", "far")}
        self.plane, self.host, self.far = (self.spaces[name] for name in ("plane", "host", "far"))
        self.pair("hostsw", self.host, "host0")
        for port in MEMBERS:
            self.pair(f"ge{port}", self.far, f"far{port}")
        self.pair("cpu0", self.plane, "ethv0")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for space in self.spaces.values():
            space.remove()

    def pair(self, near, space, far):
        self.plane.ip("link", "add", near, "type", "veth", "peer", "name", far, "netns", space.name)
        self.plane.ip("link", "set", near, "up")
        space.ip("link", "set", far, "up")

    def received(self, space):
        """Frames that have come in over all cables of a namespace."""
        links = json.loads(space.ip("-s", "-j", "link", "show"))
        return sum(link["stats64"]["rx"]["packets"] for link in links if link["ifname"] != "lo")

    def rate(self, source, interface, sink, size, seconds):
        with Generator(source, interface, size):
            time.sleep(0.3)
            first, started = self.received(sink), time.monotonic()
            time.sleep(seconds)
            last, ended = self.received(sink), time.monotonic()
        return (last - first) / (ended - started)


class Bridge:
    """The host's cable and one member's in a bridge, without a filter: every frame has one way to go."""

    FILTERS = ("bridge-nf-call-iptables", "bridge-nf-call-ip6tables", "bridge-nf-call-arptables")

    def __init__(self, stand):
        self.stand = stand

    def __enter__(self):
        for name in self.FILTERS:
            self.stand.plane.call(lambda name=name: self.switch_off(name))
        self.stand.plane.ip("link", "add", "br0", "type", "bridge")
        for interface in ("hostsw", "ge1"):
            self.stand.plane.ip("link", "set", interface, "master", "br0")
        self.stand.plane.ip("link", "set", "br0", "up")
        time.sleep(0.2)

    def __exit__(self, *_):
        self.stand.plane.ip("link", "del", "br0")

    @staticmethod
    def switch_off(name):
        setting = Path("/proc/sys/net/bridge") / name
        if setting.exists():
            setting.write_text("0", encoding="ascii")


class Switch:
    def __init__(self, stand):
        self.stand = stand

    def __enter__(self):
        stand = self.stand
        ports = [word for port in MEMBERS for word in ("--port", f"{port}=ge{port}")]
        self.process = Process("olt-switch", [
            *stand.plane.enter(), stand.program, "--cpu", "cpu0", "--host", "hostsw", *ports, "--no-datastore",
            "--driver-socket", stand.directory / "driver.sock", "--state-socket", stand.directory / "state.sock"],
            {}, stand.directory / "switch.out")
        self.process.wait_for_output("switch runs", SOON)
        self.driver = Driver(stand.directory / "driver.sock")
        self.driver.request(CREATE, 1, SRC_DST_IP, sum(1 << (port - 1) for port in MEMBERS), len(MEMBERS))
        self.process.wait_for_output("trunk 1: members", SOON)

    def __exit__(self, *_):
        self.driver.close()
        self.process.stop()


class Pair:
    """Nothing forwards: what the host's cable itself takes."""

    def __init__(self, stand):
        self.stand = stand

    def __enter__(self):
        pass

    def __exit__(self, *_):
        pass


def reference(stand):
    try:
        with Bridge(stand):
            return Bridge
    except OSError:
        print("this kernel has no bridges; the reference is the veth pair itself")
        return Pair


def measure(stand, kind, size, seconds, rounds):
    """Medians of frames a second, of the reference and of the switch, for one direction each."""
    found = {}
    for _ in range(rounds):
        for forwarder in (kind, Switch):
            with forwarder(stand):
                sinks = {"out": (stand.host, "host0", stand.plane if forwarder is Pair else stand.far),
                         "in": (stand.far, "far1", stand.plane if forwarder is Pair else stand.host)}
                for way, (source, interface, sink) in sinks.items():
                    found.setdefault((way, forwarder), []).append(stand.rate(source, interface, sink, size, seconds))
    return {key: statistics.median(rates) for key, rates in found.items()}


def take_precedence():
    """For this process and its children; where the kernel shares time out by session, for a session of its own."""
    os.nice(URGENT)
    with contextlib.suppress(OSError):
        os.setsid()
        Path("/proc/self/autogroup").write_text(str(URGENT), encoding="ascii")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("program", nargs="?", default=TESTS.parent / "build/switch/olt-switch", type=Path)
    parser.add_argument("--seconds", type=float, default=1.0, help="of one measurement")
    parser.add_argument("--rounds", type=int, default=3)
    options = parser.parse_args()
    take_precedence()
    print(f"{os.cpu_count()} processors, load {os.getloadavg()[0]:.1f}, median of {options.rounds} rounds of "
          f"{options.seconds} s")
    with tempfile.TemporaryDirectory() as directory, Stand(Path(directory), options.program.resolve()) as stand:
        kind = reference(stand)
        print(f"{'bytes':>5}  {'way':<12} {kind.__name__.lower() + '/s':>10} {'switch/s':>10}  ratio")
        for size in SIZES:
            rates = measure(stand, kind, size, options.seconds, options.rounds)
            for way, name in (("out", "host->trunk"), ("in", "trunk->host")):
                base, switch = rates[way, kind], rates[way, Switch]
                print(f"{size:>5}  {name:<12} {base:>10,.0f} {switch:>10,.0f}  {switch / base:.2f}", flush=True)


if __name__ == "__main__":
    main()
