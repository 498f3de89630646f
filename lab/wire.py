"""Frames as they are on a cable."""

import itertools
import select
import socket
import struct
import time
from collections import namedtuple

SLOW_PROTOCOLS_ADDRESS = bytes.fromhex("0180c2000002")
ACTIVITY, TIMEOUT, AGGREGATION, SYNCHRONIZATION, COLLECTING, DISTRIBUTING, DEFAULTED, EXPIRED = (
    1 << bit for bit in range(8))
_ALL_TYPES, _OUTGOING = 0x0003, 4

Frame = namedtuple("Frame", "time data")
Info = namedtuple("Info", "system_priority system key port_priority port state")
_INFO = struct.Struct("!H6sHHHB")


class Lacpdu:
    """What a LACPDU's frame says of both sides."""

    def __init__(self, data):
        self.actor, self.partner = (Info(*_INFO.unpack_from(data, at)) for at in (18, 38))


class Capture:
    """A raw socket on an interface; what the interface itself sends is left out."""

    def __init__(self, namespace, interface):
        self._socket = namespace.call(lambda: socket.socket(socket.AF_PACKET, socket.SOCK_RAW,
                                                            socket.htons(_ALL_TYPES)))
        self._socket.bind((interface, _ALL_TYPES))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._socket.close()

    def send(self, data):
        self._socket.send(bytes(data))

    def each(self, within):
        """Frames to the slow protocols' address as they come."""
        deadline = time.monotonic() + within
        while select.select([self._socket], [], [], max(deadline - time.monotonic(), 0))[0]:
            data, address = self._socket.recvfrom(2048)
            if address[2] != _OUTGOING and data[0:6] == SLOW_PROTOCOLS_ADDRESS:
                yield Frame(time.monotonic(), data)

    def frames(self, count, within):
        """The next such frames, at most `count`."""
        return list(itertools.islice(self.each(within), count))
