"""Benchmark programs and their rows.

A benchmark is named area/operation/who, with who "qelstd" or a peer's name; arguments may follow. What shares area,
operation and arguments is one row.
"""
import json
import os
import pathlib
import re
import subprocess
import sys

US = "qelstd"
# A small program that does only what the row cannot do without: no peer, but the limit of the row.
LEAST = "the least"
# Of the time of the least, above which a row that misses its target counts as behind.
NEAR = 1.15
# By which two measurements of the same differ.
NOISE = 1.02
HERE = pathlib.Path(__file__).parent
# Parts of a name that describe the measurement, not the operation.
MANNER = ("real_time", "process_time", "manual_time", "repeats:", "iterations:", "min_time:")
NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


def targets(name_filter):
    """The programs that may have a benchmark whose name matches, by the texts in their sources."""
    found = []
    for lists in HERE.rglob("CMakeLists.txt"):
        for target in re.findall(r"^qel_add_bench\((\w+)", lists.read_text(), re.MULTILINE):
            texts = re.findall(r'"(\w[^"\n]*/[^"\n]*)"', (lists.parent / f"{target}.cpp").read_text())
            # A text that ends in "/" is a part of names that the program composes: it is asked if the area may match.
            composes = any(text.endswith("/") for text in texts)
            areas = {text.split("/")[0] for text in texts}
            if any(re.search(name_filter, text) for text in texts) or composes and (
                    "/" not in name_filter or name_filter.split("/")[0] in areas):
                found.append(target)
    return sorted(found)


def programs(folder):
    return [path for path in sorted(pathlib.Path(folder).iterdir()) if path.is_file() and os.access(path, os.X_OK)]


def names(program, name_filter):
    """The names of the program's benchmarks that match."""
    listed = subprocess.run([program, "--benchmark_list_tests=true", f"--benchmark_filter={name_filter or '.'}"],
                            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, check=False)
    return [line for line in listed.stdout.splitlines() if line.count("/") >= 2]


def medians(program, name_filter, repetitions):
    """Yields (row, who, nanoseconds or bytes, whether it is bytes) of each benchmark that the program ran.

    Repetitions of all benchmarks are interleaved at random, so that a slow moment of the machine does not fall on one side.
    """
    result = subprocess.run([program, f"--benchmark_filter={name_filter or '.'}", "--benchmark_format=json",
                             f"--benchmark_repetitions={repetitions}", "--benchmark_min_time=0.05",
                             "--benchmark_enable_random_interleaving=true"], stdout=subprocess.PIPE, text=True, check=False)
    if result.returncode != 0:
        sys.exit(f"{program} ended with {result.returncode}")
    values = {}
    for run in json.loads(result.stdout)["benchmarks"]:
        if run.get("error_occurred"):
            sys.exit(f"{run['name']}: {run['error_message']}")
        if run["run_type"] != "iteration":
            continue
        parts = run["run_name"].split("/")
        if len(parts) < 3:
            sys.exit(f"{run['run_name']} is not of the form area/operation/who")
        area, operation, who, *rest = parts
        row = "/".join([area, operation, *(part for part in rest if not part.startswith(MANNER))])
        clock = "real_time" if {"real_time", "manual_time"} & set(rest) else "cpu_time"
        value = run["bytes"] if "bytes" in run else run[clock] * NANOSECONDS[run["time_unit"]]
        values.setdefault((row, who, "bytes" in run), []).append(value)
    for (row, who, is_memory), runs in values.items():
        yield row, who, sorted(runs)[len(runs) // 2], is_memory


class Ratio:
    """The library's value of a row beside its best peer's, the least and the target; None without a peer."""

    def __init__(self, by_who, target):
        peers = {who: value for who, value in by_who.items() if who not in (US, LEAST)}
        self.peer = min(peers, key=peers.get)
        best = peers[self.peer]
        self.value = by_who[US] / best
        self.least = by_who[LEAST] / best if LEAST in by_who else None
        self.target = target
        self.each = sorted(((by_who[US] / value, who) for who, value in by_who.items() if who != US), reverse=True)

    def verdict(self):
        if self.target is None:
            return ""
        if round(self.value, 2) <= round(self.target * NOISE, 2):  # as they are shown
            return "within"
        return "at its limit" if self.least is not None and self.value <= NEAR * self.least else "behind"


def ratio(by_who, target):
    """The row's Ratio, or None when the library or a peer has no value."""
    return Ratio(by_who, target) if US in by_who and set(by_who) - {US, LEAST} else None


def table(header, lines):
    """Prints lines in columns."""
    widths = [max(len(line[i]) for line in [header, *lines]) for i in range(len(header))]
    for line in [header, ["-" * width for width in widths], *lines]:
        print("  ".join(cell.ljust(width) for cell, width in zip(line, widths)).rstrip())


def seconds(nanoseconds):
    """A time with its unit."""
    for unit, factor in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if nanoseconds >= factor:
            return f"{nanoseconds / factor:.3g} {unit}"
    return f"{nanoseconds:.3g} ns"


def progress(text):
    if sys.stderr.isatty():
        print(f"\r\033[K{text}", end="", file=sys.stderr, flush=True)
