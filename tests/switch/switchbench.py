"""The software switch alone in a network namespace, with the far ends of its interfaces."""

import json
import os
import select
import socket
import struct
import subprocess
import time

from lab.netns import Namespace
from lab.process import Process
from lab.waiting import eventually

PORTS = (1, 2, 3)
ALL_TYPES = 0x0003
OUTGOING = 4
SOL_PACKET, PACKET_AUXDATA, PACKET_VNET_HDR = 263, 8, 15
TAG_IS_VALID = 0x10
KIND_LACP = 2
CREATE, DESTROY, PSC_SET, ERROR = 10, 11, 12, 255
SOON = 5.0


def message(identifier, *fields, version=1, kind=KIND_LACP, length=None, body=b""):
    payload = b"".join(struct.pack("!I", field) for field in fields) + body
    size = 8 + len(payload) if length is None else length
    return struct.pack("!HBBHH", size, version, kind, 0, identifier) + payload


class Wire:
    """Raw frames on one interface."""

    def __init__(self, namespace, interface):
        self._socket = namespace.call(lambda: self._open(interface))

    @staticmethod
    def _open(interface):
        raw = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
        raw.setsockopt(SOL_PACKET, PACKET_AUXDATA, 1)
        raw.bind((interface, ALL_TYPES))
        return raw

    def send(self, frame):
        self._socket.send(frame)

    def receive(self, within=SOON):
        """The next frame that came in, or None."""
        deadline = time.monotonic() + within
        while select.select([self._socket], [], [], max(deadline - time.monotonic(), 0))[0]:
            data, told, _, address = self._socket.recvmsg(4096, socket.CMSG_SPACE(20))
            if address[2] != OUTGOING:
                return data[:12] + self._stripped_tag(told) + data[12:]
        return None

    @staticmethod
    def _stripped_tag(told):
        """The VLAN tag that the kernel has taken off."""
        for level, kind, content in told:
            if (level, kind) == (SOL_PACKET, PACKET_AUXDATA):
                status, _, _, _, _, control, protocol = struct.unpack("=IIIHHHH", content)
                return struct.pack("!HH", protocol, control) if status & TAG_IS_VALID else b""
        return b""

    def close(self):
        self._socket.close()


class OffloadWire(Wire):
    """The same with the header before each frame that tells what the kernel has left to do. Tags are taken off."""

    HEADER = struct.Struct("=BBHHHH")
    NEEDS_CHECKSUM, TCP_SEGMENTS = 1, 1

    @staticmethod
    def _open(interface):
        raw = Wire._open(interface)
        raw.setsockopt(SOL_PACKET, PACKET_VNET_HDR, 1)
        return raw

    def send_for_checksum(self, frame, start, offset, segments=(0, 0, 0)):
        """Segments: their type, the length of their headers and their size."""
        self._socket.send(self.HEADER.pack(self.NEEDS_CHECKSUM, *segments, start, offset) + frame)

    def receive_with_header(self, within=SOON):
        """Header fields and frame, or None."""
        while select.select([self._socket], [], [], within)[0]:
            data, address = self._socket.recvfrom(70000)
            if address[2] != OUTGOING:
                return self.HEADER.unpack(data[:self.HEADER.size]), data[self.HEADER.size:]
        return None


class Driver:
    """A client of the driver service."""

    def __init__(self, path):
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self._socket.settimeout(SOON)
        self._socket.connect(str(path))

    def send(self, data):
        self._socket.send(data)

    def request(self, identifier, *fields):
        self.send(message(identifier, *fields))

    def error(self):
        """Code and refused message of the next reply."""
        reply = self._socket.recv(4096)
        assert len(reply) == 16 and reply[:2] == b"\x00\x10"
        assert int.from_bytes(reply[6:8], "big") == ERROR
        return struct.unpack("!II", reply[8:])

    def close(self):
        self._socket.close()


class SwitchBench:
    def __init__(self, program, directory):
        self.program = program
        self.directory = directory
        self.process = None
        self.driver_socket = directory / "run/driver.sock"
        self.state_socket = directory / "run/state.sock"
        self.datastore = None
        self._open = []
        self.namespace = Namespace(f"switch-test-{os.getpid()}")
        self.pair("cpu0", "ethv0")
        for port in PORTS:
            self.pair(f"ge{port}", f"far{port}")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for thing in self._open:
            thing.close()
        if self.process:
            self.process.stop()
        self.namespace.remove()

    def pair(self, near, far):
        self.namespace.ip("link", "add", near, "type", "veth", "peer", "name", far)
        self.namespace.ip("link", "set", near, "up")
        self.namespace.ip("link", "set", far, "up")

    def command(self, *options, ports=PORTS):
        words = [word for port in ports for word in ("--port", f"{port}=ge{port}")]
        return [*self.namespace.enter(), self.program, "--cpu", "cpu0", *words, *self._datastore_options(),
                "--driver-socket", self.driver_socket, "--state-socket", self.state_socket, *options]

    def _datastore_options(self):
        return () if self.datastore else ("--no-datastore",)

    @property
    def environment(self):
        return self.datastore.environment if self.datastore else {}

    def start(self, *options, **named):
        self.process = Process("olt-switch", self.command(*options, **named), self.environment,
                               self.directory / "switch.out")
        self.process.wait_for_output("switch runs", SOON)

    def run(self, *options, **named):
        """A switch that must end by itself."""
        return subprocess.run([str(word) for word in self.command(*options, **named)], capture_output=True, text=True,
                              timeout=SOON, check=False, env={**os.environ, **self.environment})

    def wire(self, interface):
        self._open.append(Wire(self.namespace, interface))
        return self._open[-1]

    def offload_wire(self, interface):
        self._open.append(OffloadWire(self.namespace, interface))
        return self._open[-1]

    def driver(self):
        self._open.append(Driver(self.driver_socket))
        return self._open[-1]

    def state(self):
        result = subprocess.run([self.program, "--show", "--state-socket", self.state_socket], capture_output=True,
                                text=True, timeout=SOON, check=True)
        return json.loads(result.stdout)

    def port(self, number):
        return next(port for port in self.state()["ports"] if port["port"] == number)

    def trunks(self):
        return {trunk["group"]: trunk for trunk in self.state()["trunks"]}

    def await_state(self, what, read, wanted, within=SOON):
        return eventually(what, read, lambda value: value == wanted, within)

    def await_count(self, name, wanted):
        """Waits for a counter of the driver service."""
        self.await_state(name, lambda: self.state()["driver"][name], wanted)
