"""headers.py SUBJECTS FOLDER: makes the headers below FOLDER ready for Doxygen, in place.

Headers state with `//` what is no comment of one declaration: what holds for a whole header, the title of a section, a note
behind an enumerator. Doxygen reads `///` only. So texts of a header become those of its file, sections of a class named groups,
notes `///<`. Each header belongs to one subject of SUBJECTS (subjects.md), whose page lists its declarations; a header
without a subject is an error.

Each declaration on the pages has a text. A comment holds for the declarations below it, up to a blank line or the next
comment; so each of them gets it. What a C++ programmer knows without a comment has its text in USUAL. Accessors that a macro
of a class's body declares are written out. What stands below `// ---- implementation` is left out."""
import fnmatch
import pathlib
import re
import sys

subjects, folder = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
TOKEN = re.compile(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])*\'|[{};]|[^/"\'{};]+|.', re.DOTALL)
COMMENT = re.compile(r"( *)//(?!/) ?(.*)")
NOTE = re.compile(r"(.*\S) *//(?!/) ?(.*)")


def opened(since):
    """The match of the class, enumeration or namespace that a brace after the text `since` opens; null for another brace."""
    if re.search(r"[=,(]\s*$|requires[^;]*$", since):
        return None
    return re.search(r"\b(class|struct|union|enum|namespace|extern)\b(?!.*\)\s*(const|noexcept|override)?\s*$)",
                     re.sub(r"template<.*?>\s", "", since), re.DOTALL)


def scopes(text):
    """For each line whether it begins where declarations stand, not in a function's body, and how many classes around."""
    stack, since, result = [], "", [(True, 0)]
    for token in TOKEN.findall(text):
        if token == "{":
            kind = opened(since)
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


def of_c(text):
    """The text with the comments of C, where they fill lines or end a declaration, as those of C++."""
    def lines(found):
        body = [re.sub(r"^ \* ?", "", line.strip(" ") and line.removeprefix(found[1])) for line in found[2].split("\n")]
        return "\n".join(f"{found[1]}// {line.strip()}".rstrip() for line in body)

    text = re.sub(r"^( *)/\* (.*?) ?\*/$", lines, text, flags=re.MULTILINE | re.DOTALL)
    return re.sub(r"^(.*\S) +/\* ([^*\n]*) \*/$", r"\1 ///< \2", text, flags=re.MULTILINE)


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
                out += [f"{indent}/// @{{", ""]
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


# Declarations that need no comment of their own, and what the pages say of them.
USUAL = [
    (r"template<\s*(qelDuration|class Duration)\b", "The same with a `std::chrono::duration`."),
    (r"template<\s*(class \w+, )?(qelText\w*|fs\w*Path\w*)\b", "The same with a text of any kind."),
    (r"(?P<c>\w+)\(const (?P=c)(<.*?>)?\s?&( \w+)?\)", "Copies."),
    (r"(?P<c>\w+)\((?P=c)(<.*?>)?\s?&&( \w+)?\)", "Moves."),
    (r"~\w+\(\)", "Destroys the object."),
    (r"operator=\(", "Assigns."),
    (r"operator(==|!=|<=>|<|>|<=|>=)\s?\(", "Compares."),
    (r"operator(<<)\s?\(", "Writes the value to the stream."),
    (r"operator(\+\+|--|\+=|-=|\+|-|\*|->|\[\])\s?\(", "As for a pointer."),
    (r"operator\(\)\(", "Implements the standard library's template."),
    (r"using (iterator|const_iterator|iterator_\w+|value_type|difference_type|size_type|reference|const_reference|pointer|key_type|mapped_type)\b",
     "Names of the standard library's ranges."),
    (r"\[\[noreturn\]\] static void Throw\(", "Throws a new one with these values."),
    (r"static \w+\* create\(\)", "Returns a new, empty one with the count 0: the first handle or variant that holds it owns it."),
    (r"static xrchandle<.*> make\(", "Returns a handle that owns a new one with these elements."),
    (r"\b(begin|end|size|empty)\(\) const", "For use as a range of the standard library."),
    (r"\b(underflow|overflow|xsgetn|xsputn|showmanyc|sync|seekoff|seekpos|pbackfail|uflow)\(.*\boverride", "As `std::streambuf` has it."),
    (r"using (\w+)::\1$", "Constructors of the base class."),
]
# Those whose names say it, unless they share a comment.
BY_NAME = [
    (r"\bget(?P<a>\w+)\(\)", "Returns the attribute {a}."),
    (r"\bset(?P<a>\w+)\(\w[^,]*\)", "Sets the attribute {a}."),
    (r"^((explicit|constexpr|template<.*?>) )*(?P<c>[a-z]\w+)\(", "Constructs one from these values."),
]
NO_TEXT = re.compile(r"(static_assert|friend (class|struct|void)|QEL_\w+\(|using namespace|(class|struct) \w+$|typedef)")
ACCESSORS = {"QEL_PROPERTY": ["{0} get{1}() const;", "void set{1}({0} value);"], "QEL_READONLY": ["{0} get{1}() const;"],
             "QEL_FIELD": ["{0} get{1}() const;"]}


def written_out(text):
    """The accessors of the macros of a class's body, public, with the comment above the macro."""
    lines = []
    for line in text.split("\n"):
        macro = re.fullmatch(r"( *)(QEL_\w+)\((.*), (\w+)\)(?: = [^;]*)?;( ///<.*)?", line)
        if macro is None or macro[2] not in ACCESSORS:
            lines.append(line)
            continue
        at = len(lines)
        while at > 0 and re.match(r" *///", lines[at - 1]):
            at -= 1
        lines.insert(at, "public:")
        lines += [macro[1] + form.format(macro[3], macro[4]) + (macro[5] or "") for form in ACCESSORS[macro[2]]] + ["private:"]
    return "\n".join(lines)


def declarations(text):
    """The first and last line of each public declaration outside of functions and enumerations, and its text."""
    result, stack, since, first, number = [], [], "", None, 0
    tokens = TOKEN.findall(re.sub(r"^ *#(?:.*\\\n)*.*", lambda found: "\n" * found[0].count("\n"), text, flags=re.MULTILINE))

    def end():
        nonlocal since, first
        if first is not None and since.strip(" \n;"):
            result.append((first, number, " ".join(since.split())))
        since, first = "", None

    for at, token in enumerate(tokens):
        kinds = [kind for kind, _ in stack]
        hidden = "body" in kinds or "enum" in kinds or any(access == "private" for _, access in stack)
        if token.startswith(("//", "/*")):
            number += token.count("\n")
            continue
        if token == "{":
            kind = opened(since)
            if kind:
                stack.append((kind[1], "private" if kind[1] == "class" else "public"))
                if not hidden and kind[1] not in ("namespace", "extern"):
                    end()
                since, first = "", None
            else:
                stack.append(("body", "public"))
        elif token == "}":
            if stack:
                closed = stack.pop()[0]
                rest = "".join(tokens[at + 1:at + 3]).strip()
                if closed != "body":
                    since, first = "", None
                elif "body" not in [kind for kind, _ in stack] and not rest.startswith((";", ",", ")")):
                    if not re.search(r"requires(\s*\([^)]*\))?\s*$", since):
                        end()
        elif token == ";":
            if "body" in kinds:
                pass
            elif hidden:
                since, first = "", None
            else:
                end()
        elif "body" not in kinds:
            for part in re.split(r"(\n)", token):
                label = re.match(r"\s*(public|protected|private):", part)
                if label and stack and not since.strip():
                    stack[-1] = (stack[-1][0], label[1])
                    part = part[label.end():]
                if part.strip() and first is None:
                    first = number
                since += part
                number += part.count("\n")
            if any(access == "private" for _, access in stack):
                first = None if not since.strip() else first
            continue
        number += token.count("\n")
    return [(a, b, t) for a, b, t in result]


def said(table, declaration):
    """The text of the table for the declaration."""
    for form, text in table:
        if found := re.search(form, declaration):
            return [f"/// {text.format(**found.groupdict())}"]
    return []


def described(text):
    """The text with a comment for each declaration that shares one, or is of a usual kind."""
    lines, added = text.split("\n"), {}
    shared, section, last, seen = [], [], -2, 0
    for first, end, declaration in declarations(text):
        for line in lines[seen:first]:
            if mark := re.match(r" */// @(?:name (.*)|\})$", line):
                section = [f"/// {mark[1].rstrip('.')}."] if mark[1] else []
        seen = first
        if NO_TEXT.match(declaration):
            continue
        at = first
        while at > 0 and re.match(r" *///(?!<)", lines[at - 1]):
            at -= 1
        own = [line.strip() for line in lines[at:first]]
        if own and not own[0].startswith("/// @"):
            shared = own
        elif any("///<" in line for line in lines[first:end + 1]):
            shared = []
        elif known := said(USUAL, declaration):
            added[at] = known
        elif first == last + 1 and shared and not own:
            added[at] = shared
        else:
            shared = added[at] = said(BY_NAME, declaration) or section
        last = end
    return "\n".join(line for i, line in enumerate(lines)
                     for line in [re.match(" *", line)[0] + part for part in added.get(i, [])] + [line])


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
    text = re.sub(r"^// ---- implementation.*?(?=^} // namespace|\Z)", "", path.read_text(), flags=re.MULTILINE | re.DOTALL)
    text, whole = converted(of_c(text))
    text = described(written_out(text))
    head = ["/// @file", f"/// Part of @ref {mine[0][0]}.", "///", *(f"/// {part}".rstrip() for part in whole),
            "", f"/// @addtogroup {mine[0][0]}", "/// @{", ""]
    path.write_text("\n".join(head) + text + "\n/// @}\n")
print("\n".join(faults), end="\n" if faults else "", file=sys.stderr)
sys.exit(1 if faults else 0)
