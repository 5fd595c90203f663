"""python3 tests/pair [NAME...]: the tests on a pair of daemons; all, or those with a NAME in their names.

The daemons mostly wait, so several tests run at once, each worker with its own pairs.
"""

import ctypes
import multiprocessing
import os
import signal
import sys
import time
import unittest
from collections import Counter
from concurrent.futures import ProcessPoolExecutor, as_completed
from io import TextIOWrapper
from pathlib import Path
from typing import cast

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parents[1] / "testbed"))
WORKERS = 2


def end_with_parent() -> None:
    """When the main process ends, in any way, its workers and their pairs end, too."""
    pr_set_pdeathsig = 1  # prctl(2)
    ctypes.CDLL(None).prctl(pr_set_pdeathsig, signal.SIGTERM)


def run(name: str) -> tuple[float, str, str]:
    """Runs one test; returns its seconds, its outcome, and the reason if it did not pass."""
    start = time.monotonic()
    test, = unittest.defaultTestLoader.loadTestsFromName(name)
    result = unittest.TestResult()
    test.run(result)
    reasons = [reason for _, reason in result.errors + result.failures]
    if reasons and hasattr(test, "daemon_logs"):
        reasons.append(test.daemon_logs())
    outcome = "FAILED" if reasons else "skipped" if result.skipped else "ok"
    reasons += [reason for _, reason in result.skipped]
    return time.monotonic() - start, outcome, "\n".join(reasons)


def names(tests) -> list[str]:
    if isinstance(tests, unittest.TestCase):
        return [tests.id()]
    return [name for test in tests for name in names(test)]


def give_up(*_) -> None:
    """Ends the process that owns the pair, and so the pair."""
    for worker in multiprocessing.active_children():
        worker.terminate()
    os._exit(1)


def main(wanted: list[str]) -> int:
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, give_up)
    cast(TextIOWrapper, sys.stdout).reconfigure(errors="backslashreplace")  # file names may be any bytes
    loader = unittest.TestLoader()
    loader.testNamePatterns = [f"*{word}*" for word in wanted] or None
    tests = names(loader.discover(str(HERE)))
    outcomes: Counter[str] = Counter()
    with ProcessPoolExecutor(min(WORKERS, len(tests)) or 1, initializer=end_with_parent) as workers:
        running = {workers.submit(run, name): name for name in tests}
        for done in as_completed(running):
            seconds, outcome, reason = done.result()
            outcomes[outcome] += 1
            print(f"   {outcome:7} {seconds:6.1f} s  {running[done]}",
                  *filter(None, [reason]), sep="\n", flush=True)
    print(f"{outcomes['ok']} passed, {outcomes['FAILED']} failed"
          + (f", {outcomes['skipped']} skipped" if outcomes["skipped"] else ""))
    return 0 if tests and not outcomes["FAILED"] else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
