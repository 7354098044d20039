"""Measures the updater in build/release and writes the results to benchmarks/RESULTS.md.

    benchmarks/measure [PART...]    all parts by default; names stand in PARTS below

Whole processes are compared in turn and in pairs, at least five of them, every other pair the
other way round, and of their ratios the median counts. Parts that are named are measured without
waiting for a quiet machine, and replace their own rows only. Exits with 1 when a goal is missed
that benchmarks/reasons.md gives no reason for.
"""

import os
import shutil
import sys
import time

import command
import emulated_bus
import host_cost
import package_size
import windows
from programs import output, say, work
from report import write_results

QUIET = 0.5  # load average


def wait_until_quiet():
    """Building leaves a load behind. On a machine that stays busy, the figures are as they are."""
    say("Waiting until the machine is quiet")
    end = time.monotonic() + 300
    while os.getloadavg()[0] > QUIET and time.monotonic() < end:
        time.sleep(2)
    return os.getloadavg()[0]


def machine(load):
    def field(path, name):
        with open(path) as lines:
            return next((line.split(sep, 1)[1].strip().strip('"') for line in lines
                         for sep in (":", "=") if line.startswith(name) and sep in line), "?")

    def version(package):
        return output("dpkg-query", "-W", "-f", "${Version}", package)

    memory = int(field("/proc/meminfo", "MemTotal").split()[0]) / 1024 / 1024
    return [
        f"- {os.cpu_count()} cores of {field('/proc/cpuinfo', 'model name')}, {memory:.0f} GiB,"
        f" {field('/etc/os-release', 'PRETTY_NAME')}",
        f"- Qt {version('libqt6core6')}, libusb {version('libusb-1.0-0')}",
        f"- load average when it began: {load:.2f}{' (busy)' if load > QUIET else ''}",
    ]


def on_emulated_bus():
    trace, seconds = emulated_bus.against_the_floor()
    emulated_bus.requests_per_block(trace)
    return emulated_bus.protocol(trace, seconds)


PARTS = {"emulated-bus": on_emulated_bus,
         "boundaries": windows.block_boundaries,
         "host-cost": host_cost.host_cost,
         "growth": host_cost.host_growth,
         "start": windows.start,
         "smoothness": windows.smoothness,
         "command": command.without_windows,
         "size": package_size.size}


def main(names):
    load = os.getloadavg()[0] if names else wait_until_quiet()
    protocol_lines = None
    for name in names or PARTS:
        protocol_lines = PARTS[name]() or protocol_lines
    return write_results(machine(load), protocol_lines, names)


try:
    unexplained = main(sys.argv[1:])
finally:
    shutil.rmtree(work)
if unexplained:
    sys.exit("missed without a reason in benchmarks/reasons.md: " + "; ".join(unexplained))
