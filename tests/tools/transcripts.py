"""transcripts.py QEL FILE [time]: runs the command lines of a transcript and compares their output and exit status.

"== NAME" begins a case, which one bash runs in an empty folder of its own. "== NAME (time)" is one that measures time: `time`
runs those cases only, and without it the others run. "$ LINE" is a command line, "> LINE" continues
it. The lines behind it are its output, both streams together, and "[N]" its exit status if that is not 0. Of the output,
"..." stands for any lines; a line that ends in " (re)" is a regular expression, one that ends in " (esc)" has the escapes
of Python, and one that ends in " (no end)" lacks its line end. A command that exits with 77 ends the case, which is skipped
for the reason that it writes."""

import os
import re
import subprocess
import sys
import tempfile

LIMIT = 120  # seconds for a case
MARK = "@@transcript@@"
PRELUDE = r"""
trap 'kill $(jobs -p) 2>/dev/null; wait' EXIT
# each STATUS COMMAND...: each line of the standard input, behind the command, ends with that status.
each() {
    local wanted=$1 line status; shift
    while IFS= read -r line; do
        eval "$* $line" >/dev/null 2>&1 </dev/null; status=$?
        [[ $status == "$wanted" ]] || echo "$line: $status"
    done
}
# serve COMMAND...: a server on a free port, $port, until the case ends; $server is its process.
serve() {
    : >serving # there before the server runs
    "$@" >>serving 2>&1 & server=$!
    until grep -q ' port ' serving; do kill -0 $server || return; sleep 0.02; done
    port=$(sed -n 's/.* port //p;q' serving); rm serving
}
# peer [BYTES]: accepts connections as the name server, reads nothing, and sends those bytes again and again.
peer() {
    serve python3 -c '
import codecs, socket, sys, time
door, peers = socket.create_server(("127.0.0.1", 0)), []
print("on port", door.getsockname()[1], flush=True)
door.settimeout(0.1)
while True:
    try:
        peers.append(door.accept()[0])
    except TimeoutError:
        pass
    for other in peers:
        try:
            other.send(codecs.escape_decode(sys.argv[1])[0])
        except OSError:
            peers.remove(other)
' "${1:-}"
    export VRXNMSPORT=$port
}
# logged COUNT: waits until the file `log` has that many commands of a `qel rshd`, which logs each after its client has exited.
logged() { until [[ $(grep -c ^command log) == "$1" ]]; do sleep 0.02; done; }
# needs COMMAND...: skips the case on a machine without one of them.
needs() { local each; for each; do command -v "$each" >/dev/null || { echo "no $each here"; exit 77; }; done; }
# names [OPTION...]: a name server, which the case's programs find.
names() { serve qel ns serve --port 0 "$@"; export VRXNMSPORT=$port; }
"""


class Step:
    def __init__(self, number, line):
        self.number, self.line, self.wanted, self.status = number, line, [], 0


def parse(path):
    """The cases of the file: lists of steps by name."""
    cases = {}
    for number, line in enumerate(open(path, encoding="utf-8").read().split("\n"), 1):
        if line.startswith("== "):
            steps = cases[line[3:]] = []
        elif line.startswith("$ "):
            steps.append(Step(number, line[2:]))
        elif line.startswith("> ") or line == ">":
            steps[-1].line += "\n" + line[2:]
        elif found := re.fullmatch(r"\[(\d+)\]", line):
            steps[-1].status = int(found[1])
        elif cases and steps and not line.startswith("#"):
            steps[-1].wanted.append(line)
    for step in (step for steps in cases.values() for step in steps):
        while step.wanted and not step.wanted[-1]:
            step.wanted.pop()
    return cases


def pattern(line):
    """A regular expression for a line of the expected output."""
    if line == "...":
        return r"(?:.*\n)*?"
    end = "\n"
    if line.endswith(" (no end)"):
        line, end = line[:-9], ""
    if line.endswith(" (re)"):
        return line[:-5] + end
    if line.endswith(" (esc)"):
        line = line[:-6].encode("latin-1", "backslashreplace").decode("unicode_escape")
    return re.escape(line) + end


def run(steps, environment):
    script = PRELUDE + "".join(f"{step.line}\necho \"{MARK}$?\"\n" for step in steps)
    with tempfile.TemporaryDirectory() as folder, tempfile.TemporaryDirectory() as runtime:
        program = subprocess.Popen(["bash", "-c", script], cwd=folder, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT, env=dict(environment, HOME=folder, QELSTD_REGISTRY=folder + "/store",
                                            XDG_RUNTIME_DIR=runtime))
        try:
            output = program.communicate(timeout=LIMIT)[0].decode("utf-8", "backslashreplace")
        except subprocess.TimeoutExpired:
            program.terminate()
            output = program.communicate()[0].decode("utf-8", "backslashreplace")
    ends = re.split(MARK + r"(\d+)\n", output)
    faults = []
    for i, step in enumerate(steps):
        said, status = (ends[2 * i], int(ends[2 * i + 1])) if 2 * i + 1 < len(ends) else (ends[-1], -1)
        if status == -1 and program.returncode == 77:
            status = 77  # the case's bash exited itself
        if status == 77:
            return faults, (step.number, said)
        if status != step.status or not re.fullmatch("".join(map(pattern, step.wanted)), said):
            faults.append(f"line {step.number}: {step.line}\n[{status}, not {step.status}]\n{said}")
        if status == -1:
            break
    return faults, None


def main():
    qel, path, *kind = sys.argv[1:]
    environment = {name: value for name, value in os.environ.items() if name.endswith("SAN_OPTIONS")}
    environment |= {"PATH": os.path.dirname(qel) + ":" + os.environ["PATH"], "LC_ALL": "C.UTF-8", "TZ": "UTC",
                    "SHELL": "/bin/sh", "VRXNMSPORT": "1"}
    cases = {name: steps for name, steps in parse(path).items() if name.endswith(" (time)") == bool(kind)}
    failed = 0
    for name, steps in cases.items():
        faults, skipped = run(steps, environment)
        failed += bool(faults)
        print(f"{'FAILED' if faults else 'ok'}: {name}")
        if skipped:
            print(f"{path}:{skipped[0]}: Skipped\n{skipped[1]}", end="")
        print("".join(f"  {fault}\n" for fault in faults), end="")
    return 1 if failed or not cases else 0


if __name__ == "__main__":
    sys.exit(main())
