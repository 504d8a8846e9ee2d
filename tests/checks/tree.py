"""Shared by the checks: the files of the source tree, and a report that ends the program."""
import pathlib
import re
import sys

CODE_FOLDERS = ("baselib", "ctools", "platform", "qel", "tools", "tests", "examples", "bench", "fuzz")
SUFFIXES = (".cpp", ".c", ".h")


def root():
    return pathlib.Path(sys.argv[1]).resolve()


def files(*folders):
    """The source files below the named folders of the tree, in order; of all folders with code when none is named."""
    found = []
    for folder in folders or CODE_FOLDERS:
        found += [path for path in (root() / folder).rglob("*") if path.suffix in SUFFIXES]
    if not folders and len(found) < 10:
        sys.exit(f"hardly any sources below {root()}")
    return sorted(found)


def public_headers():
    """The headers that programs may include, in the order of the build files."""
    for lists in sorted((root() / "qel").rglob("CMakeLists.txt")):
        for block in re.findall(r"qel_public_headers\((.*?)\)", lists.read_text(), re.DOTALL):
            yield from (lists.parent / name for name in block.split())


def without_comments(text):
    """C and C++ text with each comment replaced by its line ends; literals are kept."""
    pattern = r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])*\''

    def replace(match):
        found = match.group(0)
        return "\n" * found.count("\n") + " " if found.startswith("/") else found
    return re.sub(pattern, replace, text, flags=re.DOTALL)


def finish(faults):
    """Ends the program: with 1 when there are faults, each on a line."""
    for fault in faults:
        print(fault)
    sys.exit(1 if faults else 0)
