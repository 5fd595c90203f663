"""The two EMs of a pair, which may be different machines, report the same."""

import socket

from caller import socket_path
from em_pair import ACTIVE, EMS
from support import FAULT_EVENT, PairTest


class SameWordsTest(PairTest):
    def test_stats(self):
        for name, size in (("empty", 0), ("small", 100), ("large", 70_000)):
            self.write(1, f"{ACTIVE}/{name}", b"x" * size)
        for n in EMS:
            self.diag(n, "stats=reset")
        self.synced(1)
        self.synced(2)
        expected = {"Syncs from self": (1, 1), "Syncs from peer": (1, 1),
                    "Chunk writes from peer": (0, 4), "Digest files created": (1, 1),
                    "Digest files scanned": (1, 0), "Digest bytes elided": (70_000, 0),
                    "File sys files scanned": (5, 3), "File sys bytes scanned": (70_200, 70_100)}
        for n in EMS:
            self.diag(n, "stats=dump")
            for label, values in expected.items():
                self.wait_log(n, f" {label}:{values[n - 1]:>{40 - len(label)}}\n")

    def test_records_byte_for_byte(self):
        told = {}
        for n in EMS:
            self.pair.set_active(n)
            self.diag(3 - n, f"fail-write={ACTIVE}/file")
            self.write(n, f"{ACTIVE}/file", "fails")
            for _ in range(2):  # two in a row make a fault
                with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as caller:
                    caller.connect(socket_path(self.pair, n))
                    caller.send(bytes(6))
                    answer = caller.recv(4096)
            told[n] = answer, self.read(n, FAULT_EVENT)[1:]  # without the number of the EM
            self.diag(3 - n, "fail-none")
            self.clear()
            self.wait(lambda: self.ask(n).success, "an exchange succeeds")
        self.assertEqual(told[1], told[2])
        self.assertEqual((132, 1035, 4), (*map(len, told[1]), told[1][1][7]))
