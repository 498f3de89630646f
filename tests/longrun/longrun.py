#!/usr/bin/env python3
"""Two systems under random changes for a long time: do table, datastore and trunks stay one, does anything grow?

    tests/longrun/longrun.py [--build=DIR] [--duration=SECONDS] [--seed=NUMBER] [--log=FILE]       as root

Links, cables, the partner's daemon, the switches and the configuration of both sides change at random. About every 45 s
the changes stop, and when the protocol has had its time both systems must show what the configuration says, in all
places. "left" runs one daemon from the first to the last second, "right" one switch: they must not grow. Ends with
status 1 after a drift, with what differs and all logs in the log file.
"""

import argparse
import random
import signal
import statistics
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

from lab import Lab, LabError, Programs, Ticks, eventually  # noqa: E402 (needs the path above)
import model  # noqa: E402
from observe import memory, observe, usage  # noqa: E402

PORTS = (1, 2, 3, 4)
CHANGES_SECONDS = (25, 50)
LONG_TIMEOUT = 90
WARM_UP = 4                    # quiet moments
GROWTH_ALLOWED = {"rss": 512, "files": 1}  # KiB; a session that is just ending. Everything else not at all
CHOICES = ("src-mac", "dst-mac", "src-dst-mac", "src-ip", "dst-ip", "src-dst-ip")


class Plant:
    """A running system beside the model of what it is configured for."""

    def __init__(self, system):
        self.system = system
        self.side = model.Side()

    @property
    def name(self):
        return self.system.name

    def port_commands(self, port, *commands):
        return self.system.configure(f"interface gigabitEthernet 0/{port}", *commands, "exit")


def quietly(answer):
    if answer.strip():
        raise LabError(f"the shell answered {answer!r}")


class Changes:
    """One method a kind of change; each changes system and model and says what it did, or None if it does not fit."""

    def __init__(self, lab, left, right, rng):
        self.lab, self.left, self.right, self.rng = lab, left, right, rng
        self.long_timeouts = False  # some port has waited long since the last quiet moment

    WEIGHTS = {"join": 14, "leave": 5, "timeout": 3, "priority": 5, "system_priority": 1, "load_balance": 3,
               "foreign_move": 3, "foreign_delete": 2, "foreign_create": 4, "link": 12, "cable": 3, "stop": 2,
               "daemon": 1.5, "switch": 1.5}

    def one(self):
        kind = self.rng.choices(list(self.WEIGHTS), list(self.WEIGHTS.values()))[0]
        plant = self.rng.choice((self.left, self.right))
        done = getattr(self, kind)(plant, self.rng.choice(PORTS))
        return f"{plant.name}: {done}" if done else None

    # ---- configuration

    def join(self, plant, port):
        # A pair of passive ends is left out: whether they talk depends on who has spoken last.
        modes = ("on", "active", "active", "passive") if plant is self.left else ("on", "active", "active", "active")
        group, mode = self.rng.choice((1, 1, 1, 2, 2, 3, 4)), self.rng.choice(modes)
        if plant.side.groups[group].former not in (None, model.type_for(mode)):
            return None
        answer = plant.port_commands(port, f"channel-group {group} mode {mode}")
        if not plant.side.takes(group, mode):
            if "failed! This group is already in other mode" not in answer:
                raise LabError(f"{plant.name}: port {port} was not refused by group {group}: {answer!r}")
            return f"port {port} refused by group {group}, mode {mode}"
        quietly(answer)
        plant.side.join(port, group, mode)
        return f"port {port} joins group {group}, mode {mode}"

    def leave(self, plant, port):
        group = plant.side.ports[port].group
        if group == 0:
            return None
        quietly(plant.port_commands(port, f"no channel-group {group}"))
        plant.side.leave(port)
        return f"port {port} leaves group {group}"

    def timeout(self, plant, port):
        value = self.rng.choices(("short", "long"), (5, 1))[0]
        self._set_timeout(plant, port, value)
        return f"port {port} timeout {value}"

    def _set_timeout(self, plant, port, value):
        quietly(plant.port_commands(port, f"lacp timeout {value}"))
        plant.side.ports[port].timeout = value

    def priority(self, plant, port):
        value = self.rng.choice((0, 100, 32767, model.DEFAULT_PRIORITY, 65535))
        quietly(plant.port_commands(port, f"lacp port-priority {value}"))
        plant.side.ports[port].priority = value
        return f"port {port} priority {value}"

    def system_priority(self, plant, _):
        plant.side.priority = self.rng.choice((1, 4096, model.DEFAULT_PRIORITY))
        quietly(plant.system.configure(f"lacp system-priority {plant.side.priority}"))
        return f"system priority {plant.side.priority}"

    def load_balance(self, plant, port):
        group, choice = port, self.rng.choice(CHOICES)
        quietly(plant.system.configure(f"channel-group {group} load-balance {choice}"))
        plant.side.groups[group].choice = choice
        return f"group {group} load-balance {choice}"

    # ---- another datastore client

    def foreign_move(self, plant, port):
        dynamic = [number for number, group in plant.side.groups.items() if group.type == "dynamic"]
        entry = plant.side.ports[port]
        if entry.group not in dynamic or len(dynamic) < 2:
            return None
        target = self.rng.choice([group for group in dynamic if group != entry.group])
        plant.system.datastore.edit("olt-ifm", (
            f"<up-link-ports><interface><name>gigabitethernet 0/{port}</name>"
            f'<trunk xmlns="urn:olt:params:xml:ns:yang:olt-lacp"><channel-group>{target}</channel-group></trunk>'
            "</interface></up-link-ports>"))
        entry.group = target
        return f"port {port} moved to group {target} by another client"

    def foreign_delete(self, plant, port):
        group = port
        if plant.side.groups[group].type is None:
            return None
        plant.system.datastore.delete_group(group)
        plant.side.delete(group)
        return f"group {group} deleted by another client"

    def foreign_create(self, plant, _):
        deleted = [number for number, group in plant.side.groups.items() if group.former]
        if not deleted:
            return None
        group = self.rng.choice(deleted)
        self._create(plant, group)
        return f"group {group} created again by another client"

    @staticmethod
    def _create(plant, group):
        kind = plant.side.groups[group].former
        members = plant.side.of(group) if kind == "manual" else []
        plant.system.datastore.edit("olt-lacp", (
            f"<channel-group><group><id>{group}</id><lacp-type>{kind}</lacp-type>"
            + "".join(f"<member-port>gigabitethernet 0/{port}</member-port>" for port in members)
            + "</group></channel-group>"))
        plant.side.set_type(group, kind)
        for port in members:
            plant.side.ports[port].member = True

    # ---- links and programs

    def link(self, plant, port):
        entry = plant.side.ports[port]
        if port not in plant.side.cables:
            return None
        up = not entry.up or self.rng.random() < 0.3
        plant.system.set_link(port, up)
        entry.up = up
        return f"link of port {port} {'up' if up else 'down'}"

    def cable(self, *_):
        """Two cables are pulled and plugged in again, crossed."""
        one, other = self.rng.sample(PORTS, 2)
        ends = [self.left.side.cables[port] for port in (one, other)]
        for port in (one, other):
            self.left.system.namespace.ip("link", "del", self.left.system.port_interface(port))
        if self.rng.random() < 0.5:
            time.sleep(self.rng.uniform(0, 3))
        for port, end in zip((one, other), reversed(ends)):
            self.plug(port, end)
        return f"cables of ports {one} and {other} crossed"

    def plug(self, port, end):
        self.lab.cable(self.left.system, port, self.right.system, end)
        self.left.side.cables[port], self.right.side.cables[end] = end, port
        self.left.side.ports[port].up = self.right.side.ports[end].up = True

    def stop(self, *_):
        seconds = self.rng.uniform(0.5, 6)
        self.right.system.daemon.send_signal(signal.SIGSTOP)
        try:
            time.sleep(seconds)
        finally:
            self.right.system.daemon.send_signal(signal.SIGCONT)
        return f"the right daemon stood still for {seconds:.1f} s"

    def daemon(self, *_):
        """The partner's daemon starts anew with what was written."""
        for group, entry in self.right.side.groups.items():
            if entry.former:
                self._create(self.right, group)
        with self.right.system.shell() as shell:
            shell.run("write memory")
        number = self.rng.choice((signal.SIGTERM, signal.SIGKILL))
        self.right.system.daemon.stop(number)
        time.sleep(self.rng.uniform(0, 3))
        self.right.system.start_daemon()
        self.right.side.forget_unwritten()
        return f"the right daemon was ended with {number.name} and started"

    def switch(self, *_):
        self.left.system.stop_switch()
        time.sleep(self.rng.uniform(0, 2))
        self.left.system.start_switch()
        return "the left switch was restarted"

    def note_timeouts(self):
        for plant in (self.left, self.right):
            self.long_timeouts |= any(port.timeout == "long" and port.group for port in plant.side.ports.values())

    def calm(self):
        """The time in which the protocol must have formed after the last change."""
        limit = Ticks.REFORM + (Ticks.of(LONG_TIMEOUT) if self.long_timeouts else 0)
        self.long_timeouts = False
        return limit


class Run:
    def __init__(self, lab, options):
        self.lab, self.options = lab, options
        self.rng = random.Random(options.seed)
        self.left, self.right = (Plant(lab.system(name, ports=len(PORTS))) for name in ("left", "right"))
        self.changes = Changes(lab, self.left, self.right, self.rng)
        self.history, self.samples = [], []
        self.started = time.monotonic()
        self.waits = []

    def seconds(self):
        return time.monotonic() - self.started

    def note(self, text):
        self.history.append(f"[{self.seconds():8.2f} s] {text}")

    def prepare(self):
        for port in PORTS:
            self.changes.plug(port, port)
        for plant in (self.left, self.right):
            plant.system.start()
            for port in PORTS:
                self.changes._set_timeout(plant, port, "short")
                quietly(plant.port_commands(port, "channel-group 1 mode active"))
                plant.side.join(port, 1, "active")

    def go(self):
        self.prepare()
        while self.seconds() < self.options.duration:
            end = time.monotonic() + self.rng.uniform(*CHANGES_SECONDS)
            while time.monotonic() < end:
                done = self.changes.one()
                if done:
                    self.note(done)
                    self.changes.note_timeouts()
                    time.sleep(self.rng.choice((0, 0.1, 0.5, 2)))
            self.quiet_moment()
            self.shorten()

    def shorten(self):
        """Most ports wait the short time, or the run would be spent with waiting."""
        for plant in (self.left, self.right):
            for port, entry in plant.side.ports.items():
                if entry.timeout == "long":
                    self.changes._set_timeout(plant, port, "short")

    def quiet_moment(self):
        started = time.monotonic()
        expected = {plant.name: model.expectation(plant.side, other.side)
                    for plant, other in ((self.left, self.right), (self.right, self.left))}

        def differences():
            found = []
            for plant in (self.left, self.right):
                seen = observe(plant.system, expected[plant.name])
                found += [f"{plant.name} {place}: expected {expected[plant.name][place]}, seen {value}"
                          for place, value in seen.items() if value != expected[plant.name][place]]
            return found

        eventually("both systems as configured", differences, lambda found: not found, self.changes.calm())
        self.waits.append(time.monotonic() - started)
        for _ in range(2):  # and they stay so
            time.sleep(Ticks.FAST_PERIOD)
            found = differences()
            if found:
                raise LabError("no longer as configured: " + "; ".join(found))
        self.sample()

    def sample(self):
        count, total = memory(self.left.system)
        daemon, switch = usage(self.left.system.daemon.pid), usage(self.right.system.switch.pid)
        self.samples.append({"allocations": count, "bytes": total, **{f"lacpd {name}": value for name, value
                             in daemon.items()}, **{f"switch {name}": value for name, value in switch.items()}})
        figures = ", ".join(f"{name} {value}" for name, value in self.samples[-1].items())
        self.note(f"quiet moment {len(self.samples)}")
        print(f"[{self.seconds():7.1f} s] quiet {len(self.samples)}: as configured after {self.waits[-1]:.1f} s, "
              f"{len(self.history)} events; {figures}", flush=True)

    def growth(self):
        """Figures whose median in the last third is above that in the first."""
        settled = self.samples[WARM_UP:]
        third = len(settled) // 3
        grown = []
        for name in settled[0] if third else ():
            before = statistics.median(sample[name] for sample in settled[:third])
            after = statistics.median(sample[name] for sample in settled[-third:])
            if after > before + GROWTH_ALLOWED.get(name.rpartition(" ")[2], 0):
                grown.append(f"{name}: {before} in the first third, {after} in the last")
        return grown

    def summary(self):
        print(f"{len(self.samples)} quiet moments, {len(self.history)} events in {self.seconds():.0f} s; "
              f"longest wait for the protocol {max(self.waits, default=0):.1f} s")
        for name in self.samples[0] if self.samples else ():
            values = [sample[name] for sample in self.samples[WARM_UP:] or self.samples]
            print(f"  {name}: first {values[0]}, last {values[-1]}, lowest {min(values)}, highest {max(values)}")


def outputs(lab):
    """Everything that the programs have written."""
    for system in lab.systems:
        for path in sorted(system.directory.glob("*.out")):
            yield f"---- {system.name}: {path.name}"
            yield path.read_text(encoding="utf-8", errors="replace")


def parse():
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--build", default="build")
    parser.add_argument("--duration", type=float, default=3600, help="seconds")
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 31))
    parser.add_argument("--log", default="longrun.log", help="written after a failure")
    return parser.parse_args()


def main():
    options = parse()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    print(f"longrun: seed {options.seed}, {options.duration:.0f} s", flush=True)
    with Lab(Programs(options.build)) as lab:
        run = Run(lab, options)
        try:
            run.go()
            grown = run.growth()
            if grown:
                raise LabError("growth after the warm-up: " + "; ".join(grown))
        except (LabError, AssertionError, OSError) as error:
            run.summary()
            Path(options.log).write_text("\n".join([f"seed {options.seed}: {error}", *run.history, *outputs(lab)]),
                                         encoding="utf-8")
            print(f"longrun: FAILED: {error}\nlast events:\n" + "\n".join(run.history[-12:]) +
                  f"\neverything is in {options.log}", file=sys.stderr)
            return 1
        run.summary()
    print("longrun: OK")
    return 0


if __name__ == "__main__":
    sys.exit(main())
