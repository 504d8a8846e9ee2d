"""rooms.py ROOT: each folder of the library and its tools has a README.md that names its files, and includes only what
the line "May use" of its README allows."""
import re
import tree

FOLDERS = ("baselib", "ctools", "platform", "qel", "tools")

# A word of "May use" that is no folder of this project.
OUTSIDE = re.compile(r"the (C\+\+|C) library|the operating system|CLI11|nlohmann/json|OpenSSL")
# Every folder may include the declarations that all layers share.
SHARED = "qel/qelbase/inc"

root = tree.root()
homes = {}
for path in tree.files(*FOLDERS):
    if path.suffix == ".h":
        homes.setdefault(path.name, path.parent.relative_to(root).as_posix())
folders = sorted({path.parent for path in tree.files(*FOLDERS)})
names = {folder.relative_to(root).as_posix() for folder in folders} | set(homes.values())


def allowed(readme, folder):
    """The folders that a README's "May use" names: a name stands for the folder and those below it."""
    found = re.search(r"^May use: (.*?)(?:\. |\.\n|\.$|\Z)", readme, re.MULTILINE | re.DOTALL)
    if not found:
        return None
    words = [re.sub(r"\(.*?\)", "", word).strip() for word in re.split(r",|\band\b|\n", found.group(1))]
    prefixes = {SHARED, folder, folder.rsplit("/", 1)[0]}
    for word in words:
        if word and not OUTSIDE.search(word):
            prefixes |= {name for name in names if name.endswith("/" + word) or name == word
                         or f"/{word}/" in f"/{name}/"}
    return prefixes


faults = []
for path in folders:
    folder = path.relative_to(root).as_posix()
    readme = path / "README.md"
    if not readme.exists():
        faults.append(f"{folder}: no README.md")
        continue
    text = readme.read_text()
    stems = {file.stem.removesuffix("_p") for file in path.iterdir() if file.suffix in tree.SUFFIXES}
    faults += [f"{folder}/README.md: does not name {stem}" for stem in sorted(stems)
               if not re.search(rf"\b{re.escape(stem)}(_p)?\b", text)]
    may = allowed(text, folder)
    if may is None:
        faults.append(f"{folder}/README.md: no line \"May use\"")
        continue
    if "everything" in text[text.index("May use"):] or "every library" in text[text.index("May use"):]:
        continue
    for file in sorted(path.iterdir()):
        if file.suffix not in tree.SUFFIXES:
            continue
        for header in re.findall(r'#\s*include\s*["<]([^">]+)[">]', tree.without_comments(file.read_text())):
            home = homes.get(header.rsplit("/", 1)[-1])
            if home and (path / header).exists():
                continue
            if home and home not in may:
                faults.append(f"{file.relative_to(root)}: includes {header} of {home}, which {folder}/README.md does not allow")
tree.finish(faults)
