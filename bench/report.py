#!/usr/bin/env python3
"""Turns the results of kelto_bench into docs/performance.md and its pictures.

report.py RESULT.json NOTES.md OUTPUT-DIRECTORY
report.py --load                                 prints the load of the machine; fails when it is
                                                 not quiet
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
MACHINE = "floor: the machine"

# Mean number of running processes in the last minute; more disturb the measuring.
QUIET_LOAD = 0.5

AREAS = ["events", "latency", "timers", "message blocks", "reference count", "tracing",
         "configuration", "CRC-16", "base64", "URL", "URL escape", "strict", "clock", "footprint",
         "library"]

# The jobs at the head of the page: area, row, and what a reader calls it.
GLANCE = [
    ("events", "post to run, 1 poster, one core", "post an event and run it, one core"),
    ("events", "post to run, 1 poster, two cores", "the same, two cores"),
    ("events", "post to itself", "post an event to its own thread"),
    ("events", "synchronous send, one core", "send and wait, one core"),
    ("events", "synchronous send, two cores", "send and wait, two cores"),
    ("latency", "post to a sleeping worker, two cores, median", "wake a worker"),
    ("latency", "post to a sleeping worker, two cores, 99th percentile",
     "the same, 99th percentile"),
    ("latency", "post beside a busy thread, 99th percentile",
     "wake it beside a busy thread, 99th"),
    ("timers", "schedule + cancel, 10 pending (list)", "a timer among 10"),
    ("timers", "schedule + cancel, 100k pending (a worker's own)", "a timer among 100,000"),
    ("timers", "100k pending, put off, cancelled and fired (list)", "100,000 timers with churn"),
    ("timers", "fire a due timer", "fire a timer"),
    ("message blocks", "chain of 3 x 400 B: build, write, duplicate, read, free",
     "a chain of message blocks"),
    ("reference count", "count up + down", "count a reference up and down"),
    ("tracing", "compose one line", "compose a trace line"),
    ("tracing", "deliver one line", "deliver a trace line"),
    ("tracing", "filter one line out", "filter a trace line out"),
    ("configuration", "one key, file opened afresh, 60 lines", "look a key up in a file"),
    ("CRC-16", "1200 B", "CRC-16 of a packet"),
    ("base64", "encode 1 KiB", "base64, encode 1 KiB"),
    ("base64", "decode 1 KiB", "base64, decode 1 KiB"),
    ("URL", "parse one URL", "parse a URL"),
    ("URL escape", "64 B", "escape a URL"),
    ("footprint", "memory of a worker that waits", "memory of a worker"),
    ("footprint", "memory of a pending event", "memory of a pending event"),
    ("footprint", "start a worker, stop and join it", "start and end a worker"),
    ("library", "size of the shared library", "size of the library"),
    ("library", "load the shared library", "load the library"),
    ("library", "compile a file that includes it", "compile a file that includes it"),
]

# Our time over that of the best peer, or of the row that is named; at most.
LIBUV = "libuv"
LIBUV_AT_NOW = "variant: libuv, clock read for each"
TARGETS = {
    ("events", "post to run, 1 poster, one core"): [(0.95, None)],
    ("events", "post to run, 4 posters, one core"): [(1.0, None)],
    ("events", "post to run, 1 poster, two cores"): [(1.0, None)],
    ("events", "post to itself"): [(1.6, None)],
    ("events", "synchronous send, one core"): [(1.0, None)],
    ("events", "synchronous send, two cores"): [(1.0, None)],
    ("events", "posted callable, 1 poster, one core"): [(1.0, None)],
    ("events", "call with a value, one core"): [(1.0, None)],
    ("latency", "post beside a busy thread, 90th percentile"): [(1.0, None)],
    ("latency", "post beside a busy thread, 99th percentile"): [(1.0, None)],
    ("timers", "schedule + cancel, 10 pending (list)"): [(1.3, LIBUV), (0.85, LIBUV_AT_NOW)],
    ("timers", "schedule + cancel, 100 pending (list)"): [(1.6, LIBUV), (0.85, LIBUV_AT_NOW)],
    ("timers", "schedule + cancel, 10k pending (calendar)"): [(1.5, None)],
    ("timers", "schedule + cancel, 10k pending (a worker's own)"): [(1.5, LIBUV)],
    ("timers", "schedule + cancel, 100k pending (a worker's own)"): [(1.5, LIBUV)],
    ("timers", "fire a due timer"): [(1.0, None)],
    ("message blocks", "chain of 3 x 400 B: build, write, duplicate, read, free"): [(0.7, None)],
    ("message blocks", "flatten 3 x 400 B"): [(1.0, None)],
    ("message blocks", "duplicate 3 x 400 B, split in half"): [(0.7, None)],
    ("reference count", "count up + down"): [(1.05, None)],
    ("CRC-16", "64 B"): [(1 / 10, None)],
    ("CRC-16", "1200 B"): [(1 / 40, None)],
    ("CRC-16", "64 KiB"): [(1 / 50, None)],
    ("base64", "encode 32 B"): [(1 / 1.2, None)],
    ("base64", "encode 1 KiB"): [(1 / 3, None)],
    ("base64", "encode 1 MiB"): [(1 / 3, None)],
    ("base64", "decode 32 B"): [(1 / 1.2, None)],
    ("base64", "decode 1 KiB"): [(1 / 3, None)],
    ("base64", "decode 1 MiB"): [(1 / 3, None)],
    ("URL escape", "64 B"): [(0.35, None)],
    ("tracing", "compose one line"): [(0.9, None)],
    ("tracing", "deliver one line"): [(2.0, None)],
    ("tracing", "filter one line out"): [(1.5, None)],
    ("configuration", "one key, file opened afresh, 60 lines"): [(1.3, "floor: system calls")],
    ("URL", "parse one URL"): [(0.8, None)],
}


class Row:
    """All repetitions of one row: nanoseconds per piece of work, or bytes."""

    def __init__(self, unit):
        self.unit = unit
        self.values = []
        self.bytes_per_item = 0

    def add(self, value, run):
        self.values.append(value)
        if "bytes_per_second" in run:
            self.bytes_per_item = run["bytes_per_second"] / run["items_per_second"]

    @property
    def median(self):
        return statistics.median(self.values)

    @property
    def spread(self):
        """Half the distance of the quartiles, as a part of the median."""
        if len(self.values) < 3:
            return 0
        low, _, high = statistics.quantiles(self.values, n=4)
        return (high - low) / 2 / self.median

    def text(self):
        if self.bytes_per_item:
            return f"{self.bytes_per_item / self.median:.2f} GB/s"
        return quantity(self.median, self.unit)


def quantity(value, unit):
    if unit == "bytes":
        steps = [(1 << 20, "MiB"), (1 << 10, "KiB"), (0, "B")]
    else:
        steps = [(1e9, "s"), (1e6, "ms"), (1e3, "us"), (0, "ns")]
    size, name = next(step for step in steps if value >= step[0])
    value /= size or 1
    if name == "B":
        return f"{value:.0f} B"
    return f"{value:.{1 if value >= 100 or name in ('ns', 'KiB') else 2}f} {name}"


def figures(work, run):
    """(work, value, unit) of each line that a run is for."""
    if "items_per_second" in run:
        yield work, 1e9 / run["items_per_second"], "nanoseconds"
    for unit in ("nanoseconds", "bytes"):
        if unit in run:
            yield work, run[unit], unit
    for key, name in PERCENTILES.items():
        if key in run:
            yield f"{work}, {name}", run[key], "nanoseconds"


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
            for line, value, unit in figures(work, run):
                row_set = areas.setdefault(area, {}).setdefault(line, {})
                row_set.setdefault(who, Row(unit)).add(value, run)
    return areas


def peers_of(row_set):
    return {who: row for who, row in row_set.items()
            if who != OURS and not who.startswith(NOT_PEERS)}


def best_peer(row_set):
    """Its name, None without one."""
    peers = peers_of(row_set)
    return min(peers, key=lambda who: peers[who].median) if peers else None


def ratio_text(value):
    if value < 0.1:
        return f"{value:.3f}"
    return f"{value:.2f}" if value < 100 else f"{value:.0f}"


class Score:
    """How many targets there are, are met, and are missed by less than the rows spread."""

    def __init__(self):
        self.targets = self.met = self.near = 0

    def judge(self, ours, other, at_most):
        ratio = ours.median / other.median
        self.targets += 1
        if ratio <= at_most:
            self.met += 1
            return "met"
        if ratio <= at_most * (1 + ours.spread + other.spread):
            self.near += 1
            return "**missed** by less than the spread"
        return "**missed**"

    def text(self):
        text = f"Targets: {self.met} of {self.targets} met."
        if self.near:
            text += f" {self.near} of those missed are missed by less than their rows spread."
        unseen = sum(len(at_most) for at_most in TARGETS.values()) - self.targets
        if unseen:
            text += f" {unseen} more were not measured."
        return text


def comparisons(area, work, row_set, score):
    """The cells after those of our own row: a list for the best peer, and one for each target that
    names another row."""
    best = best_peer(row_set)
    targets = [(at_most, best if who is None else who)
               for at_most, who in TARGETS.get((area, work), [])]
    at = {who: at_most for at_most, who in targets if who in row_set}
    others = list(at) if best is None or best in at else [best, *at]
    ours = row_set[OURS]
    for who in others:
        other = row_set[who]
        cells = [who, other.text(), f"{other.spread:.0%}", ratio_text(ours.median / other.median)]
        if who in at:
            yield cells + [ratio_text(at[who]), score.judge(ours, other, at[who])]
        else:
            yield cells + ["", ""]


def table(area, works, score):
    """The lines of one area's table."""
    lines = [f"## {area}", "",
             "| Work | ours | +- | beside | its figure | +- | ours / its | at most | |",
             "|---|---:|---:|---|---:|---:|---:|---:|---|"]
    notes = []
    for work, row_set in works.items():
        if OURS not in row_set:
            continue
        ours = row_set[OURS]
        first = [work, ours.text(), f"{ours.spread:.0%}"]
        for cells in list(comparisons(area, work, row_set, score)) or [[""] * 6]:
            lines.append("| " + " | ".join(first + cells) + " |")
            first = ["", "", ""]
        rest = sorted((item for item in row_set.items() if item[0] != OURS),
                      key=lambda item: item[1].median)
        if rest:
            notes.append(f"- {work}: " + ", ".join(f"{who} {row.text()}" for who, row in rest)
                         + ".")
    return lines + ["", "All of them:", ""] + notes + [""]


# ---- The head of the page.

def in_words(ours, other):
    """What a figure of ours is beside another."""
    ratio = ours.median / other.median
    if 0.97 <= ratio <= 1.03:
        return "the same"
    times = times_text(max(ratio, 1 / ratio))
    if ours.unit == "bytes":
        return f"{times} times the size" if ratio > 1 else f"**{times} times smaller**"
    return f"{times} times as long" if ratio > 1 else f"**{times} times as fast**"


def times_text(value):
    return f"{value:.0f}" if value >= 9.95 else f"{value:.1f}" if value >= 1.95 else f"{value:.2f}"


def glance(areas):
    """(label, our row, name of the best peer, its row) of the jobs that were measured."""
    for area, work, label in GLANCE:
        row_set = areas.get(area, {}).get(work, {})
        best = best_peer(row_set)
        if OURS in row_set and best is not None:
            yield label, row_set[OURS], best, row_set[best]


def glance_table(jobs):
    lines = ["| Job | kelto_util | best other | | beside it |",
             "|---|---:|---:|---|---|"]
    for label, ours, who, other in jobs:
        lines.append(f"| {label} | {ours.text()} | {other.text()} | {who} | "
                     f"{in_words(ours, other)} |")
    return lines


# ---- Pictures. Their colours follow the reader's, light or dark.

COLOURS = [("#c22f2f", "#ff7b72"), ("#2f5fc2", "#79a8ff"), ("#2b7d2b", "#6fce6f"),
           ("#8a4fa0", "#cf9be6"), ("#9a6a00", "#e3b341"), ("#007f7f", "#4fd0d0"),
           ("#5f5f5f", "#b0b0b0"), ("#a03070", "#f29ac6")]


def style():
    def rules(index):
        ground, ink, grid = (("#ffffff", "#1f2328", "#d8dee4"),
                             ("#0d1117", "#e6edf3", "#30363d"))[index]
        series = "".join(f".l{number}{{stroke:{pair[index]}}}.f{number}{{fill:{pair[index]}}}"
                         for number, pair in enumerate(COLOURS))
        return f".ground{{fill:{ground}}}text{{fill:{ink}}}.grid{{stroke:{grid}}}" \
               f".axis{{stroke:{ink}}}{series}"

    return f"<style>{rules(0)}@media (prefers-color-scheme: dark){{{rules(1)}}}</style>"


class Picture:
    """SVG text under way."""

    def __init__(self, width, height, title):
        self.parts = [
            f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
            f'viewBox="0 0 {width} {height}" font-family="sans-serif" font-size="12">',
            f"<title>{escaped(title)}</title>", style(),
            f'<rect class="ground" width="{width}" height="{height}"/>']

    def line(self, x1, y1, x2, y2, css):
        self.parts.append(f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" '
                          f'class="{css}"/>')

    def text(self, x, y, text, more=""):
        self.parts.append(f'<text x="{x:.1f}" y="{y:.1f}" {more}>{escaped(text)}</text>')

    def bar(self, x1, x2, y, height, css):
        self.parts.append(f'<rect x="{min(x1, x2):.1f}" y="{y:.1f}" '
                          f'width="{max(abs(x2 - x1), 1):.1f}" height="{height}" class="{css}"/>')

    def curve(self, points, css, width):
        path = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
        self.parts.append(f'<polyline points="{path}" fill="none" class="{css}" '
                          f'stroke-width="{width}"/>')
        for x, y in points:
            self.parts.append(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="{width}" '
                              f'class="{css.replace("l", "f")}"/>')

    def finish(self):
        return "\n".join(self.parts + ["</svg>", ""])


def escaped(text):
    return text.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;")


def glance_picture(jobs):
    """A bar for each job: how many times better, to the right, or worse, to the left."""
    width, left, right, top, step, bottom = 800, 300, 60, 56, 20, 48
    height = top + step * len(jobs) + bottom
    powers = [math.log2(other.median / ours.median) for _, ours, _, other in jobs]
    low, high = min(-1, math.floor(min(powers))), max(1, math.ceil(max(powers)))

    def px(power):
        return left + (power - low) / (high - low) * (width - left - right)

    picture = Picture(width, height, "kelto_util beside the best other library, job by job")
    picture.text(20, 24, "kelto_util beside the best other library, job by job",
                 'font-size="15" font-weight="bold"')
    picture.text(px(0) + 6, top - 10, "ours is better")
    picture.text(px(0) - 6, top - 10, "the other is better", 'text-anchor="end"')
    every = 1 if high - low <= 9 else 2
    for power in range(low, high + 1):
        if power % every == 0:
            picture.line(px(power), top, px(power), height - bottom,
                         "grid" if power else "axis")
            times = f"{2 ** abs(power)}"
            picture.text(px(power), height - bottom + 16,
                         "same" if power == 0 else times if power > 0 else f"1/{times}",
                         'text-anchor="middle"')
    for index, ((label, *_), power) in enumerate(zip(jobs, powers)):
        y = top + step * index + 3
        picture.text(left - 50, y + 11, label, 'text-anchor="end"')
        picture.bar(px(0), px(power), y, step - 6, "f1" if power >= 0 else "f4")
        text = times_text(2 ** abs(power))
        text = text if power >= 0 or text == "1.00" else f"1/{text}"
        picture.text(px(power) + (4 if power >= 0 else -4), y + 11, text,
                     f'font-size="11" text-anchor="{"start" if power >= 0 else "end"}"')
    picture.text((left + width - right) / 2, height - 10,
                 "figure of the best other / ours (time or memory), logarithmic",
                 'text-anchor="middle"')
    return picture.finish()


def spread_labels(places):
    """Moves labels apart, which are sorted from the top down."""
    moved = []
    for place in places:
        moved.append(max(place, moved[-1] + 14) if moved else place)
    return moved


def short_number(value):
    return f"{value / 1000:g}k" if value >= 1000 else f"{value:g}"


def plot(title, works):
    """Figures over size, both logarithmic but for percentages, as SVG text."""
    width, height, left, right, top, bottom = 760, 380, 80, 250, 44, 56
    what, over = title.rsplit(" over ", 1)
    is_linear = over.endswith("%")
    series = {}
    for size, row_set in works.items():
        for who, row in row_set.items():
            series.setdefault(who, []).append((float(size), row.median))
    xs = [x for points in series.values() for x, _ in points]
    ys = [y for points in series.values() for _, y in points]

    def scale(x):
        return x if is_linear else math.log10(x)

    x0, x1 = scale(min(xs)), scale(max(xs))
    y0, y1 = math.floor(math.log10(min(ys))), math.ceil(math.log10(max(ys)))

    def px(x):
        return left + (scale(x) - x0) / max(x1 - x0, 1e-9) * (width - left - right)

    def py(y):
        return height - bottom - (math.log10(y) - y0) / max(y1 - y0, 1) * (height - top - bottom)

    picture = Picture(width, height, title)
    picture.text(left, 24, title, 'font-size="15" font-weight="bold"')
    for power in range(y0, y1 + 1):
        y = py(10.0 ** power)
        picture.line(left, y, width - right, y, "grid")
        picture.text(left - 8, y + 4, axis_time(10.0 ** power), 'text-anchor="end"')
    for x in sorted(set(xs)):
        picture.text(px(x), height - bottom + 18, short_number(x), 'text-anchor="middle"')
    picture.line(left, height - bottom, width - right, height - bottom, "axis")
    picture.line(left, top, left, height - bottom, "axis")
    picture.text((left + width - right) / 2, height - 12,
                 over if is_linear else f"{over} (logarithmic)", 'text-anchor="middle"')
    middle = (top + height - bottom) / 2
    picture.text(16, middle, "latency" if "latency" in what else "time of one",
                 f'text-anchor="middle" transform="rotate(-90 16 {middle:.1f})"')
    names = sorted(series, key=lambda who: (not who.startswith(OURS), who))
    ordered = sorted(series.items(), key=lambda item: -max(item[1])[1])
    places = spread_labels([py(max(points)[1]) + 4 for _, points in ordered])
    for (who, points), place in zip(ordered, places):
        number = names.index(who) % len(COLOURS)
        picture.curve([(px(x), py(y)) for x, y in sorted(points)], f"l{number}",
                      3 if who.startswith(OURS) else 1.5)
        picture.bar(width - right + 8, width - right + 18, place - 9, 10, f"f{number}")
        picture.text(width - right + 24, place, who.replace(" by hand", ""),
                     'font-weight="bold"' if who.startswith(OURS) else "")
    return picture.finish()


def axis_time(value):
    size, name = next(step for step in ((1e9, "s"), (1e6, "ms"), (1e3, "us"), (0, "ns"))
                      if value >= step[0])
    return f"{value / (size or 1):g} {name}"


# ---- The page.

def load():
    """Of the last minute. KELTO_LOADAVG names a file to read instead of the system's."""
    with open(os.environ.get("KELTO_LOADAVG", "/proc/loadavg"), encoding="utf-8") as file:
        return float(file.read().split()[0])


def machine(context, load_at_start):
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        names = [line.split(":", 1)[1].strip() for line in file if line.startswith("model name")]
    return (f"{names[0] if names else 'unknown processor'}, {context['num_cpus']} cores, "
            f"{os.uname().sysname} {os.uname().release}; load when it started: "
            f"{load_at_start:.2f}; {context['date'][:10]}")


def head(areas, context, score):
    load_at_start = float(context.get("load_at_start", context["load_avg"][0]))
    lines = ["# Performance", ""]
    if load_at_start > QUIET_LOAD:
        lines += [f"**The machine was not quiet when this was measured** (load "
                  f"{load_at_start:.2f} at the start; {QUIET_LOAD} at most would be): figures may "
                  "be too high, and ratios wrong.", ""]
    jobs = list(glance(areas))
    lines += ["What this library takes for a job, beside the best of the other libraries that were "
              "measured doing the same in the same run. Less is better, but for GB/s. What the "
              "jobs are, all figures and how they grow stand below.", ""]
    lines += glance_table(jobs)
    if jobs:
        lines += ["", "![Each job, how many times better or worse]"
                  "(performance/at-a-glance.svg)"]
    repetitions = max(len(row.values) for works in areas.values() for rows in works.values()
                      for row in rows.values())
    prices = [f"{work}: {row_set[MACHINE].text()}"
              for work, row_set in areas.get("machine", {}).items()]
    lines += ["", "## How it was measured", "",
              "`bench/run` builds and runs the benchmarks and writes this page; do not edit it.",
              "", f"- Machine: {machine(context, load_at_start)}."]
    if prices:
        lines += ["- What it charges for two steps that decide many rows: " + "; ".join(prices)
                  + "."]
    lines += [f"- Medians of {repetitions} repetitions, run in random order; +- is half the "
              "distance of the quartiles. All rows of one line ran in the same program.",
              "- Times are processor time of all threads; on two cores, and where the work says "
              "latency, elapsed time.",
              f"- {score.text()}", ""]
    return lines, jobs


def write(directory, name, text):
    with open(os.path.join(directory, name), "w", encoding="utf-8") as file:
        file.write(text)


def report(result, notes, directory):
    areas = read([result])
    with open(result, encoding="utf-8") as file:
        context = json.load(file)["context"]
    score = Score()
    body = []
    tables = [area for area in areas if not area.startswith("growth: ") and area != "machine"]
    for area in sorted(tables, key=lambda area: (AREAS + [area]).index(area)):
        body += table(area, areas[area], score)
    with open(notes, encoding="utf-8") as file:
        body += file.read().splitlines() + [""]
    lines, jobs = head(areas, context, score)
    pictures = os.path.join(directory, "performance")
    os.makedirs(pictures, exist_ok=True)
    if jobs:
        write(pictures, "at-a-glance.svg", glance_picture(jobs))
    body += ["## How the cost grows", ""]
    for area, works in areas.items():
        if area.startswith("growth: "):
            title = area.removeprefix("growth: ")
            name = "-".join("".join(c if c.isalnum() else " " for c in title).split()) + ".svg"
            write(pictures, name, plot(title, works))
            body += [f"![{title}](performance/{name})", ""]
    write(directory, "performance.md", "\n".join(lines + body).rstrip() + "\n")


def compare(base_paths, other_paths):
    base, other = read(base_paths), read(other_paths)
    print(f"{'base':>12} {'other':>12} {'ratio':>7}  row")
    compared = slower = 0
    for area, works in base.items():
        for work, row_set in works.items():
            for who, row in row_set.items():
                new = other.get(area, {}).get(work, {}).get(who)
                if new is not None:
                    ratio = min(new.values) / min(row.values)
                    noise = max(0.03, 2 * max(row.spread, new.spread))
                    is_slower = ratio > 1 + noise
                    compared += 1
                    slower += is_slower
                    print(f"{quantity(min(row.values), row.unit):>12} "
                          f"{quantity(min(new.values), new.unit):>12} {ratio:7.2f}  "
                          f"{area}: {work}: {who}{'  <- slower' if is_slower else ''}")
    print(f"{slower} of {compared} rows slower by more than the noise")


def main(arguments):
    if arguments == ["--load"]:
        value = load()
        print(value)
        if value > QUIET_LOAD:
            sys.exit(f"bench: the machine is not quiet: its load is {value}, {QUIET_LOAD} at most "
                     "would do")
    elif arguments and arguments[0] == "--compare" and "--with" in arguments:
        split = arguments.index("--with")
        compare(arguments[1:split], arguments[split + 1:])
    elif len(arguments) == 3:
        report(*arguments)
    else:
        sys.exit(__doc__)


main(sys.argv[1:])
