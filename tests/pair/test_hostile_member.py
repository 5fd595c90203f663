"""A third process in the group that sends the daemons what no daemon would.

SEED=n makes one run of a minute with that seed.
"""

import os
import re
import subprocess
import time

from em_pair import EMS, OWN
from support import BUILD, DEADLINE, ROOTS, SYNC, PairTest

SECRET = "bytes that no message may carry"  # hostile_member looks for it
OUTSIDE = "/tmp/outside"
# Seeds of the runs, and the seconds of each.
RUNS = {int(os.environ["SEED"]): 60} if "SEED" in os.environ else {1: 3, 2: 3, 3: 3}
MAX_EXCHANGES = 6  # a deletion at a place that was taken fails the exchange, a tree at a time
# Tops of what a daemon could reach; /var/lib/misc holds what was changed below /etc and /usr/bin.
TOPS = ("/tmp", "/mnt", "/run", "/var/lib/misc")
CHANGING = ("/run/em/active", "/run/em/events")
LEFT = "CPG config change [em-sync]: flags=23"


class HostileMemberTest(PairTest):
    # A sparse file of 4 GiB, as any peer may have one, would cost seconds a scan and a message for
    # every chunk.
    options = {"wrapper": ["env", "--ignore-signal=XFSZ", "prlimit", "--fsize=268435456"]}

    def test_daemons_withstand_a_hostile_member(self):
        for n in EMS:
            for path in (f"{OUTSIDE}/file", f"{OUTSIDE}/dir/file"):
                self.write(n, path, SECRET)
        self.callers = {n: self.call(n, None) for n in EMS}
        before = {n: self.untouchable(n) for n in EMS}
        for seed, seconds in RUNS.items():
            self.plant()
            self.withstand(seed, seconds)
            self.converge()
            for n in EMS:
                self.assertEqual(before[n], self.untouchable(n), f"EM {n} after seed {seed}")

    def withstand(self, seed: int, seconds: int) -> None:
        """Runs the hostile member, on either EM, beside requests of all kinds from both EMs."""
        self.mark_logs()
        command = [BUILD / "hostile_member", str(seed)]
        hostile = self.pair.popen(1 + seed % 2, command, stdout=subprocess.PIPE, text=True)
        self.addCleanup(hostile.kill)
        end, turn = time.monotonic() + seconds, 0
        while time.monotonic() < end:
            self.assertIsNone(hostile.poll(), "the hostile member has ended")
            for n in EMS:
                self.callers[n].send((SYNC, ("", f"{OWN}/asked"), self.prepared(
                    n, f"{OWN}/asked", str(turn)))[turn % 3])
            for n in EMS:
                self.assertIsNotNone(self.callers[n].result(), "a daemon has ended")
            turn += 1
        left = {n: self.log(n).count(LEFT) for n in EMS}
        hostile.terminate()
        counts, _ = hostile.communicate(timeout=DEADLINE)
        self.assertEqual(0, hostile.returncode)
        sent, received = map(int, re.findall(r"\d+", counts))
        self.assertGreater(received, sent, "the daemons were silent")
        self.assertGreater(sent, 0)
        for n in EMS:  # its messages are delivered before the news that it has left
            self.wait_log(n, LEFT, left[n] + 1)

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
            results.append(self.ask(1))
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

    def untouchable(self, n: int) -> tuple:
        """Descriptors and threads, and all outside the trees that a daemon could be led to."""
        script = ["find", *TOPS, "-xdev"]
        for path in (*map(os.path.realpath, ROOTS), *CHANGING):
            script += ["-path", path, "-prune", "-o"]
        listed = self.pair.run(n, [*script, "-printf", r"%p %i %m %s %T@\n"], check=True).stdout
        for caller in self.callers.values():
            caller.send()
            caller.result()
        return self.footprint(n)[0], sorted(listed.splitlines())
