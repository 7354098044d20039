"""qm5-update: sixteen QM5s at once against one alone, and its start against that of the windows."""

import glob
import json
import os
import re
import statistics
import subprocess
import sys
import time

from emulated_bus import drive_update, read_trace
from programs import (BIN, BUILD, ROOT, SIMULATOR, in_pairs, output, program, real_time, say,
                      work)
from report import at_most, ratio_row, row

PAIRS = 5
COUNT = 16
COMMAND = os.path.join(BIN, "qm5-update")
SMALL_IMAGE = os.path.join(ROOT, "tests/fuzz/corpus/image/small.bin")


def behind_the_port(count):
    """Seconds, and seconds of processor time a process, of so many processes at once. Each has a
    QM5 of its own, which takes 0.3 ms for a request."""
    image, = glob.glob(os.path.join(BUILD, "share/qm5-updater/*.bin"))
    begin = time.monotonic()
    running = [subprocess.Popen([*real_time(), program("paced_command"), image, "300"],
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
               for _ in range(count)]
    used = 0
    for process in running:
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
        if process.returncode:
            sys.exit("an update behind the port has failed")
        used += usage.ru_utime + usage.ru_stime
    return time.monotonic() - begin, used / count


def on_emulated_bus(count):
    """The same of qm5-update --all with so many QM5s of 30 ms a request on one emulated bus; the
    parent's processor time is shared out too."""
    timed = 'TIMEFORMAT="[%R, %U, %S]"; time "$@" >/dev/null 2>&1'
    done = subprocess.run([SIMULATOR, "--devices", str(count), "--latency-ms", "30", "--image",
                           SMALL_IMAGE, "--", "bash", "-c", timed, "timed", COMMAND, "--all",
                           "--wait", "--image", SMALL_IMAGE, "--target", "4208"],
                          check=True, text=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    seconds, user, system = json.loads(done.stderr.splitlines()[-1])
    return seconds, (user + system) / count


def compare(group, where, measure, wall_limit=None, processor_limit=None):
    say(f"Updating {COUNT} QM5s at once, {where}")
    many, one = in_pairs(PAIRS, lambda: measure(COUNT), lambda: measure(1))
    for i, what, limit in ((0, "wall time", wall_limit),
                           (1, "processor time a QM5", processor_limit)):
        row(group, f"one QM5, {where}: {what}", f"{statistics.median(run[i] for run in one):.2f} s")
        # Of both sides, the run that was disturbed least.
        at_most(group, f"{COUNT} QM5s over one, {where}: {what}",
                min(run[i] for run in many) / min(run[i] for run in one), limit, "{:.3f}")


def without_windows():
    group = "8. Without a screen"
    compare(group, "0.3 ms a request, behind the port", behind_the_port, 1.1, 1.2)
    compare(group, "30 ms a request, emulated bus", on_emulated_bus)
    first_requests(group)


def first_requests(group):
    """From the simulator's start on. Both programs wait a second before the first request; a script
    presses Next once the window is there."""
    say("Starting qm5-update and the program with its windows")
    path = os.path.join(work, "start.trace")

    def start_command():
        subprocess.run([SIMULATOR, "--trace", path, "--", COMMAND, "--check"], check=False,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        return read_trace(path)[0]["t"]

    command, windows = in_pairs(PAIRS, start_command, lambda: drive_update()[0]["t"])
    row(group, "first request of qm5-update after", f"{statistics.median(command):.2f} s")
    row(group, "first request of the program with its windows after",
        f"{statistics.median(windows):.2f} s")
    ratio_row(group, "first request of qm5-update over that of the windows",
              zip(command, windows))
    libraries = output("ldd", COMMAND).splitlines()
    row(group, "libraries of qm5-update", f"{len(libraries)}")
    graphical = [each for each in libraries if re.search("Gui|Widgets|xcb|wayland|X11|GL", each)]
    at_most(group, "graphical ones among them", len(graphical), 0, "{:.0f}")
