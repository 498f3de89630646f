#!/usr/bin/env python3
"""Two systems under random steps for a long time: are both as they are configured, does anything grow?

    tests/scenarios/longrun.py [--build=DIR] [--duration=SECONDS] [--seed=NUMBER] [--log=FILE]       as root

After some 40 s of steps both must agree. The left daemon and the right switch run from the first to the last second:
they must not grow. Ends with status 1 after a drift, with all steps and logs in the log file."""

import argparse
import random
import re
import signal
import statistics
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))

from lab import Lab, LabError, Programs, Ticks  # noqa: E402 (needs the path above)
from steps import DEFAULT, GROUPS, PORTS, Side, Steps  # noqa: E402

CHOICES = ("src-mac", "dst-mac", "src-dst-mac", "src-ip", "dst-ip", "src-dst-ip")
# A pair of passive ends is left out: whether they talk depends on who has spoken last.
STEPS = [  # weight, systems, word, what its values are chosen from
    (7, "left", "join", PORTS, (1, 1, 1, 2, 2, 3, 4), ("on", "active", "active", "passive")),
    (7, "right", "join", PORTS, (1, 1, 1, 2, 2, 3, 4), ("on", "active", "active")),
    (5, "left right", "leave", PORTS), (3, "left right", "timeout", PORTS, ("short", "short", "short", "long")),
    (5, "left right", "priority", PORTS, (0, 100, DEFAULT, 65535)),
    (1, "left right", "system_priority", (1, 4096, DEFAULT)), (3, "left right", "spread", GROUPS, CHOICES),
    (3, "left right", "move", PORTS, GROUPS),
    (1, "left right", "edit_port", PORTS, ("short",), (7, DEFAULT)), (1, "right", "edit_mode", PORTS, ("active",)),
    (12, "left right", "link", PORTS, ("up", "up", "down")), (3, "left", "cross", PORTS, PORTS),
    (2, "right", "stop", (1, 3, 6)), (1.5, "right", "daemon", ("SIGTERM", "SIGKILL")), (1.5, "left", "switch_off"),
    (6, "left", "switch_on")]
SECONDS, PAUSES = (25, 50), (0, 0.1, 0.5, 2)
LONG_TIMEOUT = 90
WARM_UP = 4                       # quiet moments
ALLOWED = {"rss": 512, "files": 1}  # KiB; a session that is just ending. Everything else not at all


def usage(system):
    """What the daemon and the switch of a system hold of memory, threads and files."""
    with system.shell() as shell:
        memory = shell.run("show memory").partition("--- qmem lacpd daemon's memory ---")[2]
    rows = re.findall(r"^.+? +: +(\d+) +(?:\d+|variable) +(\d+)", memory, re.MULTILINE)
    figures = {"allocations": sum(int(row[0]) for row in rows), "bytes": sum(int(row[1]) for row in rows)}
    process = {"left": system.daemon, "right": system.switch}[system.name].pid
    status = dict(re.findall(r"^(\w+):\s+(\d+)", Path(f"/proc/{process}/status").read_text("utf-8"), re.MULTILINE))
    return (figures if system.name == "left" else {}) | {
        "rss": int(status["VmRSS"]), "threads": int(status["Threads"]),
        "files": len([*Path(f"/proc/{process}/fd").iterdir()])}


def grown(samples):
    """Figures whose median in the last third is above that in the first."""
    settled = samples[WARM_UP:]
    third = len(settled) // 3
    for name in settled[0] if third else ():
        first, last = (statistics.median(sample[name] for sample in part)
                       for part in (settled[:third], settled[-third:]))
        if last > first + ALLOWED.get(name.split()[-1], 0):
            yield f"{name}: {first} in the first third, {last} in the last"


def run(steps, options):
    rng, samples, started = random.Random(options.seed), [], time.monotonic()
    for name in steps.systems:
        for port in PORTS:
            for words in (f"timeout {port} short", f"join {port} 1 active"):
                steps.take(f"{name} {words}")
    while time.monotonic() - started < options.duration:
        end = time.monotonic() + rng.uniform(*SECONDS)
        while time.monotonic() < end:
            _, names, word, *values = rng.choices(STEPS, [step[0] for step in STEPS])[0]
            steps.take(" ".join(map(str, (rng.choice(names.split()), word, *map(rng.choice, values)))))
            time.sleep(rng.choice(PAUSES))
        steps.take("left switch_on")
        took = steps.agree(Ticks.REFORM + Ticks.of(LONG_TIMEOUT))
        samples.append({f"{system.name} {name}": value for system in steps.pair
                        for name, value in usage(system).items()})
        print(f"[{time.monotonic() - started:7.1f} s] {len(steps.history)} steps, both agree after {took:.1f} s; "
              f"{samples[-1]}", flush=True)
        for name, system in steps.systems.items():  # or the run would be spent with waiting
            for port in (number for number, entry in Side(system).ports.items() if entry.timeout != "short"):
                steps.take(f"{name} timeout {port} short")
    if growth := list(grown(samples)):
        raise LabError("growth after the warm-up: " + "; ".join(growth))


def main():
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--build", default="build")
    parser.add_argument("--duration", type=float, default=3600, help="seconds")
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 31))
    parser.add_argument("--log", default="longrun.log", help="written after a failure")
    options = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    print(f"longrun: seed {options.seed}, {options.duration:.0f} s", flush=True)
    with Lab(Programs(options.build)) as lab:
        steps = Steps(lab)
        try:
            run(steps, options)
        except (AssertionError, OSError) as error:
            Path(options.log).write_text("\n".join([f"seed {options.seed}: {error}", *steps.history, lab.logs()]), "utf-8")
            sys.exit(f"longrun: FAILED: {error}\nlast steps: {steps.history[-12:]}\neverything is in {options.log}")
    print("longrun: OK")


if __name__ == "__main__":
    main()
