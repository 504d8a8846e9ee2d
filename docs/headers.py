"""headers.py SUBJECTS FOLDER: makes the headers below FOLDER ready for Doxygen, in place.

Headers state with `//` what is no comment of one declaration: what holds for a whole header, the title of a section, a note
behind an enumerator. Doxygen reads `///` only. So texts of a header become those of its file, sections of a class named groups,
notes `///<`. Each header belongs to one subject of SUBJECTS (subjects.md), whose page lists its declarations; a header
without a subject is an error."""
import fnmatch
import pathlib
import re
import sys

subjects, folder = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
TOKEN = re.compile(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])*\'|[{};]|[^/"\'{};]+|.', re.DOTALL)
COMMENT = re.compile(r"( *)//(?!/) ?(.*)")
NOTE = re.compile(r"(.*\S) *//(?!/) ?(.*)")


def scopes(text):
    """For each line whether it begins where declarations stand, not in a function's body, and how many classes around."""
    stack, since, result = [], "", [(True, 0)]
    for token in TOKEN.findall(text):
        if token == "{":
            kind = re.search(r"\b(class|struct|union|enum|namespace|extern)\b(?!.*\)\s*(const|noexcept|override)?\s*$)", since, re.DOTALL)
            stack.append(kind[1] if kind else "body")
            since = ""
        elif token == "}":
            if stack:
                stack.pop()
            since = ""
        elif token == ";":
            since = ""
        elif not token.startswith(("//", "/*")):
            since += token
        for _ in range(token.count("\n")):
            result.append(("body" not in stack, sum(kind in ("class", "struct", "union", "enum") for kind in stack)))
    return result


def titled(block):
    """The title of a section, which ends at a colon, and the text behind it."""
    head, _, rest = " ".join(block).lstrip("- ").partition(": ")
    return head[:1].upper() + head[1:], rest[:1].upper() + rest[1:]


def converted(text):
    """The text with all comments as Doxygen reads them, and those of the whole header."""
    lines, where = text.split("\n"), scopes(text)
    out, whole, section, private, macro = [], [], None, False, False
    i = 0
    while i < len(lines):
        line, (declares, depth) = lines[i], where[i]
        end = re.match(r"(\s*)(public|protected|private):|(\s*)\};?", line)
        if end:
            private = line.strip().startswith("private:") or (private and not line.strip().startswith(("public", "protected", "}")))
            if section is not None and len(end[1] or end[3] or "") < len(section):
                out[-1] += f"\n{section}/// @}}"
                section = None
        comment, note = COMMENT.fullmatch(line), NOTE.fullmatch(line)
        in_macro, macro = macro, line.endswith("\\")
        if not declares or private or in_macro or macro:
            out.append(line)
        elif comment:
            block = []
            while i < len(lines) and (more := COMMENT.fullmatch(lines[i])) and not (block and more[2].startswith("----")):
                block.append(more[2])
                i += 1
            indent = comment[1]
            title = block[0].startswith("----")
            follows = i < len(lines) and lines[i].strip() != ""
            if title and depth > 0:
                if section is not None:
                    out[-1] += f"\n{section}/// @}}"
                # The title goes on to the end of its block; further blocks are the section's text.
                head, rest = titled(block)
                out += [f"{indent}/// @name {head}"] + ([f"{indent}/// {rest}"] if rest else [])
                while i + 1 < len(lines) and not lines[i].strip() and COMMENT.fullmatch(lines[i + 1]):
                    i += 1
                    while COMMENT.fullmatch(lines[i]):
                        out.append(f"{indent}/// {COMMENT.fullmatch(lines[i])[2]}")
                        i += 1
                out.append(f"{indent}/// @{{")
                section = indent
            elif follows and not title:
                out += [f"{indent}/// {part}".rstrip() for part in block]
            else:
                head, rest = titled(block)
                whole += ["", *([f"**{head}**", "", rest] if title else block)]
            continue
        elif note and not re.match(r"\s*(#|QEL_|///|/\*|.*/\*|.*///|namespace|}|.*\) \{ //)", line) and depth > 0:
            out.append(f"{note[1]} ///< {note[2]}")
            while i + 1 < len(lines) and (more := COMMENT.fullmatch(lines[i + 1])) and len(more[1]) > len(line) - len(line.lstrip()) + 8:
                i += 1
                out.append(f"{more[1]}///< {more[2]}")
        else:
            out.append(line)
        i += 1
    return "\n".join(out), whole


patterns = {}
for subject, listed in re.findall(r"^## (.*?)\n.*?^All: (.*?)\n(?:\n|\Z)", subjects.read_text(), re.MULTILINE | re.DOTALL):
    patterns[re.sub(r"\W+", "_", subject.lower())] = re.findall(r"`([^`]+)`", listed)

faults = []
for path in sorted(folder.rglob("*.h")):
    header = str(path.relative_to(folder))
    mine = [(subject, p) for subject, listed in patterns.items() for p in listed if fnmatch.fnmatchcase(header, p)]
    if len(mine) != 1:
        faults.append(f"{header}: belongs to {len(mine)} subjects of {subjects}, not to one")
        continue
    text, whole = converted(path.read_text())
    head = ["/// @file", f"/// Part of @ref {mine[0][0]}.", "///", *(f"/// {part}".rstrip() for part in whole),
            "", f"/// @addtogroup {mine[0][0]}", "/// @{", ""]
    path.write_text("\n".join(head) + text + "\n/// @}\n")
print("\n".join(faults), end="\n" if faults else "", file=sys.stderr)
sys.exit(1 if faults else 0)
