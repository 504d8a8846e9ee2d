"""labels.py ROOT CTEST BUILD: a test that starts threads has the label `threads`, so that the thread sanitizer runs it."""
import json
import re
import subprocess
import sys
import tree

STARTS_THREADS = re.compile(r"\bstd::(j?thread|async)\b|\bpthread_create\b")

listed = json.loads(subprocess.run([sys.argv[2], "--test-dir", sys.argv[3], "--show-only=json-v1"],
                                   check=True, capture_output=True).stdout)["tests"]
labels = {test["name"]: next((p["value"] for p in test.get("properties", []) if p["name"] == "LABELS"), [])
          for test in listed}
faults = []
for path in tree.files("tests"):
    if path.stem in labels and "threads" not in labels[path.stem] \
            and STARTS_THREADS.search(tree.without_comments(path.read_text())):
        faults.append(f"{path.relative_to(tree.root())}: starts threads without the label `threads`")
tree.finish(faults)
