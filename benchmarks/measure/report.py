"""Collects the figures and writes them to benchmarks/RESULTS.md."""

import os
import re
import statistics

from programs import HERE

RESULTS = os.path.join(HERE, "RESULTS.md")

rows = []  # (group, what, figure, goal or "", held: True, False or None)


def row(group, what, figure, goal="", held=None):
    rows.append((group, what, figure, goal, held))


def at_most(group, what, value, limit, form="{:.2f}"):
    if limit is None:
        return row(group, what, form.format(value))
    row(group, what, form.format(value), "at most " + form.format(limit), value <= limit)


def at_least(group, what, value, limit, form="{:.2f}"):
    row(group, what, form.format(value), "at least " + form.format(limit), value >= limit)


def ratio_row(group, what, pairs, limit=None):
    """The median of the ratios of the pairs, with their range beside it."""
    ratios = sorted(a / b for a, b in pairs)
    median = statistics.median(ratios)
    row(group, what, f"{median:.3f} ({ratios[0]:.3f} to {ratios[-1]:.3f})",
        f"at most {limit:.2f}" if limit else "", median <= limit if limit else None)


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


def table():
    """The lines of the table of all rows."""
    lines = ["| | | figure | goal | |", "|---|---|---|---|---|"]
    previous = None
    for group, what, figure, goal, held in sorted(rows, key=lambda each: each[0]):
        verdict = {True: "held", False: "**missed**", None: ""}[held]
        lines.append(f"| {group if group != previous else ''} | {what} | {figure} | {goal} |"
                     f" {verdict} |")
        previous = group
    return lines


def sections():
    """The parts of RESULTS.md as it is, by title; the first one has none."""
    with open(RESULTS) as file:
        parts = re.split(r"^## (.*)\n", file.read(), flags=re.MULTILINE)
    return dict(zip(["", *parts[1::2]], [part.strip() for part in parts[::2]], strict=True))


def keep_other_rows(head):
    """Adds the rows of that text whose groups were not measured now."""
    measured = {each[0] for each in rows}
    group = ""
    for line in head.splitlines():
        cells = [cell.strip() for cell in line.split("|")[1:-1]]
        if len(cells) != 5 or not cells[1] or cells[1].startswith("-"):
            continue
        group = cells[0] or group
        if group not in measured:
            row(group, *cells[1:4], {"held": True, "**missed**": False}.get(cells[4]))


def write_results(machine_lines, protocol_lines, parts=()):
    """Writes RESULTS.md; returns the names of the rows that are missed without a reason. When only
    some parts were measured, all else stays as an earlier run left it."""
    head = ["# What it costs", "", "Written by `./bench`, on this machine:", "", *machine_lines, ""]
    if parts:
        old = sections()
        kept = re.sub(r"^- `measure .*\n?", "", old[""].split("\n\n| | |")[0], flags=re.MULTILINE)
        load = machine_lines[-1].rpartition(": ")[2]
        head = [kept.strip(), f"- `measure {' '.join(parts)}` was run later, by itself, at a load"
                f" average of {load}; all other rows are older", ""]
        keep_other_rows(old[""])
        protocol_lines = protocol_lines or [old.get("What the protocol takes", "")]
    known = reasons()
    missed = {what: reason(known, what, figure)
              for _, what, figure, _, held in rows if held is False}
    lines = [*head, *table(), ""]
    if missed:
        lines += ["## Why goals are missed", ""]
        for what, why in missed.items():
            lines += [f"**{what}**: {why or 'no reason is known yet.'}", ""]
    if protocol_lines:
        lines += ["## What the protocol takes", "", *protocol_lines, ""]
    lines += ["## Notes", "", known["Notes"], ""]
    with open(RESULTS, "w") as file:
        file.write("\n".join(lines))
    print("\n".join(table()))
    return [what for what, why in missed.items() if why is None]
