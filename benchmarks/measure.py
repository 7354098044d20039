#!/usr/bin/env python3
"""Measures the updater in build/release and writes the results to benchmarks/RESULTS.md.

Whole processes are compared in turn and in pairs, at least five of them, every other pair the
other way round, and of their ratios the median counts. Exits with 1 when a goal is missed that
benchmarks/reasons.md gives no reason for.
"""

import collections
import glob
import json
import math
import os
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
BUILD = os.path.join(ROOT, "build/release")
BIN = os.path.join(BUILD, "bin")
UPDATER = os.path.join(BIN, "qm5-updater")
SIMULATOR = os.path.join(BIN, "qm5-simulator")

PAIRS = 5
SHORT_PAIRS = 15  # of runs that take less than a second
STARTS = 31
BLOCK = 64
FRAME = 0.016  # seconds, of a usual screen
QUIET = 0.5  # load average

work = tempfile.mkdtemp()
rows = []  # (group, what, figure, goal or "", held: True, False or None)


def say(text):
    print("==", text, flush=True)


def row(group, what, figure, goal="", held=None):
    rows.append((group, what, figure, goal, held))


def at_most(group, what, value, limit, form="{:.2f}"):
    row(group, what, form.format(value), "at most " + form.format(limit), value <= limit)


def at_least(group, what, value, limit, form="{:.2f}"):
    row(group, what, form.format(value), "at least " + form.format(limit), value >= limit)


def ratio_row(group, what, pairs, limit=None):
    """Of the pairs; what they range over stands beside their median."""
    ratios = sorted(a / b for a, b in pairs)
    median = statistics.median(ratios)
    row(group, what, f"{median:.3f} ({ratios[0]:.3f} to {ratios[-1]:.3f})",
        f"at most {limit:.2f}" if limit else "", median <= limit if limit else None)


def in_pairs(count, first, second):
    """What both give, in turn, every other pair the other way round."""
    results = [], []
    for i in range(count):
        for which in (0, 1) if i % 2 == 0 else (1, 0):
            results[which].append((first, second)[which]())
    return results


def wait_until_quiet():
    """Building leaves a load behind. On a machine that stays busy, the figures are as they are."""
    say("Waiting until the machine is quiet")
    end = time.monotonic() + 300
    while os.getloadavg()[0] > QUIET and time.monotonic() < end:
        time.sleep(2)
    return os.getloadavg()[0]


def program(name):
    return os.path.join(BUILD, "benchmarks", name)


def output(*command, **options):
    return subprocess.run(command, check=True, text=True, stdout=subprocess.PIPE, **options).stdout


def json_line(*command):
    """The one line of JSON that a benchmark writes on standard error."""
    done = subprocess.run(command, check=True, text=True, stdout=subprocess.DEVNULL,
                          stderr=subprocess.PIPE)
    return json.loads(done.stderr.splitlines()[-1])


def on_screen(*command):
    return (os.path.join(HERE, "on_screen.sh"),) + command


# --- against the floor ---


def read_trace(path):
    with open(path) as lines:
        return [json.loads(line) for line in lines]


def span(trace):
    return trace[-1]["t"] - trace[0]["t"]


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

    def timed(trace):
        if [request | {"t": 0} for request in trace] != sent:
            sys.exit("other requests than those recorded")
        return span(trace)

    for latency, pairs in ((0, 2 * PAIRS + 1), (1, PAIRS)):
        say(f"Updating in pairs with the bare loop, {latency} ms a request")
        updates, floors = in_pairs(
            pairs, lambda: timed(drive_update("--latency-ms", str(latency))),
            lambda: timed(drive_bare_loop(latency, requests)))
        seconds[latency] = statistics.median(updates)
        row(group, f"update of 64 KiB, {latency} ms a request", f"{seconds[latency]:.2f} s")
        row(group, f"bare loop, {latency} ms a request", f"{statistics.median(floors):.2f} s")
        ratio_row(group, f"update over bare loop, {latency} ms a request", zip(updates, floors), 1.03)
    return trace, seconds


# --- requests a block ---


def requests_a_block(trace):
    group = "3. Requests a block"
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


# --- the host's own cost ---


def instructions(*command, under=()):
    """Of the command's first thread, to its end."""
    profile = os.path.join(work, "profile")
    subprocess.run([*under, "valgrind", "--tool=callgrind", "--separate-threads=yes",
                    "--callgrind-out-file=" + profile, *command], cwd=BUILD,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    with open(profile + "-01") as lines:
        count = int(re.search(r"^summary: (\d+)", lines.read(), re.MULTILINE).group(1))
    os.remove(profile + "-01")  # or the next one that fails would seem to be as large
    return count


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


# --- growth ---


def growth():
    say("Updating from images of 64 KiB, 1 MiB and 16 MiB")
    group = "4. Growth"
    sizes = {"64 KiB": 1024, "1 MiB": 16 * 1024, "16 MiB": 256 * 1024}
    runs = {size: [] for size in (*sizes, "empty")}
    for i in range(SHORT_PAIRS):
        for size in list(runs)[:: -1 if i % 2 else 1]:
            blocks = sizes.get(size, 1)
            rounds = min(max(sizes.values()) // blocks, 4096)
            runs[size].append(json_line(program("host_update"), str(blocks), str(rounds)))
    # An update begins and ends with tasks of its own, whatever the size of the image.
    times = {size: [(run["ns"] * blocks - none["ns"]) / (blocks - 1)
                    for run, none in zip(runs[size], runs["empty"])]
             for size, blocks in sizes.items()}
    row(group, "an update of one block",
        f"{statistics.median(run['ns'] for run in runs['empty']):.0f} ns")
    for size in sizes:
        row(group, f"a block of {size}", f"{statistics.median(times[size]):.0f} ns")
    ratio = {size: statistics.median(a / b for a, b in zip(times[size], times["64 KiB"]))
             for size in sizes}
    at_most(group, "the slowest of these against the fastest",
            100 * (max(ratio.values()) / min(ratio.values()) - 1), 5, "{:.1f} %")
    for size, blocks in sizes.items():
        at_most(group, f"peak memory for a byte of {size}",
                bytes_a_byte(runs[size], runs["empty"], blocks), 3)


def bytes_a_byte(runs, empty, blocks):
    """Of peak memory, beyond that of the same program with an image of one block."""
    return statistics.median(run["kilobytes"] - none["kilobytes"]
                             for run, none in zip(runs, empty)) * 1024 / (blocks * BLOCK)


# --- start ---


def starts(programs, rounds):
    """Milliseconds, kilobytes and libraries of each start, or None where no window came. All in turn
    on one screen, every other round the other way round."""
    turns = [list(programs)[:: -1 if i % 2 else 1] for i in range(rounds)]
    # Relative names, as the words of a command are split at spaces.
    loop = 'for c in "${@:2}"; do "$1" $c 2>/dev/null || echo -; done'
    lines = output(*on_screen("bash", "-c", loop, "starts", program("first_window"),
                              *(programs[name] for turn in turns for name in turn)),
                   cwd=BUILD, env=os.environ | {"HOME": work}).splitlines()
    found = {name: [] for name in programs}
    for name, line in zip((name for turn in turns for name in turn), lines, strict=True):
        found[name].append([float(word) for word in line.split()] if line != "-" else None)
    return found


def start():
    group = "5. Start"
    say("Starting the program, its floors and the peers in turn")
    # Without a window manager, qFlipper makes its window one pixel wide and paints nothing that
    # is seen. Mapping it comes before: what is measured of it is too little, not too much.
    programs = {"empty window": "benchmarks/empty_window",
                "window with one word": "benchmarks/empty_window Next",
                "main window with nothing behind it": "benchmarks/layout_window",
                "main window": "bin/qm5-updater",
                "qFlipper": "--mapped qFlipper", "gnome-firmware": "gnome-firmware"}
    found = starts(programs, STARTS)
    at_most(group, "starts without a window",
            sum(run is None for runs in found.values() for run in runs), 0, "{:.0f}")
    for name, command in programs.items():
        times, memory, libraries = ([run[i] for run in found[name] if run] or [math.nan]
                                    for i in range(3))
        row(group, f"{name}: {'mapped' if '--mapped' in command else 'painted'} after",
            f"{statistics.median(times):.0f} ms")
        row(group, f"{name}: peak memory by then", f"{statistics.median(memory) / 1024:.1f} MiB")
        row(group, f"{name}: shared libraries loaded by then", f"{statistics.median(libraries):.0f}")
        if command.startswith(("benchmarks/", "bin/")):
            count = instructions(*command.split(), under=on_screen("timeout", "10"))
            row(group, f"{name}: instructions of its main thread", f"{count / 1e6:.0f} million")
    for i, what, limits in ((0, "time", {"empty window": 1.5}), (1, "memory", {"empty window": 1.3})):
        for name in programs:
            pairs = [(ours[i], theirs[i]) for ours, theirs in zip(found["main window"], found[name])
                     if ours and theirs]
            is_peer = name in ("qFlipper", "gnome-firmware")
            limit = 0.4 if is_peer else limits.get(name)
            if pairs and name != "main window":
                ratio_row(group, f"{what} against {'' if is_peer else 'the '}{name}", pairs, limit)


# --- smoothness ---


def smoothness():
    say("Updating with windows from 16 MiB, as fast as progress can come")
    group = "6. Smoothness"
    blocks = 256 * 1024
    runs, empty = in_pairs(PAIRS, lambda: json_line(*on_screen(program("whole_program"), str(blocks))),
                           lambda: json_line(*on_screen(program("whole_program"), "1")))
    median = lambda key: statistics.median(run[key] for run in runs)
    row(group, "steps a second", f"{blocks / median('seconds'):.0f}")
    at_most(group, "gap between two turns of the event loop, 99.9th percentile", median("p999"), 16,
            "{:.1f} ms")
    row(group, "longest gap", f"{max(run['longest'] for run in runs):.1f} ms")
    for what in ("title", "bar"):
        frames = [run[what + "_paints"] / (run["seconds"] / FRAME + 1) for run in runs]
        at_most(group, f"paints of the {what} a frame", max(frames), 1)
        # Qt may be late with one, and the next seems early; two in one frame are as good as at once.
        at_least(group, f"shortest time between two paints of the {what}",
                 min(run[what + "_shortest"] for run in runs), 1000 * FRAME / 2, "{:.1f} ms")
    at_most("4. Growth", "peak memory for a byte of 16 MiB, the whole program",
            bytes_a_byte(runs, empty, blocks), 3)


# --- size ---


def size():
    group = "7. Size"
    stripped = os.path.join(work, "stripped")
    subprocess.run(["strip", "-o", stripped, UPDATER], check=True)
    row(group, "stripped program", f"{os.path.getsize(stripped) / 1024:.0f} KiB")
    [package] = glob.glob(os.path.join(ROOT, "build/package/*.deb"))
    row(group, os.path.basename(package), f"{os.path.getsize(package) / 1024:.0f} KiB")
    needed = re.findall(r"\(NEEDED\).*\[(.*)\]", output("readelf", "-d", UPDATER))
    row(group, "shared libraries that it names", f"{len(needed)}: " + ", ".join(needed))
    unused = output("sh", "-c", 'ldd -u "$1" || true', "sh", UPDATER).split()[3:]
    row(group, "of these, not used", ", ".join(unused) or "none", "none", not unused)
    row(group, "shared libraries linked in all, theirs too",
        str(len([line for line in output("ldd", UPDATER).splitlines() if "/" in line])))


# --- what the protocol takes ---

DELAYS = {"SFWi": 0.1, "SFWd": 0.1, "SFWs": 1.0}  # seconds before a busy device is asked again


def protocol(trace, seconds):
    """Lines of a table: times of the update, measured and by the formula."""
    say("Updating with slow requests and busy polls")
    tasks = commands(trace)
    # The bus counts a request's latency from its arrival on, so that some of its own work on it
    # goes by meanwhile: with none, all of it is seen.
    alone = 1000 * seconds[0] / len(trace)  # milliseconds
    beside = 1000 * seconds[1] / len(trace) - 1
    lines = ["| latency | busy polls a task | measured | by the formula | |", "|---|---|---|---|---|"]

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
        f"The formula: {len(trace)} requests, each of the latency and {beside:.2f} ms of the emulated bus,"
        f" but at least {alone:.2f} ms;",
        "and for each busy poll its delay (0.1 s after a poll of SFWi or SFWd, 1 s after one of SFWs)"
        " and one request more.",
    ]


# --- the report ---


def machine():
    def field(path, name):
        with open(path) as lines:
            return next((line.split(sep, 1)[1].strip().strip('"') for line in lines
                         for sep in (":", "=") if line.startswith(name) and sep in line), "?")

    version = lambda package: output("dpkg-query", "-W", "-f", "${Version}", package)
    memory = int(field("/proc/meminfo", "MemTotal").split()[0]) / 1024 / 1024
    return [
        f"- {os.cpu_count()} cores of {field('/proc/cpuinfo', 'model name')}, {memory:.0f} GiB,"
        f" {field('/etc/os-release', 'PRETTY_NAME')}",
        f"- Qt {version('libqt6core6')}, libusb {version('libusb-1.0-0')}",
        f"- load average when it began: {load:.2f}{' (busy)' if load > QUIET else ''}",
    ]


def reasons():
    """What benchmarks/reasons.md says, by the name of the row; a reason for a miss has a limit."""
    with open(os.path.join(HERE, "reasons.md")) as file:
        parts = re.split(r"^## (.*)\n", file.read(), flags=re.MULTILINE)
    return {name.strip(): text.strip() for name, text in zip(parts[1::2], parts[2::2])}


def reason(known, what, figure):
    """Why that row missed its goal; None when nothing is known that explains as much."""
    for name, text in known.items():
        row_name, _, limit = name.partition(", up to ")
        if row_name == what and limit and float(figure.split()[0]) <= float(limit):
            return text
    return None


def report(protocol_lines):
    """Writes RESULTS.md; returns the names of the rows that are missed without a reason."""
    table = ["| | | figure | goal | |", "|---|---|---|---|---|"]
    previous = None
    for group, what, figure, goal, held in sorted(rows, key=lambda each: each[0]):
        verdict = {True: "held", False: "**missed**", None: ""}[held]
        table.append(f"| {group if group != previous else ''} | {what} | {figure} | {goal} | {verdict} |")
        previous = group
    known = reasons()
    missed = {what: reason(known, what, figure)
              for _, what, figure, _, held in rows if held is False}
    lines = ["# What it costs", "", "Written by `./bench`, on this machine:", "", *on_this_machine, "",
             *table, ""]
    if missed:
        lines += ["## Why goals are missed", ""]
        for what, why in missed.items():
            lines += [f"**{what}**: {why or 'no reason is known yet.'}", ""]
    lines += ["## What the protocol takes", "", *protocol_lines, ""]
    lines += ["## Notes", "", known["Notes"], ""]
    with open(os.path.join(HERE, "RESULTS.md"), "w") as file:
        file.write("\n".join(lines))
    print("\n".join(table))
    return [what for what, why in missed.items() if why is None]


try:
    load = wait_until_quiet()
    on_this_machine = machine()
    trace, seconds = against_the_floor()
    host_cost()
    requests_a_block(trace)
    growth()
    start()
    smoothness()
    size()
    unexplained = report(protocol(trace, seconds))
finally:
    shutil.rmtree(work)
if unexplained:
    sys.exit("missed without a reason in benchmarks/reasons.md: " + "; ".join(unexplained))
