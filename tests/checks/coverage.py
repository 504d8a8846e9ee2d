"""coverage.py BUILD: the coverage by the tests that have run in a coverage build, as pages, as a summary, and against the goals.

gcovr counts; two corrections are made between its input and its report. Public headers are found through links in the
build tree: a header counts once, under its own name. A branch that only an exception takes is marked as such only where
the function has run: it is left out after the counts of all instances of a function have been merged, not before, as each
instance that never ran would add it again."""
import json
import os
import pathlib
import subprocess
import sys

FOLDERS = ("baselib/", "ctools/", "platform/", "qel/", "tools/")

# Percent of lines and of branches.
GOAL = (90, 80)
STRICT_GOAL = (95, 90)
STRICT = {
    "decoders": ("qel/qelstd/iolibsrc/ioserializer", "qel/qelstd/iolibsrc/ioasciiserializer", "qel/qelstd/iolibsrc/ioform_p",
                 "qel/qelstd/iolibsrc/iotext_p", "baselib/names/nmswire", "baselib/names/nmstable", "qel/qelstd/monlibsrc/"),
    "write-back": ("baselib/buffers/xfilebuf", "baselib/buffers/xinputbuf", "baselib/buffers/xpipebuf", "baselib/buffers/xsocketbuf", "baselib/buffers/xstdbuf",
                   "baselib/buffers/xstreambuf", "baselib/buffers/xstringbuf", "baselib/buffers/xbufaccess", "ctools/lockfilebuf",
                   "qel/qelstd/config/hmxconfigfile"),
    "handshake": ("baselib/names/nethandshake", "qel/qelstd/netlibsrc/netserver"),
    "relay": ("qel/qelstd/rshlib/rshrelay",),
}


def gcovr(*arguments):
    filters = [word for folder in FOLDERS for word in ("--filter", folder)]
    subprocess.run(["gcovr", "--root", ".", *filters, "--exclude-unreachable-branches", *arguments], check=True)


def added(one, other):
    """The merged counts of two lists of lines of the same file."""
    lines = {line["line_number"]: line for line in one}
    for line in other:
        known = lines.setdefault(line["line_number"], line)
        if known is line:
            continue
        known["count"] += line["count"]
        known["gcovr/noncode"] = known["gcovr/noncode"] and line["gcovr/noncode"]
        for place, branch in enumerate(line["branches"]):
            if place == len(known["branches"]):
                known["branches"].append(branch)
            else:
                same = known["branches"][place]
                same["count"] += branch["count"]
                same["throw"] = same["throw"] or branch["throw"]
    return sorted(lines.values(), key=lambda line: line["line_number"])


def mended(path):
    """Resolves links in file names, and counts the branches that only exceptions take separately, as "throws"; rewrites the
    file at `path` without those."""
    report = json.loads(path.read_text())
    files = {}
    for file in report["files"]:
        file["file"] = os.path.relpath(os.path.realpath(file["file"]))
        known = files.setdefault(file["file"], file)
        if known is not file:
            known["lines"] = added(known["lines"], file["lines"])
            names = {function["name"] for function in known["functions"]}
            known["functions"] += [one for one in file["functions"] if one["name"] not in names]
    report["files"] = list(files.values())
    throws = [[branch for branch in line["branches"] if branch["throw"]] for file in report["files"] for line in file["lines"]]
    for file in report["files"]:
        for line in file["lines"]:
            line["branches"] = [branch for branch in line["branches"] if not branch["throw"]]
    path.write_text(json.dumps(report))
    for line, taken in zip((line for file in report["files"] for line in file["lines"]), throws):
        line["throws"] = taken
    return report["files"]


def percents(files):
    lines = [line for file in files for line in file["lines"] if not line["gcovr/noncode"]]
    branches = [branch for line in lines for branch in line["branches"]]
    throws = [branch for line in lines for branch in line["throws"]]
    return [100 * sum(one["count"] > 0 for one in all) / max(len(all), 1) for all in (lines, branches, throws)]


def main(build):
    report = build / "report"
    report.mkdir(exist_ok=True)
    counts = report / "counts.json"
    gcovr("--gcov-executable", os.path.abspath("tests/coverage/gcov.sh"), "--json", "--output", str(counts), str(build))
    files = mended(counts)
    gcovr("--add-tracefile", str(counts), "--html-details", str(report / "index.html"), "--csv", str(report / "files.csv"),
          "--print-summary")
    groups = {"all": (files, GOAL)}
    for name, starts in STRICT.items():
        groups[name] = ([file for file in files if file["file"].startswith(starts)], STRICT_GOAL)
    missed = False
    print(f"{'':12}{'lines':>8}{'goal':>6}{'branches':>10}{'goal':>6}{'by exceptions':>15}")
    for name, (members, goal) in groups.items():
        reached = percents(members)
        print(f"{name:12}{reached[0]:7.1f}%{goal[0]:5}%{reached[1]:9.1f}%{goal[1]:5}%{reached[2]:14.1f}%")
        missed = missed or reached[0] < goal[0] or reached[1] < goal[1]
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1])))
