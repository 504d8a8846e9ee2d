"""registration.py ROOT: every class with QEL_OBJECT and every enumeration with QEL_ENUM below qel/ is registered in
qel/qelstd/registration."""
import re
import tree

registered = set()
for path in tree.files("qel/qelstd/registration"):
    for names in re.findall(r"qelRegister\s*<([^;]*?)>\s*\(", tree.without_comments(path.read_text())):
        registered |= {name.strip().rsplit("::", 1)[-1] for name in names.split(",")}

faults = []
for path in tree.files("qel"):
    for number, line in enumerate(tree.without_comments(path.read_text()).splitlines(), 1):
        if re.match(r"\s*#", line) or line.rstrip().endswith("\\"):
            continue # the macros' own definition
        for macro, name in re.findall(r"\b(QEL_OBJECT|QEL_ENUM)\(\s*([\w:]+)", line):
            if name.rsplit("::", 1)[-1] not in registered:
                faults.append(f"{path.relative_to(tree.root())}:{number}: {macro}({name}): not registered")
tree.finish(faults)
