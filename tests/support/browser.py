"""A headless Chromium with one page, driven through pipes by its debugging protocol."""
import json
import os
import select
import shutil
import subprocess
import tempfile
import time

PROGRAM = shutil.which("chromium")
LIMIT = 120  # seconds; on a busy machine the browser takes its time


class Browser:
    def __init__(self):
        self.folder = tempfile.TemporaryDirectory(ignore_cleanup_errors=True)
        commands, self.commands = os.pipe()
        self.replies, replies = os.pipe()
        words = [PROGRAM, "--headless=new", "--remote-debugging-pipe", f"--user-data-dir={self.folder.name}", "--disable-gpu",
                 "--disable-dev-shm-usage", "--no-first-run", "--disable-background-networking", "--disable-component-update",
                 "--disable-sync", "--disable-extensions", "--no-proxy-server", "--hide-scrollbars"]
        if os.geteuid() == 0:
            words.append("--no-sandbox")
        # The browser's pipes are its descriptors 3 and 4.
        self.process = subprocess.Popen(
            ["bash", "-c", f'exec "$@" 3<&{commands} 4>&{replies}', "bash", *words], pass_fds=(commands, replies),
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            env=dict(os.environ, HOME=self.folder.name))
        os.close(commands)
        os.close(replies)
        self.rest, self.number, self.session, self.complaints = b"", 0, None, []
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        for domain in "Page", "Runtime", "Log":
            self.call(domain + ".enable")

    def close(self):
        try:
            self.session = None
            self.call("Browser.close")
        except (OSError, AssertionError):
            self.process.kill()
        self.process.wait(LIMIT)
        os.close(self.commands)
        os.close(self.replies)
        self.folder.cleanup()

    def message(self):
        end = time.monotonic() + LIMIT
        while b"\0" not in self.rest:
            if not select.select([self.replies], [], [], max(0, end - time.monotonic()))[0]:
                raise AssertionError("the browser does not answer")
            data = os.read(self.replies, 1 << 20)
            if not data:
                raise AssertionError("the browser has ended")
            self.rest += data
        first, _, self.rest = self.rest.partition(b"\0")
        return json.loads(first)

    def call(self, method, **parameters):
        self.number += 1
        command = {"id": self.number, "method": method, "params": parameters}
        if self.session:
            command["sessionId"] = self.session
        data = json.dumps(command).encode() + b"\0"
        while data:
            data = data[os.write(self.commands, data):]
        while True:
            message = self.message()
            if message.get("id") == self.number:
                if "error" in message:
                    raise AssertionError(f"{method}: {message['error']}")
                return message["result"]
            if message.get("method") in ("Runtime.exceptionThrown", "Log.entryAdded"):
                self.complaints.append(json.dumps(message["params"]))

    def open(self, url):
        self.complaints.clear()
        self.call("Page.navigate", url=url)

    def show(self, width=1000, height=800, scheme="light"):
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=False)
        self.call("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": scheme}])

    def evaluate(self, expression):
        result = self.call("Runtime.evaluate", expression=expression, returnByValue=True, awaitPromise=True)
        if "exceptionDetails" in result:
            raise AssertionError(f"{expression}: {result['exceptionDetails']}")
        return result["result"].get("value")

    def wait(self, expression, wanted=True):
        """Until the expression has that value; returns it."""
        end = time.monotonic() + LIMIT
        while (found := self.evaluate(expression)) != wanted:
            if time.monotonic() > end:
                raise AssertionError(f"{expression} is {found!r}, not {wanted!r}, in:\n"
                                     + self.evaluate("document.body.innerText"))
            time.sleep(0.05)
        return found

    def press(self, key, text=None):
        codes = {"Enter": 13, "Escape": 27, "Tab": 9}
        for kind in "keyDown", "keyUp":
            typed = {"text": text or {"Enter": "\r"}.get(key, key)} if kind == "keyDown" and (len(key) == 1 or key == "Enter") else {}
            self.call("Input.dispatchKeyEvent", type=kind, key=key, windowsVirtualKeyCode=codes.get(key, 0), **typed)
