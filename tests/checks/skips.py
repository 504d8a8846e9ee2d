"""skips.py LOG: no test of a run was skipped for lack of something that this machine has. LOG: ctest's LastTest.log."""
import pathlib
import re
import subprocess
import sys

# The reasons for which a test may be skipped on any machine.
NEVER_APPLIES = re.compile(r"run by (another|other) tests?|sanitizer|comes? from malloc")

# The prerequisite that a reason names, and a command that tests for it. Without a command it cannot be tested.
ABILITIES = (
    (re.compile(r"sshd"), ["test", "-x", "/usr/sbin/sshd"]),
    (re.compile(r"strace"), ["strace", "-o", "/dev/null", "true"]),
    (re.compile(r"mount"), ["unshare", "--mount", "true"]),
    (re.compile(r"network"), ["unshare", "--net", "true"]),
    (re.compile(r"another user|give files away"), ["setpriv", "--reuid", "65534", "true"]),
    (re.compile(r"file system|volume|descriptors"), None),
)


def has(command):
    try:
        return subprocess.run(command, capture_output=True).returncode == 0
    except OSError:
        return False


def main():
    text = pathlib.Path(sys.argv[1]).read_text(errors="replace")
    faults = 0
    for place, reason in re.findall(r"^(\S+:\d+): Skipped\n(.*)$", text, re.MULTILINE):
        if NEVER_APPLIES.search(reason):
            continue
        command = next((command for pattern, command in ABILITIES if pattern.search(reason)), ["true"])
        wrong = command is not None and has(command)
        faults += wrong
        print(f"{place}: skipped{', but this machine can do it' if wrong else ''}: {reason}")
    sys.exit(1 if faults else 0)


main()
