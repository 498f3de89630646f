"""The bench on which systems stand and are cabled."""

import os
import shutil
import tempfile
from pathlib import Path

from lab import netns
from lab.netns import Namespace
from lab.system import System
from lab.waiting import LabError

_PREFIX = "lacpd-lab"
_PLACE = Path("/dev/shm")
_SLOW_PROTOCOLS = 1 << 2  # a bridge forwards these only when told to


def _sweep():
    """Removes what labs left behind that were killed."""
    def left_behind(name):
        return name.startswith(f"{_PREFIX}-") and not Path(f"/proc/{name.split('-')[2]}").exists()

    for name in filter(left_behind, netns.names()):
        netns.remove(name)
    for name in filter(left_behind, os.listdir(_PLACE)):
        shutil.rmtree(_PLACE / name, ignore_errors=True)


class Lab:
    def __init__(self, programs):
        if os.geteuid() != 0:
            raise PermissionError("a lab makes network namespaces: run it as root")
        _sweep()
        self.programs = programs
        self.systems = []
        self.directory = Path(tempfile.mkdtemp(prefix=f"{_PREFIX}-{os.getpid()}-", dir=_PLACE))
        self.directory.chmod(0o755)
        self._bench = None
        self._patches = 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def system(self, name, ports):
        return self.add(System, name, len(self.systems) + 1, ports, self.programs)

    def pair(self, ports, start=True):
        """Two running systems, left and right, with users behind them and cables between ports of equal numbers."""
        systems = self.system("left", ports), self.system("right", ports)
        for port in range(1, ports + 1):
            self.cable(systems[0], port, systems[1], port)
        for system in systems:
            system.add_host()
            if start:
                system.start()
        return systems

    def add(self, kind, name, *arguments):
        """Puts a station on the bench."""
        station = kind(name, self.directory / name, f"{self.directory.name}-{name}", *arguments)
        self.systems.append(station)  # first, so that a half-made one is removed as well
        station.make()
        return station

    @property
    def bench(self):
        """A namespace for the loose ends of cables."""
        if self._bench is None:
            self._bench = Namespace(f"{self.directory.name}-bench")
        return self._bench

    def cable(self, left, left_port, right, right_port):
        """Connects two ports."""
        self.veth(left.namespace, left.port_interface(left_port), right.namespace, right.port_interface(right_port))

    def loose_cable(self, system, port):
        """Plugs in a cable that ends on the bench; returns the name of that end's interface."""
        end = f"{system.name}-{port}"
        self.veth(system.namespace, system.port_interface(port), self.bench, end)
        return end

    def patch(self, end, other):
        """Connects two ends on the bench, away from where they were connected before. No port loses its carrier."""
        self._patches += 1
        bridge = f"patch{self._patches}"
        self.bench.ip("link", "add", bridge, "up", "type", "bridge", "mcast_snooping", 0)
        for name in (end, other):
            self.bench.ip("link", "set", name, "master", bridge)
            self.bench.ip("link", "set", name, "type", "bridge_slave", "group_fwd_mask", _SLOW_PROTOCOLS)

    @staticmethod
    def veth(near, near_name, far, far_name):
        netns.ip("link", "add", near_name, "netns", near.name, "type", "veth", "peer", "name", far_name, "netns",
                 far.name)
        near.ip("link", "set", near_name, "up")
        far.ip("link", "set", far_name, "up")

    def logs(self):
        return "\n".join(system.logs() for system in self.systems)

    def close(self):
        for system in self.systems:
            system.stop()
        findings = "\n".join(system.sanitizer_reports() for system in self.systems).strip()
        for system in self.systems:
            system.remove()
        if self._bench:
            self._bench.remove()
        shutil.rmtree(self.directory, ignore_errors=True)
        if findings:
            raise LabError(f"a sanitizer has reported:\n{findings}")
