"""Thousands of exchanges leave the daemons as small as they were. EXCHANGES=n runs n."""

import os
import re
import time
from pathlib import Path

from em_pair import ACTIVE, EMS, OWN, VOLATILE
from support import SYNC, PairTest

EXCHANGES = int(os.environ.get("EXCHANGES", 2000))
WARM_UP = 200
GROWTH_KB = 192


IDLE_SECONDS = 10


class EnduranceTest(PairTest):
    options = {"log_level": 4}

    def wake_ups(self, n: int) -> int:
        """How often EM `n`'s daemon has waited, summed over its threads."""
        tasks = Path(f"/proc/{self.pair.process(n, 'daemon').pid}/task")
        return sum(int(count) for status in tasks.glob("*/status") for count in re.findall(
            r"(?m)^voluntary_ctxt_switches:\s*(\d+)", status.read_text()))

    def test_an_idle_daemon_sleeps(self):
        self.footprint(1)  # waits until the threads of closed connections have ended
        before = {n: self.wake_ups(n) for n in EMS}
        time.sleep(IDLE_SECONDS)
        for n in EMS:
            self.assertLessEqual(self.wake_ups(n) - before[n], IDLE_SECONDS + 2, f"EM {n}")
        begin = time.monotonic()
        self.assertEqual(0, self.pair.exit_daemon(2))
        self.assertLess(time.monotonic() - begin, 5)

    def test_nothing_grows(self):
        self.callers = {n: self.call(n, None) for n in EMS}
        self.exchange(WARM_UP)
        before = {n: self.footprint(n) for n in EMS}
        self.exchange(EXCHANGES)
        for n in EMS:
            held, resident = self.footprint(n)
            self.assertEqual(before[n][0], held, "descriptors, threads")
            self.assertLess(resident - before[n][1], GROWTH_KB)
        self.assert_identical()

    def exchange(self, count: int) -> None:
        """Exchanges of every kind, from both EMs, each with something to do."""
        for turn in range(count):
            n = 1 + turn % 2
            name = f"{turn % 7}/{turn % 5}"
            kind = turn % 12 // 2
            message = (
                lambda: self.prepared(n, f"{OWN}/{name}", os.urandom(100 + turn % 11)),
                lambda: self.write(n, f"{OWN}/large", os.urandom(70_000 + turn % 11)),
                lambda: self.write(n, f"{OWN}/deleted", "") and ("", f"{OWN}/deleted"),
                lambda: (f"{OWN}/missing", f"{OWN}/{name}"),  # is refused
                lambda: self.write(1, f"{(ACTIVE, VOLATILE)[turn // 12 % 2]}/{name}", str(turn)),
                lambda: SYNC)[kind]()
            self.callers[n].send(message)
            result = self.callers[n].result()
            self.assertEqual(kind != 3, result.success, result)
