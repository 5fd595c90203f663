"""Diagnostic commands of running daemons, the failures they inject, the replication fault."""

import re

from em_pair import ACTIVE, EMS, OWN, PEERS
from support import EDOM, FAILING, HEALTHY, PairTest


class DiagnosticsTest(PairTest):
    def test_scan_failures_stop_the_exchange(self):
        deep = f"{ACTIVE}/{'/'.join('d' * 17)}"
        self.write(1, f"{deep}/file", "too deep")
        self.write(1, f"{OWN}/file", "unreadable")
        self.diag(1, f"fail-scan={OWN}/file")
        # Both EMs wait for their time limits; the peer's release may end the exchange first.
        self.assertFalse(self.ask(1).success)
        self.assert_logged(1, f"maximum directory depth exceeded in '{deep}'",
                           f"could not open file ({EDOM}): {OWN}/file")
        self.assertEqual([set()] * 2, [self.tree(2, root) for root in (ACTIVE, PEERS)])
        self.diag(1, "fail-none")
        self.pair.path(1, f"{deep}/file").rename(self.pair.path(1, f"{ACTIVE}/file"))
        self.pair.path(1, deep).rmdir()
        self.settle()

    def test_cpg_send_fail(self):
        self.write(1, f"{ACTIVE}/file", "sent later")
        self.diag(1, "cpg-send-fail")
        self.assert_failed(self.ask(1), "Call to cpg_mcast_joined failed with code 21")
        self.diag(1, "cpg-send-nofail")
        # The release was lost too: a caller waits for the time limit, which frees the daemon.
        result = self.ask(1, self.prepared(1, f"{OWN}/x", "content"))
        self.wait_unlocked(1)
        self.assertIn(result.reason, ("Operation timed out", ""))
        # What failed in time is not done late, and nothing else in its place.
        self.assertEqual(result.success, not self.exists(1, f"{OWN}/TempUpdate_x"))
        self.assert_logged(1, "Bad RPC message data", never=True)
        self.settle()

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

    def test_fault_from_the_second_failure_to_the_next_success(self):
        for turn in range(10):
            self.diag(2, "fail-none")
            self.settle()
            self.diag(2, f"fail-write={ACTIVE}/file")
            self.write(1, f"{ACTIVE}/file", str(turn))
            self.mark_logs()
            self.assertFalse(self.ask(1).success)
            status, counts = self.fault(), re.findall(r"consecutive errors=(\d+)", self.log(1))
            if counts == ["1"]:  # the daemon's own repetition was not faster than this test
                break
        self.assertEqual((["1"], HEALTHY), (counts, status))
        self.assertFalse(self.ask(1).success)
        self.assertEqual((FAILING, 1), (self.fault(), self.pair.ctl(1, "fault").returncode))
        self.diag(2, "fail-none")
        self.synced(1)
        self.assertEqual((HEALTHY, 0), (self.fault(), self.pair.ctl(1, "fault").returncode))

    def test_a_failed_exchange_is_repeated(self):
        self.write(1, f"{ACTIVE}/file", "repeated")
        self.diag(2, f"fail-write={ACTIVE}/file")
        self.assertFalse(self.ask(1).success)
        self.diag(2, "fail-none")
        self.wait_identical()
        self.assert_logged(1, "Attempting to resync after delay because of previous sync error.")
