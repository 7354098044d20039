"""The host's own cost with a device that answers at once, and how it grows with the image."""

import itertools
import json
import os
import statistics
import subprocess

from programs import BLOCK, in_pairs, instructions, json_line, program, say, work
from report import at_most, row

PAIRS = 5
IMAGES = {"64 KiB": 1024, "1 MiB": 16 * 1024, "16 MiB": 256 * 1024}  # blocks


def host_cost():
    say("Measuring the host's own cost")
    group = "2. The host's own cost"
    results = os.path.join(work, "host_cost.json")
    subprocess.run([program("host_cost"), "--benchmark_repetitions=5", "--benchmark_out=" + results,
                    "--benchmark_out_format=json"],
                   check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    with open(results) as file:
        medians = {entry["run_name"]: entry for entry in json.load(file)["benchmarks"]
                   if entry.get("aggregate_name") == "median"}
    for name, what, memory in (("writeRequest", "write request", 0),
                               ("readRequest", "read request", 1)):  # the reply handed out
        entry = medians[name]
        at_most(group, f"{what} through the link", 1e9 / entry["items_per_second"], 2000,
                "{:.0f} ns")
        at_most(group, f"{what}: allocations",
                round(entry["allocations"], 3), memory, "{:.0f}")
    for name, what in (("newBlocks", "new block"), ("repeatedBlocks", "repeated block")):
        entry = medians["update/" + name]
        nanoseconds = 1e9 / entry["items_per_second"]
        row(group, f"{what}, all above the USB port", f"{nanoseconds:.0f} ns")
        at_most(group, f"{what}, for each of its requests", nanoseconds / entry["requests"], 2000,
                "{:.0f} ns")
        row(group, f"{what}: allocations", f"{entry['allocations']:.0f}")
        kind = ["repeated"] if name == "repeatedBlocks" else []
        many, few = (instructions(program("host_update"), str(blocks), "1", *kind)
                     for blocks in (2048, 1024))
        row(group, f"{what}: instructions", f"{(many - few) / 1024:.0f}")
        row(group, f"{what}: instructions for each of its requests",
            f"{(many - few) / 1024 / entry['requests']:.0f}")


def host_growth():
    """Counts instructions, which nothing else on the machine changes."""
    group = "4. Growth"
    count = {}
    for size, blocks in IMAGES.items():
        say(f"Counting the instructions of an update from an image of {size}")
        # An update begins and ends with tasks of its own, whatever the size of the image.
        many, none = (instructions(program("host_update"), str(number)) for number in (blocks, 1))
        count[size] = (many - none) / (blocks - 1)
        row(group, f"instructions per block of {size}", f"{count[size]:.0f}")
    growth = max(larger / smaller for smaller, larger in itertools.combinations(count.values(), 2))
    at_most(group, "instructions per block of a larger image against a smaller one, at most",
            100 * (growth - 1), 1, "{:+.2f} %")
    for size, blocks in IMAGES.items():
        runs, empty = in_pairs(PAIRS, lambda: json_line(program("host_update"), str(blocks)),
                               lambda: json_line(program("host_update"), "1"))
        at_most(group, f"peak memory per byte of {size}", bytes_per_byte(runs, empty, blocks), 3)


def bytes_per_byte(runs, empty, blocks):
    """Of peak memory, beyond that of the same program with an image of one block."""
    return statistics.median(run["kilobytes"] - none["kilobytes"]
                             for run, none in zip(runs, empty)) * 1024 / (blocks * BLOCK)
