"""Frames as they are on a cable."""

import itertools
import select
import socket
import struct
import time
from collections import namedtuple

SLOW_PROTOCOLS_TYPE = 0x8809
SLOW_PROTOCOLS_ADDRESS = bytes.fromhex("0180c2000002")
ACTIVITY, TIMEOUT, AGGREGATION, SYNCHRONIZATION, COLLECTING, DISTRIBUTING, DEFAULTED, EXPIRED = (
    1 << bit for bit in range(8))
_ALL_TYPES = 0x0003
_OUTGOING = 4

Frame = namedtuple("Frame", "time data")
Info = namedtuple("Info", "system_priority system key port_priority port state")

_INFO = struct.Struct("!H6sHHHB")
_PDU = 14


class Lacpdu:
    """Fields of a 124-byte frame."""

    def __init__(self, data):
        self.destination, self.source = data[0:6], data[6:12]
        self.type = int.from_bytes(data[12:14], "big")
        pdu = data[_PDU:]
        self.head = pdu[0:4]
        self.actor = Info(*_INFO.unpack(pdu[4:19]))
        self.actor_reserved = pdu[19:22]
        self.partner_head = pdu[22:24]
        self.partner = Info(*_INFO.unpack(pdu[24:39]))
        self.partner_reserved = pdu[39:42]
        self.collector = pdu[42:46]
        self.rest = pdu[46:]


class Capture:
    """A raw socket on an interface; what the interface itself sends is left out."""

    def __init__(self, namespace, interface):
        self._socket = namespace.call(lambda: self._open(interface))

    @staticmethod
    def _open(interface):
        raw = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(_ALL_TYPES))
        raw.bind((interface, _ALL_TYPES))
        return raw

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._socket.close()

    def send(self, data):
        self._socket.send(data)

    def each(self, within):
        """Frames to the slow protocols' address as they come."""
        deadline = time.monotonic() + within
        while True:
            if not select.select([self._socket], [], [], max(deadline - time.monotonic(), 0))[0]:
                return
            data, address = self._socket.recvfrom(2048)
            if address[2] != _OUTGOING and data[0:6] == SLOW_PROTOCOLS_ADDRESS:
                yield Frame(time.monotonic(), data)

    def frames(self, count, within):
        """The next such frames, at most `count`."""
        return list(itertools.islice(self.each(within), count))
