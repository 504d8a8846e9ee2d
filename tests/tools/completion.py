"""completion.py SHELL QEL: types command lines into an interactive bash or zsh that has read the completion script, and
checks the result of the Tab key. fish is asked for its completions instead."""

import os
import pty
import re
import select
import shlex
import shutil
import subprocess
import sys
import tempfile
import time

LIMIT = 60  # seconds to wait for the expected line
CASES = [  # the typed text, and the line afterwards
    ("qel serv\t", "qel server "),
    ("qel ns li\t", "qel ns list "),
    ("qel ns list --ho\t", "qel ns list --host "),
    ("qel ns list --host=x --js\t", "qel ns list --host=x --json "),
    ("qel completion z\t", "qel completion zsh "),
    ("qel server ping fi\t", "qel server ping files "),
    ("qel server ping a\\ \t", "qel server ping a\\ b "),
    ("qel ns query _ServerName=fi\t", "qel ns query _ServerName=files"),
    ("qel --limit=1 ns ver\t", "qel --limit=1 ns version "),
]


class Terminal:
    def __init__(self, arguments, environment):
        self.process, self.handle = pty.fork()
        if self.process == 0:
            os.execvpe(arguments[0], arguments, environment)
        self.shown = b""

    def type(self, text):
        self.shown = b""
        os.write(self.handle, text.encode())

    def wait_for(self, text):
        end = time.monotonic() + LIMIT
        while text.encode() not in self.plain():
            if not select.select([self.handle], [], [], max(0, end - time.monotonic()))[0]:
                return False
            try:
                self.shown += os.read(self.handle, 4096)
            except OSError:
                return False
        return True

    def plain(self):
        """The visible text of the line, without bells and erased characters."""
        plain = bytearray()
        for byte in re.sub(rb"\x1b\[[?0-9;]*[A-Za-z]|\x07", b"", self.shown):
            if byte == 8:
                plain[-1:] = b""
            else:
                plain.append(byte)
        return bytes(plain)

    def end(self):
        os.close(self.handle)
        os.waitpid(self.process, 0)


def shell_line(shell):
    if shell == "bash":
        return ["bash", "--noprofile", "--norc", "-i"], "source <(qel completion bash); bind 'set bell-style none'"
    return ["zsh", "-f", "-i"], "autoload -Uz compinit && compinit -u -D; source <(qel completion zsh); unsetopt zle_bracketed_paste"


def ask_fish(environment, typed, becomes):
    word = shlex.split(becomes)[-1]
    script = "qel completion fish | source; complete -C " + shlex.quote(typed.rstrip("\t"))
    printed = subprocess.run(["fish", "--no-config", "-c", script], env=environment, capture_output=True, text=True, check=False)
    offered = [line.split("\t")[0] for line in printed.stdout.splitlines()]
    return [] if word in offered else [f"fish offers {offered} for {typed!r}, not {word!r}: {printed.stderr}"]


def check(shell, program, names):
    environment = dict(os.environ, PATH=os.path.dirname(program) + ":" + os.environ["PATH"], TERM="dumb", PS1="> ",
                       LC_ALL="C.UTF-8", COLUMNS="200", VRXNMSPORT=names)
    for name in ("files", "a b"):
        subprocess.run([program, "ns", "register", "_ServerName=" + name], check=True, env=environment)
    if shell == "fish":
        return [fault for case in CASES for fault in ask_fish(environment, *case)]
    arguments, preparation = shell_line(shell)
    terminal = Terminal(arguments, environment)
    terminal.type(preparation + "; PS1='read''y> '\n")
    if not terminal.wait_for("ready> "):
        return ["the shell does not begin: " + repr(terminal.shown)]
    faults = []
    for typed, becomes in CASES:
        terminal.type(typed)
        if not terminal.wait_for(becomes):
            faults.append(f"{typed!r} did not become {becomes!r}: {terminal.shown!r}")
        terminal.type("\x15\n")  # erases the line
        terminal.wait_for("ready> ")
    terminal.type("exit\n")
    terminal.end()
    return faults


def main():
    shell, program = sys.argv[1:]
    if shutil.which(shell) is None:
        print(f"no {shell} here")
        return 77
    with tempfile.TemporaryDirectory() as home:
        os.environ["HOME"] = home
        server = subprocess.Popen([program, "ns", "serve", "--port", "0"], stdout=subprocess.PIPE, text=True)
        try:
            names = server.stdout.readline().split()[-1]
            faults = check(shell, program, names)
        finally:
            server.terminate()
            server.wait()
    print("\n".join(faults))
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
