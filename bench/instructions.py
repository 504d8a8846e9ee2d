#!/usr/bin/env python3
"""instructions.py PROGRAM [--write]: compares the instructions of PROGRAM's operations with the counts in instructions.txt.

An operation's count is the difference of two runs under valgrind, so that neither starting the program nor other load counts.
More than 3 % above the noted count fails: mend it, or write the new count and say why in the commit's message. Dictionaries
hash with random seeds: they are run longer, and 5 % is allowed.
"""
import os
import re
import subprocess
import sys

import rows

NOTED = rows.HERE / "instructions.txt"
# The C library's functions for each x86-64 processor, not those for this machine's.
SAME_EVERYWHERE = {"GLIBC_TUNABLES": "glibc.cpu.hwcaps=-AVX2,-AVX_Fast_Unaligned_Load,-ERMS,-FSRM"}


def instructions(program, row, count):
    run = subprocess.run(["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", program, row, str(count)],
                         stderr=subprocess.PIPE, text=True, check=True, env=os.environ | SAME_EVERYWHERE)
    return int(re.search(r"Collected : (\d+)", run.stderr)[1])


def varies(row):
    return row.startswith("dictionary")


def count_of(program, row):
    """The instructions of one operation."""
    few, many = 1000, 101_000 if varies(row) else 5000
    return (instructions(program, row, many) - instructions(program, row, few)) / (many - few)


def grew(row, noted, now):
    return now > noted * (1.05 if varies(row) else 1.03)


def main():
    if len(sys.argv) < 2 or sys.argv[2:] not in ([], ["--write"]):
        sys.exit(__doc__)
    program = sys.argv[1]
    names = subprocess.run([program], stdout=subprocess.PIPE, text=True, check=True).stdout.splitlines()
    counts = {name: count_of(program, name) for name in names}
    if len(sys.argv) == 3:
        NOTED.write_text("".join(f"{count:8.1f}  {name}\n" for name, count in counts.items()))
        return
    noted = {name: float(count) for count, name in (line.split(None, 1) for line in NOTED.read_text().splitlines())}
    if set(noted) != set(counts):
        sys.exit("instructions.txt has other operations than the program")
    rows.table(["operation", "noted", "now", ""],
               [[name, f"{noted[name]:.1f}", f"{count:.1f}", "grew" if grew(name, noted[name], count) else ""]
                for name, count in counts.items()])
    sys.exit(any(grew(name, noted[name], count) for name, count in counts.items()))


if __name__ == "__main__":
    main()
