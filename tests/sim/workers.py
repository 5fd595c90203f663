"""Processes that examine cases, each with a pair of machines of its own."""

import multiprocessing
import os
import signal
import traceback
from collections.abc import Callable, Iterator

from em_pair import EMS
from simulated.machine import Machine

WORKERS = 2


def _work(part: int, examine: Callable[..., Iterator[str]], visible, reports) -> None:
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    machines = {n: Machine(n, visible=visible) for n in EMS}
    try:
        for report in examine(machines, part):
            reports.put(report)
            if os.getppid() == 1:
                break
    except Exception:
        reports.put(traceback.format_exc())
    finally:
        for machine in machines.values():
            machine.close()
        reports.put(None)


def run(examine: Callable[..., Iterator[str]], first: bool, visible=()) -> int:
    """Runs `examine(machines, part)` for each part below WORKERS. It yields a report on each case, empty if the
    case passes. Prints the reports and the number of cases. With `first`, ends at the first failure. Returns the
    exit status."""
    reports: multiprocessing.Queue = multiprocessing.Queue()
    workers = [multiprocessing.Process(target=_work, args=(part, examine, visible, reports))
               for part in range(WORKERS)]
    for worker in workers:
        worker.start()
    passed = failed = ended = 0
    try:
        while ended < WORKERS and not (failed and first):
            report = reports.get()
            ended += report is None
            passed += report == ""
            failed += bool(report)
            print(report or "", end="", flush=True)
    finally:
        for worker in workers:
            worker.terminate()
    print(f"{passed} passed, {failed} failed")
    return 0 if passed and not failed else 1
