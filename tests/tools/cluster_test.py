"""cluster_test.py QEL [CASE]: name servers that share their records in etcd. The members of etcd and the name servers run on
the loopback; each name server reaches etcd through relays of its own, which can be cut, so that it stands for a machine."""
import json
import os
import re
import select
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest

QEL = sys.argv[1]
# The machines' names for one another; nobody connects to them.
HOSTS = {"a": "192.0.2.1", "b": "192.0.2.2", "c": "192.0.2.3"}
LEASE = 15


def free_ports(count):
    sockets = [socket.create_server(("127.0.0.1", 0)) for _ in range(count)]
    ports = [one.getsockname()[1] for one in sockets]
    for one in sockets:
        one.close()
    return ports


def wait_until(condition, seconds, what):
    end = time.monotonic() + seconds
    while True:
        if result := condition():
            return result
        if time.monotonic() > end:
            raise AssertionError(f"not within {seconds} seconds: {what}")
        time.sleep(0.1)


class Relay(threading.Thread):
    """Passes connections on to a port until it is cut; a cut connection stays open and silent."""

    def __init__(self, to):
        super().__init__(daemon=True)
        self.to, self.is_cut, self.pairs = to, False, {}
        self.door = socket.create_server(("127.0.0.1", 0))
        self.port = self.door.getsockname()[1]
        self.start()

    def run(self):
        while True:
            if self.is_cut:
                time.sleep(0.05)
                continue
            ready, _, _ = select.select([self.door, *self.pairs], [], [], 0.05)
            for one in ready:
                if one is self.door:
                    self.connect(self.door.accept()[0])
                elif one in self.pairs:
                    self.move(one, self.pairs[one])

    def connect(self, near):
        try:
            far = socket.create_connection(("127.0.0.1", self.to), 1)
        except OSError:
            return near.close()
        self.pairs[near], self.pairs[far] = far, near

    def move(self, one, other):
        try:
            if data := one.recv(65536):
                return other.sendall(data)
        except OSError:
            pass
        for end in one, other:
            self.pairs.pop(end, None)
            end.close()


class Etcd:
    """A cluster of etcd."""

    def __init__(self, folder, size, scheme="http", arguments=(), control=()):
        ports = free_ports(2 * size)
        self.clients, peers = ports[:size], ports[size:]
        self.control_words = list(control)
        cluster = ",".join(f"m{i}=http://127.0.0.1:{peer}" for i, peer in enumerate(peers))
        self.commands = [
            ["etcd", "--name", f"m{i}", "--data-dir", f"{folder}/m{i}", "--initial-cluster", cluster,
             "--listen-client-urls", f"{scheme}://127.0.0.1:{self.clients[i]}",
             "--advertise-client-urls", f"{scheme}://127.0.0.1:{self.clients[i]}",
             "--listen-peer-urls", f"http://127.0.0.1:{peers[i]}",
             "--initial-advertise-peer-urls", f"http://127.0.0.1:{peers[i]}",
             "--unsafe-no-fsync", *arguments] for i in range(size)]
        self.members = [None] * size
        for i in range(size):
            self.start(i)
        wait_until(lambda: self.control("endpoint", "health", check=False).returncode == 0, 60, "etcd is healthy")

    def start(self, i):
        self.members[i] = subprocess.Popen(self.commands[i], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def kill(self, i):
        self.members[i].kill()
        self.members[i].wait()
        self.members[i] = None

    def close(self):
        for i, member in enumerate(self.members):
            if member:
                self.kill(i)

    def control(self, *words, check=True):
        alive = ",".join(f"127.0.0.1:{self.clients[i]}" for i, member in enumerate(self.members) if member)
        return subprocess.run(["etcdctl", "--endpoints", alive, *self.control_words, *words], check=check,
                              capture_output=True, text=True, env={**os.environ, "ETCDCTL_API": "3"}, timeout=30)

    def status(self):
        return [found["Status"] for found in json.loads(self.control("endpoint", "status", "-w", "json").stdout)]

    def leader(self):
        """Of members that all run."""
        return next(i for i, status in enumerate(self.status())
                    if status["header"]["member_id"] == status["leader"])

    def keys(self, part):
        return [key for key in self.control("get", "--prefix", "--keys-only", "/qelstd/names/" + part).stdout.split()]


class Machine:
    """A name server, and what it takes for the network."""

    def __init__(self, folder, name, etcd, arguments, port):
        self.name, self.port = name, port
        self.relays = [Relay(port) for port in etcd.clients]
        self.folder = f"{folder}/{name}"
        os.mkdir(self.folder)
        store = "etcd://" + ",".join(f"127.0.0.1:{relay.port}" for relay in self.relays)
        self.command = [QEL, "ns", "serve", "--port", str(self.port), "--state", self.folder, "--no-statistics",
                        "--store", store, "--advertise", HOSTS[name], *arguments]
        self.start()

    def start(self):
        with open(f"{self.folder}/log", "a") as log:
            self.process = subprocess.Popen(self.command, stdout=subprocess.PIPE, stderr=log, text=True)
        assert "serving" in self.process.stdout.readline()

    def stop(self, number=signal.SIGTERM):
        self.process.send_signal(number)
        self.process.wait(10)
        self.process.stdout.close()

    def cut(self, is_cut):
        for relay in self.relays:
            relay.is_cut = is_cut

    def qel(self, *words):
        return subprocess.run([QEL, "ns", *words], capture_output=True, text=True, timeout=30,
                              env={**os.environ, "VRXNMSPORT": str(self.port)})

    def request(self, code, name):
        """The status of a request about a record of no process, and the seconds that it takes."""
        def text(value):
            return struct.pack(">II", len(value) + 1, len(value)) + value.encode()

        began = time.monotonic()
        with socket.create_connection(("127.0.0.1", self.port)) as client:
            client.sendall(struct.pack(">IBII", 100, code, 0, 1) + text("_ServerName") + text(name))
            return client.recv(1)[0], time.monotonic() - began

    def register(self, name, *fields, owner=None):
        words = ["register", f"_ServerName={name}", *fields, *(["--process", str(owner)] if owner else [])]
        return self.qel(*words).returncode

    def query(self, *fields):
        found = self.qel("query", "--json", *fields)
        return json.loads(found.stdout) if found.stdout else []

    def everywhere(self, name):
        return [record["fields"] for record in self.query("_Scope=all", f"_ServerName={name}")]

    def hosts(self, name):
        return [fields.get("_HostName", "own") for fields in self.everywhere(name)]

    def status(self):
        return json.loads(self.qel("status", "--json").stdout)

    def wait_fresh(self, seconds=30):
        wait_until(lambda: self.status()["StoreStale"] == 0, seconds, f"{self.name} is up to date")

    def log(self):
        with open(f"{self.folder}/log") as file:
            return file.read()


class Cluster(unittest.TestCase):
    size = 3

    def setUp(self):
        self.folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.folder)
        self.etcd = self.make_etcd()
        self.addCleanup(self.etcd.close)
        self.machines = {}

    def make_etcd(self):
        return Etcd(self.folder, self.size)

    def machine(self, name, *arguments, port=None, is_fresh=True):
        made = Machine(self.folder, name, self.etcd, arguments, port or free_ports(1)[0])
        self.addCleanup(lambda: made.process.poll() is None and made.stop())
        self.addCleanup(made.cut, False)
        if is_fresh:
            made.wait_fresh()
        return made

    def owner(self):
        """A process that has records until it is killed."""
        process = subprocess.Popen(["sleep", "600"])
        self.addCleanup(lambda: (process.kill(), process.wait()))
        return process


class OneMember(Cluster):
    size = 1

    def test_records_are_seen_everywhere_and_changed_at_home(self):
        a, b = self.machine("a"), self.machine("b")
        owner = self.owner()
        self.assertEqual(a.register("words", "_PortNumber=7001", owner=owner.pid), 0)
        self.assertEqual(a.hosts("words"), ["own"])
        wait_until(lambda: b.hosts("words") == ["192.0.2.1"], 5, "b sees it")
        record, = b.query("_Scope=all", "_ServerName=words")
        self.assertEqual(record["process"], 0)
        # The same revision fences the owner on every machine.
        self.assertEqual(record["fields"]["_Revision"], a.everywhere("words")[0]["_Revision"])
        self.assertEqual(b.qel("find", "words").stdout, "192.0.2.1 7001\n")
        self.assertEqual(b.query("_ServerName=words"), [])
        self.assertEqual(b.qel("delete", "_ServerName=words").returncode, 1)
        self.assertEqual(b.qel("delete", "_Scope=all", "_ServerName=words").returncode, 1)

        # The name is one process's, on all machines; records of no process may have it as well.
        self.assertEqual(b.register("words", "_PortNumber=7002", owner=self.owner().pid), 1)
        self.assertEqual(a.register("words", "more=1", owner=owner.pid), 0)
        self.assertEqual(b.register("words", "_PortNumber=7003"), 0)
        wait_until(lambda: len(a.everywhere("words")) == 3, 5, "a sees the record of no process")
        self.assertEqual(a.qel("delete", "_PortNumber=7001").stdout, "1\n")
        self.assertEqual(b.register("words", "x=1", owner=self.owner().pid), 1)

        # It is free when its process has exited.
        owner.kill()
        owner.wait()
        wait_until(lambda: b.register("words", "x=2", owner=self.owner().pid) == 0, 10, "the name is free")
        self.assertEqual(len(self.etcd.keys("claims/")), 1)
        self.assertEqual(len(self.etcd.keys("records/")), 2)

    def test_a_restart_takes_over_the_lease_and_without_state_replaces_the_records(self):
        a, b = self.machine("a"), self.machine("b")
        owner, gone = self.owner(), self.owner()
        self.assertEqual(a.register("stays", owner=owner.pid), 0)
        self.assertEqual(a.register("goes", owner=gone.pid), 0)
        before = a.everywhere("stays")[0]["_Revision"]
        time.sleep(1)  # the state file is written within a second
        a.stop(signal.SIGKILL)
        gone.kill()
        gone.wait()
        a.start()
        a.wait_fresh()
        self.assertEqual(a.everywhere("stays")[0]["_Revision"], before)
        wait_until(lambda: b.hosts("goes") == [], 5, "the record of the exited process is removed")
        self.assertEqual(b.hosts("stays"), ["192.0.2.1"])
        self.assertEqual(len(self.etcd.keys("claims/")), 1)

        a.stop(signal.SIGKILL)
        for file in os.listdir(a.folder):
            if file != "log":
                os.remove(f"{a.folder}/{file}")
        a.start()
        a.wait_fresh()
        self.assertEqual(self.etcd.keys(""), [])

    def test_a_machine_cut_off_is_displaced_or_restored(self):
        a, b = self.machine("a"), self.machine("b")
        owner = self.owner()
        for name in "lost", "kept":
            self.assertEqual(a.register(name, owner=owner.pid), 0)
        wait_until(lambda: b.hosts("kept"), 5, "b sees it")
        a.cut(True)
        status, seconds = a.request(3, "new")
        self.assertEqual(status, 8)
        self.assertLess(seconds, 4)
        self.assertEqual(a.query("_ServerName=new"), [])
        wait_until(lambda: "_Stale" in a.everywhere("lost")[0], LEASE + 5, "a knows that it is cut off")
        other = self.owner()
        wait_until(lambda: b.register("lost", owner=other.pid) == 0, LEASE + 15, "the name is free")
        self.assertEqual(b.hosts("kept"), [])

        a.cut(False)
        a.wait_fresh()
        self.assertEqual(a.status()["DisplacedNames"], "lost")
        self.assertIn("displaced", a.log())
        self.assertEqual(a.hosts("lost"), ["192.0.2.2"])
        self.assertEqual(len(a.query("_ServerName=lost")), 1)
        self.assertEqual(b.hosts("kept"), ["192.0.2.1"])
        self.assertEqual(b.hosts("new"), [])
        b.qel("delete", "_ServerName=lost")
        wait_until(lambda: a.status()["Displaced"] == 0, 10, "it is entered again")
        wait_until(lambda: b.hosts("lost") == ["192.0.2.1"], 5, "b sees it again")

    def test_queries_do_not_wait_for_the_store(self):
        a = self.machine("a")
        self.assertEqual(a.register("here", owner=self.owner().pid), 0)

        def ask(count=300):
            answers = [a.request(5, "here") for _ in range(count)]
            self.assertEqual({status for status, _ in answers}, {0})
            return sorted(seconds for _, seconds in answers)[count * 9 // 10]

        before = ask()
        os.kill(self.etcd.members[0].pid, signal.SIGSTOP)
        registering = threading.Thread(target=a.register, args=("never",))
        registering.start()
        silent = min(ask(), ask(), ask())
        os.kill(self.etcd.members[0].pid, signal.SIGCONT)
        registering.join()
        self.assertLess(silent, 5 * before + 0.002)

    def test_compaction_and_a_dead_keeper_lose_nothing(self):
        a, b = self.machine("a"), self.machine("b")
        self.assertEqual(b.register("first", owner=self.owner().pid), 0)
        b.cut(True)
        owner = self.owner()
        for i in range(20):
            self.assertEqual(a.register(f"many{i}", owner=owner.pid), 0)
        a.qel("delete", "_ServerName=many0")
        revision = self.etcd.status()[0]["header"]["revision"]
        self.etcd.control("compact", str(revision))
        b.cut(False)
        wait_until(lambda: len(b.query("_Scope=all", "_HostName=192.0.2.1")) == 19, 20, "b has loaded it all")
        keeper = int(subprocess.run(["pgrep", "-P", str(a.process.pid), "qel-names-etcd"], capture_output=True,
                                    text=True, check=True).stdout)
        os.kill(keeper, signal.SIGKILL)
        wait_until(lambda: "no keeper runs" in a.log(), 5, "a has no keeper")
        a.wait_fresh()
        self.assertEqual(a.register("after", owner=owner.pid), 0)
        wait_until(lambda: b.hosts("after") == ["192.0.2.1"], 5, "b sees it")
        self.assertEqual(len(self.etcd.keys("records/")), 21)
        self.assertEqual(len(self.etcd.keys("claims/")), 21)

    def test_rejects_addresses_that_others_cannot_use(self):
        def serve(*words):
            done = subprocess.run([QEL, "ns", "serve", "--check-config", "--port", "1239", *words], capture_output=True,
                                  text=True, timeout=30)
            return done.returncode, done.stderr.strip()

        url = "etcd://127.0.0.1:2379"
        self.assertEqual(serve("--store", url, "--advertise", "192.0.2.1"), (0, ""))
        self.assertEqual(serve("--store", url, "--advertise", "localhost"),
                         (1, "qel ns serve: localhost: resolves to the loopback, which is no address for other machines"))
        self.assertEqual(serve("--store", url, "--advertise", "127.0.1.1")[0], 1)
        for wrong in ("etcd:/x", "etcd://x", "etcd://127.0.0.1:x", "etcd://192.0.2.9:2379", "etcd://127.0.0.1:1,"):
            self.assertEqual(serve("--store", wrong, "--advertise", "192.0.2.1")[0], 2, wrong)
        self.assertEqual(serve("--store", "etcd://192.0.2.9:2379", "--advertise", "192.0.2.1", "--store-plain")[0], 0)
        self.assertEqual(serve("--advertise", "192.0.2.1")[0], 2)


class Full(Cluster):
    def make_etcd(self):
        return Etcd(self.folder, 1, arguments=["--quota-backend-bytes", "4000000"])

    def test_a_store_without_space_refuses_and_loses_nothing(self):
        a, b = self.machine("a"), self.machine("b")
        owner = self.owner()
        self.assertEqual(a.register("before", owner=owner.pid), 0)
        while self.etcd.control("put", "other", "x" * 100000, check=False).returncode == 0:
            pass
        self.assertEqual(a.register("full", owner=owner.pid), 3)
        self.assertIn("space exceeded", a.log())
        self.assertEqual(b.hosts("before"), ["192.0.2.1"])
        self.assertEqual(a.qel("delete", "_ServerName=before").stdout, "1\n")
        self.etcd.control("compact", str(self.etcd.status()[0]["header"]["revision"]))
        self.etcd.control("defrag")
        self.etcd.control("alarm", "disarm")
        self.assertEqual(a.register("full", owner=owner.pid), 0)
        wait_until(lambda: b.hosts("full") == ["192.0.2.1"], 5, "b sees it")


class Guarded(Cluster):
    """etcd with certificates, users and roles."""

    def make_etcd(self):
        def issue(name, extension, *by):
            subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                            "-subj", "/O=test", "-addext", extension, "-keyout", f"{self.folder}/{name}.key",
                            "-out", f"{self.folder}/{name}.pem", *by], check=True, capture_output=True)

        issue("ca", "keyUsage=keyCertSign")
        by = "-CA", f"{self.folder}/ca.pem", "-CAkey", f"{self.folder}/ca.key"
        issue("server", "subjectAltName=IP:127.0.0.1", *by)
        issue("client", "extendedKeyUsage=clientAuth", *by)
        files = [f"{self.folder}/{name}" for name in ("ca.pem", "client.pem", "client.key")]
        control = "--cacert", files[0], "--cert", files[1], "--key", files[2]
        self.words = "--store-ca", files[0], "--store-cert", files[1], "--store-key", files[2]
        return Etcd(self.folder, 1, "https", ["--cert-file", f"{self.folder}/server.pem", "--client-cert-auth",
                                              "--key-file", f"{self.folder}/server.key", "--trusted-ca-file", files[0]],
                    control)

    def test_machines_have_users_with_roles(self):
        a_port = free_ports(1)[0]
        for words in (["role", "add", "a"], ["role", "grant-permission", "a", "read", "--prefix", "/qelstd/names/"],
                      ["role", "grant-permission", "a", "readwrite", "--prefix",
                       f"/qelstd/names/records/192.0.2.1:{a_port}/"],
                      ["role", "grant-permission", "a", "readwrite", "--prefix", "/qelstd/names/claims/"],
                      ["user", "add", "a:secret"], ["user", "grant-role", "a", "a"], ["user", "add", "root:root"],
                      ["user", "grant-role", "root", "root"], ["auth", "enable"]):
            self.etcd.control(*words)
        self.etcd.control_words += ["--user", "root:root"]
        with open(f"{self.folder}/secret", "w") as file:
            file.write("secret\n")
        user = "--store-user", "a", "--store-password-file", f"{self.folder}/secret", *self.words
        a = self.machine("a", *user, port=a_port)
        self.assertEqual(a.register("words", owner=self.owner().pid), 0)
        self.assertEqual(a.hosts("words"), ["own"])
        self.assertEqual(len(self.etcd.keys("records/")), 1)
        # As another machine, the user has no rights; without one, it cannot even look.
        b = self.machine("b", *user)
        self.assertEqual(b.hosts("words"), ["192.0.2.1"])
        self.assertEqual(b.register("forged", owner=self.owner().pid), 3)
        self.assertIn("permission denied", b.log())
        c = self.machine("c", *self.words, is_fresh=False)
        wait_until(lambda: "user name is empty" in c.status()["Store"], 10, "c is refused")


class ThreeMembers(Cluster):
    def test_one_member_and_the_leader_are_killed_and_quorum_is_lost(self):
        a, b = self.machine("a"), self.machine("b")
        owner = self.owner()
        self.assertEqual(a.register("before", owner=owner.pid), 0)
        leader = self.etcd.leader()
        follower = (leader + 1) % 3
        self.etcd.kill(follower)
        self.assertEqual(a.register("without-follower", owner=owner.pid), 0)
        self.assertEqual(b.register("without-follower", owner=self.owner().pid), 1)
        self.etcd.start(follower)
        wait_until(lambda: self.etcd.control("endpoint", "health", check=False).returncode == 0, 30, "it is back")

        self.etcd.kill(leader)
        wait_until(lambda: a.register("without-leader", owner=owner.pid) == 0, 15, "another leader")
        wait_until(lambda: b.hosts("without-leader") == ["192.0.2.1"], 10, "b sees it")

        self.etcd.kill(follower)
        self.assertEqual(a.register("without-quorum", owner=owner.pid), 3)
        wait_until(lambda: "_Stale" in b.everywhere("before")[0], LEASE + 10, "b knows")
        for member in leader, follower:
            self.etcd.start(member)
        for machine in a, b:
            machine.wait_fresh(60)
        self.assertEqual(b.hosts("before"), ["192.0.2.1"])
        self.assertEqual(b.hosts("without-quorum"), [])
        self.assertEqual(a.register("without-quorum", owner=owner.pid), 0)
        # One record and one claim of each name.
        wait_until(lambda: len(self.etcd.keys("records/")) == 4, 5, "nothing is left over")
        self.assertEqual(len(self.etcd.keys("claims/")), 4)


if __name__ == "__main__":
    if not shutil.which("etcd") or not shutil.which("etcdctl"):
        sys.exit(77)
    unittest.main(argv=[sys.argv[0], *sys.argv[2:]], verbosity=2)
