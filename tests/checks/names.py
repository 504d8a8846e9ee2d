"""names.py ROOT: functions and variables of one source, those in unnamed namespaces and static ones, are in lowerCamel.

Benchmarks are left out: their functions are named as in the table of results."""
import re
import tree

FOLDERS = ("baselib", "ctools", "platform", "qel", "tools", "examples", "fuzz")
OTHER = re.compile(r"\s|#|}|(?:class|struct|enum|union|using|typedef|template|namespace|extern)\b|[A-Z_0-9]+\(")
# In a declaration that begins a line: the name before its parameters, its initializer or its end.
NAME = re.compile(r"[^(={;]*?(?<![\w:.>])(\w+)(?:\[\w*\])*(?:\(|\s*=|\{|;)")
UPPER = re.compile(r"[A-Z]\w*[a-z]\w*")
LITERAL = re.compile(r'R"\(.*?\)"|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])*\'', re.DOTALL)


def of_one_source(text):
    """The names that the text declares for itself, with the numbers of their lines."""
    depth, unnamed = 0, False
    text = LITERAL.sub(lambda match: '""' + "\n" * match.group(0).count("\n"), tree.without_comments(text))
    for number, line in enumerate(text.split("\n"), 1):
        unnamed |= depth == 0 and line.startswith("namespace {")
        if line and (unnamed and depth == 1 or line.startswith("static ")) and not OTHER.match(line):
            if found := NAME.match(line):
                yield number, found.group(1)
        depth += line.count("{") - line.count("}")
        unnamed &= depth != 0


faults = []
seen = 0
for path in tree.files(*FOLDERS):
    if path.suffix == ".h":
        continue
    for number, name in of_one_source(path.read_text()):
        seen += 1
        if UPPER.fullmatch(name):
            faults.append(f"{path.relative_to(tree.root())}:{number}: {name} is not in lowerCamel")
if seen < 500:
    faults.append(f"only {seen} names found")
tree.finish(faults)
