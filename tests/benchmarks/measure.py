#!/usr/bin/env python3
"""Every figure of docs/performance.md, measured again, as one table; Failover by tests/scenarios/measure_failover.py.

    tests/benchmarks/measure.py [--build=DIR] [--cuts=N] [--idle=SECONDS] [--urgent]        as root

Wants a machine with nothing else to do; --urgent helps where that cannot be had.
"""

import argparse
import json
import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

import measure_process
from measure_process import Table

HERE = Path(__file__).resolve().parent
TICK_AIM_US = 200


def benchmark(build, program):
    """CPU nanoseconds by benchmark: the median of five repetitions."""
    with tempfile.NamedTemporaryFile(suffix=".json") as file:
        subprocess.run([Path(build) / "tests/benchmarks" / program, f"--benchmark_out={file.name}",
                        "--benchmark_repetitions=5"], check=True, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)
        runs = json.load(file)["benchmarks"]
    scale = {"ns": 1, "us": 1000, "ms": 1000000}
    return {run["run_name"].partition("/")[0]: (run["cpu_time"] * scale[run["time_unit"]],
                                                run["real_time"] * scale[run["time_unit"]])
            for run in runs if run.get("aggregate_name") == "median"}


def instructions(build):
    output = subprocess.run([HERE / "count-instructions.sh", build], check=True, capture_output=True, text=True).stdout
    return dict(re.findall(r"^(\w+): (\d+)", output, re.MULTILINE))


def measure_programs(build, table):
    engine, datastore, counts = benchmark(build, "engine_benchmark"), benchmark(build, "datastore_benchmark"), \
        instructions(build)
    reads = datastore["link_reads_of_a_tick"][0] / 1000
    for name, title in (("lacpdu", "LACPDU"), ("marker", "Marker and its response"), ("selection", "selection round"),
                        ("tick", "tick of 8 ports, without its datastore reads"),
                        ("second", "second of 8 ports: a LACPDU each, a tick, selection")):
        cpu = engine[name][0]
        aim = ("under 1 us", cpu < 1000) if name == "lacpdu" else ()
        table.add(title, f"{cpu:.0f} ns of CPU, {counts[name]} instructions", *aim)
    table.add("8 link-status reads of a tick", f"{reads:.0f} us of CPU")
    tick = engine["tick"][0] / 1000 + reads
    table.add("tick of 8 ports", f"{tick:.0f} us of CPU, {reads / tick:.1%} of it reads",
              f"under {TICK_AIM_US} us", tick < TICK_AIM_US)
    for name, (cpu, real) in datastore.items():
        if name != "link_reads_of_a_tick":
            table.add(name.replace("_", " "), f"{real / 1000:.0f} us, {cpu / 1000:.0f} us of CPU")


def main():
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    measure_process.add_options(parser)
    options = parser.parse_args()
    print(f"load before: {os.getloadavg()[0]:.2f}", flush=True)
    table = Table()
    measure_programs(options.build, table)
    measure_process.measure(options, table)
    print("\n| Figure | Aim | Result | |\n|---|---|---|---|")
    for row in table.rows:
        print(f"| {row.figure.strip()} | {row.aim} | {row.result} | "
              f"{ {True: 'met', False: 'missed', None: ''}[row.met]} |")
    return 1 if any(row.met is False for row in table.rows) else 0


if __name__ == "__main__":
    sys.exit(main())
