"""Whole updates on the emulated bus: against a bare loop of their requests, the requests of each
block, and the times of other latencies and busy polls."""

import collections
import itertools
import json
import os
import shutil
import statistics
import subprocess
import sys

from programs import BIN, BLOCK, HERE, SIMULATOR, in_pairs, program, say, work
from report import ratio_row, row

PAIRS = 5


def read_trace(path):
    with open(path) as lines:
        return [json.loads(line) for line in lines]


def span(trace):
    return trace[-1]["t"] - trace[0]["t"]


def block_time(trace):
    """The median over all tasks, from the end of the one before: what else the machine does delays
    some of them by far."""
    ends = [request["t"] for request in trace
            if request["wValue"] == 0x1F and request["bmRequestType"] >= 0x80]
    return statistics.median(after - before for before, after in itertools.pairwise(ends))


def commands(trace):
    """How often each command was sent."""
    return collections.Counter(bytes.fromhex(request["data"]).decode() for request in trace
                               if request["wValue"] == 0x1E and request["bmRequestType"] < 0x80)


def drive_update(*options):
    """The trace of one update by the program with its window."""
    path = os.path.join(work, "update.trace")
    subprocess.run([os.path.join(HERE, "drive_update.sh"), BIN, path, *options], check=True,
                   stdout=subprocess.DEVNULL)
    return read_trace(path)


def drive_bare_loop(latency, requests):
    """The trace of the same requests, those of that file, by the bare loop."""
    path = os.path.join(work, "bare.trace")
    subprocess.run([SIMULATOR, "--latency-ms", str(latency), "--trace", path, "--",
                    program("bare_loop"), requests],
                   check=True, stdout=subprocess.DEVNULL)
    return read_trace(path)


def against_the_floor():
    """Returns the trace of an update, and the seconds of one by the latency of a request."""
    group = "1. Against the floor"
    seconds = {}
    trace = drive_update()
    if commands(trace)["SFWd"] != 64 * 1024 / BLOCK:
        sys.exit("not the development image of 64 KiB")
    requests = os.path.join(work, "requests.trace")
    shutil.copy(os.path.join(work, "update.trace"), requests)
    sent = [request | {"t": 0} for request in trace]

    def checked(trace):
        if [request | {"t": 0} for request in trace] != sent:
            sys.exit("other requests than those recorded")
        return span(trace), block_time(trace)

    for latency, pairs in ((0, 2 * PAIRS + 1), (1, PAIRS)):
        say(f"Updating in pairs with the bare loop, {latency} ms per request")
        updates, floors = in_pairs(
            pairs, lambda: checked(drive_update("--latency-ms", str(latency))),
            lambda: checked(drive_bare_loop(latency, requests)))
        seconds[latency], bare = (statistics.median(whole for whole, _ in runs)
                                  for runs in (updates, floors))
        row(group, f"update of 64 KiB, {latency} ms per request", f"{seconds[latency]:.2f} s")
        row(group, f"bare loop, {latency} ms per request", f"{bare:.2f} s")
        ratio_row(group, f"block of an update over one of the bare loop, {latency} ms per request",
                  [(ours[1], theirs[1]) for ours, theirs in zip(updates, floors)], 1.03)
    return trace, seconds


def requests_per_block(trace):
    group = "3. Requests per block"
    tasks = collections.Counter()
    task, command = [0, 0, 0, 0], None
    for request in trace[1:]:  # the first one reads the version
        is_read = request["bmRequestType"] >= 0x80
        is_data = request["wValue"] == 0x1F
        task[(3 if is_data else 2) if is_read else (0 if is_data else 1)] += 1
        if not is_read and not is_data:
            command = bytes.fromhex(request["data"]).decode()
        if is_read and is_data:
            tasks[command, tuple(task)] += 1
            task = [0, 0, 0, 0]
    for kind, expected in (("new", (8, 1, 1, 1)), ("repeated", (1, 1, 1, 1))):
        seen = [counts for (name, counts) in tasks
                if name == "SFWd" and (counts[0] > 1) == (kind == "new")]
        row(group, f"{kind} block: data, command, poll, read",
            ", ".join("+".join(map(str, counts)) for counts in seen),
            "+".join(map(str, expected)), seen == [expected])


DELAYS = {"SFWi": 0.1, "SFWd": 0.1, "SFWs": 1.0}  # seconds before a busy device is asked again


def protocol(trace, seconds):
    """Lines of a table: times of the update, measured and by the formula."""
    say("Updating with slow requests and busy polls")
    tasks = commands(trace)
    # The bus counts a request's latency from its arrival on, so that some of its own work on it
    # goes by meanwhile: with none, all of it is seen.
    alone = 1000 * seconds[0] / len(trace)  # milliseconds
    beside = 1000 * seconds[1] / len(trace) - 1
    lines = ["| latency | busy polls per task | measured | by the formula | |",
             "|---|---|---|---|---|"]

    def compare(latency, busy, measured, note=""):
        each = max(alone, latency + beside) / 1000
        expected = len(trace) * each + sum(
            tasks[name] * polls * (DELAYS[name] + each) for name, polls in busy.items())
        shown = ", ".join(f"{name} {polls}" for name, polls in busy.items()) or "none"
        lines.append(f"| {latency} ms | {shown} | {measured:.1f} s | {expected:.1f} s |"
                     f" {note or f'{100 * (expected / measured - 1):+.1f} %'} |")

    compare(0, {}, seconds[0], "taken from here")
    compare(1, {}, seconds[1], "taken from here")
    for latency, busy in ((2, {}), (4, {}), (0, {"SFWi": 1, "SFWs": 1}), (2, {"SFWs": 2}),
                          (1, {"SFWd": 1})):
        options = [word for name, polls in busy.items() for word in ("--busy", f"{name}={polls}")]
        compare(latency, busy, span(drive_update("--latency-ms", str(latency), *options)))
    return lines + [
        "",
        f"The formula: {len(trace)} requests, each of the latency and {beside:.2f} ms of the"
        f" emulated bus, but at least {alone:.2f} ms;",
        "and for each busy poll its delay (0.1 s after a poll of SFWi or SFWd, 1 s after one of"
        " SFWs) and one request more.",
    ]
