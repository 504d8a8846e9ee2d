"""catches.py ROOT: who catches a failure frees it. A catch clause in an example, a document or a tool neither calls xdelete
nor xrcrelease, each of which is wrong for half of the failures: qel::caught owns any. No test expects a thrown pointer by a
macro that leaks it: tests/support/thrown.h has what to use."""
import re
import tree

CATCH = re.compile(r"\bcatch\s*\([^)]*\)\s*\{")
FREES = re.compile(r"\b(xdelete|xrcrelease)\s*\(")
LEAKS = re.compile(r"\b(?:EXPECT|ASSERT)_THROW\s*\(")


def block_end(text, start):
    """The end of the block that begins before `start`."""
    depth = 1
    for match in re.finditer(r"[{}]", text[start:]):
        depth += 1 if match.group(0) == "{" else -1
        if depth == 0:
            return start + match.start()
    return len(text)


def arguments(text, start):
    """The text up to the parenthesis that closes the one before `start`."""
    depth = 1
    for match in re.finditer(r"[()]", text[start:]):
        depth += 1 if match.group(0) == "(" else -1
        if depth == 0:
            return text[start:start + match.start()]
    return text[start:]


def freeing(text):
    """The lines on which a catch clause frees what it caught."""
    return [text.count("\n", 0, clause.end() + found.start()) + 1 for clause in CATCH.finditer(text)
            for found in FREES.finditer(text[clause.end():block_end(text, clause.end())])]


def leaking(text):
    """The lines on which a macro expects a pointer."""
    return [text.count("\n", 0, macro.start()) + 1 for macro in LEAKS.finditer(text)
            if arguments(text, macro.end()).rstrip().endswith("*")]


assert freeing("try { f(); }\ncatch (xthrowable* e) { if (e) {\n xdelete(e); } } xdelete(p);") == [3]
assert leaking("EXPECT_THROW(f(a, b),\n xthrowable*);\nEXPECT_THROW(f(), std::bad_alloc);") == [1]

root = tree.root()
faults = []
documents = [root / "README.md", *sorted((root / "docs").glob("*.md"))]
for path in [*tree.files("examples", "tools"), *documents]:
    faults += [f"{path.relative_to(root)}:{line}: a catch clause that frees what it caught: use qel::caught"
               for line in freeing(tree.without_comments(path.read_text()))]
for path in tree.files("tests"):
    faults += [f"{path.relative_to(root)}:{line}: leaks what is thrown: use tests/support/thrown.h"
               for line in leaking(tree.without_comments(path.read_text()))]
tree.finish(faults)
