"""Faults during work: what the callers are told, that it is true, and that the pair recovers."""

import os
import signal
import struct

from convergence import Machine
from em_pair import ACTIVE, EMS, OWN
from support import FAULT_EVENT, Caller, PairTest, Result

HEALTHY = 1  # the status of a fault event
LARGE = 32 << 20
# The peer's time limit expired first, or its late release ended the next exchange.
LATE = "Received early LOCK_REL message in state "


class HardFaultTest(PairTest):
    def assert_repaired(self) -> None:
        """The daemons find each other, make the trees identical by themselves, and clear the fault."""
        self.pair.wait_joined()
        self.wait_identical()
        self.wait(lambda: self.ask(1)[::5] == (True, True), "a clean exchange")
        self.assert_identical()
        self.assertEqual(HEALTHY, struct.unpack_from("<3I", self.read(1, FAULT_EVENT))[2])
        self.assertEqual([[], []], [Machine(self.pair, n).wrong_digests() for n in EMS])

    def transfer(self, path: str) -> Caller:
        """Starts to send a large file from EM 1; returns when a quarter of it has arrived."""
        caller = self.call(1, self.prepared(1, path, os.urandom(LARGE)))
        target = self.pair.path(2, path)
        self.wait(lambda: target.exists() and target.stat().st_blocks * 512 > LARGE / 4,
                  "the transfer is under way")
        return caller

    def assert_done_alone(self, n: int, result: Result) -> None:
        self.assertEqual((True, False), (result.local_ok, result.peer_present), result)
        self.assertTrue(result.success or result.reason.startswith(LATE), result)

    def wait_alone(self, n: int) -> None:
        # A late answer of the aborted exchange may still abort the next one.
        self.wait(lambda: self.ask(n)[::5] == (True, False), "an exchange alone")

    def test_corosync_killed_in_a_transfer(self):
        for victim in EMS:
            caller = self.transfer(f"{ACTIVE}/large{victim}")
            self.pair.kill(victim, "corosync")
            if victim == 2:
                self.assert_done_alone(1, caller.result())
            else:
                # Either the daemon exits first, or a send fails before and the caller is told.
                outcome = caller.outcome()
                self.assertFalse(outcome and outcome.success, outcome)
            self.wait_alone(3 - victim)
            self.assertEqual(-signal.SIGABRT, self.pair.process(victim, "daemon").wait(20))
            self.pair.restart(victim, "corosync")
            self.assert_repaired()

    def test_link_cut_in_a_transfer(self):
        self.write(2, f"{OWN}/deleted", "before")
        self.synced(1)
        caller = self.transfer(f"{ACTIVE}/large")
        self.pair.cut()
        self.assert_done_alone(1, caller.result())
        for n in EMS:
            self.write(n, f"{ACTIVE}/same", f"by {n}")
            self.write(n, f"{OWN}/same", f"by {n}")
            self.wait_alone(n)
        self.pair.path(2, f"{OWN}/deleted").unlink()
        self.assertNotEqual([], self.different())
        self.pair.heal()
        self.assert_repaired()

    def test_stop_while_callers_wait(self):
        self.hold(2)
        callers = [self.call(1) for _ in range(10)] + [self.call(1, None)]
        self.wait_log(1, "RPC update <enter>", 10)
        self.stop(1)
        self.assertEqual([None] * 11, [caller.outcome() for caller in callers])
        self.pair.signal(2, "daemon", signal.SIGCONT)
        self.wait_alone(2)
        self.stop(2)

    def stop(self, n: int) -> None:
        self.assertTrue(self.call(n, "exit=now").accepted())
        self.assertEqual(0, self.pair.process(n, "daemon").wait(60))
        self.assertFalse(self.exists(n, "/run/em/cmd.2006"))
        self.assertIn("Exiting cluster_sync_daemon", self.log(n).splitlines()[-1])
