#!/usr/bin/env python3
"""report.py FOLDER [FILTER]: runs the benchmark programs of FOLDER and prints the library's figures beside the peers'.

FILTER is a regular expression on names; without it, all but the curves. Medians of nine repetitions are compared. A
benchmark with a counter named "bytes" compares that and not its time. A row whose ratio is above its target in targets.txt is
marked.
"""
import sys

import rows


def targets():
    """Row to the highest ratio to its best peer that is wanted."""
    lines = [line.split(None, 1) for line in (rows.HERE / "targets.txt").read_text().splitlines()
             if line and not line.startswith("#")]
    return {row: float(limit) for limit, row in lines}


def show(title, values, written):
    """Prints the table of rows that have both sides; returns the others' names."""
    wanted, lines, alone = targets(), [], []
    for row, by_who in sorted(values.items()):
        ratio = rows.ratio(by_who, wanted.get(row))
        if ratio is None:
            alone.append(row)
            continue
        verdict = f"{ratio.verdict()} {'' if ratio.target is None else ratio.target}".strip()
        lines.append([row, written(by_who[rows.US]), f"{ratio.value:.2f}", verdict,
                      ", ".join(f"{who} {value:.2f}" for value, who in ratio.each)])
    if lines:
        rows.table([title, "ours", "of the best peer", "target", "of each (below 1: ours is less)"], lines)
    return alone


def main():
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    folder, name_filter = sys.argv[1], sys.argv[2] if len(sys.argv) == 3 else "-^curves"
    todo = [(program, len(found)) for program in rows.programs(folder) if (found := rows.names(program, name_filter))]
    if not todo:
        sys.exit(f"no benchmark matches {name_filter}")
    times, memory = {}, {}
    for number, (program, count) in enumerate(todo, 1):
        rows.progress(f"[{number}/{len(todo)}] {program.name}: {count} benchmarks")
        for row, who, value, is_memory in rows.medians(program, name_filter, 9):
            (memory if is_memory else times).setdefault(row, {})[who] = value
    rows.progress("")
    alone = show("time", times, rows.seconds) + show("memory", memory, "{:.0f} bytes".format)
    for row in alone:
        print(f"{row}: no peer to compare with")


if __name__ == "__main__":
    main()
