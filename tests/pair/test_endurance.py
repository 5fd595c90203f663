"""Thousands of exchanges leave the daemons as small as they were. EXCHANGES=n makes n."""

import os

from em_pair import ACTIVE, EMS, OWN, VOLATILE
from support import SYNC, PairTest

EXCHANGES = int(os.environ.get("EXCHANGES", 2000))
WARM_UP = 200
GROWTH_KB = 192


class EnduranceTest(PairTest):
    options = {"log_level": 4}

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
        """Exchanges of every kind, from both EMs, with something to do in each."""
        for turn in range(count):
            n = 1 + turn % 2
            name = f"{turn % 7}/{turn % 5}"
            kind = turn % 12 // 2
            message = (
                lambda: self.prepared(n, f"{OWN}/{name}", os.urandom(100 + turn % 11)),
                lambda: self.write(n, f"{OWN}/large", os.urandom(70_000 + turn % 11)),
                lambda: self.write(n, f"{OWN}/deleted", "") or ("", f"{OWN}/deleted"),
                lambda: (f"{OWN}/missing", f"{OWN}/{name}"),  # is refused
                lambda: self.write(1, f"{(ACTIVE, VOLATILE)[turn // 12 % 2]}/{name}", str(turn)),
                lambda: None)[kind]() or SYNC
            self.callers[n].send(message)
            result = self.callers[n].result()
            self.assertEqual(kind != 3, result.success, result)
