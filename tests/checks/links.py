"""links.py ROOT: what the documents point to exists, and a reader who begins with README.md finds each page of docs/.

Checked are the links between documents, with their headings; the pages that comments in sources name; the headers that
documents name; and the commands of ./dev, each of which installs its prerequisites."""
import re
import tree

SKIPPED = {"build", ".git"}
LINK = re.compile(r"\]\(([^)\s]+)\)")
BLOCK = re.compile(r"^```.*?^```$", re.MULTILINE | re.DOTALL)

root = tree.root()
documents = sorted(path for path in root.rglob("*.md") if not SKIPPED & set(path.relative_to(root).parts))
texts = {path: BLOCK.sub("", path.read_text()) for path in documents}
faults = []


def anchors(text):
    """The names under which the headings of a document are linked to."""
    return {re.sub(r"[^\w\- ]", "", heading.lower()).strip().replace(" ", "-")
            for heading in re.findall(r"^#+ (.*)$", text, re.MULTILINE)}


links = {}
for document, text in texts.items():
    links[document] = set()
    for link in LINK.findall(text):
        if re.match(r"\w+:", link):
            continue
        name, _, anchor = link.partition("#")
        target = (document.parent / name).resolve() if name else document
        if not target.exists():
            faults.append(f"{document.relative_to(root)}: {link} does not exist")
        elif anchor and anchor not in anchors(texts.get(target, "")):
            faults.append(f"{document.relative_to(root)}: {link} is no heading there")
        else:
            links[document].add(target)

found, ahead = set(), {root / "README.md"}
while ahead:
    found |= ahead
    ahead = {target for page in ahead for target in links.get(page, ())} - found
faults += [f"{page.relative_to(root)}: no document that README.md leads to links to it"
           for page in documents if page.parent.name == "docs" and page not in found]

for path in tree.files():
    faults += [f"{path.relative_to(root)}: {page} does not exist"
               for page in re.findall(r"\bdocs/\w[\w-]*\.md\b", path.read_text()) if not (root / page).exists()]

headers = {path.name for path in tree.files("baselib", "ctools", "platform", "qel")}
for document, text in texts.items():
    faults += [f"{document.relative_to(root)}: there is no header <{header}>"
               for header in re.findall(r"<(qel/[\w/.]+\.h)>", text) if header.rsplit("/", 1)[-1] not in headers]

commands = dict(re.findall(r"^run_(\w+)\(\)\s*\{(.*?\n(?=\})|.*\}$)", (root / "dev").read_text(),
                           re.MULTILINE | re.DOTALL))
faults += [f"dev: {name} installs nothing" for name, body in commands.items()
           if not re.search(r"^\s*((need|run)_\w+|need \S+)|\.ci/run", body, re.MULTILINE)]
for document in documents:
    faults += [f"{document.relative_to(root)}: ./dev has no command {name}"
               for name in re.findall(r"(?<![\w/])\./dev ([a-z]\w*)", document.read_text())
               if name not in commands and name != "help"]

if len(commands) < 10 or len(documents) < 20 or sum(map(len, links.values())) < 20:
    faults.append(f"hardly any links in {len(documents)} documents, or commands in dev")
tree.finish(faults)
