"""Clients of the command socket that misbehave: the daemon serves the others and keeps nothing."""

import random
import signal
import socket

from em_pair import OWN, PEERS
from support import DIAGNOSTIC, UPDATE, Caller, PairTest

MOST_CONNECTIONS = 256  # the daemon refuses more at once
CALLS = 10_000
ROUNDS = 20
NOISE_KB = 4096
LONGEST = 65_536


class SocketAbuseTest(PairTest):
    options = {"log_level": 4}

    def setUp(self):
        super().setUp()
        for _ in range(2):  # what the first use allocates is not a leak
            self.abuse(0)
        self.before = self.footprint(1)

    def tearDown(self):
        """Every test leaves the daemon what it was."""
        self.synced(1)
        self.doCleanups()
        held, resident = self.footprint(1)
        self.assertEqual(self.before[0], held, "descriptors, threads")
        self.assertLess(resident - self.before[1], NOISE_KB)

    def abuse(self, turn: int) -> None:
        """One client of every kind."""
        chance = random.Random(turn)
        self.call(1, None)  # silent
        self.call(1).socket.close()  # gone in mid-call
        for packet in (b"", b"\1\2\3", bytes(5 + LONGEST), bytes(150_000)):
            client = self.call(1, None)
            client.socket.send(packet)
            self.assertEqual(b"", client.packet(), len(packet))
        for kind, size in ((UPDATE, 132), (DIAGNOSTIC, 4), (2, 4), (0xFFFFFFFF, 4)):
            client = self.call(1, b"\xff" + chance.randbytes(LONGEST - 1), kind)
            self.assertEqual(size, len(client.packet()))
        one_way = self.call(1)
        one_way.socket.shutdown(socket.SHUT_WR)
        self.assertTrue(one_way.result().success)
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
                try:
                    client.send(b"fail-none", DIAGNOSTIC)
                except (BrokenPipeError, ConnectionResetError):
                    pass  # one of those refused
            answers = [client.packet() for client in clients]
            self.assertEqual({b"", bytes(4)}, set(answers))
            self.assertEqual(300 - MOST_CONNECTIONS, answers.count(b""))
            self.doCleanups()
            self.wait(lambda: self.footprint(1)[0] == self.before[0], "their places are free")

    def test_10000_calls(self):
        lasting = Caller(self.pair, 1, None)
        for _ in range(CALLS // 2):
            lasting.send(b"fail-none", DIAGNOSTIC)
            self.assertEqual(0, lasting.status())
            self.diag(1, "stats")
        lasting.socket.close()
