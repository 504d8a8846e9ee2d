"""wrong_programs.py COMPILER INCLUDE: programs with one mistake each do not compile, and the first of at most two errors says what
to write. All are one source: each mistake is compiled when its number is defined, and none without it."""
import re
import subprocess
import sys
import tempfile

HEADERS = """
#include <string>
#include <qel/iostringstream.h>
#include <qel/qelcpp.h>
#include <qel/qeljson.h>
#include <qel/qeltable.h>
"""
HEAD = """
namespace paint {
enum Colour : int { red, green };
enum Shade : int { dark, light };
QEL_ENUM(Shade);
}
#if WRONG != 1
namespace paint { QEL_ENUM(Colour); }
#else
QEL_ENUM_OF_ANOTHER_NAMESPACE;
#endif
class Box : public virtual xobject
{
    QEL_OBJECT(Box);
    QEL_PROPERTY(paint::Colour, Colour);
    QEL_PROPERTY(int, Size);
public:
    std::string getText() const { return {}; }
};
"""

# The mistake, and what the error must say.
WRONG = {
    1: ("", "write QEL_ENUM(E) after the enumeration, in its namespace"),
    2: ("constinit qelClass Box::rtti = {.name = \"Box\", .attrs = {QEL_ATTR(Weight)}};", "getWeight"),
    3: ("constinit qelClass Box::rtti = {.name = \"Box\", .attrs = {QEL_ATTR(Text)}};",
        "an attribute's type is int, unsigned char, double, xstring, xany, an enumeration"),
    4: ("void f(ioStringStream* s) { xrchandle<ioStringStream> h(s); }", "own them by qel::own"),
    5: ("void f() { qel::make<ioStringStream>(); }", "own them by qel::own"),
    6: ("void f(xintsequence* s) { auto o = qel::own(s); }", "hold them by xrchandle"),
    7: ("QEL_LABELS(paint::Shade, \"s\", paint::light, paint::dark);", "label i names value i"),
    8: ("void f(qelXNegativeIndex& e) { e.setIndex(3); }", "setIndex"),
    9: ("constinit qelClass Box::rtti = {.create = &qelCreateOf<self>};", "the class has no static create()"),
    10: ("constinit qelClass Box::rtti = {.rebuild = &qelRebuildOf<self>};", "write QEL_REBUILD(Class) in the class"),
    11: ("constinit qelClass Box::rtti = {.elements = qelSequenceOf<self>};", "no getarraysize() and get(index)"),
    12: ("constinit qelClass Box::rtti = {.elements = qelDictionaryOf<self>};", "no find(const char* key, V* value)"),
    13: ("struct Plain {}; constinit qelClass Box::rtti = {.parents = {QEL_PARENT(Plain)}};",
         "Base is a base class with a table of its own"),
    14: ("void f() { qel::json::read<std::string>(\"1\"); }", "JSON is typed by an exposed class"),
}
RIGHT = "constinit qelClass Box::rtti = {.name = \"Box\", .attrs = {QEL_ATTR(Colour), QEL_ATTR(Size)}};"


def errors(number):
    """The first line of each error of the program with the mistake."""
    mistake = WRONG[number][0] if number else ""
    table = "" if "Box::rtti" in mistake else RIGHT
    head = HEAD.replace("QEL_ENUM_OF_ANOTHER_NAMESPACE", "enum Colour : int; QEL_ENUM(Colour)")
    done = subprocess.run([*COMPILE, "-fsyntax-only", f"-DWRONG={number}", "-include", "headers.h", "-xc++", "-"],
                          input=f"{head}\n{table}\n{mistake}\n", capture_output=True, text=True, cwd=folder)
    return [error for error in re.findall(r"error: (.*)", done.stderr) if "not have a constant initializer" not in error]


COMPILE = sys.argv[1], "-std=c++20", f"-I{sys.argv[2]}"
faults = []
with tempfile.TemporaryDirectory() as folder:
    # Compiled once for all programs.
    with open(f"{folder}/headers.h", "w") as headers:
        headers.write(HEADERS)
    subprocess.run([*COMPILE, "-xc++-header", "headers.h"], cwd=folder, check=True)
    if errors(0):
        faults.append(f"the right program: {errors(0)[0]}")
    for number, (mistake, wanted) in WRONG.items():
        found = errors(number)
        if not 1 <= len(found) <= 2 or wanted not in found[0]:
            faults.append(f"{number}: {mistake}\n  should say: {wanted}\n  says: {found[:2]}")
print("\n".join(faults) or f"{len(WRONG)} mistakes, each named")
sys.exit(1 if faults else 0)
