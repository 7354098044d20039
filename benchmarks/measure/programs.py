"""Runs the programs that are measured: paths, processes, pairs."""

import json
import os
import re
import subprocess
import tempfile

HERE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
ROOT = os.path.dirname(HERE)
BUILD = os.path.join(ROOT, "build/release")
BIN = os.path.join(BUILD, "bin")
UPDATER = os.path.join(BIN, "qm5-updater")
SIMULATOR = os.path.join(BIN, "qm5-simulator")
BLOCK = 64  # bytes

work = tempfile.mkdtemp()


def say(text):
    print("==", text, flush=True)


def in_pairs(count, first, second):
    """The results of both, called in turn, every other pair the other way round."""
    results = [], []
    for i in range(count):
        for which in (0, 1) if i % 2 == 0 else (1, 0):
            results[which].append((first, second)[which]())
    return results


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


def real_time(*options):
    """Words before a command that let no other process delay it, where that is permitted."""
    words = ("chrt", *options, "-f", "50")
    try:
        permitted = subprocess.run([*words, "true"], stderr=subprocess.DEVNULL).returncode == 0
    except FileNotFoundError:
        permitted = False
    return words if permitted else ()


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
