"""registration.py ROOT NM LIBRARY: every class with a table and every enumeration with labels, according to the library's
symbols, is registered in qel/qelstd/registration."""
import re
import subprocess
import sys
import tree

registered = set()
for path in tree.files("qel/qelstd/registration"):
    for names in re.findall(r"qelRegister\s*<([^;]*?)>\s*\(", tree.without_comments(path.read_text())):
        registered |= {name.strip() for name in names.split(",")}

symbols = subprocess.run([sys.argv[2], "-C", sys.argv[3]], stdout=subprocess.PIPE, check=True).stdout.decode()
classes = set(re.findall(r"^\S+ [A-Za-z] (\S.*)::rtti$", symbols, re.MULTILINE))
enumerations = set(re.findall(r"^\S+ [A-Za-z] qelGetRtti_(\w+)\(\)", symbols, re.MULTILINE))
enumerations -= {"any", "bool", "int", "object", "real", "string"} # the basic types register themselves
if not classes:
    sys.exit(f"{sys.argv[3]}: no class with a table")
tree.finish([f"{name}: not registered" for name in sorted((classes | enumerations) - registered)])
