"""sources.py ROOT: every source is named by the CMakeLists.txt of its folder, and every header by that or by a source."""
import re
import tree

# Helpers that take the name of a program and derive its source from it.
BY_STEM = re.compile(r"qel_add_(test|fuzzer|bench|example)\(")

included = set()
for path in tree.files():
    included |= {name.rsplit("/", 1)[-1]
                 for name in re.findall(r'#\s*include\s*["<]([^">]+)[">]', path.read_text())}

faults = []
for path in tree.files():
    lists = path.parent / "CMakeLists.txt"
    text = re.sub(r"#.*", "", lists.read_text()) if lists.exists() else ""
    named = set(re.findall(r"[\w.+-]+", text))
    if path.name in named or (path.suffix != ".h" and path.stem in named and BY_STEM.search(text)):
        continue
    if path.suffix == ".h" and path.name in included:
        continue
    # Shared by programs of other folders, and named by a helper in cmake/.
    if any(path.name in helper.read_text() for helper in (tree.root() / "cmake").glob("*.cmake")):
        continue
    faults.append(f"{path.relative_to(tree.root())}: no build file names it")
tree.finish(faults)
