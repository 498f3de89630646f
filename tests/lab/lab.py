"""The bench on which systems stand and are cabled."""

import os
import shutil
import tempfile
from pathlib import Path

from lab import netns
from lab.netns import Namespace
from lab.ovs import OpenVSwitch
from lab.system import System
from lab.waiting import LabError

_PREFIX = "lacpd-lab"
_PLACE = "/dev/shm"
_SLOW_PROTOCOLS = 1 << 2  # a bridge forwards these only when told to


def _is_running(process):
    return Path(f"/proc/{process}").exists()


def _sweep():
    """Removes what labs left behind that were killed."""
    for name in netns.names():
        owner = name.removeprefix(f"{_PREFIX}-").partition("-")[0]
        if name.startswith(f"{_PREFIX}-") and not _is_running(owner):
            netns.remove(name)
    for directory in Path(_PLACE).glob(f"{_PREFIX}-*"):
        if not _is_running(directory.name.removeprefix(f"{_PREFIX}-").partition("-")[0]):
            shutil.rmtree(directory, ignore_errors=True)


class Lab:
    def __init__(self, programs):
        if os.geteuid() != 0:
            raise PermissionError("a lab makes network namespaces: run it as root")
        _sweep()
        self.programs = programs
        self.systems = []
        self._names = f"{_PREFIX}-{os.getpid()}"
        self.directory = Path(tempfile.mkdtemp(prefix=f"{self._names}-", dir=_PLACE))
        self.directory.chmod(0o755)
        self._bench = None
        self._patches = 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def system(self, name, ports):
        number = len(self.systems) + 1
        return self._add(System(name, number, ports, self.directory / name, self._namespace(name), self.programs))

    def open_vswitch(self, name):
        return self._add(OpenVSwitch(name, self.directory / name, self._namespace(name)))

    def _add(self, system):
        self.systems.append(system)  # first, so that a half-made one is removed as well
        system.make()
        return system

    def _namespace(self, name):
        return f"{self._names}-{self.directory.name.rpartition('-')[2]}-{name}"

    @property
    def bench(self):
        """A namespace for the loose ends of cables."""
        if self._bench is None:
            self._bench = Namespace(self._namespace("bench"))
        return self._bench

    def cable(self, left, left_port, right, right_port):
        """Connects two ports."""
        ends = (left.port_interface(left_port), right.port_interface(right_port))
        self.veth(left.namespace, ends[0], right.namespace, ends[1])

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
