"""umbrella.py INCLUDE CXX [ARG...]: what the two headers that programs begin with include, as the compiler CXX sees it with
the headers below INCLUDE.

<qel/qelstd.h> says "the whole public interface": it reaches every header of the library but those of APART. Both take a
part of each compilation, so neither reaches a standard header of HEAVY, nor grows beyond LINES after the preprocessor."""
import pathlib
import subprocess
import sys

include, compiler = pathlib.Path(sys.argv[1]), sys.argv[2:]
APART = {
    "fserror.h": "the former name of fsexception.h",
    "qelcpp.h": "the namespace qel, which needs more of the standard library",
    "qelown.h": "<memory>; a part of qelcpp.h",
    "monstatistics.h": "<memory> and <string>; for servers",
    "qelserver.h": "<memory>",
    "qelfind.h": "<memory>",
    "qelloop.h": "<memory>",
    "qelfind.h": "<memory>, by qelown.h",
    "netfind_c.h": "for C programs",
    "qelpath.h": "<filesystem>",
    "qelformat.h": "<format>",
    "qeljson.h": "few programs need it",
    "qeltable.h": "for the sources that define classes",
    "qelstd_c.h": "for C programs",
    "netfind_c.h": "for C programs",
}
ALWAYS = {"functional", "chrono", "filesystem", "format", "regex", "thread", "mutex", "iostream", "map", "unordered_map"}
HEAVY = {"qelstd.h": ALWAYS | {"memory", "algorithm", "iterator", "ranges", "string", "ios", "ostream", "sstream", "optional", "limits",
                                 "span"},
         "qelcpp.h": ALWAYS | {"ranges", "sstream"}}
# g++ 12: <iostream> and <string> have 26,700 together; a twentieth more than today's.
LINES = {"qelstd.h": 25800, "qelcpp.h": 54400}

faults = []


def preprocessed(header, *how):
    return subprocess.run([*compiler, "-std=c++20", "-E", *how, f"-I{include}", "-x", "c++", "-"], check=True, text=True,
                          input=f"#include <qel/{header}>\n", capture_output=True).stdout


for header, heavy in HEAVY.items():
    reached = [pathlib.Path(path) for path in preprocessed(header, "-M").replace("\\\n", " ").split()[1:]]
    inside = {str(path.relative_to(include / "qel")) for path in reached if path.is_relative_to(include / "qel")}
    for name in sorted(heavy & {path.name for path in reached if "qel" not in path.parts and path.parent.name[:1].isdigit()}):
        faults.append(f"{header} reaches <{name}>")
    lines = preprocessed(header, "-P").count("\n")
    if lines > LINES[header]:
        faults.append(f"{header}: {lines} lines after the preprocessor, more than {LINES[header]}")
    if header == "qelstd.h":
        public = {path.name for path in (include / "qel").glob("*.h")} - {header}
        faults += [f"qelstd.h does not reach {name}, which is not in APART" for name in sorted(public - inside - set(APART))]
        faults += [f"APART names {name}, which " + ("qelstd.h reaches" if name in inside else "is not installed")
                   for name in sorted(set(APART) & inside | set(APART) - public)]
print("\n".join(faults), end="\n" if faults else "", file=sys.stderr)
sys.exit(1 if faults else 0)
