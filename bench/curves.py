#!/usr/bin/env python3
"""curves.py FOLDER [rows | FILTER]: measures the rows that have a target and the costs by size, and writes them to docs.

What stands in docs/performance.md behind its mark is replaced, and so are the plots docs/performance-*.svg. `rows`: only the
table of the rows with a target. FILTER, a regular expression on the names of curves: only the plots of these.
"""
import math
import pathlib
import re
import sys

import report
import rows

DOCS = rows.HERE.parent / "docs"
MARKS = "<!-- measured: from here to the end by ./dev bench --report -->\n"
COLOURS = ("#1f6fb4", "#c8501e", "#4c9a2a", "#7d4fa5")
UNITS = {"curves": "ns", "curves of memory": "bytes"}


def measured(folder, name_filter, repetitions):
    """Row to who to value, in order of the programs."""
    found = {}
    for program in rows.programs(folder):
        if rows.names(program, name_filter):
            rows.progress(program.name)
            for row, who, value, _ in rows.medians(program, name_filter, repetitions):
                found.setdefault(row, {})[who] = value
    rows.progress("")
    return found


def pattern(row):
    """The regular expression of the names of a row's benchmarks, which say who in their third part."""
    area, operation, *arguments = (re.sub(r"([.^()])", r"\\\1", part) for part in row.split("/"))
    return "/".join([area, operation, "[^/]+", *arguments])


def curves(found):
    """Title to who to size to the cost of one element."""
    by_title = {}
    for row, by_who in found.items():
        area, title, size = row.split("/")
        for who, value in by_who.items():
            if value > 0:  # memory of so few that freed blocks sufficed
                by_title.setdefault((area, title), {}).setdefault(who, {})[int(size)] = value / int(size)
    return by_title


def plot(title, unit, by_who):
    """An SVG picture: sizes to the right and costs upwards, both as logarithms."""
    width, height, left, top = 640, 360, 60, 40
    sizes = sorted({size for points in by_who.values() for size in points})
    costs = [cost for points in by_who.values() for cost in points.values()]
    low, high = math.floor(math.log10(min(costs))), math.ceil(math.log10(max(costs)) + 1e-9)
    first, last = math.log10(sizes[0]), math.log10(sizes[-1])

    def x(size):
        return left + (math.log10(size) - first) / (last - first) * (width - left - 150)

    def y(cost):
        return top + (high - math.log10(cost)) / max(high - low, 1) * (height - top - 50)

    out = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" font-family="sans-serif" font-size="12">',
           f'<rect width="{width}" height="{height}" fill="white"/>',
           f'<text x="{left}" y="20" font-size="15">{title}: {unit} of each, by their number</text>']
    for power in range(low, high + 1):
        out.append(f'<path d="M{left} {y(10**power):.1f}H{width - 150}" stroke="#ddd"/>'
                   f'<text x="{left - 8}" y="{y(10**power) + 4:.1f}" text-anchor="end">{10.0**power:g}</text>')
    for size in sizes:
        out.append(f'<path d="M{x(size):.1f} {top}V{height - 50}" stroke="#eee"/>'
                   f'<text x="{x(size):.1f}" y="{height - 32}" text-anchor="middle">10^{round(math.log10(size))}</text>')
    for colour, (who, points) in zip(COLOURS, by_who.items()):
        line = " ".join(f"{x(size):.1f},{y(cost):.1f}" for size, cost in sorted(points.items()))
        end = max(points)
        out.append(f'<polyline points="{line}" fill="none" stroke="{colour}" stroke-width="2"/>')
        out.extend(f'<circle cx="{x(size):.1f}" cy="{y(cost):.1f}" r="3" fill="{colour}"/>' for size, cost in points.items())
        out.append(f'<text x="{x(end) + 8:.1f}" y="{y(points[end]) + 4:.1f}" fill="{colour}">{who}</text>')
    return "\n".join([*out, "</svg>\n"])


def curve_text(area, title, by_who):
    """The table of a curve, after its plot."""
    name = "performance-" + re.sub("[^a-z]+", "-", f"{title} {UNITS[area]}") + ".svg"
    heading = f"{title}: {UNITS[area]} of each" if area == "curves" else f"memory of {title}: bytes of each"
    (DOCS / name).write_text(plot(heading.split(":")[0], UNITS[area], by_who))
    sizes = sorted({size for points in by_who.values() for size in points})
    lines = ["| | " + " | ".join(f"10^{round(math.log10(size))}" for size in sizes) + " |", "|---" * (len(sizes) + 1) + "|"]
    for who, points in by_who.items():
        cells = (f"{points[size]:.3g}" if size in points else "" for size in sizes)
        lines.append(f"| {who} | " + " | ".join(cells) + " |")
    return "\n".join([f"### {heading[0].upper() + heading[1:]}", "", f"![{heading}]({name})", "", *lines, ""])


def row_text(found, wanted):
    lines = ["| row | to the best peer | target | the least | |", "|---|---|---|---|---|"]
    for row, target in wanted.items():
        ratio = rows.ratio(found.get(row, {}), target)
        if ratio is not None:
            least = "" if ratio.least is None else f"{ratio.least:.2f}"
            verdict = "" if ratio.verdict() == "within" else ratio.verdict()
            lines.append(f"| {row} | {ratio.value:.2f} x {ratio.peer} | {target} | {least} | {verdict} |")
    return "\n".join(["### Rows with a target", "", *lines, ""])


def main():
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    folder, only = sys.argv[1], sys.argv[2] if len(sys.argv) == 3 else ""
    page = DOCS / "performance.md"
    text, rest = page.read_text().split(MARKS)
    table = ""
    if only in ("", "rows"):
        wanted = report.targets()
        names = "^(" + "|".join(pattern(row) for row in wanted) + ")(/|$)"
        table = row_text(measured(folder, names, 5), wanted)
    if only == "rows":
        rest = re.sub(r"### Rows with a target\n.*?(?=\n### |$)", lambda _: table, rest, count=1, flags=re.DOTALL)
    else:
        found = measured(folder, only or "^curves", 3)
        drawn = [curve_text(area, title, by_who) for (area, title), by_who in curves(found).items()]
        rest = "\n" + "\n".join([table, *drawn])
    if only in ("", "rows"):
        page.write_text(text + MARKS + rest)


if __name__ == "__main__":
    main()
