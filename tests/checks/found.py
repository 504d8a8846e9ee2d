"""found.py ROOT [list]: somebody new finds what belongs to a public name by the names of files.

The names are the classes, enumerations and functions that public headers of the library declare, but for helpers (`qelh`). Of
all files of a kind a searcher opens the THREE whose names share most letters with the name: those at the beginning, and others
in runs of three or more. docs/names.md tells how names are built: an exception (`fsXDiskFull`) is searched as `exception`, too,
a function for C (`xprint_c`) in files that end so, and the prefix leads to a folder, whose first header is looked at as well;
a table has the functions without a prefix. The folder has the same name in all trees. Then

- the declaration stands in one of these headers;
- a source that defines it has the name of that header, or is one of three; what no source defines needs none;
- a test that uses it has the name of that header or source, or is one of three in the folder; for what no test calls by its
  name, one has the name of that header or source;
- a document has the name of the header, of its folder or of the one above, or is one of three and has the name.

Fails when fewer than AT_LEAST of 60 names are found whole. With `list`, prints the names that are not, and how many are found without
the folders of docs/names.md."""
import functools
import re
import sys
import tree

THREE = 3
AT_LEAST = 50  # 51 today: a test that is merged with another is no fault
EXCEPTION = re.compile(r"([a-z]+)X(?!DR)[A-Z]\w*")
# What macros and templates in headers use, and programs do not.
HELPERS = set("qelBuildDescriptor qelDowncast qelLabelCount qelLater qelProbe qelThrowOutOfRange qelThrowTypeMismatch qelShape "
              "qelCase qelArrow xdictentry".split())
DECLARED = re.compile(r"^(?:class|struct|enum(?: class)?) (?:QEL_API )?(\w+)(?!::)(?:<.*>)?(?: final)?(?: *:.*)?(?: \{)?$|"
                      r"^QEL_FAILURE\((\w+),|"
                      r"^(?:extern \"C\" )?(?:\[\[\w+\]\] )?QEL_API (?!extern)[\w:<>*& ]*?\b(\w+)\(")


def shared(name, stem):
    """How many letters the two share: at the beginning, which count twice, and in runs of three or more behind."""
    count = 0
    while count < min(len(name), len(stem)) and name[count] == stem[count]:
        count += 1
    rest, other = name[count:], stem[count:]
    count *= 2
    for size in range(min(len(rest), len(other)), 2, -1):
        at = 0
        while at + size <= len(other):
            if (run := other[at:at + size]) in rest and "\0" not in run:
                count += size
                rest, other = rest.replace(run, "\0", 1), other.replace(run, "\0", 1)
            at += 1
    return count


@functools.cache
def three(name, kind, folder=None):
    """The stems of that kind, in the folder, that a searcher for the name opens."""
    exception = EXCEPTION.fullmatch(name)
    wanted = exception[1] + "exception" + name[exception.end(1) + 1:].lower() if exception else spaces[name] + name.lower()
    stems = [stem for stem, path in kinds[kind].items() if folder in (None, path.parent.name)]
    if name.endswith("_c"):
        stems = [stem for stem in stems if stem.endswith("_c")] or stems
    ranked = sorted((-shared(wanted, stem.lower()), len(stem), stem) for stem in stems)
    return [stem for score, _, stem in ranked[:THREE] if score < -2 or folder or name.endswith("_c")]


def prefixed():
    """The first headers of the prefixes in docs/names.md, and the few that one includes which declares nothing itself."""
    for row in re.findall(r"^\|(.*)\|$", (root / "docs/names.md").read_text(), re.MULTILINE):
        cells = row.split("|")
        if len(cells) == 4 and "<qel/" in cells[2]:
            for prefix in re.findall(r"`([\w:]+)`", cells[1]):
                for begin in re.findall(r"<qel/(\w+)\.h>", cells[2]):
                    inside = re.findall(r"#include <qel/(\w+)\.h>", texts[headers[begin]]) if begin in headers else []
                    declares = begin in {path.stem for path in names.values()}
                    yield prefix, [begin] if declares or len(inside) > 5 else [begin, *inside]
        elif len(cells) == 2 and (header := re.search(r"<qel/(\w+)\.h>", cells[1])):
            yield from ((name, [header[1]]) for name in re.findall(r"`(\w+)`", cells[0]))


def first(name):
    """The headers that docs/names.md names for the longest prefix of the name."""
    whole = f"{spaces[name]}::{name}" if spaces[name] else name
    return max(((len(prefix), begin) for prefix, begin in PREFIXES.items() if whole.startswith(prefix)), default=(0, []))[1]


root = tree.root()
texts = {path: tree.without_comments(path.read_text()) for path in tree.files("qel", "tests")}
headers = {path.stem: path for path in tree.public_headers()}
sources = {path.stem: path for path in texts if path.suffix == ".cpp" and path.is_relative_to(root / "qel/qelstd")
           and path.parent.name != "registration"}
tests = {path.stem.removesuffix("_test"): path for path in texts if path.stem.endswith("_test")}
documents = {path.stem: path for path in (root / "docs").glob("*.md")}
kinds = {"header": headers, "source": sources, "test": tests, "document": documents}

names, spaces = {}, {}
for path in headers.values():
    text = re.split(r"^// ---- implementation", path.read_text(), flags=re.MULTILINE)[0]
    space = ""
    for line, whole in zip(tree.without_comments(text).split("\n"), text.split("\n")):
        if opened := re.match(r"namespace ([\w:]+) \{", line):
            space = opened[1].replace("::", "")
        elif whole.startswith("} // namespace"):
            space = ""
        found = DECLARED.match(line)
        if found and (found[2] or found[3] or not line.endswith(";")):
            spaces.setdefault(found[1] or found[2] or found[3], space)
            names.setdefault(found[1] or found[2] or found[3], path)
names = {name: path for name, path in names.items() if not name.startswith("qelh") and name not in HELPERS}
PREFIXES = {}
for prefix, begin in prefixed():
    PREFIXES.setdefault(prefix, []).extend(begin)


def missing(name, header, isStrict=False):
    """The kinds of files of the name that a searcher does not find."""
    # Exceptions are also called by their registered name.
    short = name[name.find("X"):] if name.find("X") > 1 and EXCEPTION.fullmatch(name) else name
    word = re.compile(rf"\b{name}\b|::{short}\b")
    begin = [] if isStrict else first(name)
    lacking = [] if header.stem in [*three(name, "header"), *begin] else ["declaration"]
    defining = re.compile(rf"\b{name}(::~?\w+)?\(|\b{name}::\w+ = |QEL_\w+\({name},")
    # Most texts do not have it, which a plain search finds out sooner.
    defined = [stem for stem, path in sources.items()
               if name in texts[path] and path.parent == header.parent and defining.search(texts[path])]
    opened = [header.stem, *three(name, "source"), *([] if isStrict else three(name, "source", header.parent.name))]
    if defined and not set(defined) & set(opened):
        lacking.append("source")
    here = [] if isStrict else [stem for folder in (header.parent.name, header.parent.parent.name)
                                for stem in three(name, "test", folder)]
    used = [stem for stem, path in tests.items() if short in texts[path] and word.search(texts[path])]
    same = {header.stem, *(set(defined) & set(opened))}
    if not set(used) & {*same, *three(name, "test"), *here} and (used or not same & tests.keys()):
        lacking.append("test" if "list" not in sys.argv else f"test ({' '.join(used)})")
    if not {header.stem, header.parent.name, header.parent.parent.name} & documents.keys() and not any(
            word.search(documents[stem].read_text()) for stem in three(name, "document")):
        lacking.append("document")
    return lacking


lost = {name: lacking for name, header in names.items() if (lacking := missing(name, header))}
share = 1 - len(lost) / len(names)
print(f"{60 * share:.0f} of 60 ({len(names) - len(lost)} of {len(names)} names)")
if "list" in sys.argv[2:]:
    strict = sum(not missing(name, header, isStrict=True) for name, header in names.items())
    print(f"{60 * strict / len(names):.0f} of 60 without the folders of docs/names.md")
    for name, lacking in sorted(lost.items(), key=lambda item: (str(names[item[0]]), item[0])):
        print(f"{names[name].name}: {name}: no {', '.join(lacking)}")
faults = [] if len(names) > 300 else [f"only {len(names)} names found"]
if 60 * share < AT_LEAST - 0.5:
    faults.append(f"fewer than {AT_LEAST} of 60")
tree.finish(faults)
