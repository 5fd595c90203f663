"""After any operations on both EMs, a successful exchange leaves the trees that the model predicts.

The guard is set as in the package. SEED=n repeats the run of one seed, BURSTS sets its length.
"""

import os

from convergence import Driver
from em_pair import EMS
from support import PairTest

SEEDS = [int(os.environ["SEED"])] if "SEED" in os.environ else range(1, 4)
BURSTS = int(os.environ.get("BURSTS", 50))  # of each seed


class ConvergenceTest(PairTest):
    options = {"environment": {"MAX_DELETED_PERCENT": "90"}}

    def test_random_operations_converge(self):
        callers = {n: self.call(n, None) for n in EMS}
        for seed in SEEDS:
            self.make_ready()
            driver = Driver(self.pair, callers, seed)
            try:
                for burst in range(1, BURSTS + 1):
                    driver.burst()
            except Exception as error:
                history = "\n  ".join(driver.history)
                self.fail(f"repeat with SEED={seed} BURSTS={burst}\n  {history}\n"
                          f"{type(error).__name__}: {error}")
