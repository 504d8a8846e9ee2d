"""Machines in one: network namespaces, joined by a bridge, with members of etcd and name servers in them. Shared by the
example `show`, the tests and the benchmark.

`isolate` runs the program in namespaces of its own, with which everything ends that it has started there."""
import contextlib
import ctypes
import json
import os
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time

LEASE = 15  # seconds
NOT_POSSIBLE = 77  # the exit code
NEW_NETWORK = 0x40000000  # CLONE_NEWNET
SEPARATE = ["unshare", *(["--map-root-user"] if os.geteuid() else []), "--net", "--mount", "--pid", "--fork",
            "--kill-child", "--mount-proc"]
system = ctypes.CDLL(None, use_errno=True)


# ---- namespaces

def missing():
    """Names a part that this system lacks for namespaces with members of etcd; empty when it has all."""
    os.environ["PATH"] += ":/usr/sbin:/sbin"
    for program, package in (("etcd", "etcd-server"), ("etcdctl", "etcd-client"), ("ip", "iproute2"),
                             ("unshare", "util-linux"), ("setpriv", "util-linux")):
        if not shutil.which(program):
            return f"the program {program} (package {package})"
    tried = subprocess.run([*SEPARATE, "ip", "link", "add", "type", "bridge"], capture_output=True, text=True)
    return f"root, or user namespaces, and network bridges: {tried.stderr.strip()}" if tried.returncode else ""


def isolate():
    """Runs the program again in process, mount and network namespaces of its own, and returns there: a folder for files,
    which are in memory. The first process waits for the end and exits with its code, or with NOT_POSSIBLE."""
    if folder := os.environ.pop("QELSTD_CLUSTER", None):
        subprocess.run(["mount", "-t", "tmpfs", "cluster", folder], check=True)
        ip("link set lo up")
        os.environ.pop("VRXNMSPORT", None)
        os.environ["QELSTD_REGISTRY"] = f"{folder}/registry"
        return folder
    if lacking := missing():
        print(f"{os.path.basename(sys.argv[0])}: needs {lacking}", file=sys.stderr)
        sys.exit(NOT_POSSIBLE)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))
    folder = tempfile.mkdtemp()
    try:
        command = ["setpriv", "--pdeathsig", "KILL", *SEPARATE, sys.executable, *sys.argv]
        with subprocess.Popen(command, env={**os.environ, "QELSTD_CLUSTER": folder}) as inner:
            try:
                sys.exit(inner.wait())
            except KeyboardInterrupt:
                sys.exit(128 + signal.SIGINT)
            finally:
                inner.kill()
    finally:
        os.rmdir(folder)


def ip(*lines, **how):
    subprocess.run(["ip", "-batch", "-"], input="\n".join(lines), text=True, check=True, **how)


def own_space():
    return os.open("/proc/thread-self/ns/net", os.O_RDONLY)


def enter(space):
    if system.setns(space, NEW_NETWORK):
        raise OSError(ctypes.get_errno(), "setns")


class Place:
    """A network namespace, and its address on the bridge."""

    def __init__(self, address, space):
        self.address, self.space = address, space

    @contextlib.contextmanager
    def inside(self):
        """Sockets and processes that this thread makes meanwhile belong to the namespace."""
        home = own_space()
        enter(self.space)
        try:
            yield
        finally:
            enter(home)
            os.close(home)

    def start(self, *words, **how):
        with self.inside():
            return subprocess.Popen(words, **how)

    def run(self, *words, **how):
        with self.inside():
            return subprocess.run(words, capture_output=True, text=True, **{"timeout": 30, **how})


class Lan(Place):
    """The bridge, and the namespace in which it is."""

    def __init__(self):
        super().__init__("10.0.0.254", own_space())
        ip("link add lan type bridge", "link set lan up", f"address add {self.address}/24 dev lan")

    def close(self):
        ip("link delete lan")


# ---- etcd

class Etcd:
    """A cluster of etcd, with a member at each place."""

    def __init__(self, folder, places, scheme="http", arguments=(), control=()):
        self.places, self.control_words = places, list(control)
        cluster = ",".join(f"m{i}=http://{place.address}:2380" for i, place in enumerate(places))
        self.commands = [
            ["etcd", "--name", f"m{i}", "--data-dir", f"{folder}/m{i}", "--initial-cluster", cluster,
             "--listen-client-urls", f"{scheme}://{place.address}:2379",
             "--advertise-client-urls", f"{scheme}://{place.address}:2379",
             "--listen-peer-urls", f"http://{place.address}:2380",
             "--initial-advertise-peer-urls", f"http://{place.address}:2380", *arguments]
            for i, place in enumerate(places)]
        self.store = "etcd://" + ",".join(f"{place.address}:2379" for place in places)
        self.members = [None] * len(places)
        for i in range(len(places)):
            self.start(i)
        self.wait_healthy()

    def start(self, i):
        self.members[i] = self.places[i].start(*self.commands[i], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def kill(self, i):
        self.members[i].kill()
        self.members[i].wait()
        self.members[i] = None

    def close(self):
        for i, member in enumerate(self.members):
            if member:
                self.kill(i)

    def control(self, *words, check=True):
        alive = ",".join(f"{place.address}:2379" for place, member in zip(self.places, self.members) if member)
        return subprocess.run(["etcdctl", "--endpoints", alive, *self.control_words, *words], check=check,
                              capture_output=True, text=True, env={**os.environ, "ETCDCTL_API": "3"}, timeout=30)

    def wait_healthy(self):
        wait_until(lambda: self.control("endpoint", "health", check=False).returncode == 0, 60, "etcd is healthy")

    def status(self):
        return [found["Status"] for found in json.loads(self.control("endpoint", "status", "-w", "json").stdout)]

    def leader(self):
        """Of members that all run and are joined."""
        return next(i for i, status in enumerate(self.status())
                    if status["header"]["member_id"] == status["leader"])

    def keys(self, part):
        return self.control("get", "--prefix", "--keys-only", "/qelstd/names/" + part).stdout.split()


# ---- name servers

class Machine(Place):
    """A namespace that stands for a machine: joined to the others by a link of its own, with a name server."""

    PING, REGISTER, DELETE, QUERY = 1, 3, 4, 5  # codes of requests

    def __init__(self, folder, number, qel):
        home = own_space()
        if system.unshare(NEW_NETWORK):
            raise OSError(ctypes.get_errno(), "unshare")
        super().__init__(f"10.0.0.{number}", own_space())
        enter(home)
        self.qel_program, self.link, self.folder = qel, f"port{number}", f"{folder}/{self.address}"
        os.mkdir(self.folder)
        ip(f"link add {self.link} type veth peer name eth0 netns /proc/self/fd/{self.space}",
           f"link set {self.link} master lan up", pass_fds=[self.space])
        with self.inside():
            ip("link set lo up", "link set eth0 up", f"address add {self.address}/24 dev eth0")

    def cut(self):
        ip(f"link set {self.link} down")

    def join(self):
        ip(f"link set {self.link} up")

    def close(self):
        ip(f"link delete {self.link}")
        os.close(self.space)

    def serve(self, store, *arguments):
        self.command = [self.qel_program, "ns", "serve", "--state", self.folder, "--no-statistics", "--store", store,
                        "--store-plain", "--advertise", self.address, *arguments]
        self.begin()

    def begin(self):
        with open(f"{self.folder}/log", "a") as log:
            self.process = self.start(*self.command, stdout=subprocess.PIPE, stderr=log, text=True)
        if "serving" not in self.process.stdout.readline():
            raise RuntimeError(f"the name server of {self.address} does not start: {self.log()}")

    def stop(self, number=signal.SIGTERM):
        self.process.send_signal(number)
        self.process.wait(10)
        self.process.stdout.close()

    def qel(self, *words):
        return self.run(self.qel_program, "ns", *words)

    def connect(self):
        """A connection to the name server."""
        with self.inside():
            return socket.create_connection(("127.0.0.1", 1239), 30)

    def request(self, code, fields, owner=0):
        """The status of a request about a record, and the seconds that it takes."""
        def text(value):
            return struct.pack(">II", len(value) + 1, len(value)) + value.encode()

        began = time.monotonic()
        with self.connect() as client:
            client.sendall(struct.pack(">IBII", 100, code, owner, len(fields)) +
                           b"".join(text(name) + text(value) for name, value in fields.items()))
            return client.recv(1)[0], time.monotonic() - began

    def register(self, name, *fields, owner=None):
        words = ["register", f"_ServerName={name}", *fields, *(["--process", str(owner)] if owner else [])]
        return self.qel(*words).returncode

    def query(self, *fields):
        found = self.qel("query", "--json", *fields)
        return [json.loads(line) for line in found.stdout.splitlines()]

    def everywhere(self, name):
        """The records of that name of all machines."""
        return [record["fields"] for record in self.query("_Scope=all", f"_ServerName={name}")]

    def hosts(self, name):
        return [fields.get("_HostName", "own") for fields in self.everywhere(name)]

    def status(self):
        return json.loads(self.qel("status", "--json").stdout)

    def wait_fresh(self, seconds=30):
        wait_until(lambda: self.status()["StoreStale"] == 0, seconds, f"{self.address} is up to date")

    def log(self):
        with open(f"{self.folder}/log") as file:
            return file.read()


def wait_until(condition, seconds, what):
    end = time.monotonic() + seconds
    while True:
        if result := condition():
            return result
        if time.monotonic() > end:
            raise AssertionError(f"not within {seconds} seconds: {what}")
        time.sleep(0.1)
