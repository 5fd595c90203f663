"""Power fails and the disks lose their caches: everything that was answered is still there, and the rest is
repaired.

Both EMs have their persistent trees on a file system on a disk with a volatile cache. SEED=n repeats the run
of one seed, CUTS is the number of cuts, FILE_SYSTEM is ext4, xfs or btrfs.
"""

import os
import random
import sys
import time
import unittest

from convergence import Machine
from em_pair import ACTIVE, EMS, OWN, PEERS, PERSISTENT, REPO, VOLATILE, wait_for
from support import PairTest

SEED = int(os.environ.get("SEED", 1))
CUTS = int(os.environ.get("CUTS", 12))
FILE_SYSTEM = os.environ.get("FILE_SYSTEM", "ext4")
# Size in MiB, how to make it, how to mount it. Metadata is written every second, long before data that nobody
# synced.
SIZE, MAKE, OPTIONS = {
    "ext4": (64, ["mkfs.ext4", "-q", "-F"], "loop,commit=1"),
    "xfs": (320, ["mkfs.xfs", "-q", "-f"], "loop"),
    "btrfs": (160, ["mkfs.btrfs", "-q", "-f"], "loop,commit=1")}[FILE_SYSTEM]
DISK = "/run/disk"
CHUNK = 65536
MISSING = [path for path in ("/dev/fuse", "/dev/loop-control") if not os.path.exists(path)]


@unittest.skipIf(MISSING, f"this machine has no {' and no '.join(MISSING)}")
class PowerCutTest(PairTest):
    options = {"log_level": 6, "environment": {"KEEP_REPLACED_MIB": "8"}}

    def setUp(self):
        super().setUp()
        self.random, self.active, self.second = random.Random(SEED), 1, 1_500_000_000
        for n in EMS:
            self.pair.path(n, DISK).mkdir(exist_ok=True)
            disk = self.pair.popen(n, [sys.executable, REPO / "testbed/volatile_disk.py", DISK, SIZE << 20])
            self.addCleanup(disk.wait, 20)
            self.addCleanup(self.pair.run, n, ["umount", DISK])
            wait_for(self.pair.path(n, f"{DISK}/disk").exists, 20, "the disk")
            self.pair.run(n, [*MAKE, f"{DISK}/disk"], check=True)
            self.mount(n)
            self.addCleanup(self.pair.run, n, ["umount", PERSISTENT])
            for root in (ACTIVE, OWN, PEERS):
                self.pair.path(n, root).mkdir()
            self.pair.run(n, ["sync", "-f", PERSISTENT], check=True)

    def mount(self, n: int) -> None:
        self.pair.run(n, ["mount", "-n", "-t", FILE_SYSTEM, "-o", OPTIONS, f"{DISK}/disk",
                          PERSISTENT], check=True)

    def cut(self, victims: tuple[int, ...]) -> None:
        """Cuts the disks first, then the daemons; data in memory is lost."""
        for n in victims:
            share = self.random.choice((0, 1, self.random.random()))
            self.pair.path(n, f"{DISK}/cut").write_text(f"{self.random.getrandbits(32)} {share}")
        for n in victims:
            self.pair.kill(n, "daemon")
            self.pair.run(n, ["umount", PERSISTENT], check=True)
            self.pair.run(n, ["find", VOLATILE, "-mindepth", "1", "-delete"], check=True)

    def cut_some(self) -> None:
        """Cuts one EM or both and starts them again in any order; the first one becomes active."""
        victims = self.random.choice(((1,), (2,), self.random.sample(EMS, 2)))
        self.cut(victims)
        if self.active in victims:
            self.active = victims[0] if len(victims) == 2 else 3 - victims[0]
            self.pair.set_active(self.active)
        for n in victims:
            self.mount(n)
            self.pair.start_daemon(n)
            wait_for(lambda: self.pair.ctl(n, "diag", "stats").returncode == 0, 20, "a daemon")
        self.pair.wait_joined()
        # A torn digest cache file may cost one exchange on each EM, a join one more.
        results = [self.ask(self.active)]
        while not results[-1].success:
            self.assertLess(len(results), 4, results)
            time.sleep(1)
            results.append(self.ask(self.active))

    def test_the_disk_keeps_what_was_synced_and_nothing_else(self):
        lost = 0
        for _ in range(CUTS):
            for name, synced in (("synced", True), ("unsynced", False)):
                self.write(1, f"{OWN}/{name}", b"new")
                for path in (f"{OWN}/{name}", OWN) if synced else ():
                    fd = os.open(self.pair.path(1, path), os.O_RDONLY)
                    os.fsync(fd)
                    os.close(fd)
            self.cut((1,))
            self.mount(1)
            self.pair.start_daemon(1)
            self.assertEqual(b"new", self.read(1, f"{OWN}/synced"))
            lost += self.tree(1, OWN) != {"synced", "unsynced"}
            self.pair.wait_joined()
            self.clear()
        self.assertGreater(lost, 0)

    def test_what_was_answered_is_not_lost(self):
        wanted, lost, asked = {}, [], 0
        for cut in range(CUTS):
            for _ in range(4):
                n = self.random.choice(EMS)
                root = ACTIVE if n == self.active and self.random.random() < 0.5 else OWN
                owner = 0 if root == ACTIVE else n
                name = self.random.choice("abcdef")
                content = self.random.randbytes(self.random.choice((10, 5000, 200_000)))
                if wanted.get((owner, name)) and self.random.random() < 0.4:
                    message, wanted[owner, name] = ("", f"{root}/{name}"), None
                else:
                    message = self.prepared(n, f"{root}/{name}", content)
                    wanted[owner, name] = content
                self.assertEqual((True, True), self.ask(n, message)[::5])
                asked += 1
            time.sleep(self.random.choice((0, self.random.uniform(0, 1.5))))
            self.cut_some()
            for (owner, name), content in wanted.items():
                for n in EMS:
                    root = ACTIVE if owner == 0 else OWN if owner == n else PEERS
                    path = self.pair.path(n, f"{root}/{name}")
                    if content != (path.read_bytes() if path.exists() else None):
                        lost.append(f"cut {cut}: EM {n} {root}/{name}")
                        wanted[owner, name] = path.read_bytes() if path.exists() else None
        self.assertEqual([], lost, f"{len(lost)} of {asked}")

    def test_a_cut_in_the_middle_heals(self):
        wrong = []
        for cut in range(CUTS):
            for n in EMS:
                for root in (ACTIVE, OWN) if n == self.active else (OWN,):
                    self.change(n, root)
            self.call(self.random.choice(EMS))
            time.sleep(self.random.uniform(0, 0.3))
            self.cut_some()
            for n in EMS:
                wrong += Machine(self.pair, n).wrong_digests()
            wrong += [f"cut {cut}: {line}" for line in self.different()]
            if wrong:
                break
        self.assertEqual([], wrong)

    def change(self, n: int, root: str) -> None:
        """Writes without sync, like local programs: files in place, and many new ones."""
        for name in self.random.sample("ABCD", 2):
            target = self.pair.path(n, f"{root}/{name}")
            if not target.exists() or not target.stat().st_size:
                target.write_bytes(self.random.randbytes(self.random.randint(1, 12) * CHUNK + 7))
            with open(target, "r+b") as file:
                for _ in range(3):
                    file.seek(self.random.randrange(target.stat().st_size))
                    file.write(self.random.randbytes(5000)[:target.stat().st_size - file.tell()])
            self.second += 1
            os.utime(target, (self.second, self.second))
        for name in self.random.sample(range(40), 15):
            self.write(n, f"{root}/{name}", self.random.randbytes(self.random.randrange(9000)))
