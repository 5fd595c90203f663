"""A third process in the group that sends the daemons what no daemon would.

SEED=n makes one run of a minute with that seed.
"""

import os
import re
import subprocess
import time

from harness import BUILD, DEADLINE, EMS, OWN, ROOTS, wait_for
from footprint import footprint
from support import SYNC, SocketTest, request

SECRET = "bytes that no message may carry"  # hostile_member looks for it
OUTSIDE = "/tmp/outside"
# Seeds of the runs, and the seconds of each.
RUNS = {int(os.environ["SEED"]): 60} if "SEED" in os.environ else {1: 3, 2: 3, 3: 3}
MAX_EXCHANGES = 6  # a deletion at a place that was taken fails the exchange, a tree at a time
# Tops of what a daemon could reach; /var/lib/misc holds what was changed below /etc and /usr/bin.
TOPS = ("/tmp", "/mnt", "/run", "/var/lib/misc")
LEFT = "CPG config change [em-sync]: flags=23"
CHANGING = ("/run/em/active", "/run/em/events")


class HostileMemberTest(SocketTest):
    # A sparse file of 4 GiB, as any peer may have one, would cost seconds a scan and a message for
    # every chunk.
    options = {"wrapper": ["env", "--ignore-signal=XFSZ", "prlimit", "--fsize=268435456"]}

    def test_daemons_withstand_a_hostile_member(self):
        self.addCleanup(self.clear)
        for n in EMS:
            for path in (f"{OUTSIDE}/file", f"{OUTSIDE}/dir/file"):
                self.write(n, path, SECRET)
        self.callers = {n: self.call(n) for n in EMS}
        for n in EMS:
            self.callers[n].result()
        outside = {n: self.outside(n) for n in EMS}
        before = {n: self.settled_footprint(n) for n in EMS}
        for seed, seconds in RUNS.items():
            with self.subTest(seed=seed):
                self.plant()
                self.withstand(seed, seconds)
                self.converge()
                for n in EMS:
                    self.assertEqual(outside[n], self.outside(n), f"outside the trees of EM {n}")
                    self.assertEqual(before[n], self.settled_footprint(n), "descriptors, threads")

    def withstand(self, seed: int, seconds: int) -> None:
        """Runs the hostile member, on either EM, beside requests of all kinds from both EMs."""
        command = [BUILD / "hostile_member", str(DEADLINE + seconds), str(seed)]
        hostile = self.pair.popen(1 + seed % 2, command, stdout=subprocess.PIPE, text=True)
        end = time.monotonic() + seconds
        turn = 0
        try:
            while time.monotonic() < end:
                self.assertIsNone(hostile.poll(), "the hostile member has ended")
                for n in EMS:
                    self.callers[n].send(self.some_request(n, turn))
                for n in EMS:
                    self.callers[n].result()
                turn += 1
        finally:
            left = {n: self.new_log(n).count(LEFT) for n in EMS}
            hostile.terminate()
            counts, _ = hostile.communicate(timeout=DEADLINE)
        self.assertEqual(0, hostile.returncode)
        sent, received = map(int, re.fullmatch(r"sent (\d+), received (\d+)\n", counts).groups())
        self.assertGreater(received, sent, "the daemons were silent")
        self.assertGreater(sent, 0)
        self.assertTrue(all(self.pair.alive(n, "daemon") for n in EMS), "a daemon has ended")
        # Its messages are delivered before the news that it has left.
        for n in EMS:
            wait_for(lambda: self.new_log(n).count(LEFT) > left[n], DEADLINE,
                     f"EM {n} has heard all of the hostile member")

    def some_request(self, n: int, turn: int) -> bytes:
        if turn % 3 == 0:
            return SYNC
        if turn % 3 == 1:
            return request("", f"{OWN}/asked")
        self.write(n, f"{OWN}/TempUpdate_new", str(turn))
        return request(f"{OWN}/TempUpdate_new", f"{OWN}/asked")

    def converge(self) -> None:
        for n in EMS:  # a link where a folder is to be, for one, fails the exchange on purpose
            self.pair.run(n, ["find", *ROOTS, "!", "-type", "f", "!", "-type", "d", "-delete"],
                          check=True)
            # Names that no listing can carry: a documented limit.
            self.pair.run(n, ["find", *ROOTS, "-mindepth", "1", "-maxdepth", "1", "-name",
                              "[[:space:]]*", "-exec", "rm", "-r", "{}", "+"], check=True)
        results = []
        while not results or not results[-1].success:
            self.assertLess(len(results), MAX_EXCHANGES, results)
            time.sleep(0.5)  # what a failed exchange left on its way would end the next one
            self.callers[1].send()
            results.append(self.callers[1].result())
        self.assert_identical()

    def plant(self) -> None:
        self.clear()
        for n in EMS:
            for root in ROOTS:
                for name, size in (("small", 10), ("large", 70_000), ("dir/file", 10)):
                    self.write(n, f"{root}/{name}", os.urandom(size))
                for name, target in (("to_dir", OUTSIDE), ("dir/to_dir", OUTSIDE),
                                     ("to_file", f"{OUTSIDE}/file"), ("to_above", ".."),
                                     ("to_nothing", f"{OUTSIDE}/created")):
                    self.pair.path(n, f"{root}/{name}").symlink_to(target)
                os.mkfifo(self.pair.path(n, f"{root}/fifo"))

    def outside(self, n: int) -> dict[str, tuple]:
        """Everything outside the trees that a message could lead a daemon to."""
        found = {}
        for top in TOPS:
            prefix = str(self.pair.path(n, ""))
            inside_of = {str(self.pair.path(n, root)) for root in (*ROOTS, *CHANGING)}
            device = os.stat(f"{prefix}{top}").st_dev
            for folder, subfolders, names in os.walk(f"{prefix}{top}"):
                for name in subfolders + names:
                    path = os.path.join(folder, name)
                    status = os.lstat(path)
                    if path not in inside_of and status.st_dev == device:
                        found[path[len(prefix):]] = (status.st_ino, status.st_mode, status.st_size,
                                                     status.st_mtime_ns)
                subfolders[:] = [name for name in subfolders if f"{folder}/{name}" in found]
        return found

    def settled_footprint(self, n: int) -> tuple[int, int]:
        """Descriptors and threads once the workers of closed connections have ended."""
        def quiet():
            first = footprint(self.pair, n)[:2]
            time.sleep(0.3)
            return first if first == footprint(self.pair, n)[:2] else None
        return wait_for(quiet, DEADLINE, "the number of threads comes to rest")
