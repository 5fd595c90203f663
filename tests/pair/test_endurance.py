"""Thousands of exchanges leave the daemons as small as they were. EXCHANGES=n makes n."""

import os

from harness import ACTIVE, EMS, OWN, VOLATILE
from footprint import footprint
from support import SYNC, SocketTest, request

EXCHANGES = int(os.environ.get("EXCHANGES", 1200))
WARM_UP = 200
GROWTH_KB = 256


class EnduranceTest(SocketTest):
    options = {"log_level": 4}

    def test_nothing_grows(self):
        callers = {n: self.call(n) for n in EMS}
        for n in EMS:
            callers[n].result()
        self.exchange(callers, WARM_UP)
        before = {n: footprint(self.pair, n) for n in EMS}
        self.exchange(callers, EXCHANGES)
        after = {n: footprint(self.pair, n) for n in EMS}
        for n in EMS:
            with self.subTest(em=n):
                self.assertEqual(before[n][:2], after[n][:2], "descriptors, threads")
                self.assertLess(after[n].resident - before[n].resident, GROWTH_KB)
        self.assert_identical()

    def exchange(self, callers, count: int) -> None:
        """Exchanges of every kind, from both EMs, with something to do in each."""
        for turn in range(count):
            n = 1 + turn % 2
            name = f"{turn % 7}/{turn % 5}"
            kind = turn % 12 // 2
            message = SYNC
            if kind == 0:  # a new file
                self.write(n, f"{OWN}/TempUpdate_x", os.urandom(100 + turn % 11))
                self.write(n, f"{OWN}/{name}", "replaced")
                message = request(f"{OWN}/TempUpdate_x", f"{OWN}/{name}")
            elif kind == 1:  # a large one
                self.write(n, f"{OWN}/large", os.urandom(70_000 + turn % 11))
            elif kind == 2:  # a deletion
                self.write(n, f"{OWN}/deleted", "in this exchange")
                message = request("", f"{OWN}/deleted")
            elif kind == 3:  # a refusal
                message = request(f"{OWN}/missing", f"{OWN}/{name}")
            elif kind == 4:  # the shared trees
                self.write(1, f"{(ACTIVE, VOLATILE)[turn // 12 % 2]}/{name}", str(turn))
            callers[n].send(message)
            result = callers[n].result()
            self.assertEqual(kind != 3, result.success, result)
