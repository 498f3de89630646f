"""A wall clock that jumps, and a disk that is full."""

import subprocess

import pytest

from faults import Orders, form, report, seconds_until_formed, slow
from helpers import join, leave, quietly
from lab import Ticks, stays

DAY = 24 * 3600
DISK = "16m"
ON_DISK = ("repository", "shm", "run")  # the datastore's files, also those in memory, and the daemon's own


class SmallDisk:
    """Moves a system's files, before it starts, to a disk that can be filled."""

    def __init__(self, system):
        self.place = system.directory / "disk"
        self._mounts = [self.place]
        self.place.mkdir()
        self._mount("-t", "tmpfs", "-o", f"size={DISK},mode=755", "tmpfs", self.place)
        for name in ON_DISK:
            inside, outside = self.place / name, system.directory / name
            subprocess.run(["cp", "-a", outside, inside], check=True)
            self._mount("--bind", inside, outside)
            self._mounts.append(outside)

    @staticmethod
    def _mount(*arguments):
        subprocess.run(["mount", *map(str, arguments)], check=True)

    @property
    def _filling(self):
        return self.place / "filling"

    def fill(self):
        with pytest.raises(OSError), open(self._filling, "wb", buffering=0) as file:
            while True:
                file.write(bytes(4096))

    def free(self):
        self._filling.unlink()

    def remove(self):
        for mount in reversed(self._mounts):
            subprocess.run(["umount", "-l", str(mount)], check=True)


@pytest.fixture(scope="module")
def formed(lab):
    """The left one with a disk of its own, and with a clock that obeys."""
    pair = [lab.system(name, ports=3) for name in ("left", "right")]
    left = pair[0]
    for port in (1, 2, 3):
        lab.cable(*(word for system in pair for word in (system, port)))
    disk, orders = SmallDisk(left), Orders(left)
    for system in pair:
        system.start_switch()
        system.start_daemon(environment=orders.environment if system is left else None)
    form(pair)
    yield pair, disk, orders
    assert left.daemon.status is None, "no restart"
    for system in pair:
        system.stop_daemon()
        system.stop_switch()
    disk.remove()


def keep_trunks(*systems):
    """For longer than a short timeout lasts."""
    stays("trunks", lambda: [system.trunks() for system in systems],
          lambda seen: all(trunks == {1: {1, 2}, 2: {3}} for trunks in seen), Ticks.LOST_SHORT / 2)


# There and back by twice as much.
@pytest.mark.parametrize("days", [400, pytest.param(-400, marks=slow), pytest.param(1 / 24, marks=slow)])
def test_the_wall_clock_jumps(formed, days):
    (left, right), _, orders = formed
    orders.give(shift_seconds=int(days * DAY))
    keep_trunks(left, right)
    right.set_link(2, up=False)
    left.await_trunk(1, {1}, Ticks.LINK)
    orders.give(shift_seconds=-int(days * DAY))
    right.set_link(2, up=True)
    report(f"wall clock off by {days} days while a port joins", seconds_until_formed((left, right)))
    quietly(left, *leave(3, 2), *join(3, 2, "on"))
    orders.give(shift_seconds=0)


def test_a_full_disk_refuses_and_loses_nothing(formed):
    (left, right), disk, _ = formed
    with left.shell() as shell:
        assert "Configuration saved" in shell.run("write memory")
        saved = left.configuration_file.read_text(encoding="utf-8")
        disk.fill()
        for _ in range(2):  # the second would take the place of the backup as well
            answer = shell.run("write memory")
            assert "No space left on device" in answer and "Configuration saved" not in answer
        assert left.configuration_file.read_text(encoding="utf-8") == saved
    configured = left.configured()
    assert "failed" in left.configure(*join(3, 3, "on"))
    assert left.configured() == configured
    keep_trunks(left, right)
    disk.free()
    report("disk freed", seconds_until_formed((left, right)))
    quietly(left, *join(3, 3, "on"))
    left.await_trunk(3, {3}, Ticks.LINK)
    with left.shell() as shell:
        assert "Configuration saved" in shell.run("write memory")
    assert "channel-group 3 mode on" in left.configuration_file.read_text(encoding="utf-8")


@slow
def test_links_that_change_on_a_full_disk_are_followed_afterwards(formed):
    (left, right), disk, _ = formed
    disk.fill()
    right.set_link(2, up=False)
    stays("left: the daemon runs", lambda: left.daemon.status, lambda status: status is None, 2)
    disk.free()
    left.await_trunk(1, {1}, Ticks.FORM)
    disk.fill()
    right.set_link(2, up=True)
    stays("left: the daemon runs", lambda: left.daemon.status, lambda status: status is None, 2)
    disk.free()
    report("links followed after a full disk",
           seconds_until_formed((left,), trunks={1: {1, 2}, 3: {3}}))
