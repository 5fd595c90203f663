"""What the statistics of both daemons say of two exchanges."""

from em_pair import ACTIVE, EMS
from support import PairTest


class StatisticsTest(PairTest):
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
