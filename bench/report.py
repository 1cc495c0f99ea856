#!/usr/bin/env python3
"""Turns the lines of the measurement programs into tables.

    report.py [--write DOCUMENT PLOT] FILE...

Each FILE holds lines of JSON as bench/Paired.h prints them, or one result of Google Benchmark, whose rows are named
SUBJECT/helper[/SIZE] and SUBJECT/PEER[/SIZE]. A ratio is taken for each pair of samples; the table gives its median
and, in brackets, its quartiles. Where a subject was measured at several sizes, the exponent says how its time grows
with the size: 1 is in proportion. --write puts the tables between the markers of DOCUMENT, and the growth into PLOT.
"""

import argparse
import collections
import json
import math
import re
import statistics

# Title, and whether the ratio says how much more expensive (cost) or how many times as fast (speed) the helper is.
TABLES = {
    "calls": ("Calls, beside a bare sd-bus service", "cost"),
    "load": ("Calls while another connection lists 5,000 processes", "cost"),
    "generations": ("Generations, beside the engine started by hand", "cost"),
    "memory": ("Idle memory in KiB, beside a bare sd-bus service", "cost"),
    "listings-fresh": ("A helper's first listing, over the bus", "speed"),
    "listings-1024": ("Listings with a soft limit of 1,024 descriptors, as a session gives it", "speed"),
    "listings-20000": ("Listings with a soft limit of 20,000 descriptors", "speed"),
    "listings-pinned": ("Listings pinned to one processor", "speed"),
    "micro": ("Text, JSON and globs", "speed"),
}

Row = collections.namedtuple("Row", "table name peer size own theirs")


def read_lines(text):
    for line in text.splitlines():
        fields = json.loads(line)
        yield Row(fields["table"], fields["name"], fields["peer"], fields["size"], fields["own"], fields["theirs"])


def read_google_benchmark(text):
    runs = collections.defaultdict(list)
    microseconds = {"ns": 1e-3, "us": 1.0, "ms": 1e3}
    # Their order in the program, not the random one of the interleaved runs.
    for run in sorted(json.loads(text)["benchmarks"], key=lambda run: run["family_index"]):
        if run["run_type"] == "iteration" and "error_message" not in run:
            name = re.sub(r"/repeats:\d+.*", "", run["run_name"])
            runs[name].append(run["real_time"] * microseconds[run["time_unit"]])
    for name, own in runs.items():
        match = re.fullmatch(r"(.+)/helper(?:/(\d+))?", name)
        if not match:
            continue
        size = "/" + match[2] if match[2] else ""
        for other, theirs in runs.items():
            peer = re.fullmatch(re.escape(match[1]) + r"/([^/]+)" + re.escape(size), other)
            if peer and peer[1] != "helper":
                yield Row("micro", match[1], peer[1], int(match[2] or 0), own, theirs)


def rows_of(path):
    text = open(path, encoding="utf-8").read()
    return list(read_google_benchmark(text) if text.lstrip().startswith("{\n") else read_lines(text))


def time_text(microseconds):
    for limit, divisor, unit in ((1, 1e-3, "ns"), (1e3, 1, "µs"), (1e6, 1e3, "ms")):
        if microseconds < limit:
            return f"{microseconds / divisor:.3g} {unit}"
    return f"{microseconds / 1e6:.3g} s"


def quartiles(values):
    return statistics.quantiles(values, n=4, method="inclusive") if len(values) > 1 else [values[0]] * 3


def exponent(points):
    """The slope of the line through the points in a plot of logarithms."""
    logs = [(math.log(size), math.log(time)) for size, time in points]
    mean_x = statistics.mean(x for x, _ in logs)
    mean_y = statistics.mean(y for _, y in logs)
    return sum((x - mean_x) * (y - mean_y) for x, y in logs) / sum((x - mean_x) ** 2 for x, _ in logs)


def growth(rows):
    """The median times by size of every subject that was measured at several, and of its peers. The helper's are those
    beside the first of them."""
    points = collections.defaultdict(dict)
    for row in rows:
        if row.size:
            points[row.table, row.name, "helper"].setdefault(row.size, statistics.median(row.own))
            points[row.table, row.name, row.peer][row.size] = statistics.median(row.theirs)
    return {key: sorted(sizes.items()) for key, sizes in points.items() if len(sizes) > 1}


def table_text(table, rows, grown):
    title, direction = TABLES[table]
    show = (lambda value: f"{value:,.0f}") if table == "memory" else time_text
    lines = [f"### {title}", "", f"| | helper | peer | {'times the cost' if direction == 'cost' else 'times as fast'} |",
             "| --- | --- | --- | --- |"]
    for row in rows:
        pairs = zip(row.own, row.theirs)
        ratios = [own / theirs if direction == "cost" else theirs / own for own, theirs in pairs]
        low, middle, high = quartiles(ratios)
        spread = f" ({low:.3g} to {high:.3g})" if len(ratios) > 1 else ""
        name = row.name + (f", {row.size:,}" if row.size else "")
        lines.append(f"| {name} | {show(statistics.median(row.own))} | {row.peer}: "
                     f"{show(statistics.median(row.theirs))} | {middle:.3g}{spread} |")
    exponents = collections.defaultdict(dict)
    for (place, name, who), points in grown.items():
        if place == table:
            exponents[name][who] = f"{exponent(points):.2f}"
    if exponents:
        texts = (f"{name} {who.pop('helper')} ({', '.join(f'{peer} {value}' for peer, value in who.items())})"
                 for name, who in exponents.items())
        lines += ["", "Exponents of growth, and the peers': " + "; ".join(texts) + "."]
    return "\n".join(lines)


def plot(grown):
    """Time over size, both logarithmic, of the listings under a session's limits."""
    series = {}
    for (table, name, who), points in grown.items():
        if table == "listings-1024":  # A peer that is in several rows is shown once, beside the first.
            series.setdefault((name if who == "helper" else who, who), points)
    width, height, margin = 720, 400, 60
    sizes = [size for points in series.values() for size, _ in points]
    times = [time for points in series.values() for _, time in points]
    low_x, high_x = math.log(min(sizes)), math.log(max(sizes))
    low_y, high_y = math.floor(math.log10(min(times))), math.ceil(math.log10(max(times)))

    def at(size, time):
        x = margin + (math.log(size) - low_x) / (high_x - low_x) * (width - 4 * margin)
        y = height - margin - (math.log10(time) - low_y) / (high_y - low_y) * (height - 2 * margin)
        return x, y

    colors = ["#0284c7", "#0f766e", "#b45309", "#7c3aed", "#be123c", "#475569", "#15803d", "#a16207"]
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" font-family="system-ui, sans-serif" '
             'font-size="12" role="img" aria-label="Time of a listing by the number of processes, both logarithmic">',
             f'<rect width="{width}" height="{height}" rx="8" fill="#ffffff"/>']
    for decade in range(low_y, high_y + 1):
        x, y = at(min(sizes), 10 ** decade)
        parts.append(f'<path d="M{x:.0f} {y:.0f}H{width - 3 * margin}" stroke="#e2e8f0"/>'
                     f'<text x="{x - 8:.0f}" y="{y + 4:.0f}" text-anchor="end">{time_text(10.0 ** decade)}</text>')
    for size in sorted(set(sizes)):
        x, _ = at(size, 10 ** low_y)
        parts.append(f'<text x="{x:.0f}" y="{height - margin + 20}" text-anchor="middle">{size:,}</text>')
    parts.append(f'<text x="{(width - 2 * margin) / 2:.0f}" y="{height - 16}" text-anchor="middle">processes</text>')
    labels = []
    for color, ((name, who), points) in zip(colors * 4, series.items()):
        line = " ".join(f"{x:.1f},{y:.1f}" for x, y in (at(*point) for point in points))
        dash = "" if who == "helper" else ' stroke-dasharray="5 4"'
        parts.append(f'<polyline points="{line}" fill="none" stroke="{color}" stroke-width="2"{dash}/>')
        labels.append((at(*points[-1]), color, name))
    floor = -math.inf
    for (x, y), color, text in sorted(labels, key=lambda label: label[0][1]):
        floor = max(y + 4, floor + 14)  # Labels do not overlap.
        parts.append(f'<text x="{x + 8:.0f}" y="{floor:.0f}" fill="{color}">{text}</text>')
    return "\n".join(parts + ["</svg>", ""])


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--write", nargs=2, metavar=("DOCUMENT", "PLOT"))
    parser.add_argument("files", nargs="+")
    arguments = parser.parse_args()
    rows = [row for path in arguments.files for row in rows_of(path)]
    grown = growth(rows)
    text = "\n\n".join(table_text(table, [row for row in rows if row.table == table], grown)
                       for table in TABLES if any(row.table == table for row in rows))
    print(text)
    if arguments.write:
        document, picture = arguments.write
        old = open(document, encoding="utf-8").read()
        begin, end = "<!-- measurements -->\n", "<!-- end of measurements -->"
        before, rest = old.split(begin)
        texts = {document: f"{before}{begin}\n{text}\n\n{end}{rest.split(end)[1]}", picture: plot(grown)}
        for path, content in texts.items():  # Nothing is opened before all is computed.
            with open(path, "w", encoding="utf-8") as file:
                file.write(content)


main()
