#!/usr/bin/env python3
"""Turns the results of kelto_bench into docs/performance.md and its plots.

report.py RESULT.json NOTES.md OUTPUT-DIRECTORY
report.py --compare BASE.json... --with OTHER.json...
"""

import json
import math
import os
import statistics
import sys

OURS = "kelto_util"
PERCENTILES = {"percentile_50": "median", "percentile_90": "90th percentile",
               "percentile_99": "99th percentile", "percentile_99.9": "99.9th percentile"}
NOT_PEERS = ("floor:", "limit:", "variant:")

# Our time over that of the best peer; at most.
TARGETS = {
    ("events", "post to run, 1 poster, one core"): 1.0,
    ("events", "post to run, 4 posters, one core"): 1.0,
    ("events", "post to itself"): 2.0,
    ("events", "post to run, 1 poster, two cores"): 1.0,
    ("events", "synchronous send, one core"): 1.0,
    ("events", "post beside a busy thread, 90th percentile"): 1.5,
    ("events", "posted callable, 1 poster, one core"): 1.0,
    ("events", "call with a value, one core"): 1.0,
    ("timers", "schedule + cancel, 10 pending (list)"): 1.0,
    ("timers", "schedule + cancel, 100 pending (list)"): 3.0,
    ("timers", "schedule + cancel, 10k pending (calendar)"): 1.5,
    ("timers", "fire a due timer"): 1.0,
    ("message blocks", "chain of 3 x 400 B: build, write, duplicate, read, free"): 0.7,
    ("message blocks", "flatten 3 x 400 B"): 1.0,
    ("message blocks", "duplicate 3 x 400 B, split in half"): 0.7,
    ("reference count", "count up + down"): 1.0,
    ("CRC-16", "64 B"): 1 / 10,
    ("CRC-16", "1200 B"): 1 / 40,
    ("CRC-16", "64 KiB"): 1 / 50,
    ("base64", "encode 32 B"): 1 / 1.2,
    ("base64", "encode 1 KiB"): 1 / 3,
    ("base64", "encode 1 MiB"): 1 / 3,
    ("base64", "decode 32 B"): 1 / 1.2,
    ("base64", "decode 1 KiB"): 1 / 3,
    ("base64", "decode 1 MiB"): 1 / 3,
    ("URL escape", "64 B"): 0.35,
    ("tracing", "compose one line"): 0.9,
    ("tracing", "deliver one line"): 2.0,
    ("tracing", "filter one line out"): 1.5,
    ("configuration", "one key, file opened afresh, 60 lines"): 0.25,
    ("URL", "parse one URL"): 0.8,
}


class Row:
    """All repetitions of one row, in nanoseconds per piece of work."""

    def __init__(self):
        self.times = []
        self.bytes_per_item = 0

    def add(self, time, run):
        self.times.append(time)
        if "bytes_per_second" in run:
            self.bytes_per_item = run["bytes_per_second"] / run["items_per_second"]

    @property
    def median(self):
        return statistics.median(self.times)

    @property
    def spread(self):
        """Half the distance of the quartiles, as a part of the median."""
        if len(self.times) < 3:
            return 0
        low, _, high = statistics.quantiles(self.times, n=4)
        return (high - low) / 2 / self.median

    def text(self):
        if self.bytes_per_item:
            return f"{self.bytes_per_item / self.median:.2f} GB/s"
        if self.median >= 1000:
            return f"{self.median / 1000:.2f} us"
        return f"{self.median:.1f} ns"


def times(work, run):
    """(work, nanoseconds) of each line that a run is for."""
    if "items_per_second" in run:
        yield work, 1e9 / run["items_per_second"]
    elif "nanoseconds" in run:
        yield work, run["nanoseconds"]
    for key, name in PERCENTILES.items():
        if key in run:
            yield f"{work}, {name}", run[key]


def read(paths):
    """{area: {work: {who: Row}}}, in the order of the program."""
    areas = {}
    for path in paths:
        with open(path, encoding="utf-8") as file:
            runs = json.load(file)["benchmarks"]
        runs = [run for run in runs if run["run_type"] == "iteration"]
        runs.sort(key=lambda run: (run["family_index"], run["per_family_instance_index"]))
        for run in runs:
            area, work, who = run["run_name"].split(";")
            for suffix in ("/process_time", "/real_time", "/manual_time", "/iterations:1"):
                who = who.removesuffix(suffix)
            for line, time in times(work, run):
                row_set = areas.setdefault(area, {}).setdefault(line, {})
                row_set.setdefault(who, Row()).add(time, run)
    return areas


def split_peers(row_set):
    peers = {who: row for who, row in row_set.items()
             if who != OURS and not who.startswith(NOT_PEERS)}
    others = {who: row for who, row in row_set.items() if who.startswith(NOT_PEERS)}
    return peers, others


def ratio_text(value):
    return f"{value:.3f}" if value < 0.1 else f"{value:.2f}"


def table(area, works):
    """The lines of one area's table, and how many targets it has and misses."""
    lines = [f"## {area}", "",
             "| Work | ours | +- | best peer | its time | +- | ours / best | at most | |",
             "|---|---:|---:|---|---:|---:|---:|---:|---|"]
    notes = []
    targets = misses = 0
    for work, row_set in works.items():
        if OURS not in row_set:
            continue
        ours = row_set[OURS]
        cells = [work, ours.text(), f"{ours.spread:.0%}"]
        peers, others = split_peers(row_set)
        if peers:
            best = min(peers, key=lambda who: peers[who].median)
            ratio = ours.median / peers[best].median
            target = TARGETS.get((area, work))
            cells += [best, peers[best].text(), f"{peers[best].spread:.0%}", ratio_text(ratio)]
            if target is None:
                cells += ["", ""]
            else:
                targets += 1
                misses += ratio > target
                cells += [ratio_text(target), "**missed**" if ratio > target else "met"]
        else:
            cells += [""] * 6
        lines.append("| " + " | ".join(cells) + " |")
        rest = [f"{who} {row.text()}" for who, row in
                sorted({**peers, **others}.items(), key=lambda item: item[1].median)]
        if rest:
            notes.append(f"- {work}: " + ", ".join(rest) + ".")
    return lines + ["", "All of them:", ""] + notes + [""], targets, misses


def nice(value):
    if value >= 1e6:
        return f"{value / 1e6:g} ms"
    return f"{value / 1e3:g} us" if value >= 1e3 else f"{value:g} ns"


def plot(title, works):
    """Time over size, both logarithmic, as SVG text."""
    width, height, left, right, top, bottom = 640, 360, 70, 170, 40, 50
    series = {}
    for size, row_set in works.items():
        for who, row in row_set.items():
            series.setdefault(who, []).append((float(size), row.median))
    xs = [x for points in series.values() for x, _ in points]
    ys = [y for points in series.values() for _, y in points]
    x0, x1 = math.log10(min(xs)), math.log10(max(xs))
    y0, y1 = math.floor(math.log10(min(ys))), math.ceil(math.log10(max(ys)))

    def px(x):
        return left + (math.log10(x) - x0) / (x1 - x0) * (width - left - right)

    def py(y):
        return height - bottom - (math.log10(y) - y0) / max(y1 - y0, 1) * (height - top - bottom)

    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
           'font-family="sans-serif" font-size="12">',
           f'<rect width="{width}" height="{height}" fill="white"/>',
           f'<text x="{left}" y="22" font-size="14">{title}</text>']
    for power in range(y0, y1 + 1):
        y = py(10.0 ** power)
        out.append(f'<line x1="{left}" x2="{width - right}" y1="{y:.1f}" y2="{y:.1f}" '
                   'stroke="#ddd"/>')
        out.append(f'<text x="{left - 6}" y="{y + 4:.1f}" text-anchor="end">'
                   f'{nice(10.0 ** power)}</text>')
    for x in sorted(set(xs)):
        out.append(f'<text x="{px(x):.1f}" y="{height - bottom + 18}" text-anchor="middle">'
                   f'{x:g}</text>')
    colours = ["#c33", "#36c", "#393", "#a6a", "#b80", "#088", "#666"]
    labels = []
    for index, (who, points) in enumerate(sorted(series.items(), key=lambda s: -s[1][-1][1])):
        colour = colours[index % len(colours)]
        path = " ".join(f"{px(x):.1f},{py(y):.1f}" for x, y in sorted(points))
        out.append(f'<polyline points="{path}" fill="none" stroke="{colour}" '
                   f'stroke-width="{2.5 if who.startswith(OURS) else 1.5}"/>')
        last = sorted(points)[-1]
        place = max(py(last[1]) + 4, labels[-1] + 14 if labels else 0)
        labels.append(place)
        out.append(f'<text x="{width - right + 8}" y="{place:.1f}" fill="{colour}">{who}</text>')
    return "\n".join(out + ["</svg>", ""])


def machine(context_path):
    with open(context_path, encoding="utf-8") as file:
        context = json.load(file)["context"]
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        names = [line.split(":", 1)[1].strip() for line in file if line.startswith("model name")]
    load = ", ".join(f"{value:.1f}" for value in context["load_avg"])
    return (f"{names[0] if names else 'unknown processor'}, {context['num_cpus']} cores, "
            f"{os.uname().sysname} {os.uname().release}; load when it started: {load}; "
            f"{context['date'][:10]}")


def report(result, notes, directory):
    areas = read([result])
    repetitions = max(len(row.times) for works in areas.values() for rows in works.values()
                      for row in rows.values())
    body = []
    targets = misses = 0
    for area, works in areas.items():
        if not area.startswith("growth: "):
            lines, area_targets, area_misses = table(area, works)
            body += lines
            targets += area_targets
            misses += area_misses
    head = ["# Performance", "",
            "Written by `bench/run`, which builds and runs the benchmarks; do not edit it.", "",
            f"- Machine: {machine(result)}.",
            f"- Medians of {repetitions} repetitions, run in random order; +- is half the distance "
            "of the quartiles.",
            "- Times are processor time; on two cores and beside a busy thread, elapsed time. All "
            "rows of one line ran in the same program.",
            f"- Targets: {targets - misses} of {targets} met.",
            ""]
    with open(notes, encoding="utf-8") as file:
        body += file.read().splitlines() + [""]
    body += ["## How the cost grows", ""]
    os.makedirs(os.path.join(directory, "performance"), exist_ok=True)
    for area, works in areas.items():
        if area.startswith("growth: "):
            title = area.removeprefix("growth: ")
            name = "".join(c if c.isalnum() else "-" for c in title.replace(",", "")) + ".svg"
            with open(os.path.join(directory, "performance", name), "w", encoding="utf-8") as file:
                file.write(plot(title, works))
            body += [f"![{title}](performance/{name})", ""]
    with open(os.path.join(directory, "performance.md"), "w", encoding="utf-8") as file:
        file.write("\n".join(head + body).rstrip() + "\n")


def compare(base_paths, other_paths):
    base, other = read(base_paths), read(other_paths)
    print(f"{'base':>12} {'other':>12} {'ratio':>7}  row")
    compared = slower = 0
    for area, works in base.items():
        for work, row_set in works.items():
            for who, row in row_set.items():
                new = other.get(area, {}).get(work, {}).get(who)
                if new is not None:
                    ratio = min(new.times) / min(row.times)
                    noise = max(0.05, 2 * max(row.spread, new.spread))
                    is_slower = ratio > 1 + noise
                    compared += 1
                    slower += is_slower
                    print(f"{min(row.times):10.1f}ns {min(new.times):10.1f}ns {ratio:7.2f}  "
                          f"{area}: {work}: {who}{'  <- slower' if is_slower else ''}")
    print(f"{slower} of {compared} rows slower by more than the noise")


def main(arguments):
    if arguments and arguments[0] == "--compare" and "--with" in arguments:
        split = arguments.index("--with")
        compare(arguments[1:split], arguments[split + 1:])
    elif len(arguments) == 3:
        report(*arguments)
    else:
        sys.exit(__doc__)


main(sys.argv[1:])
