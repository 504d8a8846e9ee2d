"""resize_test.py QEL: `qel mon watch` and `qel top` in a terminal of tmux that changes its size."""
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

QEL = sys.argv[1]
LIMIT = 60  # seconds


class Resize(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.environment = dict(os.environ, XDG_RUNTIME_DIR=folder.name, TMUX_TMPDIR=folder.name, LC_ALL="C.UTF-8", TERM="xterm")
        for name in "RUNTIME_DIRECTORY", "TMUX":
            self.environment.pop(name, None)
        self.path = os.path.join(folder.name, "run.mon")

    def tmux(self, *words):
        return subprocess.run(["tmux", "-f", "/dev/null", *words], env=self.environment, check=True, capture_output=True,
                              text=True, timeout=LIMIT).stdout

    def screen(self):
        return self.tmux("capture-pane", "-p").split("\n")[:-1]

    def resizes(self, command, known):
        """The command shows what matches `known` in each size, as much as fits, and the keys in the last line."""
        self.tmux("new-session", "-d", "-x", "100", "-y", "31", command)
        self.addCleanup(self.tmux, "kill-server")
        self.tmux("set-option", "-g", "status", "off")
        for columns, rows in ((100, 30), (40, 8), (200, 50), (20, 5), (100, 30)):
            self.tmux("resize-window", "-x", str(columns), "-y", str(rows))
            end = time.monotonic() + LIMIT
            while True:
                lines = self.screen()
                last = len(lines) - 1 - next((i for i, line in enumerate(reversed(lines)) if line), 0)
                shown = [line for line in lines[:last] if re.match(known, line)]
                keys = re.match(r"(?:1-(\d+) of \d+  )?q", lines[last])  # without numbers: these are all
                most = rows - 3
                if keys and last == rows - 1 and (len(shown) == int(keys[1]) == most if keys[1] else 10 < len(shown) <= most):
                    break
                self.assertLess(time.monotonic(), end, f"{columns}x{rows}: " + "\n".join(lines))
                time.sleep(0.05)

    def test_watch(self):
        run = lambda *words: subprocess.run([QEL, "mon", *words], env=self.environment, check=True)  # noqa: E731
        run("create", self.path)
        for i in range(40):
            run("add", self.path, f"value{i}", "int", str(i))
        self.resizes(f"{QEL} mon watch --interval 0.2 {self.path}", r"value\d+ ")

    def test_top(self):
        names = subprocess.Popen([QEL, "ns", "serve", "--port", "0"], env=self.environment, stdout=subprocess.PIPE)
        self.addCleanup(names.stdout.close)
        self.addCleanup(names.wait)
        self.addCleanup(names.kill)
        names.stdout.readline()
        self.resizes(f"{QEL} top --interval 0.2 --zeros", "nameserver")


if __name__ == "__main__":
    if not shutil.which("tmux"):
        print("no tmux here")
        sys.exit(77)
    unittest.main(argv=sys.argv[:1], verbosity=2)
