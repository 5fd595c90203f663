"""After any operations on both EMs a successful exchange leaves what the model says.

SEED=n repeats the run of one seed, BURSTS of it.
"""

import os

from harness import OWN, wait_for
from convergence import Driver
from support import SocketTest

SEEDS = [int(os.environ["SEED"])] if "SEED" in os.environ else range(1, 6)
BURSTS = int(os.environ.get("BURSTS", 50))  # of each seed


class ConvergenceTest(SocketTest):
    def test_random_operations_converge(self):
        for seed in SEEDS:
            self.clear()
            self.pair.set_active(1)
            wait_for(lambda: self.call(1).result().success, 30, "an exchange of empty trees")
            driver = Driver(self.pair, seed)
            try:
                for burst in range(1, BURSTS + 1):
                    driver.burst()
            except Exception as error:
                history = "\n  ".join(driver.history)
                self.fail(f"repeat with SEED={seed} BURSTS={burst}\n  {history}\n"
                          f"{type(error).__name__}: {error}")
            finally:
                driver.close()

    def test_a_repeated_rename_takes_no_digests_from_the_file_it_replaced(self):
        """EM 1 repeats on its own tree what EM 2 asked for; size and second are as before."""
        for name in ("source", "target"):
            for n, content in ((1, name * 20_000), (2, "of the other one")):
                self.write(n, f"{OWN}/{name}", content)
                os.utime(self.pair.path(n, f"{OWN}/{name}"), (1_600_000_000,) * 2)
        self.synced(1)
        self.assertTrue(self.update(2, f"{OWN}/source", f"{OWN}/target").success)
        self.synced(1)
        self.assertEqual(b"source" * 20_000, self.read(1, f"{OWN}/target"))
        self.assert_identical()
