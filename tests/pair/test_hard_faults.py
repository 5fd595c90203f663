"""Faults in the middle of work: what the callers are told, that it is true, and that it heals.

A success with the peer present says that the peer has the change; one without, that this EM has.
"""

import glob
import itertools
import os
import random
import signal
import threading
import time
import unittest
from concurrent.futures import ThreadPoolExecutor

from harness import (ACTIVE, BUILD, DEADLINE, EMS, LOG_LINES, OWN, PEERS, VOLATILE, EmPair,
                     wait_for)
from convergence import Machine
from support import FAILING, HEALTHY, Caller, Result, SocketTest, request, unpack

LARGE = 32 << 20
KILLS = int(os.environ.get("KILLS", 20))
CHANGING_SECONDS = 3
TIMED_OUT = "Operation timed out"
# The peer's time limit was faster, or its late release ended the next exchange.
LATE = "Received early LOCK_REL message in state "
MISSING, NO_SPACE, READ_ONLY = ("No such file or directory", "No space left on device",
                                "Read-only file system")
PRIVATE_LOG = "/tmp/cluster_sync_daemon.log"
FAKE_CLOCK = "/run/em/clock"


class FaultCase(SocketTest):
    """What the tests share."""

    large = itertools.count()

    def prepare(self, n: int, root: str, name: str, content: bytes) -> bytes:
        """Puts a finished file beside its place; returns the request that moves it there."""
        self.write(n, f"{root}/TempUpdate_{name}", content)
        return request(f"{root}/TempUpdate_{name}", f"{root}/{name}")

    def transfer(self, n: int, root: str = ACTIVE, copy: str = ACTIVE) -> tuple[Caller, str]:
        """Starts to send a large file from EM `n`; returns when a quarter of it is there."""
        name = f"large{next(self.large)}"
        caller = self.call(n, self.prepare(n, root, name, os.urandom(LARGE)))
        target = self.pair.path(3 - n, f"{copy}/{name}")
        wait_for(lambda: target.exists() and target.stat().st_blocks * 512 > LARGE / 4, DEADLINE,
                 "the transfer is under way", 0.001)
        return caller, name

    def answer(self, caller: Caller) -> Result | None:
        """None when the daemon ended before it answered."""
        try:
            packet = caller.socket.recv(1 << 17)
        except ConnectionResetError:
            return None
        return unpack(packet[4:]) if packet else None

    def assert_true(self, result: Result, n: int, name: str, content: bytes) -> None:
        """What EM `n` said of a file of its own tree is so."""
        if result.local_ok:
            self.assertTrue(content == self.read(n, f"{OWN}/{name}"), f"not on EM {n}: {result}")
        if result.success and result.peer_present == "Y":
            self.assertTrue(content == self.read(3 - n, f"{PEERS}/{name}"), f"not there: {result}")

    def assert_timed_out(self, result: Result) -> None:
        self.assertEqual((False, True, False, "Y"), (*result[:3], result.peer_present))
        self.assertTrue(result.reason.startswith((TIMED_OUT, LATE)), result)

    def mount(self, n: int, folder: str, options: str) -> None:
        self.pair.run(n, ["mount", "-n", "-t", "tmpfs", "-o", options, "small", folder], check=True)
        self.addCleanup(self.pair.run, n, ["umount", "-l", folder])

    def remount(self, n: int, folder: str, options: str) -> None:
        self.pair.run(n, ["mount", "-n", "-o", f"remount,{options}", folder], check=True)

    def fault(self) -> int:
        return self.ctl(1, "fault")["status"]

    def settle(self) -> None:
        """The next exchanges make everything identical and clear the fault."""
        wait_for(lambda: self.call(1).result()[::5] == (True, "Y"), DEADLINE, "a clean exchange")
        self.assert_identical()
        self.assertEqual(HEALTHY, self.fault())
        for n in EMS:
            self.assertEqual([], Machine(self.pair, n).wrong_digests())


class HardFaultTest(FaultCase):
    def test_daemons_killed_at_random_moments(self):
        chance = random.Random(int(os.environ.get("SEED", KILLS)))
        told = []
        for turn in range(KILLS):
            name = str(turn % 3)
            contents = {n: chance.randbytes(chance.choice((10, 300_000, 3_000_000))) for n in EMS}
            requests = {n: self.prepare(n, OWN, name, contents[n]) for n in EMS}
            callers = {n: self.call(n, requests[n]) for n in chance.sample(EMS, 2)}
            victim = chance.choice(EMS)
            time.sleep(chance.uniform(0, 0.05))
            self.pair.kill(victim, "daemon")
            for n in EMS:
                if result := self.answer(callers[n]):
                    told.append(result)
                    self.assert_true(result, n, name, contents[n])
            self.pair.start_daemon(victim)
            self.pair.wait_joined()
            self.wait_identical()
        self.assertLess(KILLS // 2, sum(result.success for result in told), told)
        self.settle()

    def test_a_request_that_waits_while_the_peer_dies_is_carried_out(self):
        for requester in EMS:
            with self.subTest(requester=requester):
                self.transfer(3 - requester, OWN, PEERS)
                start = len(self.new_log(requester))
                caller = self.call(requester, self.prepare(requester, OWN, "waiting", b"carried"))
                wait_for(lambda: "RPC update <requesting>" in self.new_log(requester)[start:],
                         DEADLINE, "the request waits", 0.001)
                self.pair.kill(3 - requester, "daemon")
                try:
                    self.assert_carried_out(requester, caller.result())
                finally:
                    self.pair.start_daemon(3 - requester)
                    self.pair.wait_joined()
                    self.wait_identical()

    def test_a_request_that_comes_while_the_peer_dies_is_carried_out(self):
        """Its wake-up and the peer's departure wait side by side until a long scan is over."""
        huge = self.pair.path(1, f"{OWN}/huge")
        with open(huge, "wb") as file:
            file.truncate(1 << 30)
        self.call(2)
        self.wait_log(1, "peer:MSG_LISTING_REQ")
        caller = self.call(1, self.prepare(1, OWN, "waiting", b"carried"))
        self.wait_log(1, f"RPC update <requesting>: path={OWN}/TempUpdate_waiting")
        self.pair.kill(2, "daemon")
        huge.unlink()
        self.assert_carried_out(1, caller.result())

    def assert_carried_out(self, n: int, result: Result) -> None:
        self.assertEqual((True, "N"), (result.local_ok, result.peer_present), result)
        self.assertTrue(result.success or result.reason.startswith(LATE), result)
        self.assertEqual(b"carried", self.read(n, f"{OWN}/waiting"))
        self.assertFalse(self.exists(n, f"{OWN}/TempUpdate_waiting"))
        self.assert_not_logged(n, "Bad RPC message data")

    def test_corosync_killed_in_a_transfer(self):
        for victim in EMS:
            caller, _ = self.transfer(1)
            self.pair.kill(victim, "corosync")
            self.assertEqual(-signal.SIGABRT, self.pair.process(victim, "daemon").wait(DEADLINE))
            result = self.answer(caller)
            if victim == 1:
                self.assertIsNone(result)
            else:
                self.assertEqual((True, True, "N"), (*result[:2], result.peer_present))
            # An answer of the exchange that broke off may still end the next one.
            wait_for(lambda: self.call(3 - victim).result()[::5] == (True, "N"), DEADLINE,
                     "an exchange of the one that is left")
            self.pair.restart(victim, "corosync")
            self.pair.wait_joined()
            self.wait_identical()
        self.settle()

    def test_link_cut_in_a_transfer(self):
        caller, name = self.transfer(1)
        self.pair.cut()
        result = caller.result()
        self.assertEqual((True, "N"), (result.local_ok, result.peer_present), result)
        self.assertFalse(self.read(1, f"{ACTIVE}/{name}") == self.read(2, f"{ACTIVE}/{name}"))
        self.pair.heal()
        self.pair.wait_joined()
        self.wait_identical()
        self.settle()

    def test_daemons_start_together_or_one_late(self):
        for turn, late in enumerate((None, None, None, 1, 2)):
            for n in EMS:
                self.pair.kill(n, "daemon")
                self.write(n, f"{OWN}/file", f"{n} {turn}")
                self.write(n, f"{ACTIVE}/file{n}", f"{n} {turn}")
            starts = {n: len(self.new_log(n)) for n in EMS}
            for n in EMS:
                if n != late:
                    self.pair.start_daemon(n)
            if late:
                wait_for(lambda: "CPG config change" in self.new_log(3 - late)[starts[3 - late]:],
                         DEADLINE, "the first one has joined")
                self.pair.start_daemon(late)
            self.pair.wait_joined()
            self.wait_identical()
        self.settle()

    def test_trees_that_cannot_be_written(self):
        self.mount(2, ACTIVE, "size=256k,mode=755")
        self.settle()
        asked = self.prepare(1, ACTIVE, "file", os.urandom(1 << 20))
        self.assert_not_at_peer(self.call(1, asked).result(), NO_SPACE, "update")
        self.pair.run(2, ["sh", "-c", f"cat /dev/zero > {ACTIVE}/TempUpdate_filler"])
        asked = self.prepare(1, ACTIVE, "file", b"short")
        self.assert_not_at_peer(self.call(1, asked).result(), NO_SPACE, "update")
        self.assertEqual(FAILING, self.fault())
        self.assertEqual({"TempUpdate_filler", "file"},
                         {path.name for path in self.pair.path(2, ACTIVE).iterdir()})
        self.remount(2, ACTIVE, "size=64m")
        self.settle()

        self.remount(2, ACTIVE, "ro")
        self.settle()
        asked = self.prepare(1, ACTIVE, "file", b"new")
        self.assert_not_at_peer(self.call(1, asked).result(), READ_ONLY, "update")
        asked = request("", f"{ACTIVE}/file")
        self.assert_not_at_peer(self.call(1, asked).result(), READ_ONLY, "delete")
        self.assertEqual(FAILING, self.fault())
        self.assertEqual(b"short", self.read(2, f"{ACTIVE}/file"))
        self.remount(2, ACTIVE, "rw")
        self.settle()
        self.assertFalse(self.exists(2, f"{ACTIVE}/file"))

        self.mount(1, OWN, "mode=755")
        asked = self.prepare(1, OWN, "file", b"new")
        self.remount(1, OWN, "ro")
        self.assert_refused(self.call(1, asked).result(),
                            f"Could not update file ({READ_ONLY}): {OWN}/file", False)

    def assert_not_at_peer(self, result: Result, error: str, what: str) -> None:
        reason = f"Unable to {what} file ({error}): {ACTIVE}/file"
        self.assertEqual((False, True, False, "Y", reason), (*result[:3], *result[5:]))

    def test_files_change_while_they_are_scanned_and_sent(self):
        stop = threading.Event()

        def keep_changing(n: int, root: str) -> None:
            chance, serial = random.Random(n), 0
            while not stop.wait(0.002):
                serial += 1  # no two sizes are the same: a change within a second must show
                name = f"{root}/{chance.randrange(8)}"
                content = os.urandom(chance.choice((0, 65_536, 400_000)) + serial)
                temporary = f"{root}/TempUpdate_mine"
                self.write(n, chance.choice((name, temporary)), content)
                if self.exists(n, temporary):
                    self.pair.path(n, temporary).rename(self.pair.path(n, name))
                elif serial % 100 == 0:  # seldom: a file that is gone when it is sent costs 10 s
                    self.pair.path(n, name).unlink()

        with ThreadPoolExecutor(3) as threads:
            changing = [threads.submit(keep_changing, *place)
                        for place in ((1, ACTIVE), (1, OWN), (2, OWN))]
            results, end = [], time.monotonic() + CHANGING_SECONDS
            try:
                while time.monotonic() < end or not any(result.success for result in results):
                    for n in EMS:
                        content = os.urandom(5000)
                        asked = self.prepare(n, OWN, "asked", content)
                        results.append(self.call(n, asked).result())
                        self.assert_true(results[-1], n, "asked", content)
            finally:
                stop.set()
            for done in changing:
                done.result()
        for result in results:
            self.assertTrue(result.success or result.reason, result)
        self.settle()


class TimeLimitTest(unittest.TestCase):
    """Faults that only the time limit of 10 s ends, each on a pair of its own, all at once."""

    def test_faults_that_last_until_the_time_limit(self):
        scenes = (peer_stopped, root_missing, pull_without_space, file_vanishes, clock_jumps)
        with ThreadPoolExecutor(len(scenes)) as threads:
            played = [threads.submit(play, scene) for scene in scenes]
            for scene, done in zip(scenes, played):
                with self.subTest(scene.__name__):
                    done.result()


def play(scene) -> None:
    case = FaultCase("synced")
    environment = fake_clock() if scene is clock_jumps else {}
    with EmPair(build_dir=BUILD, log_level=7, environment=environment) as case.pair:
        case._log_start = dict.fromkeys(EMS, 0)
        try:
            scene(case)
        except BaseException:
            for n in EMS:
                print(f"-- {scene.__name__}: daemon of EM {n}",
                      *case.pair.log(n).splitlines()[-LOG_LINES:], sep="\n     ", flush=True)
            raise
        finally:
            case.doCleanups()


def peer_stopped(case: FaultCase) -> None:
    caller, name = case.transfer(1)
    case.hold(2)
    case.assert_timed_out(caller.result())
    case.assertNotEqual(case.read(1, f"{ACTIVE}/{name}"), case.read(2, f"{ACTIVE}/{name}"))
    case.assert_timed_out(case.call(1, case.prepare(1, OWN, "next", b"content")).result())
    case.assertFalse(case.exists(2, f"{PEERS}/next"))
    case.assertEqual(FAILING, case.fault())
    case.pair.signal(2, "daemon", signal.SIGCONT)
    case.settle()


def root_missing(case: FaultCase) -> None:
    case.pair.run(2, ["mv", OWN, f"{OWN}.away"], check=True)
    case.assert_timed_out(case.call(1, case.prepare(1, OWN, "file", b"content")).result())
    case.assertFalse(case.exists(2, f"{PEERS}/file"))
    case.assert_logged(2, f"could not open directory ({MISSING}): {OWN}/")
    case.pair.run(2, ["mv", f"{OWN}.away", OWN], check=True)
    case.settle()


def pull_without_space(case: FaultCase) -> None:
    case.mount(1, PEERS, "size=128k,mode=755")
    case.write(2, f"{OWN}/file", os.urandom(1 << 20))
    case.assert_timed_out(case.call(1).result())
    case.assert_logged(1, f"Unable to update file ({NO_SPACE}): {PEERS}/file")
    case.remount(1, PEERS, "size=64m")
    case.settle()


def file_vanishes(case: FaultCase) -> None:
    case.write(1, f"{VOLATILE}/victim", b"listed after the large one")
    caller, _ = case.transfer(1)
    case.pair.path(1, f"{VOLATILE}/victim").unlink()
    case.assert_timed_out(caller.result())
    case.assert_logged(1, f"Could not read file ({MISSING}): {VOLATILE}/victim")
    case.assert_logged(2, "SYNC update IGNORED due to error on sender side victim")
    case.assertFalse(case.exists(2, f"{VOLATILE}/victim"))
    case.settle()


def fake_clock() -> dict[str, str]:
    """What gives the daemons, and nobody else, the clock of the file FAKE_CLOCK."""
    libraries = glob.glob("/usr/lib/*/faketime/libfaketimeMT.so.1")
    if not libraries:
        raise unittest.SkipTest("needs the package faketime")
    return {"LD_PRELOAD": libraries[0], "FAKETIME_TIMESTAMP_FILE": FAKE_CLOCK,
            "FAKETIME_NO_CACHE": "1", "NO_FAKE_STAT": "1", "FAKETIME_DONT_FAKE_MONOTONIC": "1",
            "DONT_FAKE_MONOTONIC": "1"}


def clock_jumps(case: FaultCase) -> None:
    for n in EMS:
        case.pair.path(n, FAKE_CLOCK).write_text("+0")
        case.assertEqual(0, case.status(n, "log-size=100000000"))
    for jumps in ({1: "+1h", 2: "-1h"}, {1: "-2h", 2: "+3d"}, {1: "+0", 2: "+0"}):
        caller, _ = case.transfer(1)
        case.pair.signal(2, "daemon", signal.SIGSTOP)  # so that the jump meets a wait
        for n, jump in jumps.items():
            case.pair.path(n, FAKE_CLOCK).write_text(jump)
        time.sleep(2)
        case.pair.signal(2, "daemon", signal.SIGCONT)
        case.assertTrue(caller.result().success)
        case.assertTrue(case.call(2, case.prepare(2, OWN, "file", b"content")).result().success)
        case.settle()
    for n in EMS:
        case.assert_not_logged(n, "timeout", "Sync Error")
        seconds = [int(line.split()[0])
                   for line in case.pair.path(n, PRIVATE_LOG).read_text().splitlines()]
        case.assertGreater(max(seconds) - min(seconds), 7000, "the clock did not jump")
