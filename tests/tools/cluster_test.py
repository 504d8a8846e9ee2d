"""cluster_test.py QEL [CASE...]: name servers that share their records in etcd. Network namespaces stand for the machines.
Without a case, all but those of Timed run, several at a time, as they mostly wait for the ends of leases."""
import concurrent.futures
import json
import os
import pathlib
import signal
import subprocess
import sys
import threading
import unittest

sys.path.append(str(pathlib.Path(__file__).resolve().parents[2] / "examples/cluster"))
from cluster import LEASE, Etcd, Lan, Machine, isolate, wait_until  # noqa: E402

QEL = os.path.realpath(sys.argv[1])


class Cluster(unittest.TestCase):
    """Each test has machines of its own, and members of etcd beside them."""

    def setUp(self):
        self.folder = f"{FOLDER}/{self.id()}"
        os.mkdir(self.folder)
        self.lan = Lan()
        self.addCleanup(self.lan.close)
        self.places = {}
        self.etcd = self.make_etcd()
        self.addCleanup(self.etcd.close)

    def make_etcd(self):
        return Etcd(self.folder, [self.lan])

    def place(self, name):
        if name not in self.places:
            self.places[name] = Machine(self.folder, "abc".index(name) + 1, QEL)
            self.addCleanup(self.places[name].close)
        return self.places[name]

    def machine(self, name, *arguments, is_fresh=True):
        """A machine with a name server."""
        made = self.place(name)
        made.serve(self.etcd.store, *arguments)
        self.addCleanup(lambda: made.process.poll() is None and made.stop())
        if is_fresh:
            made.wait_fresh()
        return made

    def owner(self):
        """A process that has records until it is killed."""
        process = subprocess.Popen(["sleep", "600"])
        self.addCleanup(lambda: (process.kill(), process.wait()))
        return process

    def sees(self, machine, name, *hosts):
        """Waits until the machine has been told of the records of that name of exactly these hosts."""
        wait_until(lambda: machine.hosts(name) == list(hosts), 20, f"{machine.address} sees {name} of {hosts}")


class OneMember(Cluster):
    def test_records_are_seen_everywhere_and_changed_at_home(self):
        a, b = self.machine("a"), self.machine("b")
        owner = self.owner()
        self.assertEqual(a.register("words", "_PortNumber=7001", owner=owner.pid), 0)
        self.assertEqual(a.hosts("words"), ["own"])
        self.sees(b, "words", "10.0.0.1")
        record, = b.query("_Scope=all", "_ServerName=words")
        self.assertEqual(record["process"], 0)
        # The same revision fences the owner on every machine.
        self.assertEqual(record["fields"]["_Revision"], a.everywhere("words")[0]["_Revision"])
        self.assertEqual(b.qel("find", "words").stdout, "10.0.0.1 7001\n")
        self.assertEqual(b.query("_ServerName=words"), [])
        self.assertEqual(b.qel("delete", "_ServerName=words").returncode, 1)
        self.assertEqual(b.qel("delete", "_Scope=all", "_ServerName=words").returncode, 1)

        # The name is one process's, on all machines; records of no process may have it as well.
        self.assertEqual(b.register("words", "_PortNumber=7002", owner=self.owner().pid), 1)
        self.assertEqual(a.register("words", "more=1", owner=owner.pid), 0)
        self.assertEqual(b.register("words", "_PortNumber=7003"), 0)
        wait_until(lambda: len(a.everywhere("words")) == 3, 20, "a sees the record of no process")
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
        self.sees(b, "goes", "10.0.0.1")
        before = a.everywhere("stays")[0]["_Revision"]
        state = pathlib.Path(a.folder, "nameserver-1239")
        wait_until(lambda: state.exists() and b"goes" in state.read_bytes(), 20, "the state is written")
        a.stop(signal.SIGKILL)
        gone.kill()
        gone.wait()
        a.begin()
        a.wait_fresh()
        self.assertEqual(a.everywhere("stays")[0]["_Revision"], before)
        self.sees(b, "goes")
        self.assertEqual(b.hosts("stays"), ["10.0.0.1"])  # which it was told of before
        self.assertEqual(len(self.etcd.keys("claims/")), 1)

        a.stop(signal.SIGKILL)
        for file in os.listdir(a.folder):
            if file != "log":
                os.remove(f"{a.folder}/{file}")
        a.begin()
        a.wait_fresh()
        self.assertEqual(self.etcd.keys(""), [])

    def test_a_machine_cut_off_is_displaced_or_restored(self):
        a, b = self.machine("a"), self.machine("b")
        owner = self.owner()
        for name in "lost", "kept":
            self.assertEqual(a.register(name, owner=owner.pid), 0)
        wait_until(lambda: b.hosts("kept"), 20, "b sees it")
        a.cut()
        status, seconds = a.request(Machine.REGISTER, {"_ServerName": "new"})
        self.assertEqual(status, 8)
        self.assertLess(seconds, 4)
        self.assertEqual(a.query("_ServerName=new"), [])
        wait_until(lambda: "_Stale" in a.everywhere("lost")[0], LEASE + 5, "a knows that it is cut off")
        other = self.owner()
        wait_until(lambda: b.register("lost", owner=other.pid) == 0, LEASE + 15, "the name is free")
        self.sees(b, "kept")

        a.join()
        a.wait_fresh()
        self.assertEqual(a.status()["DisplacedNames"], "lost")
        self.assertIn("displaced", a.log())
        self.assertEqual(a.hosts("lost"), ["10.0.0.2"])
        self.assertEqual(len(a.query("_ServerName=lost")), 1)
        self.sees(b, "kept", "10.0.0.1")
        self.assertEqual(b.hosts("new"), [])
        b.qel("delete", "_ServerName=lost")
        wait_until(lambda: a.status()["Displaced"] == 0, 10, "it is entered again")
        self.sees(b, "lost", "10.0.0.1")

    def test_compaction_and_a_dead_keeper_lose_nothing(self):
        a, b = self.machine("a"), self.machine("b")
        self.assertEqual(b.register("first", owner=self.owner().pid), 0)
        b.cut()
        owner = self.owner()
        for i in range(20):
            self.assertEqual(a.register(f"many{i}", owner=owner.pid), 0)
        a.qel("delete", "_ServerName=many0")
        revision = self.etcd.status()[0]["header"]["revision"]
        self.etcd.control("compact", str(revision))
        # Connections do not outlive it: b must begin again.
        self.etcd.kill(0)
        self.etcd.start(0)
        self.etcd.wait_healthy()
        b.join()
        wait_until(lambda: len(b.query("_Scope=all", "_HostName=10.0.0.1")) == 19, 20, "b has loaded it all")
        keeper = int(subprocess.run(["pgrep", "-P", str(a.process.pid), "qel-names-etcd"], capture_output=True,
                                    text=True, check=True).stdout)
        os.kill(keeper, signal.SIGKILL)
        wait_until(lambda: "no keeper runs" in a.log(), 20, "a has no keeper")
        a.wait_fresh()
        self.assertEqual(a.register("after", owner=owner.pid), 0)
        self.sees(b, "after", "10.0.0.1")
        self.assertEqual(len(self.etcd.keys("records/")), 21)
        self.assertEqual(len(self.etcd.keys("claims/")), 21)

    def test_a_record_left_out_is_copied_once_there_is_room(self):
        a = self.machine("a")
        b = self.machine("b", "--max-copied", "10", "--max-copied-of-machine", "2")
        owner = self.owner()

        def copied():
            return {record["fields"]["_ServerName"] for record in b.query("_Scope=all", "_HostName=10.0.0.1")}

        names = {f"name{i}" for i in range(5)}
        for name in names:
            self.assertEqual(a.register(name, owner=owner.pid), 0)
        wait_until(lambda: b.status()["RecordsOfOthersLeftOut"] == 2, 20, "b lists two, and has no room for a third one")
        wait_until(lambda: "no room for" in b.log(), 10, "b has reported it")
        for _ in range(3):
            self.assertEqual(len(copied()), 2)
            name = copied().pop()
            names.remove(name)
            self.assertEqual(a.qel("delete", f"_ServerName={name}").stdout, "1\n")
            wait_until(lambda: len(copied() - {name}) == 2, 20, "b has copied the next one")
        self.assertEqual(copied(), names)
        self.assertEqual(b.status()["RecordsOfOthersLeftOut"], 0)

    def test_rejects_addresses_that_others_cannot_use(self):
        def check(*words):
            return subprocess.run([QEL, "ns", "serve", "--check-config", "--port", "1239", *words], capture_output=True,
                                  text=True, timeout=30)

        def serve(*words):
            done = check(*words)
            return done.returncode, done.stderr.strip()

        url = "etcd://127.0.0.1:2379"
        settings = json.loads(check("--store", url, "--advertise", "10.0.0.1", "--max-copied-size", "10", "--json").stdout)
        self.assertEqual((settings["store"], settings["bytes copied"], settings["bytes copied of a machine"]),
                         (url, 10 << 20, 1040000))
        self.assertEqual(serve("--store", url, "--advertise", "10.0.0.1")[1], "")
        self.assertEqual(serve("--store", url, "--advertise", "10.0.0.1", "--max-copied-size", "0")[0], 2)
        self.assertEqual(serve("--store", url, "--advertise", "localhost"),
                         (1, "qel ns serve: localhost: resolves to the loopback, which is no address for other machines"))
        self.assertEqual(serve("--store", url, "--advertise", "127.0.1.1")[0], 1)
        for wrong in ("etcd:/x", "etcd://x", "etcd://127.0.0.1:x", "etcd://192.0.2.9:2379", "etcd://127.0.0.1:1,"):
            self.assertEqual(serve("--store", wrong, "--advertise", "10.0.0.1")[0], 2, wrong)
        self.assertEqual(serve("--store", "etcd://192.0.2.9:2379", "--advertise", "10.0.0.1", "--store-plain")[0], 0)
        self.assertEqual(serve("--advertise", "10.0.0.1")[0], 2)


class Timed(Cluster):
    """These measure time."""

    def test_queries_do_not_wait_for_the_store(self):
        a = self.machine("a")
        self.assertEqual(a.register("here", owner=self.owner().pid), 0)

        def ask(count=300):
            answers = [a.request(Machine.QUERY, {"_ServerName": "here"}) for _ in range(count)]
            self.assertEqual({status for status, _ in answers}, {0})
            return sorted(seconds for _, seconds in answers)[count * 9 // 10]

        before = ask()
        os.kill(self.etcd.members[0].pid, signal.SIGSTOP)
        registering = threading.Thread(target=a.register, args=("never",))
        registering.start()
        silent = min(ask(), ask(), ask())
        os.kill(self.etcd.members[0].pid, signal.SIGCONT)
        registering.join()
        self.assertLess(silent, 5 * before + 0.02)


class Full(Cluster):
    def make_etcd(self):
        return Etcd(self.folder, [self.lan], arguments=["--quota-backend-bytes", "4000000"])

    def test_a_store_without_space_refuses_and_loses_nothing(self):
        a, b = self.machine("a"), self.machine("b")
        owner = self.owner()
        self.assertEqual(a.register("before", owner=owner.pid), 0)
        while self.etcd.control("put", "other", "x" * 100000, check=False).returncode == 0:
            pass
        self.assertEqual(a.register("full", owner=owner.pid), 3)
        self.assertIn("space exceeded", a.log())
        self.sees(b, "before", "10.0.0.1")
        self.assertEqual(a.qel("delete", "_ServerName=before").stdout, "1\n")
        self.etcd.control("compact", str(self.etcd.status()[0]["header"]["revision"]))
        self.etcd.control("defrag")
        self.etcd.control("alarm", "disarm")
        self.assertEqual(a.register("full", owner=owner.pid), 0)
        self.sees(b, "full", "10.0.0.1")


class Guarded(Cluster):
    """etcd with certificates, users and roles."""

    def make_etcd(self):
        def issue(name, extension, *by):
            subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                            "-subj", "/O=test", "-addext", extension, "-keyout", f"{self.folder}/{name}.key",
                            "-out", f"{self.folder}/{name}.pem", *by], check=True, capture_output=True)

        issue("ca", "keyUsage=keyCertSign")
        by = "-CA", f"{self.folder}/ca.pem", "-CAkey", f"{self.folder}/ca.key"
        issue("server", f"subjectAltName=IP:{self.lan.address}", *by)
        issue("client", "extendedKeyUsage=clientAuth", *by)
        files = [f"{self.folder}/{name}" for name in ("ca.pem", "client.pem", "client.key")]
        control = "--cacert", files[0], "--cert", files[1], "--key", files[2]
        self.words = "--store-ca", files[0], "--store-cert", files[1], "--store-key", files[2]
        return Etcd(self.folder, [self.lan], "https", ["--cert-file", f"{self.folder}/server.pem", "--client-cert-auth",
                                              "--key-file", f"{self.folder}/server.key", "--trusted-ca-file", files[0]],
                    control)

    def test_machines_have_users_with_roles(self):
        for words in (["role", "add", "a"], ["role", "grant-permission", "a", "read", "--prefix", "/qelstd/names/"],
                      ["role", "grant-permission", "a", "readwrite", "--prefix",
                       f"/qelstd/names/records/10.0.0.1:1239/"],
                      ["role", "grant-permission", "a", "readwrite", "--prefix", "/qelstd/names/claims/"],
                      ["user", "add", "a:secret"], ["user", "grant-role", "a", "a"], ["user", "add", "root:root"],
                      ["user", "grant-role", "root", "root"], ["auth", "enable"]):
            self.etcd.control(*words)
        self.etcd.control_words += ["--user", "root:root"]
        with open(f"{self.folder}/secret", "w") as file:
            file.write("secret\n")
        user = "--store-user", "a", "--store-password-file", f"{self.folder}/secret", *self.words
        a = self.machine("a", *user)
        self.assertEqual(a.register("words", owner=self.owner().pid), 0)
        self.assertEqual(a.hosts("words"), ["own"])
        self.assertEqual(len(self.etcd.keys("records/")), 1)
        # As another machine, the user has no rights; without one, it cannot even look.
        b = self.machine("b", *user)
        self.assertEqual(b.hosts("words"), ["10.0.0.1"])
        self.assertEqual(b.register("forged", owner=self.owner().pid), 3)
        self.assertIn("permission denied", b.log())
        c = self.machine("c", *self.words, is_fresh=False)
        wait_until(lambda: "user name is empty" in c.status()["Store"], 10, "c is refused")


class ThreeMembers(Cluster):
    """A member on each of three machines."""

    def make_etcd(self):
        return Etcd(self.folder, [self.place(name) for name in "abc"])

    def test_the_machine_with_the_leader_is_cut_off_and_joined_again(self):
        machines = [self.machine(name) for name in "abc"]
        a = machines.pop(self.etcd.leader())
        b, c = machines
        for name in "lost", "kept":
            self.assertEqual(a.register(name, owner=self.owner().pid), 0)
        wait_until(lambda: c.hosts("kept"), 20, "c sees it")
        a.cut()
        # The others do not notice.
        wait_until(lambda: b.register("meanwhile", owner=self.owner().pid) == 0, 10, "another leader")
        self.sees(c, "meanwhile", b.address)
        self.assertNotEqual(c.register("kept", owner=self.owner().pid), 0)
        # Its own member takes no registration, and knows no better.
        status, seconds = a.request(Machine.REGISTER, {"_ServerName": "new"})
        self.assertEqual(status, 8)
        self.assertLess(seconds, 4)
        wait_until(lambda: "_Stale" in a.everywhere("lost")[0], LEASE + 5, "a knows that it is cut off")
        wait_until(lambda: c.register("lost", owner=self.owner().pid) == 0, LEASE + 15, "the name is free")

        a.join()
        a.wait_fresh(60)
        self.assertEqual(a.status()["DisplacedNames"], "lost")
        self.assertEqual(a.hosts("lost"), [c.address])
        for machine in b, c:
            self.sees(machine, "kept", a.address)
            self.assertEqual(machine.hosts("new"), [])
        self.assertEqual(a.hosts("meanwhile"), [b.address])

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
        self.etcd.wait_healthy()

        self.etcd.kill(leader)
        wait_until(lambda: a.register("without-leader", owner=owner.pid) == 0, 15, "another leader")
        self.sees(b, "without-leader", "10.0.0.1")

        self.etcd.kill(follower)
        self.assertEqual(a.register("without-quorum", owner=owner.pid), 3)
        wait_until(lambda: "_Stale" in b.everywhere("before")[0], LEASE + 10, "b knows")
        for member in leader, follower:
            self.etcd.start(member)
        for machine in a, b:
            machine.wait_fresh(60)
        self.sees(b, "before", "10.0.0.1")
        # The members may have kept what was refused, and enter it once there are enough of them: it is removed again.
        self.sees(b, "without-quorum")
        self.assertEqual(a.register("without-quorum", owner=owner.pid), 0)
        # One record and one claim of each name.
        wait_until(lambda: len(self.etcd.keys("records/")) == 4, 20, "nothing is left over")
        self.assertEqual(len(self.etcd.keys("claims/")), 4)


def run_all():
    """Each case is a process with namespaces of its own. Returns the exit code: of a case that fails or is not possible."""
    loaded = unittest.defaultTestLoader.loadTestsFromModule(sys.modules[__name__])
    cases = [test.id().removeprefix("__main__.") for suite in loaded for test in suite if not isinstance(test, Timed)]

    def run(case):
        return subprocess.run([sys.executable, *sys.argv, case], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)

    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        done = list(pool.map(run, reversed(cases)))  # the last ones take longest
    for each in done:
        print(each.stdout)
    return next((each.returncode for each in done if each.returncode), 0)


if __name__ == "__main__":
    if len(sys.argv) == 2:
        sys.exit(run_all())
    FOLDER = isolate()
    unittest.main(argv=[sys.argv[0], *sys.argv[2:]], verbosity=2)
