"""hardening.py ROOT COMMANDS BINARY...: the binaries have the protections that cmake/options.cmake asks for, and so does each compile
command of the project in the file COMMANDS (compile_commands.json; `-`: optimized binaries without their commands)."""
import json
import pathlib
import re
import subprocess
import sys
import tree

FLAGS = ["-fstack-protector-strong", "-fstack-clash-protection"]
if subprocess.run(["uname", "-m"], capture_output=True, text=True, check=True).stdout.strip() == "x86_64":
    FLAGS.append("-fcf-protection")
ENDBR64 = bytes.fromhex("f30f1efa")


def readelf(*arguments):
    return subprocess.run(["readelf", "-W", *arguments], capture_output=True, text=True, check=True).stdout


def command_faults(commands):
    """Returns the flags that compile commands lack, and whether any optimizes."""
    root = tree.root().as_posix() + "/"
    faults, optimized, seen = [], False, 0
    for entry in json.loads(commands.read_text()):
        if not entry["file"].startswith(root):
            continue
        seen += 1
        words = entry["command"].split()
        optimizes = any(re.fullmatch(r"-O[123s]", word) for word in words)
        optimized |= optimizes
        wanted = list(FLAGS)
        if entry["file"].endswith(".cpp"):
            wanted.append("-D_GLIBCXX_ASSERTIONS")
        lacks = [flag for flag in wanted if flag not in words]
        if optimizes and not any(word.startswith("-D_FORTIFY_SOURCE=") for word in words):
            lacks.append("-D_FORTIFY_SOURCE")
        if lacks:
            faults.append(f"{entry['file'].removeprefix(root)}: compiled without {' '.join(lacks)}")
    if seen < 100:
        faults.append(f"{commands} has only {seen} commands of this project")
    return faults, optimized


def binary_faults(binary):
    headers, dynamic, symbols = readelf("-l", binary), readelf("-d", binary), readelf("--dyn-syms", binary)
    lacks = []
    if "GNU_RELRO" not in headers:
        lacks.append("read-only relocations")
    if not re.search(r"FLAGS.*\bNOW\b", dynamic):
        lacks.append("binding at start")
    if not re.search(r"GNU_STACK.* RW ", headers):
        lacks.append("a stack without execution")
    if "__stack_chk_fail" not in symbols:
        lacks.append("stack protection")
    # Each exported function may be called indirectly, so begins with a landing place.
    loads = [[int(word, 16) for word in found] for found in
             re.findall(r"LOAD\s+(0x\w+) (0x\w+) 0x\w+ (0x\w+)", headers)]
    content = pathlib.Path(binary).read_bytes()
    for address, name in re.findall(r"\d+: (\w+)\s+\d+ FUNC\s+GLOBAL\s+DEFAULT\s+\d+ (\S+)", symbols):
        value = int(address, 16)
        offset = next(at + value - start for at, start, size in loads if start <= value < start + size)
        if "-fcf-protection" in FLAGS and content[offset:offset + 4] != ENDBR64:
            lacks.append(f"a landing place at {name}")
            break
    return [f"{binary}: has not {what}" for what in lacks]


def calls_checked(binary):
    """Whether it calls a function of the C library that checks the size of its buffer."""
    return re.search(r"\b__\w+_chk\b", readelf("--dyn-syms", binary)) is not None


all_faults, is_optimized = command_faults(pathlib.Path(sys.argv[2])) if sys.argv[2] != "-" else ([], True)
for each in sys.argv[3:]:
    all_faults += binary_faults(each)
# A small one may have no such call.
if is_optimized and not any(calls_checked(binary) for binary in sys.argv[3:]):
    all_faults.append("no binary calls the C library with checks")
tree.finish(all_faults)
