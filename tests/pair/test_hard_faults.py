"""Faults during work: what the callers are told, that it is true, and that the pair recovers."""

import itertools
import os
import signal
import threading
import time
from collections import Counter

from convergence import Machine
from em_pair import ACTIVE, EMS, OWN, PEERS
from support import FAILING, Caller, PairTest, Result, Update

LARGE = 32 << 20
TIMED_OUT = "Operation timed out"
# The peer's time limit expired first, or its late release ended the next exchange.
LATE = "Received early LOCK_REL message in state "
MISSING, NO_SPACE = "No such file or directory", "No space left on device"
READ_ONLY = "Read-only file system"


class HardFaultTest(PairTest):
    serial = itertools.count()

    def settle(self) -> None:
        super().settle()
        self.assertEqual([[], []], [Machine(self.pair, n).wrong_digests() for n in EMS])

    def transfer(self, n: int, root: str = ACTIVE, copy: str = ACTIVE) -> tuple[Caller, str]:
        """Starts to send a large file from EM `n`; returns when a quarter of it has arrived."""
        name = f"large{next(self.serial)}"
        caller = self.call(n, self.prepared(n, f"{root}/{name}", os.urandom(LARGE)))
        target = self.pair.path(3 - n, f"{copy}/{name}")
        self.wait(lambda: target.exists() and target.stat().st_blocks * 512 > LARGE / 4,
                  "the transfer is under way")
        return caller, name

    def wait_repaired(self) -> None:
        """The daemons find each other and make the trees identical by themselves."""
        self.pair.wait_joined()
        self.wait_identical()

    def assert_done_alone(self, n: int, result: Result) -> None:
        self.assertEqual((True, False), (result.local_ok, result.peer_present), result)
        self.assertTrue(result.success or result.reason.startswith(LATE), result)

    def wait_alone(self, n: int) -> None:
        # A late answer of the aborted exchange may still abort the next one.
        self.wait(lambda: self.ask(n)[::5] == (True, False), "an exchange alone")

    def mount(self, n: int, folder: str, options: str) -> None:
        self.pair.run(n, ["mount", "-n", "-t", "tmpfs", "-o", options, "small", folder], check=True)
        if "remount" not in options:
            self.addCleanup(self.pair.run, n, ["umount", "-l", folder])

    def test_daemon_killed_in_a_long_transfer(self):
        self.kill_in_a_transfer("daemon", self.pair.start_daemon)

    def test_corosync_killed_in_a_transfer(self):
        def restart(victim: int) -> None:
            self.assertEqual(-signal.SIGABRT, self.pair.process(victim, "daemon").wait(20))
            self.pair.restart(victim, "corosync")
        self.kill_in_a_transfer("corosync", restart)

    def kill_in_a_transfer(self, what: str, restart) -> None:
        for victim in EMS:
            caller, _ = self.transfer(1)
            self.pair.kill(victim, what)
            if victim == 2:
                self.assert_done_alone(1, caller.result())
            else:
                # Either the daemon exits first, or a send fails before and the caller is told.
                outcome = caller.outcome()
                self.assertFalse(outcome and outcome.success, outcome)
            self.wait_alone(3 - victim)
            restart(victim)
            self.wait_repaired()
        self.settle()

    def test_link_cut_in_a_transfer(self):
        self.write(2, f"{OWN}/deleted", "before")
        self.synced(1)
        caller, _ = self.transfer(1)
        self.pair.cut()
        self.assert_done_alone(1, caller.result())
        for n in EMS:
            self.write(n, f"{ACTIVE}/same", f"by {n}")
            self.write(n, f"{OWN}/same", f"by {n}")
            self.wait_alone(n)
        self.pair.path(2, f"{OWN}/deleted").unlink()
        self.assertNotEqual([], self.different())
        self.pair.heal()
        self.wait_repaired()
        self.settle()

    def test_the_failures_after_a_healed_cut_come_to_an_end(self):
        """Each failed exchange sends a release, which must not fail the next one of the other EM."""
        told: dict[int, list[Result]] = {n: [] for n in EMS}
        over = threading.Event()

        def ask(n: int) -> None:
            with Caller(self.pair, n, None) as caller:
                while not over.is_set():
                    caller.send()
                    told[n].append(caller.result())
        callers = [threading.Thread(target=ask, args=(n,)) for n in EMS * 12]
        self.addCleanup(lambda: (over.set(), [caller.join() for caller in callers]))
        for caller in callers:
            caller.start()
        for _ in range(2):
            time.sleep(1)
            self.pair.cut()
            self.wait(lambda: all(self.pair.node_members(n) == {n} for n in EMS), "two halves")
            time.sleep(1)
            self.pair.heal()
            self.pair.wait_joined()
            time.sleep(2)
        self.doCleanups()
        for n in EMS:
            failed = [result.reason for result in told[n] if not result.success]
            self.assertLessEqual(len(failed), 8, f"of {len(told[n])}: {Counter(failed)}")
            self.assertLess(100, len(told[n]))
        self.settle()

    def test_trees_that_cannot_be_written(self):
        self.mount(2, ACTIVE, "size=256k,mode=755")
        self.settle()
        self.assert_not_at_peer(self.prepared(1, f"{ACTIVE}/file", bytes(1 << 20)), NO_SPACE)
        self.pair.run(2, ["sh", "-c", f"cat /dev/zero > {ACTIVE}/TempUpdate_filler"])
        self.assert_not_at_peer(self.prepared(1, f"{ACTIVE}/file", b"short"), NO_SPACE)
        self.assertEqual(FAILING, self.fault())
        self.mount(2, ACTIVE, "remount,size=64m")
        self.settle()

        self.mount(2, ACTIVE, "remount,ro")
        self.settle()
        self.assert_not_at_peer(self.prepared(1, f"{ACTIVE}/file", b"new"), READ_ONLY)
        self.assert_not_at_peer(("", f"{ACTIVE}/file"), READ_ONLY, "delete")
        self.assertEqual(b"short", self.read(2, f"{ACTIVE}/file"))
        self.mount(2, ACTIVE, "remount,rw")
        self.settle()

    def test_the_active_em_comes_back_to_what_it_could_not_write(self):
        self.diag(1, f"fail-write={PEERS}/file")
        result = self.ask(2, self.prepared(2, f"{OWN}/file", b"new"))
        self.diag(1, "fail-none")
        self.assertEqual((False, True), (result.success, result.local_ok), result)
        self.wait_identical()

    def assert_not_at_peer(self, asked: Update, error: str, what: str = "update") -> None:
        result = self.ask(1, asked)
        self.assertEqual((False, True, False, True, f"Unable to {what} file ({error}): "
                          f"{ACTIVE}/file"), (*result[:3], *result[5:]))

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

    # Faults that end only at the time limit of 10 s.

    def assert_timed_out(self, result: Result) -> None:
        self.assertEqual((False, True, False, True), (*result[:3], result.peer_present))
        self.assertTrue(result.reason.startswith((TIMED_OUT, LATE)), result)

    def test_root_missing(self):
        self.pair.run(2, ["mv", OWN, f"{OWN}.away"], check=True)
        self.addCleanup(self.pair.run, 2, ["mv", "-T", f"{OWN}.away", OWN])
        self.assert_timed_out(self.ask(1, self.prepared(1, f"{OWN}/file", b"content")))
        self.assertFalse(self.exists(2, f"{PEERS}/file"))
        self.assert_logged(2, f"could not open directory ({MISSING}): {OWN}/")
        self.doCleanups()
        self.settle()
