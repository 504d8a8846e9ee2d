"""web_test.py QEL CASE: `qel mon serve`, by requests and in a browser."""
import http.client
import json
import os
import re
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../support"))
from browser import PROGRAM as BROWSER, Browser  # noqa: E402

QEL = sys.argv[1]
LIMIT = 60  # seconds
OTHER_USER = 65534


class Publisher:
    """A monitor file, as docs/monlibsrc.md describes it: names with their values, ints or texts."""

    def __init__(self, path, title="", **values):
        self.path, self.places = path, {}
        self.make(title, values)

    def make(self, title, values):
        data = struct.pack(">ii", 0, len(title)) + title.encode()
        for name, value in values.items():
            kind = 3 if isinstance(value, str) else 1
            data += struct.pack(">iii", kind, 0, len(name.encode())) + name.encode()
            if kind == 3:
                data += struct.pack(">i", len(value.encode()))
            self.places[name] = len(data)
            data += struct.pack(">i", value) if kind == 1 else struct.pack(">i", len(value.encode())) + value.encode()
        with open(self.path + ".new", "wb") as file:
            file.write(data)
        os.rename(self.path + ".new", self.path)

    def set(self, **values):
        with open(self.path, "r+b", buffering=0) as file:
            for name, value in values.items():
                os.pwrite(file.fileno(), struct.pack(">i", value), self.places[name])


class Server:
    """`qel mon serve` until it is stopped."""

    def __init__(self, *words, port=0, environment=None):
        self.process = subprocess.Popen([QEL, "mon", "serve", "--listen", f"127.0.0.1:{port}", *words],
                                        stdout=subprocess.PIPE, text=True, env=environment)
        line = self.process.stdout.readline()
        self.port = int(re.search(r" port (\d+)", line)[1])

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGCONT)
            self.process.terminate()
        status = self.process.wait(LIMIT)
        self.process.stdout.close()
        return status

    def get(self, path="/", method="GET", **headers):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=LIMIT)
        try:
            connection.request(method, path, headers=headers)
            reply = connection.getresponse()
            return reply.status, reply.headers, b"" if "event-stream" in reply.headers["Content-Type"] else reply.read()
        finally:
            connection.close()

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))

    def system_file(self, name):
        with open(f"/proc/{self.process.pid}/{name}") as file:
            return file.read()

    def fact(self, name):
        return int(re.search(rf"{name}:\s+(\d+)", self.system_file("status"))[1])

    def seconds(self):
        """The processor time that it took."""
        ticks = self.system_file("stat").rsplit(")", 1)[1].split()[11:13]
        return sum(map(int, ticks)) / os.sysconf("SC_CLK_TCK")


class Viewer:
    def __init__(self, server, receive=None):
        self.socket = socket.socket()
        if receive:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive)
        self.socket.settimeout(LIMIT)
        self.socket.connect(("127.0.0.1", server.port))
        self.socket.sendall(b"GET /events HTTP/1.0\r\nHost: localhost\r\n\r\n")
        self.data = b""
        self.received = 0  # bytes

    def event(self):
        """The next event; what arrives beyond it is kept."""
        while (found := re.search(rb"data: (.*)\n\n", self.data)) is None:
            data = self.socket.recv(1 << 20)
            if not data:
                raise AssertionError("the stream has ended")
            self.data += data
            self.received += len(data)
        self.data = self.data[found.end():]
        return json.loads(found[1])

    def close(self):
        self.socket.close()


def value_in(event, name):
    return next((value["value"] for file in event["files"] for value in file["values"] if value["name"] == name), None)


class Case(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def publish(self, name="run.mon", title="Night run", **values):
        return Publisher(os.path.join(self.folder, name), title, **values)

    def serve(self, *words, **options):
        server = Server(*words, **options)
        self.addCleanup(server.stop)
        return server


class Requests(Case):
    def test_replies_say_what_a_browser_may_do(self):
        server = self.serve(self.publish(done=1).path)
        for path, kind in (("/", "text/html"), ("/page.js", "text/javascript"), ("/page.css", "text/css"),
                           ("/icon.svg", "image/svg+xml"), ("/events", "text/event-stream"), ("/none", "text/plain")):
            status, headers, body = server.get(path)
            self.assertEqual((status, headers["Content-Type"].split(";")[0]), (404 if path == "/none" else 200, kind))
            policy = headers["Content-Security-Policy"]
            self.assertIn("default-src 'none'", policy)
            self.assertIn("frame-ancestors 'none'", policy)
            self.assertNotIn("unsafe", policy)
            self.assertEqual(headers["X-Content-Type-Options"], "nosniff")
            self.assertEqual(headers["Cross-Origin-Resource-Policy"], "same-origin")
            self.assertEqual(headers["Cache-Control"], "no-store")
            self.assertIsNone(headers["Access-Control-Allow-Origin"])
            # Nothing of the page comes from elsewhere, and nothing is inline.
            self.assertNotRegex(body.decode().replace("http://www.w3.org/2000/svg", ""), "https?:|innerHTML|eval|<style| on[a-z]+=")
            self.assertEqual(len(re.findall("<script", body.decode())), path == "/")
        self.assertIn("script-src 'self'", server.get("/")[1]["Content-Security-Policy"])

    def test_only_our_hosts_and_only_reading(self):
        server = self.serve(self.publish(done=1).path)
        for host in "evil.example", "127.0.0.1.evil.example", "192.0.2.1", "":
            for path in "/", "/page.js", "/events":
                self.assertEqual(server.get(path, Host=host)[0], 421)
        for host in f"localhost:{server.port}", "127.0.0.1", "[::1]":
            self.assertEqual(server.get(Host=host)[0], 200)
        for method in "POST", "PUT", "DELETE", "OPTIONS", "TRACE":
            self.assertEqual(server.get("/events", method)[0], 405)

    def test_other_users_are_refused(self):
        if os.geteuid() != 0:
            self.skipTest("cannot become another user")
        path = self.publish(done=1).path

        def statuses(server):
            """Those that the other user gets."""
            results, result = os.pipe()
            child = os.fork()
            if child == 0:
                try:
                    os.setuid(OTHER_USER)
                    os.write(result, json.dumps([server.get(path)[0] for path in ("/", "/page.js", "/events")]).encode())
                finally:
                    os._exit(0)
            os.close(result)
            os.waitpid(child, 0)
            with open(results) as file:
                return json.load(file)

        own = self.serve(path)
        self.assertEqual(statuses(own), [403] * 3)
        self.assertEqual(own.get()[0], 200)
        self.assertEqual(statuses(self.serve("--any-user", path)), [200] * 3)

    def test_other_machines_need_leave(self):
        refused = subprocess.run([QEL, "mon", "serve", "--listen", "0.0.0.0:0"], capture_output=True, text=True)
        self.assertEqual(refused.returncode, 2)
        self.assertIn("--any-user", refused.stderr)

    def test_hostile_requests_do_no_harm(self):
        server = self.serve(self.publish(done=1).path)
        viewer = Viewer(server)
        viewer.event()
        before = server.descriptors()
        requests = [b"\0" * 100000, b"GET " + b"/" * 100000, b"GET /\r\n\r\n", b"GET / HTTP/1.1\r\n\r\n", b"GET", b"",
                    b"GET / HTTP/1.1\r\nHost: localhost\r\n" + b"X: " + b"y" * 1000000, b"\x16\x03\x01\x02\x00\x01\x00",
                    b"GET /../../etc/passwd HTTP/1.1\r\nHost: localhost\r\n\r\n", b"GET //events HTTP/1.1\r\nHost: localhost\r\n\r\n",
                    b"GET /events HTTP/1.1\r\nHost: evil.example\r\nHost: localhost\r\n\r\n",
                    b"POST /events HTTP/1.1\r\nHost: localhost\r\nContent-Length: 99999999999999999999\r\n\r\n",
                    b"GET /%00%0d%0aX:y HTTP/1.1\r\nHost: localhost\r\n\r\n", b"HEAD /events HTTP/1.1\r\nHost: localhost\r\n\r\n"]
        peers = []
        for request in requests:
            peer = socket.create_connection(("127.0.0.1", server.port), LIMIT)
            peer.setblocking(False)
            try:
                peer.sendall(request)
                if peer.recv(1 << 16).find(b"root:") >= 0:
                    self.fail("it serves files")
            except OSError:
                pass
            peers.append(peer)  # held open
        self.assertEqual(server.get()[0], 200)
        self.assertIsNotNone(viewer.event())
        for peer in peers:
            peer.close()
        end = time.monotonic() + LIMIT
        while server.descriptors() > before:
            self.assertLess(time.monotonic(), end)
            time.sleep(0.1)
        viewer.close()
        self.assertEqual(server.stop(), 0)


class Viewers(Case):
    def test_two_hundred_at_once(self):
        published = self.publish(**{f"value{i}": i for i in range(100)})
        server = self.serve(published.path)
        viewers = [Viewer(server) for _ in range(200)]
        for viewer in viewers:
            self.assertEqual(value_in(viewer.event(), "value99"), 99)
        self.assertLess(server.fact("Threads"), 5)
        links = [os.path.realpath(f"/proc/{server.process.pid}/fd/{each}") for each in os.listdir(f"/proc/{server.process.pid}/fd")]
        self.assertLessEqual(links.count(published.path), 1)  # the file is read once for all

        taken, start = server.seconds(), time.monotonic()
        for i in range(5):
            published.set(**{f"value{j}": 1000 + i for j in range(100)})
            for viewer in viewers:
                while value_in(viewer.event(), "value7") != 1000 + i:
                    self.assertLess(time.monotonic(), start + LIMIT)
        print(f"{(server.seconds() - taken) / (time.monotonic() - start):.2%} of a processor for 200 viewers and 100 values")
        # Viewers leave, and the server ends while others wait.
        for viewer in viewers[:150]:
            viewer.close()
        self.assertIsNotNone(viewers[199].event())
        self.assertEqual(server.stop(), 0)
        for viewer in viewers:
            viewer.close()

    def test_one_that_stops_reading_misses_events_and_is_dropped(self):
        # Long names make large events cheap: the changes below take less time than a viewer may.
        values = {f"value{i}" + "x" * 400: 0 for i in range(500)}
        published, last = self.publish(**values), list(values)[-1]
        server = self.serve("--interval", "0.1", published.path)
        other, late, stopped = Viewer(server), Viewer(server, 4096), Viewer(server, 4096)
        for viewer in other, late, stopped:
            self.assertTrue(viewer.event()["isWhole"])
        count, number, end = server.descriptors(), 0, time.monotonic() + LIMIT

        def change():
            nonlocal number
            number += 1
            published.set(**dict.fromkeys(values, number))  # some 200 kB, in one event or a few
            while value_in(event := other.event(), last) != number:
                self.assertFalse(event["isWhole"])  # it has missed nothing
                self.assertLess(time.monotonic(), end)

        for _ in range(10):
            change()
        # There was room for a few of these events only; having missed some, it gets all that there is.
        while not (event := late.event())["isWhole"]:
            pass
        self.assertEqual(value_in(event, last), number)
        self.assertLess(late.received, other.received / 2)
        late.close()
        while server.descriptors() > count - 2:
            change()
            self.assertLess(server.fact("VmRSS"), 300000)  # kB
        self.assertIsNone(server.process.poll())
        other.close()
        stopped.close()

    def test_too_much_is_cut(self):
        long = "ä" * 5000
        path = self.publish(text=long, **{f"value{i}": i for i in range(6000)}).path
        viewer = Viewer(self.serve(path))
        event = viewer.event()
        self.assertEqual(event["hidden"], 1001)
        self.assertEqual(len(event["files"][0]["values"]), 5000)
        self.assertEqual(value_in(event, "text"), long[:500] + "…")
        viewer.close()


ROW = "document.querySelector('tr[data-name=\"{}\"]')"


def value(name):
    """The text of a value, as the page has it."""
    return ROW.format(name) + "?.querySelector('.value').innerText"


class Page(Case):
    @classmethod
    def setUpClass(cls):
        cls.browser = Browser()

    @classmethod
    def tearDownClass(cls):
        cls.browser.close()

    def open(self, server, **looks):
        self.browser.show(**looks)
        self.browser.open(f"http://127.0.0.1:{server.port}/")
        self.browser.wait("document.body?.dataset.connection", "live")
        self.browser.evaluate("window.isSame = true")
        self.addCleanup(self.stayed_quiet, server)

    def stayed_quiet(self, server):
        self.assertTrue(self.browser.evaluate("window.isSame"))  # it was not loaded again
        self.browser.evaluate("1")
        complaints = [each for each in self.browser.complaints if "ERR_" not in each]  # of a lost connection
        self.assertEqual(complaints, [])

    def state(self, wanted):
        self.browser.wait("document.querySelector('section .state')?.innerText", wanted)

    def test_values_arrive_and_open(self):
        published = self.publish(done=7, low=-3, note="<script>window.isHit=1</script>", **{"<img src=x onerror=isHit=1>": 5})
        self.open(self.serve("--interval", "0.2", published.path))
        self.browser.wait(value("done"), "7")
        self.assertEqual(self.browser.evaluate("document.querySelector('h2').innerText"), published.path)
        self.assertEqual(self.browser.evaluate("document.querySelector('.title').innerText"), "Night run")
        self.state("live")
        self.assertEqual(self.browser.evaluate(value("note")), "<script>window.isHit=1</script>")
        self.assertIn("<img src=x", self.browser.evaluate("document.body.innerText"))
        self.assertEqual(self.browser.evaluate("[document.scripts.length, document.images.length, typeof isHit]"),
                         [1, 0, "undefined"])
        published.set(done=8)
        self.browser.wait(value("done"), "8")
        self.browser.wait("/^\\d+ s$/.test(" + ROW.format("done") + ".querySelector('.age').innerText)")
        self.assertTrue(self.browser.evaluate(ROW.format("low") + ".querySelector('.age').innerText").startswith(">"))
        end = time.monotonic() + LIMIT
        for number in range(100, 10000, 100):  # until a sample has a rate
            published.set(done=number)
            if self.browser.evaluate("Number(" + ROW.format("done") + ".querySelector('.rate').innerText)") > 0:
                break
            self.assertLess(time.monotonic(), end)
            time.sleep(0.1)
        self.browser.wait(ROW.format("done") + ".querySelectorAll('.curve polyline').length", 1)
        # By the keyboard.
        self.browser.evaluate(ROW.format("done") + ".querySelector('button').focus()")
        self.browser.press("Enter")
        self.browser.wait("document.querySelector('.opened p')?.innerText.startsWith('Least 7, greatest ')")
        self.assertEqual(self.browser.evaluate("document.activeElement.getAttribute('aria-expanded')"), "true")
        self.assertGreater(self.browser.evaluate("document.querySelector('.opened polyline').getAttribute('points').length"), 10)
        self.browser.press("Enter")
        self.browser.wait("document.querySelector('.opened')", None)

    def test_a_file_is_missing_replaced_old_and_gone(self):
        path = os.path.join(self.folder, "run.mon")
        self.open(self.serve("--interval", "0.2", "--old", "3600", path))
        self.state("not there yet")
        published = self.publish(done=1, gone=5)
        self.browser.wait(value("done"), "1")
        self.state("live")
        published.make("Second run", {"done": 2, "more": 3})
        self.state("replaced")
        self.browser.wait(value("more"), "3")
        self.browser.wait(value("gone"), None)
        self.browser.wait(value("done"), "2")
        os.remove(path)
        self.state("removed")
        self.assertEqual(self.browser.evaluate(value("done")), "2")  # what was known last
        self.assertEqual(self.browser.evaluate("document.getElementById('news').innerText"), f"{path}: removed")
        self.publish(done=4)
        os.utime(path, (1, 1))
        self.browser.wait(value("done"), "4")
        self.state("old")

    def test_servers_come_and_go(self):
        environment = dict(os.environ, XDG_RUNTIME_DIR=self.folder)
        environment.pop("RUNTIME_DIRECTORY", None)
        self.open(self.serve("--interval", "0.2", environment=environment))
        self.browser.wait("document.getElementById('empty').checkVisibility()")
        names = subprocess.Popen([QEL, "ns", "serve", "--port", "0"], env=environment, stdout=subprocess.PIPE)
        try:
            self.browser.wait("document.querySelector('h2')?.innerText", f"nameserver, process {names.pid}")
            self.state("live")
            self.browser.wait(value("connections"), "0")
        finally:
            names.kill()
            names.wait()
            names.stdout.close()
        self.state("dead")

    def test_a_lost_connection_comes_back(self):
        published = self.publish(done=1)
        server = self.serve("--interval", "0.2", published.path)
        self.open(server)
        self.browser.wait(value("done"), "1")
        self.assertEqual(server.stop(), 0)
        self.browser.wait("document.body.dataset.connection", "lost")
        self.assertIn("Connection lost", self.browser.evaluate("document.getElementById('status').innerText"))
        published.set(done=2)
        server = self.serve("--interval", "0.2", published.path, port=server.port)
        self.browser.wait(value("done"), "2")
        self.browser.wait("document.getElementById('status').innerText", "Live")
        # One that is silent.
        server.process.send_signal(signal.SIGSTOP)
        self.browser.wait("document.body.dataset.connection", "lost")
        server.process.send_signal(signal.SIGCONT)
        published.set(done=3)
        self.browser.wait(value("done"), "3")

    def test_filter_sort_and_pause(self):
        names = "[...document.querySelectorAll('tbody tr')].filter(row => row.checkVisibility()).map(row => row.dataset.name)"
        published = self.publish(alpha=2, beta=0, gamma=3)
        self.open(self.serve("--interval", "0.2", published.path))
        self.browser.wait(names, ["alpha", "beta", "gamma"])
        self.browser.evaluate("document.querySelector('[data-sort=value]').click()")
        self.browser.wait(names, ["gamma", "alpha", "beta"])
        self.assertEqual(self.browser.evaluate("document.querySelector('[aria-sort]').innerText.trim()"), "Value")
        published.set(beta=9)
        self.browser.wait(names, ["beta", "gamma", "alpha"])
        published.set(beta=0)
        self.browser.evaluate("document.getElementById('zeros').click()")
        self.browser.wait(names, ["gamma", "alpha"])
        for key in "/gAm":
            self.browser.press(key)
        self.browser.wait(names, ["gamma"])
        self.assertEqual(self.browser.evaluate("document.getElementById('filter').value"), "gAm")
        self.browser.press("x")
        self.browser.wait("document.getElementById('empty').checkVisibility()")
        self.browser.press("Escape")
        self.browser.wait(names, ["gamma", "alpha"])
        self.browser.evaluate("document.getElementById('pause').click()")
        published.set(alpha=7)
        other = Viewer(self.latest)
        while value_in(other.event(), "alpha") != 7:
            pass
        other.event()
        other.close()
        self.assertEqual(self.browser.evaluate(value("alpha")), "2")
        self.browser.evaluate("document.getElementById('pause').click()")
        self.browser.wait(value("alpha"), "7")

    def test_is_readable_dark_and_light_wide_and_narrow(self):
        published = self.publish(title="A title that is longer than a narrow screen is wide, by far", done=7,
                                 **{"a.very.long.name." * 6: 1})
        server = self.serve(published.path, os.path.join(self.folder, "none.mon"))
        contrasts = """(() => {
            const light = (colour) => {
                const [r, g, b] = colour.match(/[\\d.]+/g).map((n) => n / 255).map((c) => c <= .03928 ? c / 12.92 : ((c + .055) / 1.055) ** 2.4);
                return .2126 * r + .7152 * g + .0722 * b;
            };
            const paper = light(getComputedStyle(document.body).backgroundColor);
            return ["body", "h1", "h2", "#status", "[data-state=live] .state", "section:last-child .state", "thead button", ".value", "td.age", "#filter"].map((each) => {
                const ink = light(getComputedStyle(document.querySelector(each)).color);
                return (Math.max(ink, paper) + .05) / (Math.min(ink, paper) + .05);
            });
        })()"""
        papers = set()
        for scheme in "light", "dark":
            for width in 1200, 320:
                self.open(server, width=width, scheme=scheme)
                self.browser.wait(value("done"), "7")
                self.assertGreater(min(self.browser.evaluate(contrasts)), 4.5, scheme)
                self.assertLessEqual(self.browser.evaluate("document.documentElement.scrollWidth"), width)
                box = self.browser.evaluate(ROW.format("done") + ".querySelector('.value').getBoundingClientRect().toJSON()")
                self.assertTrue(0 <= box["left"] < box["right"] <= width, box)
                papers.add(self.browser.evaluate("getComputedStyle(document.body).backgroundColor"))
        self.assertEqual(len(papers), 2)

    def serve(self, *words, **options):
        self.latest = super().serve(*words, **options)
        return self.latest


if __name__ == "__main__":
    if not os.path.exists(os.path.join(os.path.dirname(QEL), "qel-http")):
        print("no qel-http here")
        sys.exit(77)
    if sys.argv[2] == "Page" and not BROWSER:
        print("no chromium here")
        sys.exit(77)
    unittest.main(argv=[sys.argv[0], *sys.argv[2:]], verbosity=2)
