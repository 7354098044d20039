"""The program with its windows: its start, its smoothness, and what its windows cost the update."""

import math
import os
import statistics

from host_cost import bytes_per_byte
from programs import (BUILD, in_pairs, instructions, json_line, on_screen, output, program,
                      real_time, say, work)
from report import at_least, at_most, ratio_row, row

PAIRS = 5
LATENCY_PAIRS = 15
STARTS = 31
FRAME = 0.016  # seconds, of a usual screen
# By microseconds per request: some four seconds of update each, as the bar is painted up to 28
# times per second and is to show each whole percent. Without a latency it is over sooner.
BLOCKS = {0: 512 * 1024, 50: 6144, 150: 2304, 300: 1152, 1000: 352}
SLOW = 1000  # the boundary has no goal there: 10 us are less than a thousandth of a block


def block_boundaries():
    """Updates behind a device that takes a given time per request, each paired with a bare loop of
    the same requests on the same thread."""
    group = "1a. Beside the windows"
    row(group, "load average", f"{os.getloadavg()[0]:.1f}")
    for latency, blocks in BLOCKS.items():
        say(f"Updating with windows, {latency} us per request")
        runs = [json_line(*real_time(), "env", "QT_QPA_PLATFORM=offscreen",
                          program("paced_update"), str(blocks), str(latency))
                for _ in range(LATENCY_PAIRS)]
        median = {key: statistics.median(run[key] for run in runs) for key in runs[0]}
        # What else the machine does takes the caches: that of the run that it disturbed least.
        at_most(group, f"between two blocks, {latency} us per request",
                min(run["boundary"] for run in runs),
                10 if latency < SLOW else None, "{:.1f} us")
        row(group, f"between two writes of a block, {latency} us per request",
            f"{median['within']:.1f} us")
        at_most(group, f"wake-ups of the main thread per second, {latency} us per request",
                median["wakeups"], 60, "{:.0f}")
        row(group, f"whole percents that the bar was painted at, {latency} us per request",
            f"{median['percents']:.0f} in {median['seconds']:.2f} s")
        ratio_row(group, f"update over bare loop on one thread, {latency} us per request",
                  [(run["ratio"], 1) for run in runs], 1.03 if latency else None)


def starts(programs, rounds):
    """Milliseconds, kilobytes and libraries of each start, or None where no window came. All in
    turn on one screen, every other round the other way round."""
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
        row(group, f"{name}: shared libraries loaded by then",
            f"{statistics.median(libraries):.0f}")
        if command.startswith(("benchmarks/", "bin/")):
            count = instructions(*command.split(), under=on_screen("timeout", "10"))
            row(group, f"{name}: instructions of its main thread", f"{count / 1e6:.0f} million")
    for i, what, floor_limit in ((0, "time", 1.5), (1, "memory", 1.3)):
        for name in programs:
            pairs = [(ours[i], theirs[i]) for ours, theirs in zip(found["main window"], found[name])
                     if ours and theirs]
            is_peer = name in ("qFlipper", "gnome-firmware")
            limits = {"empty window": floor_limit, "qFlipper": 0.4, "gnome-firmware": 0.4}
            if pairs and name != "main window":
                ratio_row(group, f"{what} against {'' if is_peer else 'the '}{name}", pairs,
                          limits.get(name))


def smoothness():
    say("Updating with windows from 16 MiB, as fast as progress can come")
    group = "6. Smoothness"
    blocks = 256 * 1024

    def update(size):
        # The main thread alone: two threads that never sleep are more than the kernel lets have
        # real-time priority.
        return json_line(*on_screen(*real_time("-R"), program("whole_program"), str(size)))

    runs, empty = in_pairs(PAIRS, lambda: update(blocks), lambda: update(1))
    median = {key: statistics.median(run[key] for run in runs) for key in runs[0]}
    row(group, "steps per second", f"{blocks / median['seconds']:.0f}")
    at_most(group, "gap between two turns of the event loop, 99.9th percentile", median["p999"],
            16, "{:.1f} ms")
    row(group, "longest gap", f"{max(run['longest'] for run in runs):.1f} ms")
    for what in ("title", "bar"):
        frames = [run[what + "_paints"] / (run["seconds"] / FRAME + 1) for run in runs]
        at_most(group, f"paints of the {what} per frame", max(frames), 1)
        at_least(group, f"shortest time from one paint of the {what} to the next but one",
                 min(run[what + "_shortest"] for run in runs), 1000 * FRAME, "{:.1f} ms")
    at_most("4. Growth", "peak memory per byte of 16 MiB, the whole program",
            bytes_per_byte(runs, empty, blocks), 3)
