"""printers.py GDB PROGRAM LIBRARY SCRIPT STRIP: gdb's output of the program's values, with the library as it was built, and
with one without debug information, like an installed one."""
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

# With a library without debug information the program has only the names of some classes.
EXPECTED_OF_LESS = {
    "green": "value 1 of an enumeration",
    "numbers": "xrchandle: xintsequence at ADDRESS = {get() = ADDRESS}",
    "sameNumbers": "xrchandle: xintsequence at ADDRESS = {get() = ADDRESS}",
    "*sameNumbers": "<incomplete type>",
    "object": "xintsequence at ADDRESS",
}
EXPECTED = {
    "nullText": "null",
    "text": r'"Grüße \"x\""',
    "wideText": 'u"wï"',
    "plainText": r'"Grüße \"x\""',
    "never": "uninit",
    "nothing": "null",
    "number": "42",
    "truth": "true",
    "real": "1.5",
    "words": '"in a variant"',
    "green": "paint::Colour green (1)",
    "numbers": "xrchandle: xintsequence at ADDRESS, 3 references = {get() = ADDRESS}",
    "*numbers.pointer": "xintsequence of 4 = {7, null, uninit, -1}",
    "*numbers": "xintsequence of 4 = {7, null, uninit, -1}",
    "*sameNumbers": "xintsequence of 4 = {7, null, uninit, -1}",
    "aged->limit": "120",
    "nullHandle.get()": "(xintsequence *) ADDRESS",
    "sameNumbers": "xrchandle: xintsequence at ADDRESS, 3 references = {get() = ADDRESS}",
    "object": "xintsequence at ADDRESS, 3 references",
    "*person": 'people::Employee = {Name = "Ada", Age = null, Paid = true, Chief = xrchandle: null}',
    "person->Age": "-2147483648",
    "nullHandle": "xrchandle: null",
    "uninitHandle": "xrcunihandle: uninit",
    "ages": "xauto<(anonymous namespace)::Ages> of 1 = {36}",
    "truths": "xauto<xboolsequence> of 4 = {true, false, null, uninit}",
    "reals": "xauto<xrealsequence> of 3 = {0.5, null, uninit}",
    "texts": 'xauto<xstringsequence> of 3 = {"a", "", null}',
    "mixed": 'xauto<xanysequence> of 3 = {1, "two", uninit}',
    "noTexts": "xauto<xstringsequence> of 0",
    "counts": 'xauto<xintdictionary> of 2 = {["one"] = 1, ["none"] = null}',
    "flags": 'xauto<xbooldictionary> of 1 = {["on"] = true}',
    "settings": 'xauto<xanydictionary> of 1 = {["name"] = "Ada"}',
    "noReals": "xauto<xrealdictionary> of 0",
}

NO_OBJECT = "qel-print: %s is no object, or its class has no debug information"
# Expressions for qel-print, and what the program prints then, or gdb says.
OBJECTS = {
    "ages": "intseq\n[\n  0 : 36\n]",
    "numbers": "intseq\n[\n  0 : 7\n  1 : nil\n  2 : \n  3 : -1\n]",
    "green": "qel-print: no object: paint::Colour green (1)",
    "5": "qel-print: a value that is not in memory",
    "text": NO_OBJECT % "text",
    "nullHandle": "\nnull\n",
}
OBJECTS_OF_LESS = {name: NO_OBJECT % name for name in ("ages", "numbers")} | {
    "green": "qel-print: no object: value 1 of an enumeration"}


def printed(gdb, program, library):
    """gdb's output of each expression, stopped in main, and all that was printed; gdb loads the library of that path."""
    commands = ["set width 0", "set confirm off", "set disable-randomization off",
                f"set environment LD_LIBRARY_PATH {library.parent}", "break stopHere", "run", "info sharedlibrary libqelstd",
                "up"]
    for number, expression in enumerate(EXPECTED):
        commands += [f"echo @{number}:", f"output {expression}", r"echo \n"]
    commands += [f"qel-print {expression}" for expression in OBJECTS]
    options = [option for command in commands for option in ("-ex", command)]
    done = subprocess.run([gdb, "-nx", "-batch", "-iex", f"add-auto-load-safe-path {library.parent}", *options, program],
                          capture_output=True, text=True, timeout=240, stdin=subprocess.DEVNULL)
    lines = dict(re.findall(r"^@(\d+):(.+)$", done.stdout, re.MULTILINE))
    if len(lines) != len(EXPECTED) or f" {library.parent}/libqelstd.so" not in done.stdout:
        sys.exit(f"gdb did not print all:\n{done.stdout}\n{done.stderr}")
    return [lines[str(number)] for number in range(len(EXPECTED))], done.stdout + done.stderr


def check(what, expectations, objects, *arguments):
    """The number of expressions with wrong output."""
    wrong = 0
    lines, everything = printed(*arguments)
    for (expression, expected), text in zip(expectations.items(), lines):
        if re.sub("0x[0-9a-f]+", "ADDRESS", text) != expected:
            print(f"{what}: {expression} is printed as\n  {text}\n, not\n  {expected}")
            wrong += 1
    for expression, expected in objects.items():
        if expected not in everything:
            print(f"{what}: qel-print {expression} does not print\n  {expected}\n, but all was\n{everything}")
            wrong += 1
    return wrong


gdb, program, library, strip = sys.argv[1:]
library = pathlib.Path(library).resolve()
wrong = check("library as built", EXPECTED, OBJECTS, gdb, program, library)
with tempfile.TemporaryDirectory() as folder:
    for file in library.parent.glob("*.so*"):
        is_library = file.suffix != ".py"
        shutil.copy(file, folder, follow_symlinks=not is_library)
        if is_library and not file.is_symlink():
            subprocess.run([strip, "--strip-unneeded", f"{folder}/{file.name}"], check=True)
    stripped = pathlib.Path(folder) / library.name
    wrong += check("library without debug information", EXPECTED | EXPECTED_OF_LESS, OBJECTS | OBJECTS_OF_LESS, gdb,
                   program, stripped)
sys.exit(wrong != 0)
