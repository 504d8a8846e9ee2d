"""samples.py ROOT: the code in the documents is code that is built and run.

In a document a comment before a fenced block names the file of the tree that the block shows, or the sample in it:

    <!-- examples/tour/objects.cpp: values -->
    ```cpp
    ...
    ```

The file must be a source that its folder's CMakeLists.txt names, or the output that a program there must print; or belong to
a project for the installed library, which tests/package builds. A sample is the lines between `// sample NAME` and `// end`;
the block contains them without their common indentation. Only blocks of the languages in FREE show no file. With a second
argument, `write`, the blocks are filled from the files.

A sample fits on a screen, and so does the source of an example, except for those of LONG."""
import re
import sys
import textwrap
import tree

FREE = {"sh", "cmake", "text", "gdb", "ini"}
SCREEN = 80  # lines
# Sources with several samples, and whole programs.
LONG = {"tour/cpp.cpp", "tour/objects.cpp", "wordcount/statistics.cpp", "wordcount_c/wordcount_c.c", "wordserver/wordserver.cpp"}
BLOCK = re.compile(r"(?:<!-- (?P<file>[^\s:]+)(?:: (?P<sample>[\w ]+))? -->\n)?^```(?P<language>\w*)\n(?P<code>.*?)^```$",
                   re.MULTILINE | re.DOTALL)

faults = []


def shown(document, file, sample):
    """The text of a block that shows the sample."""
    path = tree.root() / file
    if not path.is_file():
        faults.append(f"{document}: there is no {file}")
        return None
    lists = path.parent / "CMakeLists.txt"
    if re.search(r"^project\(", lists.read_text() if lists.exists() else "", re.MULTILINE):
        lists = tree.root() / "tests/package/run.sh"  # a project for the installed library: this test builds it
        named = str(path.parent.relative_to(tree.root())) in lists.read_text()
    else:
        named = lists.exists() and path.stem in re.findall(r"[\w-]+", lists.read_text())
    if not named:
        faults.append(f"{document}: {file} is not built or compared by {lists.relative_to(tree.root())}")
    text = path.read_text()
    if sample is None:
        return text
    found = re.search(rf"^ *// sample {sample}\n(.*?)^ *// end\n", text, re.MULTILINE | re.DOTALL)
    if found is None:
        faults.append(f"{document}: there is no sample '{sample}' in {file}")
        return None
    return textwrap.dedent(found.group(1))


def check(path, write):
    document = path.relative_to(tree.root())
    text = path.read_text()

    def block(match):
        line = text.count("\n", 0, match.start()) + 1
        place = f"{document}:{line}"
        if match["file"] is None:
            if match["language"] not in FREE:
                faults.append(f"{place}: a block of '{match['language']}' that does not say which file it shows")
            return match.group(0)
        expected = shown(place, match["file"], match["sample"])
        if expected is not None and expected.count("\n") > SCREEN:
            faults.append(f"{place}: more than {SCREEN} lines")
        if expected is None or expected == match["code"]:
            return match.group(0)
        if not write:
            faults.append(f"{place}: differs from {match['file']}; `./dev docs samples` fills it in")
        return text[match.start():match.start("code")] + expected + "```"

    filled = BLOCK.sub(block, text)
    if filled.count("```") % 2 != 0:
        faults.append(f"{document}: a block has no end")
    # Code blocks that are merely indented would escape the check.
    for number, line in enumerate(BLOCK.sub(lambda match: "\n" * match.group(0).count("\n"), text).splitlines(), 1):
        if re.match(r"    .*(;|\{|^    #include.*)$", line):
            faults.append(f"{document}:{number}: code that is not in a fenced block: {line.strip()}")
    if write and filled != text:
        path.write_text(filled)
    return len(BLOCK.findall(text))


documents = [tree.root() / "README.md", *sorted((tree.root() / "docs").glob("*.md"))]
blocks = sum(check(path, "write" in sys.argv[2:]) for path in documents)
if blocks < 5:
    faults.append(f"hardly any blocks in {len(documents)} documents")
for path in tree.files("examples"):
    name = path.relative_to(tree.root() / "examples").as_posix()
    if (path.read_text().count("\n") > SCREEN) != (name in LONG):
        faults.append(f"examples/{name}: " + ("not long any more" if name in LONG else f"more than {SCREEN} lines"))
tree.finish(faults)
