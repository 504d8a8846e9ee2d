"""interface.py ROOT [OUT]: public headers of the library say what their users look for.

- Each class has an example: a block of indented lines behind an empty one, in its comment or in another one of the header;
  for the smallest classes an expression in a sentence. INTERNAL names the classes that no program names.
- Each function that returns a new object by pointer says who owns it.
- Each exception says whether it is counted, in its comment, that of a base, or above all declarations.
- An error of the operating system has a name.

With OUT, writes a source with all examples, which the build compiles (not runs). A paragraph that begins with a class, or
with the first line of a function, stands in a namespace, all others in a function. Examples use `stream`, an ioStream&,
`object`, an xobject*, and `value`, an xany, without declaring them."""
import pathlib
import re
import sys
import tree

INTERNAL = {
    "bases of templates and classes of this library, and what these return": (
        "xrcbasehandle xbasesequence xseqiterator xbasedictionary xdictiterator qelReading ioByteSerializer "
        "ioAsciiSerializer ioBinarySerializer ioXDRSerializer ioStreamLink"),
    "conversions of arguments": "qelTextArgument fsPathArgument",
    "parts of other exceptions": "qelXArgs qelXFunc",
    "descriptors of the basic types, which the library makes": "xrttibasic",
}
EXCEPTION = re.compile(r"[a-z]+X(?!DR)[A-Z]\w*")
CLASS = re.compile(r"^class (?:QEL_API )?(\w+)([^;]*)$")
FACTORY = re.compile(r"^ *(?:virtual |(static ))?(\w+)\* (\w+)\([^{]*(?:;|\{.*|,)$|^QEL_API (\w+)\* (\w+)\(")
MAKES = re.compile(r"create|Create\w*|CreateAs|Open|OpenSubkey|Connect\w*|Init\w*|Accept|\w+Event|System|User|Query|Current\w+|"
                   r"LocalTime|TimeFromString|get\w*Time|net(Find|ConnectByName|ConnectSocket)|fshGetModTime|qelRttiCreate")
OWNER = re.compile(r"\bown(s|er|ed)?\b|\bfree[sd]?\b|\bdelete[sd]?\b|ends the process")
NUMBER = re.compile(r"\(error \d+|GetLastError\(\) is (then )?\d")
BLOCK = re.compile(r"^( *)(///?)\n((?:\1\2 {5}.*\n|\1\2\n(?=\1\2 {5}))+)", re.MULTILINE)

# A block, or one expression in a sentence.
EXAMPLE = re.compile(BLOCK.pattern + r"|`[^`\n]*\([^`\n]*`", re.MULTILINE)


def comment_above(lines, at):
    """The comment of the declaration in that line, which others before it may share."""
    while at > 0 and lines[at - 1].strip() and not lines[at - 1].lstrip().startswith("//"):
        at -= 1
    end = at
    while at > 0 and lines[at - 1].lstrip().startswith("//"):
        at -= 1
    return "\n".join(lines[at:end])


def sections(lines, at):
    """The titles and notes above the line: those in its class, and those of the header, which are in no class."""
    found, isInside = [], True
    for i in range(at - 1, -1, -1):
        isInside &= not lines[i].startswith(("class ", "struct ", "}"))
        if re.match(r" *//(?!/)" if isInside else r"//(?!/)", lines[i]):
            found.append(lines[i])
    return "\n".join(found)


def faults_of(name, text, internal):
    """What the header lacks."""
    lines = text.split("\n")
    head = text[:m.start()] if (m := re.search(r"^((class|struct) [^;\n]*$|enum|namespace qel|QEL_API)", text, re.MULTILINE)) else ""
    examples = "\n".join(block[2] for block in BLOCK.findall(text))
    comments = {}
    current = ""
    for at, line in enumerate(lines):
        place = f"{name}:{at + 1}"
        if NUMBER.search(line) and "//" in line:
            yield f"{place}: an error by its number alone"
        if declared := CLASS.match(line):
            current = declared[1]
            comments[current] = comment_above(lines, at)
            if EXCEPTION.fullmatch(current):
                bases = [comments.get(base, "") for base in re.findall(r"\w+", declared[2])]
                told = "\n".join([comments[current], head, *bases])
                comments[current] += "\n".join(bases)
                if not re.search(r"\b[Cc]ount(ed|able)\b", told):
                    yield f"{place}: {current}: does not say whether it is counted"
            elif current not in internal and not re.search(rf"\b{current}\b", examples) and not EXAMPLE.search(
                    comments[current] + "\n"):
                yield f"{place}: {current}: no example"
        elif line.startswith("}"):
            current = ""
        elif (made := FACTORY.match(line)) and MAKES.fullmatch(made[3] or made[5]):
            told = comment_above(lines, at) + sections(lines, at) + comments.get(current, "")
            if not OWNER.search(re.sub(r"^ *//.? {5}.*", "", told, flags=re.MULTILINE)):
                yield f"{place}: {made[3] or made[5]}: does not say who owns the result"


def paragraphs(code):
    """The parts between empty lines that lie in no braces."""
    part = ""
    for piece in code.rstrip("\n").split("\n\n"):
        part += ("\n\n" if part else "") + piece
        if part.count("{") == part.count("}"):
            yield part
            part = ""


def source(headers):
    """A source with the examples of the headers."""
    includes = "".join(f"#include <qel/{path.name}>\n" for path in headers if not path.name.endswith("_c.h"))
    parts = ["#include <chrono>\n#include <filesystem>\n#include <iostream>\n#include <memory>\n#include <thread>\n",
             includes, "using namespace std::chrono_literals;\n"]
    given = "[[maybe_unused]] ioStream& stream, [[maybe_unused]] xobject* object, [[maybe_unused]] const xany& value"
    count = 0
    for path in headers:
        text = path.read_text()
        for block in BLOCK.finditer(text):
            code = re.sub(r"^ *///? {0,5}", "", block[3], flags=re.MULTILINE)
            line = text.count("\n", 0, block.start(3)) + 1
            outside, inside = [], []
            for paragraph in paragraphs(code):
                isScope = re.match(r"(//.*\n)?(class|struct|constinit) |[^\n]*\)\n\{", paragraph)
                (outside if isScope else inside).append(f'#line {line} "{path.relative_to(tree.root())}"\n{paragraph}\n')
                line += paragraph.count("\n") + 2
            count += 1
            parts.append(f"namespace example{count} {{\n{''.join(outside)}void run({given})\n{{\n{''.join(inside)}}}\n}}\n")
    return "\n".join(parts)


BROKEN = """/// A class.
class QEL_API Thing : public xobject
{
public:
    /// A new one.
    static Thing* Create();
    /// GetLastError() is 2 for a missing one.
    bool Find();
};

/// A failure.
class QEL_API tinyXFailure : public xthrowable
"""

headers = list(tree.public_headers())
if len(sys.argv) > 2:
    pathlib.Path(sys.argv[2]).write_text(source(headers))
    sys.exit(0)
internal = {name for names in INTERNAL.values() for name in names.split()}
faults = []
if len(found := list(faults_of("BROKEN", BROKEN, internal))) != 4:
    faults.append(f"finds {len(found)} of 4 faults: {found}")
if len(headers) < 60:
    faults.append(f"only {len(headers)} public headers found")
for path in headers:
    if not path.name.endswith("_c.h"):
        faults += faults_of(path.relative_to(tree.root()), path.read_text(), internal)
declared = set(re.findall(r"^class (?:QEL_API )?(\w+)", "\n".join(path.read_text() for path in headers), re.MULTILINE))
faults += [f"INTERNAL names {name}, which is no class" for name in sorted(internal - declared)]
tree.finish(faults)
