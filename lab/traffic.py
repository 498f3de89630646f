"""User traffic between the hosts of two systems, counted."""

import socket
import struct
import threading
import time
from collections import namedtuple

RATE = 1000            # packets a second
SETTLE = 0.5           # the last packets are on their way
_BUFFER = 4 << 20
_SO_NO_CHECK, _SO_RCVBUFFORCE, _SO_TIMESTAMPNS = 11, 33, 35
_NUMBER = struct.Struct("!I")
_TIMESPEC = struct.Struct("@qq")

# Packets sent, of these lost, packets that came again or behind a later one; seconds of the longest time without a
# packet; packets a second that were sent.
Report = namedtuple("Report", "sent lost duplicates reordered outage rate")


class Flow:
    """Numbered packets from one of a host's addresses to another host, at an even rate, as long as the block runs.
    Then `report` tells what became of them, by the kernel's time stamps of reception."""

    def __init__(self, source, target, address=None, rate=RATE):
        self._interval = 1 / rate
        self._sent = 0
        self._received = []  # (number, time)
        self._running = True
        self._receiver = target.host.call(lambda: socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
        self._receiver.setsockopt(socket.SOL_SOCKET, _SO_RCVBUFFORCE, _BUFFER)
        self._receiver.setsockopt(socket.SOL_SOCKET, _SO_TIMESTAMPNS, 1)
        self._receiver.settimeout(SETTLE)
        self._receiver.bind((target.host_address, 0))
        self._sender = source.host.call(lambda: socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
        # Who forwards in user space may not know of checksums that are left to a network card.
        self._sender.setsockopt(socket.SOL_SOCKET, _SO_NO_CHECK, 1)
        self._sender.bind((address or source.host_address, 0))
        self._sender.setblocking(False)
        self._threads = [threading.Thread(target=self._receive), threading.Thread(target=self._send)]
        self.report = None

    def __enter__(self):
        for thread in self._threads:
            thread.start()
        return self

    def __exit__(self, *_):
        self._running = False
        for thread in reversed(self._threads):
            thread.join()
        self._sender.close()
        self._receiver.close()
        self.report = self._count()

    def _send(self):
        target, started = self._receiver.getsockname(), time.monotonic()
        while self._running:
            try:
                self._sender.sendto(_NUMBER.pack(self._sent), target)
            except OSError:
                pass  # a full queue: lost as any other
            self._sent += 1
            time.sleep(max(started + self._sent * self._interval - time.monotonic(), 0))
        self._seconds = time.monotonic() - started

    def _receive(self):
        while True:
            try:
                data, told, _, _ = self._receiver.recvmsg(64, socket.CMSG_SPACE(_TIMESPEC.size))
            except TimeoutError:
                if self._running:
                    continue
                return
            seconds, nanoseconds = _TIMESPEC.unpack(told[0][2])
            self._received.append((_NUMBER.unpack(data)[0], seconds + nanoseconds / 1e9))

    def _count(self):
        numbers, times = zip(*self._received) if self._received else ((), ())
        gaps = [later - earlier for earlier, later in zip(times, times[1:])]
        return Report(sent=self._sent, lost=self._sent - len(set(numbers)),
                      duplicates=len(numbers) - len(set(numbers)),
                      reordered=sum(later < earlier for earlier, later in zip(numbers, numbers[1:])),
                      outage=max(gaps, default=float("inf")), rate=self._sent / self._seconds)
