"""names_cluster.py BUILD: the figures of docs/cluster.md. Name servers in network namespaces that stand for machines share their
records in one member of etcd, whose files are in memory. BUILD: the folder of a release build with benchmarks."""
import os
import pathlib
import signal
import subprocess
import sys
import time

sys.path.append(str(pathlib.Path(__file__).resolve().parent.parent / "examples/cluster"))
from cluster import Etcd, Lan, Machine, isolate, wait_until  # noqa: E402

MANY = 25000
LIMIT = 1800  # seconds
LIMITS = "--max-records", str(4 * MANY), "--max-records-of-process", str(2 * MANY), "--max-copied-of-machine", str(2 * MANY)


def say(what, figure):
    print(f"{what:<76} {figure}", flush=True)


def memory(process):
    """MiB of memory in use."""
    with open(f"/proc/{process}/status") as file:
        return next(int(line.split()[1]) / 1024 for line in file if line.startswith("VmRSS"))


def used(process):
    """Seconds of processor time."""
    with open(f"/proc/{process}/stat") as file:
        fields = file.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class Figures:
    def __init__(self, build, folder):
        self.build, self.folder = build, folder
        self.lan = Lan()
        self.etcd = Etcd(folder, [self.lan])
        self.machines = []

    def machine(self):
        made = Machine(self.folder, len(self.machines) + 1, f"{self.build}/bin/qel")
        made.serve(self.etcd.store, *LIMITS)
        self.machines.append(made)
        made.wait_fresh()
        return made

    def load(self, place, kind, endpoint, clients, count):
        """Requests in a second, and the 99th percentile of their times; and the process, which lives on."""
        process = place.start(f"{self.build}/bench/cluster/names_load", kind, endpoint, str(clients), str(count),
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        line = process.stdout.readline()
        if not line:
            sys.exit("names_cluster.py: no figures")
        return *map(float, line.split()), process

    def once(self, *arguments):
        rate, late, process = self.load(*arguments)
        process.communicate()
        return rate, late

    def keeper(self, machine):
        return int(subprocess.run(["pgrep", "-P", str(machine.process.pid)], capture_output=True, text=True,
                                  check=True).stdout)

    def count_of_others(self, machine):
        return int(machine.status()["RecordsOfOthers"])

    def registrations(self, a, clients, count, what=""):
        peer, _ = self.once(self.lan, "txn", f"{self.lan.address}:2379", clients, count)
        self.etcd.control("del", "--prefix", "record")
        self.etcd.control("del", "--prefix", "claims")
        rate, late = self.once(a, "register", "127.0.0.1:1239", clients, count)
        say(f"registrations in a second, {clients} client{'s' * (clients > 1)}{what}", f"{rate:.0f}, p99 {late:.1f} ms; "
            f"{rate / peer:.2f} of the {peer:.0f} bare transactions of etcd")
        wait_until(lambda: not self.etcd.keys("records/"), 60, "the records have left with their process")

    def queries_while_silent(self, a):
        _, _, process = self.load(a, "register", "127.0.0.1:1239", 1, 1)
        for is_silent in False, True:
            if is_silent:
                self.etcd.members[0].send_signal(signal.SIGSTOP)
            rates = [self.once(a, "query", "127.0.0.1:1239", 8, 20000) for _ in range(3)]
            rate, late = max(rates)
            say(f"queries in a second, 8 clients, etcd {'silent' if is_silent else 'running'}; the best of 3",
                f"{rate:.0f}, p99 {late:.2f} ms")
        self.etcd.members[0].send_signal(signal.SIGCONT)
        process.communicate()
        a.wait_fresh(60)
        wait_until(lambda: not self.etcd.keys("records/"), 60, "nothing is left")

    def many_records(self, a):
        processes = {"name server": a.process.pid, "its keeper": self.keeper(a), "etcd": self.etcd.members[0].pid}
        before = {what: memory(process) for what, process in processes.items()}
        rate, late, holder = self.load(a, "register", "127.0.0.1:1239", 64, MANY)
        say(f"{MANY} registrations, 64 clients, in a second", f"{rate:.0f}, p99 {late:.1f} ms")
        for what, process in processes.items():
            say(f"memory with {MANY} records of its own, {what}" if what != "etcd" else f"memory with {MANY} records, etcd",
                f"{memory(process):.0f} MiB ({before[what]:.0f} without)")
        began = time.monotonic()
        self.etcd.control("get", "--prefix", "/qelstd/names/")
        peer = time.monotonic() - began
        b = self.machine()
        b.stop()
        began = time.monotonic()
        b.begin()
        # Asked often: the status is measured, too.
        while self.count_of_others(b) < MANY or b.status()["StoreStale"]:
            time.sleep(0.02)
        took = time.monotonic() - began
        say(f"start of a name server until it has loaded {MANY} records of another", f"{took:.2f} s; "
            f"etcdctl get: {peer:.2f} s")
        for what, process in ("name server", b.process.pid), ("its keeper", self.keeper(b)):
            say(f"memory with {MANY} records of another machine, {what}", f"{memory(process):.0f} MiB")
        began = time.monotonic()
        holder.communicate()
        wait_until(lambda: self.count_of_others(b) == 0, 120, "they have left")
        say(f"the process with {MANY} records ends: until they are gone elsewhere", f"{time.monotonic() - began:.1f} s")

    def twenty(self):
        while len(self.machines) < 20:
            self.machine()
        a = self.machines[0]
        # The system counts processor time in hundredths of a second.
        parts = {"etcd": [self.etcd.members[0].pid], "all keepers": [self.keeper(machine) for machine in self.machines],
                 "all name servers": [machine.process.pid for machine in self.machines]}
        before = {what: sum(map(used, processes)) for what, processes in parts.items()}
        time.sleep(20)
        say("20 name servers, idle: processor time in a second", "; ".join(
            f"{what} {(sum(map(used, processes)) - before[what]) / 20 * 1000:.1f} ms" for what, processes in parts.items()))
        self.registrations(a, 1, 500, ", with 20 name servers")
        self.registrations(a, 64, 2000, ", with 20 name servers")
        owner = a.start("sleep", "600")
        began = time.monotonic()
        a.request(Machine.REGISTER, {"_ServerName": "seen"}, owner.pid)
        done = time.monotonic() - began
        # Each look takes a few ms: the last of 19 machines has had the name for a while.
        for machine in self.machines[1:]:
            while machine.request(Machine.QUERY, {"_Scope": "all", "_ServerName": "seen"})[0]:
                pass
        say("a registration, until it is answered; until 19 other machines were seen to know it",
            f"{done * 1000:.1f} ms; {(time.monotonic() - began) * 1000:.1f} ms")


def main():
    if len(sys.argv) != 2:
        sys.exit("usage: names_cluster.py BUILD")
    figures = Figures(os.path.realpath(sys.argv[1]), isolate())
    signal.signal(signal.SIGALRM, lambda *_: sys.exit(f"names_cluster.py: not done within {LIMIT} seconds"))
    signal.alarm(LIMIT)
    say("processes that wanted to run, besides these, in the last minute", f"{os.getloadavg()[0]:.1f}")
    a = figures.machine()
    figures.registrations(a, 1, 1000)
    figures.registrations(a, 64, 4000)
    figures.queries_while_silent(a)
    figures.many_records(a)
    figures.twenty()


main()
