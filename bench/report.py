#!/usr/bin/env python3
"""report.py FOLDER [FILTER]: runs the benchmark programs of FOLDER and prints the library's times as ratios of the peers'.

A benchmark is named area/operation/who, with who "qelstd" or the peer's name; arguments may follow. What shares area,
operation and arguments is compared. Repetitions of all of a program's benchmarks are interleaved at random and medians
compared, so that a slow moment of the machine does not fall on one side. FILTER is a regular expression on names.

Of a benchmark with a counter named "bytes", that is compared and not the time. A table of its own shows such memory.
"""
import json
import os
import subprocess
import sys

US = "qelstd"
OPTIONS = ["--benchmark_format=json", "--benchmark_repetitions=9", "--benchmark_min_time=0.05",
           "--benchmark_enable_random_interleaving=true", "--benchmark_report_aggregates_only=true"]
# Parts of a name that describe the measurement, not the operation.
MANNER = ("real_time", "process_time", "manual_time", "repeats:", "iterations:", "min_time:")


def medians(program, name_filter):
    """Yields (operation, who, time or bytes, whether it is bytes) of each benchmark that the program ran."""
    command = [program, *OPTIONS] + ([f"--benchmark_filter={name_filter}"] if name_filter else [])
    result = subprocess.run(command, stdout=subprocess.PIPE, check=False)
    if result.returncode != 0:
        sys.exit(f"{program} ended with {result.returncode}")
    text = result.stdout.decode()
    for row in json.loads(text)["benchmarks"] if text.strip() else []:
        if row.get("error_occurred"):
            sys.exit(f"{row['name']}: {row['error_message']}")
        if row.get("aggregate_name") != "median":
            continue
        parts = row["run_name"].split("/")
        if len(parts) < 3:
            sys.exit(f"{row['run_name']} is not of the form area/operation/who")
        area, operation, who, *rest = parts
        clock = "real_time" if {"real_time", "manual_time"} & set(rest) else "cpu_time"
        arguments = [part for part in rest if not part.startswith(MANNER)]
        # All times of one comparison must have one unit for the ratio.
        unit = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[row["time_unit"]]
        is_memory = "bytes" in row
        value = row["bytes"] if is_memory else row[clock] * unit
        yield "/".join([area, operation, *arguments]), who, value, is_memory


def table(header, rows):
    """Prints rows in columns."""
    widths = [max(len(row[i]) for row in [header, *rows]) for i in range(len(header))]
    for row in [header, ["-" * width for width in widths], *rows]:
        print("  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip())


def main():
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    folder, name_filter = sys.argv[1], sys.argv[2] if len(sys.argv) == 3 else ""
    times, memory = {}, {}
    for name in sorted(os.listdir(folder)):
        program = os.path.join(folder, name)
        if os.path.isfile(program) and os.access(program, os.X_OK):
            for operation, who, value, is_memory in medians(program, name_filter):
                (memory if is_memory else times).setdefault(operation, {})[who] = value
    if not times and not memory:
        sys.exit("no benchmark ran")

    alone = []

    def ratios(by_operation):
        """Yields (operation, our value, our ratios to the peers, best peer first)."""
        for operation, by_who in by_operation.items():
            peers = {who: value for who, value in by_who.items() if who != US}
            if US in by_who and peers:
                yield operation, by_who[US], sorted(((by_who[US] / v, who) for who, v in peers.items()), reverse=True)
            else:
                alone.append(operation)

    def of_each(all_ratios):
        return ", ".join(f"{who} {ratio:.2f}" for ratio, who in all_ratios)

    rows = [[operation, f"{peers[0][0]:.2f}", of_each(peers)] for operation, _, peers in ratios(times)]
    if rows:
        table(["operation", "of the fastest peer", "of each (below 1: we are faster)"], rows)
    rows = [[operation, f"{ours:.0f}", f"{peers[0][0]:.2f}", of_each(peers)]
            for operation, ours, peers in ratios(memory)]
    if rows:
        table(["memory", "bytes", "of the leanest peer", "of each (below 1: we take less)"], rows)
    for operation in alone:
        print(f"{operation}: nothing to compare with")


if __name__ == "__main__":
    main()
