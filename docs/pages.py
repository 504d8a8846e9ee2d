"""pages.py ROOT OUT: copies the documents of the tree into the folder OUT, as Doxygen takes them, and prints their paths in the
order in which one reads them.

All are in one folder there. A link whose text is a file's name gets the title of its page. Doxygen has no anchors for headings of its own and one name space for them, so each heading gets
PAGE-HEADING, and links lead there. A code span in which Doxygen finds a quotation or a link is written out. The sections of
subjects.md become groups of declarations, too (headers.py)."""
import pathlib
import re
import sys

root, out = (pathlib.Path(argument).resolve() for argument in sys.argv[1:])
FIRST = ["subjects.md", "getting-started.md", "tour.md", "howto.md", "qelcpp.md", "json.md", "names.md", "troubleshooting.md"]
BESIDE = {root / "python/README.md": "python.md", root / "tools/gdb/README.md": "gdb.md"}
pages = {path.resolve(): path.name for path in (root / "docs").glob("*.md")}
# Doxygen takes a link for one to the file of that name in the folder where it runs, if there is one.
pages |= {path: path.name if path.name == "README.md" else f"project-{path.name.lower()}" for path in root.glob("*.md")}
pages |= {path.resolve(): name for path, name in BESIDE.items()}
titles = {name: re.search(r"^# (.*)$", path.read_text(), re.MULTILINE)[1] for path, name in pages.items()}


def anchor(name, heading):
    slug = re.sub(r"[^\w\- ]", "", heading.lower()).strip().replace(" ", "-")
    return f"{name.removesuffix('.md')}-{slug}"


def written_out(span):
    if not re.search(r"'|^#|^::|\*\w+::", span[1]):
        return span[0]
    return "<code>" + re.sub(r"([\\@&$#<>%\"|]|::)", r"\\\1", span[1]) + "</code>"


for path, name in pages.items():
    def link(found):
        target, _, heading = found[2].partition("#")
        if ":" in target:
            return found[0]
        page = pages.get((path.parent / target).resolve() if target else path)
        if page is None:
            return found[0]
        text = titles[page] if found[1] == pathlib.Path(target).name else found[1]
        return f"[{text}](@ref {anchor(page, heading)})" if heading else f"[{text}]({page})"

    parts = re.split(r"(^```.*?^```$)", path.read_text(), flags=re.MULTILINE | re.DOTALL)
    for i in range(0, len(parts), 2):
        text = re.sub(r"\[([^\[\]]*)\]\(([^)\s]+)\)", link, parts[i])
        text = re.sub(r"(?<!`)`([^`\n]+)`(?!`)", written_out, text)
        parts[i] = re.sub(r"^(##+) (.*)$", lambda h: f"{h[0]} {{#{anchor(name, h[2])}}}", text, flags=re.MULTILINE)
    (out / name).write_text("".join(parts))

def of_group(section):
    """A section of subjects.md on the main page, and as a group."""
    title, text = section[1], section[2]
    name = re.sub(r"\W+", "_", title.lower())
    groups.append(f"/** @defgroup {name} {title}\n{text}*/\n")
    return f"## {title}\n{text.rstrip()} All its declarations: @ref {name}.\n\n"


groups = []
subjects = out / "subjects.md"
text = re.sub(r"^All: .*?\n(\n|\Z)", "", subjects.read_text(), flags=re.MULTILINE | re.DOTALL)
text = re.sub(r"^## (.*?) \{#.*?\}\n(.*?)(?=^## |\Z)", of_group, text, flags=re.MULTILINE | re.DOTALL)
subjects.write_text(text)
(out / "groups.dox").write_text("\n".join(groups))
names = FIRST + sorted(set(pages.values()) - set(FIRST), key=titles.get) + ["groups.dox"]
print(*(out / name for name in names))
