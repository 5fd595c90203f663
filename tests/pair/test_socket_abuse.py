"""Clients of the command socket that misbehave: the daemon serves the others and keeps nothing."""

import random
import signal
import socket
import struct
import sys
import time

from harness import BUILD, DEADLINE, OWN, PEERS, wait_for
from em_pair import COMMAND_SOCKET
from footprint import Footprint, footprint
from support import DIAGNOSTIC, SYNC, UPDATE, SocketTest, request

SOCKET = f"/run/em/cmd.{COMMAND_SOCKET}"
MOST_CONNECTIONS = 256  # the daemon refuses more at once
CALLS = 10_000
ROUNDS = 20
NOISE_KB = 2048


class SocketAbuseTest(SocketTest):
    options = {"log_level": 4}

    def setUp(self):
        super().setUp()
        for _ in range(2):  # what the first use allocates is not a leak
            self.abuse(0)
        self.before = self.settled_footprint()

    def tearDown(self):
        """Every test leaves the daemon what it was."""
        self.synced(1)
        self.doCleanups()
        after = self.settled_footprint()
        self.assertEqual(self.before[:2], after[:2], "descriptors, threads")
        self.assertLess(after.resident - self.before.resident, NOISE_KB)

    def settled_footprint(self) -> Footprint:
        """Once all workers of closed connections have ended."""
        def quiet():
            first = footprint(self.pair, 1)
            time.sleep(0.3)
            return first if first[:2] == footprint(self.pair, 1)[:2] else None
        return wait_for(quiet, DEADLINE, "the number of threads comes to rest")

    def connect(self) -> socket.socket:
        client = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.addCleanup(client.close)
        client.connect(str(self.pair.path(1, SOCKET)))
        client.settimeout(DEADLINE)
        return client

    def hung_up(self, client: socket.socket) -> bool:
        try:
            return client.recv(1 << 17) == b""
        except ConnectionResetError:
            return True

    def abuse(self, turn: int) -> None:
        """One client of every kind."""
        chance = random.Random(turn)
        silent = self.connect()
        gone = self.connect()
        gone.send(struct.pack("<I", UPDATE) + SYNC)
        gone.close()  # in mid-call
        for packet in (b"", b"\1\2\3", bytes(4 + 65_537), bytes(150_000)):
            client = self.connect()
            client.send(packet)
            self.assertTrue(self.hung_up(client), len(packet))
        for kind in (UPDATE, DIAGNOSTIC, 2, 0xFFFFFFFF):
            client = self.connect()
            client.send(struct.pack("<I", kind) + b"\xff" + chance.randbytes(65_535))
            self.assertIn(len(client.recv(1 << 17)), (4, 132))
            client.close()
        one_way = self.connect()
        one_way.send(struct.pack("<I", UPDATE) + SYNC)
        one_way.shutdown(socket.SHUT_WR)
        self.assertEqual(132, len(one_way.recv(1 << 17)))
        for client in (silent, one_way):
            client.close()

    def test_misbehaving_clients(self):
        for turn in range(ROUNDS):
            self.abuse(turn)
        asked = self.prepared("file")
        self.assertTrue(self.call(1, asked).result().success)
        self.assertEqual(b"content", self.read(2, f"{PEERS}/file"))

    def prepared(self, name: str) -> bytes:
        self.write(1, f"{OWN}/TempUpdate_x", "content")
        return request(f"{OWN}/TempUpdate_x", f"{OWN}/{name}")

    def test_a_caller_that_left_is_served_all_the_same(self):
        self.hold(2)
        callers = [self.call(1, self.prepared("file"))]
        wait_for(lambda: not self.exists(1, f"{OWN}/TempUpdate_x"), DEADLINE, "it is in work")
        callers += [self.call(1) for _ in range(20)]
        for caller in callers:
            caller.socket.close()
        self.pair.signal(2, "daemon", signal.SIGCONT)
        self.synced(1)
        self.assertEqual(b"content", self.read(2, f"{PEERS}/file"))

    def test_300_clients_at_once(self):
        for _ in range(3):
            clients = [self.connect() for _ in range(300)]
            for client in clients:
                try:
                    client.send(struct.pack("<I", DIAGNOSTIC) + b"fail-none")
                except (BrokenPipeError, ConnectionResetError):
                    pass  # one of those refused
            answers = [self.packet(client) for client in clients]
            self.assertEqual({b"", bytes(4)}, set(answers))
            self.assertEqual(300 - MOST_CONNECTIONS, answers.count(b""))
            for client in clients:
                client.close()
            wait_for(lambda: footprint(self.pair, 1)[:2] == self.before[:2], DEADLINE,
                     "their places are free")

    def packet(self, client: socket.socket) -> bytes:
        try:
            return client.recv(1 << 17)
        except ConnectionResetError:
            return b""

    def test_another_user_is_refused(self):
        self.write(1, f"{OWN}/kept", "content")
        ctl = [f"{BUILD}/cluster_sync_ctl", "delete", f"{OWN}/kept"]
        nobody = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--"]
        path = self.pair.path(1, SOCKET)
        self.assertEqual(0o600, path.stat().st_mode & 0o777)
        self.assertNotEqual(0, self.pair.run(1, [*nobody, *ctl]).returncode)
        path.chmod(0o666)  # what if the mode did not keep it out
        self.addCleanup(path.chmod, 0o600)
        for _ in range(50):
            refused = self.pair.run(1, [*nobody, sys.executable, "-c", ASK, SOCKET])
            self.assertEqual((0, "refused\n"), (refused.returncode, refused.stdout), refused.stderr)
        self.assertTrue(self.exists(1, f"{OWN}/kept"))
        self.assertEqual(0, self.pair.run(1, ctl).returncode)
        self.assertFalse(self.exists(1, f"{OWN}/kept"))

    def test_10000_calls(self):
        caller = self.call(1, b"fail-none", DIAGNOSTIC)
        self.assertEqual(0, caller.status())
        for turn in range(CALLS // 2):
            caller.send(b"fail-none", DIAGNOSTIC)
            self.assertEqual(0, caller.status())
            self.assertEqual(0, self.once(b"stats"), turn)

    def once(self, command: bytes) -> int:
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as client:
            client.connect(str(self.pair.path(1, SOCKET)))
            client.settimeout(DEADLINE)
            client.send(struct.pack("<I", DIAGNOSTIC) + command)
            return struct.unpack("<I", client.recv(4))[0]


# Connects and asks for a deletion; the daemon hangs up without an answer.
ASK = """
import socket, sys
client = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
client.connect(sys.argv[1])
try:
    client.send(bytes(5) + b"/mnt/part.persistent/replicated_by_this_em/kept" + bytes(1))
    print(client.recv(200) or "refused")
except (BrokenPipeError, ConnectionResetError):
    print("refused")
"""
