"""python3 tests/faults: each system call of the sync thread fails once, or is the last one of its daemon.

A round is a scenario on a fresh simulated pair. In it strace makes one call of one EM fail with one error, or
kills the daemon there. Afterwards calls work again. The round then does the checks of the simulation, and
checks that no temporary file, descriptor or unknown error text is left.
"""

import argparse
import multiprocessing
import os
import random
import re
import signal
import subprocess
import sys
import tempfile
import time
import traceback
from collections import Counter
from pathlib import Path
from typing import NamedTuple

HERE = Path(__file__).resolve()
sys.path[:0] = [str(HERE.parents[2] / "testbed"), str(HERE.parents[1] / "sim")]

from em_pair import EMS, REPO  # noqa: E402
from scenarios import SCENARIOS, Scenario  # noqa: E402
from simulated.machine import ROOTS, Hang, Machine  # noqa: E402
from simulated.pair import SECOND, Wrong  # noqa: E402
from simulation import Simulation  # noqa: E402

EVERYWHERE = ("EIO", "ENOMEM")
CHANGES = ("EIO", "ENOSPC", "EROFS", "EDQUOT", "ENOMEM")
ERRORS = {
    "openat": (*CHANGES, "EMFILE"), "openat2": (*CHANGES, "EMFILE"), "read": ("EIO",),
    "pread64": ("EIO",), "write": ("EIO", "ENOSPC", "EDQUOT"), "fsync": ("EIO", "ENOSPC", "EDQUOT"),
    "fdatasync": ("EIO", "ENOSPC", "EDQUOT"), "syncfs": ("EIO",), "ftruncate": ("EIO", "EROFS"),
    "rename": CHANGES, "renameat": CHANGES, "unlink": ("EIO", "EROFS"), "unlinkat": ("EIO", "EROFS"),
    "mkdir": CHANGES, "mkdirat": CHANGES, "fchmod": ("EIO", "EROFS"), "getdents64": EVERYWHERE,
    "newfstatat": EVERYWHERE, "lstat": EVERYWHERE, "stat": EVERYWHERE, "fstat": EVERYWHERE,
    "close": ("EIO",)}
TREES = re.compile("|".join(["replicated_by_", "/mnt/part.persistent"]))
WORKERS = 2
WAIT = 30 * SECOND  # for the answer, on the simulated clock


class Point(NamedTuple):
    scenario: Scenario
    em: int
    call: str
    number: int
    error: str  # "KILL" to kill the daemon

    def __str__(self) -> str:
        return f"{self.scenario.name}: {self.call} {self.number} of EM {self.em}: {self.error}"


def known_texts() -> re.Pattern:
    """The texts that the manual explains."""
    manual = (REPO / "docs/operations.md").read_text()
    texts = {text for text in re.findall(r"`([^`\n]{10,})`", manual) if " " in text}
    return re.compile("|".join(re.sub("%[a-z]", ".*", re.escape(text)) for text in texts))


class Strace:
    """Attached to the sync thread of a machine until the block ends."""

    def __init__(self, machine: Machine, *options: str):
        assert machine.report
        self.log = tempfile.NamedTemporaryFile("r", prefix="faults.")
        self.process = subprocess.Popen(
            ["strace", "-y", "-o", self.log.name, "-p", str(machine.report.thread), *options],
            stderr=subprocess.PIPE, text=True)

    def __enter__(self) -> "Strace":
        line = self.process.stderr.readline() if self.process.stderr else ""
        if "attached" not in line:
            raise Hang(f"strace: {line}")
        return self

    def __exit__(self, *_) -> None:
        self.process.send_signal(signal.SIGINT)
        self.process.wait()
        if self.process.stderr:
            self.process.stderr.close()


class Round:
    """One scenario on a fresh pair."""

    def __init__(self, machines: dict[int, Machine], scenario: Scenario):
        self.pair, self.scenario = Simulation(machines), scenario
        for path, content in scenario.before.items():
            self._write(scenario.em, path, content)
        for n in EMS:
            self.pair.start(n)
        self.pair.flow(5000, self.pair.now + 10 * SECOND)
        for n in EMS:
            for root in ROOTS if scenario.digests else ():
                for file in Path(machines[n].path(root)).glob(".$SyncDigest$*"):
                    self._change_digests(file)
        for path, content in scenario.changed.items():
            self._write(2, path, content)
        self.open_files = self._open_files()

    def _change_digests(self, file: Path) -> None:
        assert self.scenario.digests
        text = self.scenario.digests(file.read_text())
        file.write_text(text) if text else file.unlink()

    def _write(self, n: int, path: str, content: bytes) -> None:
        file = Path(self.pair.machines[n].path(path))
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_bytes(content)
        self.pair.questions.put(n, path, content)

    def _open_files(self) -> dict[int, int]:
        self.pair.hang_up()
        return {n: len(os.listdir(f"/proc/{machine.process.pid}/fd"))
                for n, machine in self.pair.machines.items() if machine.process}

    def ask(self) -> None:
        """Sends the request and waits for its answer."""
        scenario, pair = self.scenario, self.pair
        source, destination = scenario.moved, scenario.destination
        effects = {destination: scenario.content} if destination else {}
        if scenario.content is not None:
            source = f"{destination[:destination.rindex('/')]}/TempUpdate_new"
            file = Path(pair.machines[scenario.em].path(source))
            file.parent.mkdir(parents=True, exist_ok=True)
            file.write_bytes(scenario.content)
        elif source:
            effects = {source: None, destination: scenario.before[source]}
        pair.ask(scenario.em, source, destination, effects)
        limit = pair.now + WAIT
        while pair.callers[scenario.em] and pair.now < limit:
            pair.flow(50, pair.now + SECOND)

    def check(self, call: str, error: str) -> None:
        """The checks after calls work again."""
        pair, killed = self.pair, error == "KILL"
        for answer in pair.answers:
            if answer.reason and not TEXTS.match(answer.reason):
                raise Wrong(f"the manual has no '{answer.reason}'")
        if pair.answers and not pair.answers[-1].success and self.scenario.em == 2:
            pair.ask(2, "", "", {})  # a standby EM does not retry by itself
        pair.come_to_rest()
        left = [f"EM {n}: {path}" for n in EMS for root in ROOTS
                for path in Path(pair.machines[n].path(root)).rglob("TempUpdate_*")]
        if left and not killed:
            raise Wrong(f"left over: {left}")
        # A close that strace lets fail does not close.
        if not killed and call != "close" and self._open_files() != self.open_files:
            raise Wrong(f"open files: {self.open_files} became {self._open_files()}")


TEXTS = known_texts()


def points(machines: dict[int, Machine], scenario: Scenario, em: int) -> list[Point]:
    """All calls of EM `em` on the trees in a scenario, each with all its errors."""
    found: list[Point] = []
    numbers: Counter = Counter()
    work = Round(machines, scenario)
    try:
        with Strace(machines[em], "-e", "trace=" + ",".join(f"?{call}" for call in ERRORS)) as strace:
            work.ask()
        for line in strace.log:
            call = re.match(r"(\w+)\(", line)
            if call is None or call[1] not in ERRORS:
                continue
            numbers[call[1]] += 1
            if TREES.search(line):
                found += [Point(scenario, em, call[1], numbers[call[1]], error)
                          for error in (*ERRORS[call[1]], "KILL")]
    finally:
        work.pair.close()
    return found


def examine(machines: dict[int, Machine], point: Point) -> str:
    """What is wrong if this point fails, or an empty text."""
    what = "signal=KILL" if point.error == "KILL" else f"error={point.error}"
    work = Round(machines, point.scenario)
    try:
        with Strace(machines[point.em], "-e", f"trace={point.call}", "-e",
                    f"inject={point.call}:{what}:when={point.number}"):
            work.ask()
        work.check(point.call, point.error)
    except (Wrong, Hang) as wrong:
        return str(wrong)
    finally:
        work.pair.close()
    return ""


def work(part: int, end: float, options: argparse.Namespace, reports) -> None:
    """One of WORKERS: reports the number of points it knows, then for each what is wrong, or ""."""
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    chance = random.Random(options.seed)
    scenarios = [(scenario, em) for scenario in SCENARIOS for em in EMS
                 if not options.only or options.only.startswith(scenario.name)]
    if options.seconds < 60:
        scenarios = chance.sample(scenarios, 8)
    machines = {n: Machine(n) for n in EMS}
    try:
        known = [point for scenario, em in scenarios[part::WORKERS]
                 for point in points(machines, scenario, em) if options.only in str(point)]
        reports.put(len(known))
        chance.shuffle(known)
        for point in known[:options.points // WORKERS]:
            if time.monotonic() > end or os.getppid() == 1:
                break
            wrong = examine(machines, point)
            reports.put(wrong and f"   FAILED  {point}\n           {wrong}\n")
    except Exception:
        reports.put(traceback.format_exc())
    finally:
        for machine in machines.values():
            machine.close()
        reports.put(None)


def main() -> int:
    parser = argparse.ArgumentParser(prog="./run faults", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seed", type=int, default=int(time.time()), help="of the order")
    parser.add_argument("--seconds", type=float, default=1e9, help="then the rest is left out")
    parser.add_argument("--points", type=int, default=1 << 30, help="as many as that at most")
    parser.add_argument("--first", action="store_true", help="end at the first failure")
    parser.add_argument("--only", default="", help="the points whose name contains this")
    options = parser.parse_args()
    print(f"Failing calls, seed {options.seed}", flush=True)
    end = time.monotonic() + options.seconds
    reports: multiprocessing.Queue = multiprocessing.Queue()
    workers = [multiprocessing.Process(target=work, args=(part, end, options, reports))
               for part in range(WORKERS)]
    for worker in workers:
        worker.start()
    known = passed = failed = ended = 0
    while ended < WORKERS and not (failed and options.first):
        report = reports.get()
        ended += report is None
        if isinstance(report, int):
            known += report
        elif report is not None:
            passed, failed = passed + (not report), failed + bool(report)
            print(report, end="", flush=True)
    for worker in workers:
        worker.terminate()
    print(f"{known} points\n{passed} passed, {failed} failed")
    return 0 if passed and not failed else 1


if __name__ == "__main__":
    sys.exit(main())
