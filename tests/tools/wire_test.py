"""wire_test.py QEL: with nothing configured, each client and server sends exactly the bytes of the plain protocols.

A relay stands between the two and records what each sends on every connection. The recordings are texts: of digits each
pair is a byte, and what stands between two of ` is text."""
import os
import re
import select
import socket
import subprocess
import sys
import tempfile
import threading
import unittest

QEL = os.path.realpath(sys.argv[1])
LIMIT = 60  # seconds


def recorded(text):
    """The bytes of a recording."""
    return b"".join(part[1:-1].encode() if part[0] == "`" else bytes.fromhex(part) for part in re.findall(r"`[^`]*`|\w\w", text))


class Relay:
    """Connects each of its clients to a port, and records what both send until they close."""

    def __init__(self, port):
        self.server = port
        self.door = socket.create_server(("127.0.0.1", 0))
        self.port = self.door.getsockname()[1]
        self.connections = []
        self.threads = []
        self.accepting = threading.Thread(target=self.accept)
        self.accepting.start()

    def accept(self):
        while True:
            client, _ = self.door.accept()
            if not self.server:
                client.close()
                return
            both = bytearray(), bytearray()
            self.connections.append(both)
            self.threads.append(threading.Thread(target=self.pass_on, args=(client, *both)))
            self.threads[-1].start()

    def pass_on(self, client, sent, answered):
        with client, socket.create_connection(("127.0.0.1", self.server), LIMIT) as server:
            others = {client: (server, sent), server: (client, answered)}
            while others:
                for source in select.select(list(others), [], [], LIMIT)[0]:
                    sink, kept = others[source]
                    try:
                        piece = source.recv(65536)
                        kept += piece
                        sink.sendall(piece)
                        if not piece:
                            sink.shutdown(socket.SHUT_WR)
                    except OSError:  # one end has closed at once
                        piece = b""
                    if not piece:
                        del others[source]

    def taken(self):
        """The connections since the last call: what their clients and what their servers sent."""
        threads, self.threads = self.threads, []
        for thread in threads:
            thread.join(LIMIT)
        taken, self.connections = self.connections, []
        return [(bytes(client), bytes(server)) for client, server in taken]

    def close(self):
        self.server = 0
        socket.create_connection(("127.0.0.1", self.port)).close()
        self.accepting.join()
        self.door.close()


class Wire(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        kept = {name: value for name, value in os.environ.items() if name == "PATH" or name.endswith("SAN_OPTIONS")}
        self.environment = {**kept, "HOME": folder.name, "QELSTD_REGISTRY": folder.name + "/store", "LC_ALL": "C.UTF-8"}

    def serve(self, *words):
        """A server, and a relay before it."""
        server = subprocess.Popen([QEL, *words, "--port", "0"], env=self.environment, stdout=subprocess.PIPE,
                                  stderr=subprocess.DEVNULL, text=True)
        self.addCleanup(lambda: (server.kill(), server.wait(), server.stdout.close()))
        relay = Relay(int(re.search(r" port (\d+)", server.stdout.readline())[1]))
        self.addCleanup(relay.close)
        return relay

    def sends(self, relay, command, client, *server, status=0):
        """The command makes one connection, on which the two send these bytes, the server one of those recordings."""
        done = subprocess.run([QEL, *command.split()], env=self.environment, stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=LIMIT)
        self.assertEqual(done.returncode, status, done.stderr)
        connections = relay.taken()
        self.assertEqual(len(connections), 1, command)
        self.assertEqual(connections[0][0], recorded(client), command)
        if server:
            self.assertIn(connections[0][1], [recorded(one) for one in server], command)
        return connections[0][1]

    def test_name_service(self):
        relay = self.serve("ns", "serve", "--no-state", "--no-statistics")
        self.environment["VRXNMSPORT"] = str(relay.port)
        record = "00000000 00000002 0000000c 0000000b `_ServerName` 00000002 00000001 `a` 00000002 00000001 `x` 00000003 00000002 `12`"
        name = "00000000 00000001 0000000c 0000000b `_ServerName` 00000002 00000001 `a`"
        self.sends(relay, "ns ping", "00000064 01", "00")
        self.sends(relay, "ns register _ServerName=a x=12", "00000064 03" + record, "00")
        self.sends(relay, "ns register _ServerName=a x=12", "00000064 03" + record, "04", status=1)
        self.sends(relay, "ns query _ServerName=a", "00000064 05" + name, "00 00000001" + record)
        self.sends(relay, "ns delete _ServerName=a", "00000064 04" + name, "00 00000001")
        self.sends(relay, "ns delete _ServerName=a", "00000064 04" + name, "05 00000000", status=1)
        self.sends(relay, "ns query _ServerName=a", "00000064 05" + name, "00 00000000", status=1)
        version = self.sends(relay, "ns version", "00000064 07")
        self.assertRegex(version, rb"^\0\0\0\0\0\0\0\0.\0\0\0\x08\0\0\0\x07Version\0\0\0.\0\0\0.qel ns \d")
        self.sends(relay, "ns shutdown", "00000064 06", "00")

    def test_versioned_server_and_remote_shell(self):
        names = self.serve("ns", "serve", "--no-state", "--no-statistics")
        relay = self.serve("rshd", "--as-root", "--no-statistics")
        self.environment["VRXNMSPORT"] = str(names.port)
        subprocess.run([QEL, "ns", "register", "_ServerName=shell", f"_PortNumber={relay.port}"], env=self.environment, check=True)
        names.taken()
        self.sends(relay, "server ping shell", "01", "01")
        name = "0000000c 0000000b `_ServerName` 00000006 00000005 `shell`"
        port = f"0000000c 0000000b `_PortNumber` {len(str(relay.port)) + 1:08x} {len(str(relay.port)):08x} `{relay.port}`"
        ping, query = names.taken()
        self.assertEqual(ping, (recorded("00000064 01"), recorded("00")))
        # Behind the code stands the process that asks.
        self.assertEqual((query[0][:5], query[0][9:]), (recorded("00000064 05"), recorded("00000001" + name)))
        self.assertEqual(query[1], recorded("00 00000001 00000000 00000002" + name + port))
        self.sends(relay, "server version shell", "02", "01 1b `QEL netServer Version 0.99` 00")
        self.sends(relay, f"rsh --port {relay.port} localhost echo hi",
                   "00 0000000b `'echo' 'hi'` 00000000 00000000 00000005 00000007",
                   "01 00000000 00000003 00000003 `hi` 0a 00000006 00000000 00000007",
                   "01 00000000 00000006 00000000 00000003 00000003 `hi` 0a 00000007")
        self.sends(relay, f"rsh --port {relay.port} localhost none",
                   "00 00000006 `'none'` 00000000 00000000", status=127)
        self.sends(relay, "server shutdown shell", "03", "01")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
