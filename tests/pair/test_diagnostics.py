"""Diagnostic commands of running daemons, the failures they inject, the replication fault."""

import re
import struct

from harness import ACTIVE, DEADLINE, OWN, PEERS, VOLATILE, wait_for
from support import EDOM, FAILING, HEALTHY, SocketTest

FAULT_RECORD = "/run/em/events/0x80000702"
FAULT_ID = 0x000F0018
BANNER = "===== CLUSTER SYNC DAEMON ERROR DETECTED. Flight recorder dump follows. ====="


class DiagnosticsTest(SocketTest):
    def test_fail_write(self):
        for source, copy in ((ACTIVE, ACTIVE), (VOLATILE, VOLATILE), (OWN, PEERS)):
            with self.subTest(copy):
                self.write(1, f"{source}/file", "old")
                self.synced(1)
                self.diag(2, f"fail-write={copy}/file")
                self.write(1, f"{source}/file", "new")
                self.assert_failed(self.call(1).result(),
                                   f"Unable to update file ({EDOM}): {copy}/file")
                self.assertEqual(b"old", self.read(2, f"{copy}/file"))
                self.diag(2, "fail-none")
                self.synced(1)
                self.assertEqual(b"new", self.read(2, f"{copy}/file"))

    def test_fail_read(self):
        self.write(2, f"{OWN}/other", "pulled")
        self.write(2, f"{OWN}/file", "not pulled")
        self.diag(2, f"fail-read={OWN}/file")
        self.assert_failed(self.call(1).result(), f"Could not read file ({EDOM}): {OWN}/file")
        self.assertFalse(self.exists(1, f"{PEERS}/file"))
        self.diag(2, "fail-none")
        self.synced(1)
        self.assert_identical()

    def test_scan_failures_stop_the_exchange(self):
        deep = f"{ACTIVE}/{'/'.join('d' * 17)}"
        self.addCleanup(self.clear)
        self.write(1, f"{deep}/file", "too deep")
        self.write(1, f"{deep}/../file", "deep")
        self.write(1, f"{OWN}/file", "unreadable")
        self.diag(1, f"fail-scan={OWN}/file")
        # Both EMs wait for their time limits; the peer's release may end the exchange first.
        result = self.call(1).result()
        self.assertFalse(result.success)
        self.assertIn(result.reason, ("Operation timed out",
                                      "Received early LOCK_REL message in state ST_LISTREQ"))
        self.assert_logged(1, f"maximum directory depth exceeded in '{deep}'",
                           f"could not open file ({EDOM}): {OWN}/file",
                           "SKIP_IF_CANCELED triggered")
        self.assertEqual([set()] * 2, [self.tree(2, root) for root in (ACTIVE, PEERS)])
        self.diag(1, "fail-none")
        self.pair.path(1, f"{deep}/file").unlink()
        self.pair.path(1, deep).rmdir()
        # A late release may end one more exchange.
        wait_for(lambda: self.call(1).result().success, DEADLINE, "an exchange succeeds")
        self.assert_identical()

    def test_cpg_send_fail(self):
        self.write(1, f"{ACTIVE}/file", "sent later")
        self.diag(1, "cpg-send-fail")
        self.assert_failed(self.call(1).result(), "Call to cpg_mcast_joined failed with code 21")
        self.diag(1, "cpg-send-nofail")
        # The release was lost too: a caller waits for the time limit, which frees the daemon.
        source = f"{OWN}/TempUpdate_x"
        self.write(1, source, "content")
        result = self.update(1, source, f"{OWN}/x")
        wait_for(lambda: re.findall("Exit  state change: ([A-Z_]+)", self.new_log(1))[-1] ==
                 "ST_UNLOCKED", DEADLINE, "the daemon is free")
        self.assertIn(result.reason, ("Operation timed out", ""))
        # What failed in time is not done late, and nothing else in its place.
        self.assertEqual(result.success, not self.exists(1, source))
        self.assert_not_logged(1, "Bad RPC message data")
        self.synced(1)
        self.assert_identical()
        self.assertEqual(b"sent later", self.read(2, f"{ACTIVE}/file"))

    def test_sync_command(self):
        self.write(1, f"{ACTIVE}/file", "content")
        self.assertEqual(0, self.status(1, "sync"))
        self.assertEqual(b"content", self.read(2, f"{ACTIVE}/file"))

    def test_stats(self):
        for name, size in (("empty", 0), ("small", 100), ("large", 70_000)):
            self.write(1, f"{ACTIVE}/{name}", b"x" * size)
        for n in (1, 2):
            self.assertEqual(0, self.status(n, "stats=reset"))
            counters = self.stats(n)
            self.assertEqual((11, {0}), (len(counters), set(counters.values())))
        self.synced(1)
        self.synced(2)
        here, there = self.stats(1), self.stats(2)
        expected = {"Syncs from self": (1, 1), "Syncs from peer": (1, 1),
                    "Chunk writes from peer": (0, 4), "Digest files created": (1, 1),
                    "Digest files scanned": (1, 0), "Digest bytes elided": (70_000, 0),
                    "File sys files scanned": (5, 3), "File sys bytes scanned": (70_200, 70_100)}
        self.assertEqual(expected, {label: (here[label], there[label]) for label in expected})
        self.assertRegex(self.new_log(1), r"Syncs from self: {11} {13}1\n")

    def test_flight_recorder(self):
        self.addCleanup(self.status, 1, "flight-rec=500")
        self.addCleanup(self.status, 1, "flight-rec=resume")
        self.assertEqual([0, 0], [self.status(1, f"flight-rec={argument}")
                                  for argument in ("resume", "4000")])
        self.synced(1)
        start = len(self.new_log(1))
        for _ in range(2):  # only the first error dumps
            self.call(1, b"no message").result()
        self.assertEqual(0, self.status(1, "flight-rec"))
        dump = self.new_log(1)[start:]
        self.assertEqual(1, dump.count(BANNER))
        self.assertRegex(dump, r"dump_flight_recorder:\d+: +\d+ \( *\d+-sync_thread\) "
                               r"\w+:\d+: SYNC running explicit sync request")
        self.assertIn("Paused=1", dump)
        start = len(self.new_log(1))
        self.assertEqual([0] * 4, [self.status(1, f"flight-rec={argument}")
                                   for argument in ("3", "resume", "sync", "3")])
        self.synced(1)
        self.assertEqual(0, self.status(1, "flight-rec=dump"))
        lines = re.findall(r"dump_flight_recorder:\d+: ", self.new_log(1)[start:])
        self.assertEqual(3, len(lines))

    def fault(self) -> int:
        """Status of the last fault event of EM 1."""
        record = self.pair.path(1, FAULT_RECORD).read_bytes()
        self.assertEqual((1036, 2, FAULT_ID, bytes(1024)),
                         (len(record), *struct.unpack_from("<2I", record), record[12:]))
        return struct.unpack_from("<I", record, 8)[0]

    def shown(self) -> tuple[int, bool, int]:
        """What cluster_sync_ctl shows of it and its exit status."""
        shown = self.ctl(1, "fault")
        self.assertEqual((True, 2, FAULT_ID), (shown["recorded"], shown["em"], shown["fault_id"]))
        return shown["status"], shown["healthy"], self.pair.ctl(1, "fault").returncode

    def fail_once(self) -> tuple[list[str], int]:
        """An exchange fails; returns the error counts since and the status after it."""
        start = len(self.pair.log(1))
        self.assertFalse(self.call(1).result().success)
        status = self.fault()
        return re.findall(r"consecutive errors=(\d+)", self.pair.log(1)[start:]), status

    def test_fault_from_the_second_failure_to_the_next_success(self):
        for turn in range(10):
            self.diag(2, "fail-none")
            self.synced(1)
            self.assertEqual(HEALTHY, self.fault())
            self.diag(2, f"fail-write={ACTIVE}/file")
            self.write(1, f"{ACTIVE}/file", str(turn))
            counts, status = self.fail_once()
            if counts == ["1"]:  # the daemon's own repetition was not faster than this test
                break
        self.assertEqual((["1"], HEALTHY), (counts, status))
        self.assertEqual(FAILING, self.fail_once()[1])
        self.assertEqual(FAILING, self.fail_once()[1])
        self.assertEqual((FAILING, False, 1), self.shown())
        self.diag(2, "fail-none")
        self.synced(1)
        self.assertEqual(HEALTHY, self.fault())
        self.assertEqual((HEALTHY, True, 0), self.shown())

    def test_a_failed_exchange_is_repeated(self):
        self.write(1, f"{ACTIVE}/file", "repeated")
        self.diag(2, f"fail-write={ACTIVE}/file")
        self.assertFalse(self.call(1).result().success)
        self.diag(2, "fail-none")
        self.wait_identical(timeout=150)
        self.assert_logged(1, "Attempting to resync after delay because of previous sync error.")
