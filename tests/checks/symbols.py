"""symbols.py ROOT NM LIBRARY NAME [--write]: the library exports the symbols that cmake/abi/NAME.symbols lists, under one version.

With --write the list is rewritten; review its changes like those of a header: a symbol that was removed, or has other
arguments, breaks the programs that were linked with it."""
import pathlib
import re
import subprocess
import sys
import tree

root, nm, library, name = sys.argv[1:5]
listed_in = tree.root() / "cmake" / "abi" / f"{name}.symbols"

# Weak symbols come from headers: instances of templates, inline variables, the tables of classes without a source. Which
# of those a library exports depends on the compiler, and their users define them too; except these, which only the
# libraries define.
ONLY_HERE = re.compile(r"\bxt([sc]sequence|[bsc]dictionary)<|\bbtkString\w+<|\bbtkUtf\w+<"
                       r"|\bbtkStrBuf::(Alloc|AppendInPlace|Commit|Create|Get|Resize)<")

lines = subprocess.run([nm, "-D", "--defined-only", "-C", library], capture_output=True, text=True, check=True).stdout
exported, promised, versions = set(), set(), set()
for line in lines.splitlines():
    kind, symbol = line.split(" ", 2)[1:]
    symbol, _, version = symbol.partition("@@")
    versions.add(version)
    if kind == "A":
        continue  # the version itself
    exported.add(symbol)
    if kind not in "WVu" or ONLY_HERE.search(symbol):
        promised.add(symbol)

node = f"{name.upper().replace('-', '_')}_"
faults = []
if len(promised) < (1 if name == "qelstd-tls" else 5):
    faults.append(f"{library} exports hardly anything")
own = {version for version in versions if version}
if len(own) != 1 or not own.pop().startswith(node) or any("@" in symbol for symbol in exported):
    faults.append(f"{library}: the symbols have the versions {sorted(versions)}, not one that begins with {node}")

if "--write" in sys.argv[5:]:
    listed_in.parent.mkdir(exist_ok=True)
    listed_in.write_text("".join(f"{symbol}\n" for symbol in sorted(promised)))
    tree.finish(faults)

listed = set(listed_in.read_text().splitlines())
faults += [f"no longer exported: {symbol}" for symbol in sorted(listed - exported)]
faults += [f"exported, but not listed: {symbol}" for symbol in sorted(promised - listed)]
if faults:
    faults.append(f"{listed_in.relative_to(tree.root())} is the list; `./dev abi write` makes it anew")
tree.finish(faults)
