"""failures.py ROOT: a folder defines its exception classes in one source; only platform/ turns errno into Windows numbers."""
import collections
import errno
import re
import tree

# The core's exceptions, and those of the socket transport.
SOURCES = {"qel/qelstd/services/failures": 2}
TABLE = re.compile(r"^(?:QEL_EXCEPTION\(|constinit qelClass )(\w*X[A-Z]\w*)(?:,|::rtti)", re.MULTILINE)
# A row or a branch: an error number of the operating system, and then a Windows number.
NUMBER = re.compile(r"\b(?:%s)\b\s*[,:?][^;{}]*?\bERROR_[A-Z_]+" % "|".join(errno.errorcode.values()))

faults = []
found = collections.defaultdict(set)
mapping = set()
count = 0
for path in tree.files("baselib", "ctools", "platform", "qel", "tools"):
    name = path.relative_to(tree.root())
    text = tree.without_comments(path.read_text())
    if path.suffix == ".cpp" and (tables := TABLE.findall(text)):
        found[name.parent.as_posix()].add(name.name)
        count += len(tables)
    if NUMBER.search(text):
        mapping.add(name.as_posix())
for folder, sources in found.items():
    if len(sources) != SOURCES.get(folder, 1):
        faults.append(f"{folder}: exceptions are defined in {', '.join(sorted(sources))}")
if count < 50:
    faults.append(f"only {count} exceptions found")
if "platform/errortable.cpp" not in mapping:
    faults.append("no row of platform/errortable.cpp found")
faults += [f"{name} turns errno into a Windows number" for name in sorted(mapping) if not name.startswith("platform/")]
tree.finish(faults)
