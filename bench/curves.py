#!/usr/bin/env python3
"""curves.py FOLDER [rows | curves | FILTER]: measures the rows that have a target and the costs by size, for docs.

What stands in docs/performance.md behind its mark is replaced, and so are the plots docs/performance-*.svg. `rows`, `curves`:
only the table of the rows with a target, or all but that. FILTER, a regular expression on the names of curves: prints these
and writes nothing.
"""
import math
import os
import pathlib
import re
import statistics
import sys

import report
import rows

DOCS = rows.HERE.parent / "docs"
MARKS = "<!-- measured: from here to the end by ./dev bench --report -->\n"
ROWS = "### Rows with a target\n"
COLOURS = ("#1f6fb4", "#c8501e", "#4c9a2a", "#7d4fa5")
# Headings of the page in order, by the program that has the curves.
FAMILIES = {
    "curves_bench": "Collections and strings",
    "object_bench": "Objects and variants",
    "traverse_bench": "Walking and printing",
    "json_bench": "JSON",
    "serializer_bench": "Streams",
    "mon_bench": "Monitor files",
    "fs_bench": "Files",
    "config_bench": "Configuration",
    "net_bench": "Connections",
    "nmsserver_bench": "Names",
    "event_bench": "Events",
    "process_bench": "Processes",
}
# Areas in order, and what a row of each is the cost of.
MEMORY = "curves of memory"
AREAS = {"curves": "each", "curves of one": "one, by the number of all", MEMORY: "each"}
# Of the rise of the best peer's curve, above which ours is named.
FLAT = 2


def measured(programs, name_filter, repetitions):
    """Row to who to value. Memory is measured in a process for each, where nothing earlier left free blocks."""
    found = {}
    for program in programs:
        names = rows.names(program, name_filter)
        memory = [name for name in names if name.startswith(MEMORY)]
        for some in [[name for name in names if name not in memory], *([name] for name in memory)]:
            if some:
                rows.progress(f"{program.name}: {some[0]}")
                exactly = f"^({'|'.join(map(quoted, some))})$"
                for row, who, value, _ in rows.medians(program, exactly, 1 if some[0] in memory else repetitions):
                    found.setdefault(row, {})[who] = value
    rows.progress("")
    return found


def measured_alone(programs, wanted):
    """The same of the wanted rows, each in nine processes of its own: what ran before a row, and where a process lies in
    memory, change some by a fifth."""
    found = {}
    for program in programs:
        names = rows.names(program, "")
        for row in wanted:
            exactly = f"^{pattern(row)}(/|$)"
            if not any(re.search(exactly, name) for name in names):
                continue
            rows.progress(f"{program.name}: {row}")
            values = {}
            for _ in range(9):
                for _, who, value, _ in rows.medians(program, exactly, 1):
                    values.setdefault(who, []).append(value)
            found[row] = {who: statistics.median(times) for who, times in values.items()}
    rows.progress("")
    return found


def quoted(text):
    return re.sub(r"([.^()+*])", r"\\\1", text)


def pattern(row):
    """The regular expression of the names of a row's benchmarks, which say who in their third part."""
    area, operation, *arguments = map(quoted, row.split("/"))
    return "/".join([area, operation, "[^/]+", *arguments])


class Curve:
    """The costs of a title: of who, by size, in `unit`; the library's stand first."""

    def __init__(self, area, title):
        self.area, self.title, self.by_who, self.unit = area, title, {}, "bytes"

    def add(self, size, by_who):
        for who, value in by_who.items():
            if value > 0:  # memory of so few that freed blocks sufficed
                self.by_who.setdefault(who, {})[size] = value if self.area == "curves of one" else value / size

    def settle(self):
        """Sorts what was added, and chooses the unit of times."""
        self.by_who = {who: dict(sorted(points.items()))
                       for who, points in sorted(self.by_who.items(), key=lambda item: (item[0] != rows.US, item[0]))}
        if self.area != MEMORY:
            least = min(cost for points in self.by_who.values() for cost in points.values())
            self.unit, factor = next(pair for pair in (("ms", 1e6), ("us", 1e3), ("ns", 0)) if least >= pair[1])
            for points in self.by_who.values():
                for size in points:
                    points[size] /= factor or 1

    def sizes(self):
        return sorted({size for points in self.by_who.values() for size in points})

    def heading(self):
        prefix = "memory of " if self.area == MEMORY else ""
        text = f"{prefix}{self.title}: {self.unit} of {AREAS[self.area]}"
        return text[0].upper() + text[1:]

    def rises(self):
        """How far costs rise with the size, ours and those of the peer that is best at the greatest size."""
        peers = [points for who, points in self.by_who.items() if who not in (rows.US, rows.LEAST)]
        best = min(peers, key=lambda points: (-max(points), points[max(points)]), default={})
        return rise(self.by_who.get(rows.US, {})), rise(best)


def rise(points):
    """The greatest ratio of a cost to that of a smaller size, at least 1."""
    costs = list(points.values())
    return max([1, *(later / cost for i, cost in enumerate(costs) for later in costs[i + 1:])])


def curves(found):
    """The curves, times before memory."""
    by_title = {}
    for row, by_who in found.items():
        area, title, size = row.split("/")
        by_title.setdefault((area, title), Curve(area, title)).add(int(size), by_who)
    for curve in by_title.values():
        curve.settle()
    return sorted(by_title.values(), key=lambda curve: (list(AREAS).index(curve.area), curve.title))


def power(size):
    exponent = round(math.log10(size))
    return f"10^{exponent}" if size == 10**exponent else str(size)


def digits(cost):
    """Three digits that count, without an exponent."""
    return f"{cost:.{max(0, 2 - math.floor(math.log10(cost)))}f}" if cost < 1000 else str(round(cost))


def plot(curve):
    """An SVG picture: sizes to the right and costs upwards, both as logarithms."""
    width, height, left, top = 640, 360, 60, 40
    sizes = curve.sizes()
    costs = [cost for points in curve.by_who.values() for cost in points.values()]
    low, high = math.floor(math.log10(min(costs))), math.ceil(math.log10(max(costs)) + 1e-9)
    first, last = math.log10(sizes[0]), math.log10(sizes[-1])

    def x(size):
        return left + (math.log10(size) - first) / max(last - first, 1) * (width - left - 150)

    def y(cost):
        return top + (high - math.log10(cost)) / max(high - low, 1) * (height - top - 50)

    out = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" font-family="sans-serif" font-size="12">',
           f'<rect width="{width}" height="{height}" fill="white"/>',
           f'<text x="{left}" y="20" font-size="15">{curve.heading()}</text>']
    for exponent in range(low, high + 1):
        out.append(f'<path d="M{left} {y(10**exponent):.1f}H{width - 150}" stroke="#ddd"/>'
                   f'<text x="{left - 8}" y="{y(10**exponent) + 4:.1f}" text-anchor="end">{10.0**exponent:g}</text>')
    for size in sizes:
        out.append(f'<path d="M{x(size):.1f} {top}V{height - 50}" stroke="#eee"/>'
                   f'<text x="{x(size):.1f}" y="{height - 32}" text-anchor="middle">{power(size)}</text>')
    for colour, (who, points) in zip(COLOURS, curve.by_who.items()):
        line = " ".join(f"{x(size):.1f},{y(cost):.1f}" for size, cost in points.items())
        end = max(points)
        out.append(f'<polyline points="{line}" fill="none" stroke="{colour}" stroke-width="2"/>')
        out.extend(f'<circle cx="{x(size):.1f}" cy="{y(cost):.1f}" r="3" fill="{colour}"/>' for size, cost in points.items())
        out.append(f'<text x="{x(end) + 8:.1f}" y="{y(points[end]) + 4:.1f}" fill="{colour}">{who}</text>')
    return "\n".join([*out, "</svg>\n"])


def curve_text(curve):
    """The table of a curve, after its plot, which is written."""
    name = "performance-" + re.sub("[^a-z]+", "-", curve.heading().split(":")[0].lower()) + ".svg"
    (DOCS / name).write_text(plot(curve))
    sizes = curve.sizes()
    lines = ["| | " + " | ".join(map(power, sizes)) + " |", "|---" * (len(sizes) + 1) + "|"]
    for who, points in curve.by_who.items():
        lines.append(f"| {who} | " + " | ".join(digits(points[size]) if size in points else "" for size in sizes) + " |")
    return "\n".join([f"#### {curve.heading()}", "", f"![{curve.heading()}]({name})", "", *lines, ""])


def rising(drawn):
    """The rows of the table of curves that rise more than the best peer's."""
    for curve in drawn:
        ours, theirs = curve.rises()
        if ours > FLAT * theirs:
            yield curve.heading(), f"{ours:.1f}", f"{theirs:.1f}", f"{ours / theirs:.1f}"


def rising_text(drawn):
    lines = ["| " + " | ".join(row) + " |" for row in rising(drawn)]
    table = ["| curve | rises by | the best peer's | ratio |", "|---|---|---|---|", *lines] if lines else ["None."]
    return "\n".join(["### Curves that rise", "", *table, ""])


def row_text(found, wanted):
    lines = ["| row | to the best peer | target | the least | |", "|---|---|---|---|---|"]
    for row, target in wanted.items():
        ratio = rows.ratio(found.get(row, {}), target)
        if ratio is not None:
            least = "" if ratio.least is None else f"{ratio.least:.2f}"
            verdict = "" if ratio.verdict() == "within" else ratio.verdict()
            lines.append(f"| {row} | {ratio.value:.2f} x {ratio.peer} | {target} | {least} | {verdict} |")
    return "\n".join([ROWS, *lines, ""])


def show(drawn):
    for curve in drawn:
        rows.table([curve.heading(), *map(power, curve.sizes())],
                   [[who, *(digits(points[size]) if size in points else "" for size in curve.sizes())]
                    for who, points in curve.by_who.items()])
        print()
    rows.table(["curves that rise", "by", "the best peer's", "ratio"], list(rising(drawn)))


def main():
    os.environ["G_SLICE"] = "always-malloc"  # as later versions of GLib do, or their memory could not be counted
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    programs, only = rows.programs(sys.argv[1]), sys.argv[2] if len(sys.argv) == 3 else ""
    if only not in ("", "rows", "curves"):
        show(curves(measured(programs, only, 3)))
        return
    page = DOCS / "performance.md"
    text, rest = page.read_text().split(MARKS)
    table, drawn = re.split(r"\n(?=### (?!Rows))", rest, maxsplit=1)
    if only != "curves":
        wanted = report.targets()
        table = "\n" + row_text(measured_alone(programs, wanted), wanted)
    if only != "rows":
        for old in DOCS.glob("performance-*.svg"):
            old.unlink()
        order = list(FAMILIES)
        families = {FAMILIES[program.name]: curves(measured([program], "^curves", 3))
                    for program in sorted(programs, key=lambda one: order.index(one.name) if one.name in order else len(order))
                    if rows.names(program, "^curves")}
        texts = [rising_text([curve for family in families.values() for curve in family])]
        for family, of_family in families.items():
            texts += [f"### {family}\n", *map(curve_text, of_family)]
        drawn = "\n".join(texts)
    page.write_text(text + MARKS + table + "\n" + drawn)


if __name__ == "__main__":
    main()
