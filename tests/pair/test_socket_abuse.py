"""Misbehaving clients of the command socket: the daemon serves the others and leaks nothing."""

import random
import signal
import socket
import struct
from contextlib import suppress

from caller import socket_path
from em_pair import OWN, PEERS
from support import PairTest

MOST_CONNECTIONS = 256  # the daemon accepts no more at once
ROUNDS = 20
NOISE_KB = 4096
LONGEST = 65_536


class SocketAbuseTest(PairTest):
    options = {"log_level": 4}

    def setUp(self):
        super().setUp()
        for _ in range(2):  # allocations at the first use are not a leak
            self.abuse(0)
        self.before = self.footprint(1)

    def tearDown(self):
        """Every test leaves the daemon unchanged."""
        self.synced(1)
        self.doCleanups()
        held, resident = self.footprint(1)
        self.assertEqual(self.before[0], held, "descriptors, threads")
        self.assertLess(resident - self.before[1], NOISE_KB)

    def raw(self, packet: bytes) -> socket.socket:
        """A client that can send any bytes."""
        client = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.addCleanup(client.close)
        client.connect(socket_path(self.pair, 1))
        client.send(packet)
        return client

    def abuse(self, turn: int) -> None:
        """One client of every kind."""
        chance = random.Random(turn)
        self.call(1, None)  # silent
        self.call(1).close()  # closes during the call
        for packet in (b"", b"\1\2\3", bytes(5 + LONGEST), bytes(150_000)):
            with suppress(ConnectionResetError):
                self.assertEqual(b"", self.raw(packet).recv(LONGEST), len(packet))
        for kind, size in ((0, 132), (1, 4), (2, 500), (4, 4), (0xFFFFFFFF, 4)):
            client = self.raw(struct.pack("<I", kind) + b"\xff" + chance.randbytes(LONGEST - 1))
            self.assertEqual(size, len(client.recv(LONGEST)))
        one_way = self.raw(bytes(6))
        one_way.shutdown(socket.SHUT_WR)
        self.assertEqual(bytes(4) + b"\1", one_way.recv(LONGEST)[:5])
        self.doCleanups()

    def test_misbehaving_clients(self):
        for turn in range(ROUNDS):
            self.abuse(turn)
        asked = self.prepared(1, f"{OWN}/file", "content")
        self.assertTrue(self.ask(1, asked).success)

    def test_a_caller_that_left_is_served_all_the_same(self):
        self.pair.signal(2, "daemon", signal.SIGSTOP)
        callers = [self.call(1, self.prepared(1, f"{OWN}/file", "content"))]
        self.wait(lambda: not self.exists(1, f"{OWN}/TempUpdate_file"), "it is in work")
        callers += [self.call(1) for _ in range(20)]
        self.doCleanups()
        self.pair.signal(2, "daemon", signal.SIGCONT)
        self.synced(1)
        self.assertEqual(b"content", self.read(2, f"{PEERS}/file"))

    def test_300_clients_at_once(self):
        for _ in range(3):
            clients = [self.call(1, None) for _ in range(300)]
            for client in clients:
                with suppress(ConnectionResetError):  # it was refused
                    client.send("fail-none")
            answers = [client.accepted() for client in clients]
            self.assertEqual({None, True}, set(answers))
            self.assertEqual(300 - MOST_CONNECTIONS, answers.count(None))
            self.doCleanups()
            self.wait(lambda: self.footprint(1)[0] == self.before[0], "their places are free")