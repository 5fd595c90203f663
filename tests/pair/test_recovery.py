"""Contention, crashes, a lost link and the orderly stop."""

import os
import signal
from concurrent.futures import ThreadPoolExecutor

from harness import ACTIVE, DEADLINE, EMS, OWN, PEERS, wait_for
from support import DIAGNOSTIC, SocketTest, request

ROUNDS = 25


class RecoveryTest(SocketTest):
    def test_both_sides_ask_at_once(self):
        def work(n: int, worker: int) -> None:
            caller = self.call(n)
            for turn in range(ROUNDS):
                self.assertEqual((True, ""), caller.result()[::6])
                temporary, name = f"{OWN}/TempUpdate_{worker}", f"{worker}.{turn % 7}"
                self.write(n, temporary, f"turn {turn}")
                caller.send(request(temporary, f"{OWN}/{name}"))
                self.assertEqual((True, ""), caller.result()[::6])
                self.assertEqual(f"turn {turn}".encode(), self.read(3 - n, f"{PEERS}/{name}"))
                caller.send()
            caller.result()

        with ThreadPoolExecutor(6) as threads:
            for done in [threads.submit(work, n, worker) for worker in range(3) for n in EMS]:
                done.result()
        self.assert_identical()

    def test_daemon_killed_in_a_long_transfer(self):
        for victim in EMS:
            with self.subTest(victim=victim):
                large = f"{ACTIVE}/large{victim}"
                self.write(1, large, os.urandom(32 << 20))
                caller = self.call(1)
                wait_for(lambda: self.exists(2, large), DEADLINE, "the transfer begins", 0.001)
                self.pair.kill(victim, "daemon")
                if victim == 2:
                    self.assertTrue(caller.result().success)
                else:
                    self.assertIsNone(caller.status())
                self.write(1, f"{ACTIVE}/meanwhile", f"{victim}")
                self.write(2, f"{OWN}/meanwhile", f"{victim}")
                self.assertEqual("N", self.synced(3 - victim).peer_present)
                self.pair.start_daemon(victim)
                self.pair.wait_joined()
                self.wait_identical()

    def test_corosync_killed(self):
        self.pair.kill(2, "corosync")
        self.assertEqual(-signal.SIGABRT, self.pair.process(2, "daemon").wait(DEADLINE))
        self.assert_logged(2, "EXCEPTION: Exiting daemon due to unrecoverable error")
        self.write(1, f"{ACTIVE}/meanwhile", "content")
        self.write(1, f"{OWN}/meanwhile", "content")
        self.assertEqual("N", self.synced(1).peer_present)
        self.pair.restart(2, "corosync")
        self.pair.wait_joined()
        self.wait_identical()

    def test_link_cut(self):
        self.write(2, f"{OWN}/deleted", "before")
        self.synced(1)
        self.pair.cut()
        callers = [self.call(n) for n in EMS]
        for caller in callers:
            self.assertEqual((True, True, True, False, False, "N", ""), caller.result())
        for n in EMS:
            self.write(n, f"{ACTIVE}/same", f"by {n}")
            self.write(n, f"{OWN}/same", f"by {n}")
        self.pair.path(2, f"{OWN}/deleted").unlink()
        self.assertEqual(["N", "N"], [self.synced(n).peer_present for n in EMS])
        self.pair.heal()
        self.pair.wait_joined()
        self.wait_identical()
        self.assertEqual("Y", self.synced(2).peer_present)

    def stop(self, n: int) -> None:
        self.assertEqual(0, self.status(n, "exit=now"))
        self.assertEqual(0, self.pair.process(n, "daemon").wait(DEADLINE))
        self.assertFalse(self.exists(n, "/run/em/cmd.2006"))
        *_, last = self.new_log(n).splitlines()
        self.assertIn("Exiting cluster_sync_daemon", last)

    def test_stop_of_idle_daemons(self):
        self.stop(2)
        self.assertEqual("N", self.synced(1).peer_present)
        self.stop(1)

    def test_stop_while_callers_wait(self):
        self.hold(2)
        callers = [self.call(1) for _ in range(10)]
        idle = self.call(1, b"log-size=0", DIAGNOSTIC)
        self.assertEqual(0, idle.status())
        wait_for(lambda: self.new_log(1).count("RPC update <enter>") == 10, DEADLINE,
                 "all callers wait")
        self.stop(1)
        for caller in [*callers, idle]:
            self.assertIsNone(caller.status())
