#!/usr/bin/env python3
"""compare.py BEFORE AFTER [FILTER]: the library's own rows of two builds, as after / before.

Both sides run in turn, ROUNDS times. Printed is a row whose median ratio is more than 5 % from 1 while the 95 % confidence
interval of that median (bootstrap over the rounds) excludes 1. Exits with 1 when such a row has become slower.
"""
import random
import statistics
import sys

import rows

ROUNDS = 9
NOTABLE = 0.05


def interval(ratios):
    """The 95 % confidence interval of the median."""
    draw = random.Random(0)
    medians = sorted(statistics.median(draw.choices(ratios, k=len(ratios))) for _ in range(2000))
    return medians[50], medians[1949]


def ratios_of(before, after, name_filter):
    """Row to its ratio after / before in each round."""
    ratios = {}
    for number in range(ROUNDS):
        rows.progress(f"{after.name}: round {number + 1} of {ROUNDS}")
        sides = [(before, {}), (after, {})]
        for program, values in sides if number % 2 else reversed(sides):
            values.update({row: value for row, who, value, _ in rows.medians(program, name_filter, 1) if who == rows.US})
        for row, value in sides[1][1].items():
            if sides[0][1].get(row):
                ratios.setdefault(row, []).append(value / sides[0][1][row])
    return ratios


def main():
    if len(sys.argv) not in (3, 4):
        sys.exit(__doc__)
    # Only the library's own rows, whose last part may be followed by arguments.
    name_filter = f"({sys.argv[3]}).*/{rows.US}(/|$)" if len(sys.argv) == 4 else f"^([^c]|c[^u]).*/{rows.US}(/|$)"  # no curves
    before = {program.name: program for program in rows.programs(sys.argv[1])}
    changed, unchanged = [], 0
    for after in rows.programs(sys.argv[2]):
        if after.name not in before or not rows.names(after, name_filter) or not rows.names(before[after.name], name_filter):
            continue
        for row, ratios in ratios_of(before[after.name], after, name_filter).items():
            low, high = interval(ratios)
            median = statistics.median(ratios)
            if abs(median - 1) > NOTABLE and not low <= 1 <= high:
                changed.append([row, f"{median:.2f}", f"{low:.2f} to {high:.2f}"])
            else:
                unchanged += 1
    rows.progress("")
    if changed:
        rows.table(["row", "after / before", "95 % interval"], sorted(changed, key=lambda line: line[1], reverse=True))
    print(f"{unchanged} rows changed by no more than {NOTABLE:.0%}, or not surely")
    sys.exit(any(float(line[1]) > 1 for line in changed))


if __name__ == "__main__":
    main()
