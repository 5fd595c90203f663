"""python3 tests/faults: each system call of the sync thread fails once, or is the last one of its daemon.

A round is a scenario on a fresh simulated pair. In it strace makes one call of one EM fail with one error, or
kills the daemon there. Afterwards calls work again. The round then does the checks of the simulation, and
checks that no temporary file, descriptor or unknown error text is left.
"""

import argparse
import os
import random
import re
import signal
import subprocess
import sys
import tempfile
import time
from collections import Counter
from collections.abc import Iterator
from contextlib import suppress
from pathlib import Path
from typing import NamedTuple

HERE = Path(__file__).resolve()
sys.path[:0] = [str(HERE.parents[2] / "testbed"), str(HERE.parents[1] / "sim")]

import workers  # noqa: E402
from em_pair import EMS, PEERS, REPO  # noqa: E402
from scenarios import GUARD, SCENARIOS, Scenario  # noqa: E402
from simulated.machine import KEPT, ROOTS, Hang, Machine  # noqa: E402
from simulated.pair import COMPARE, SECOND, UPDATE, Answer, Wrong  # noqa: E402
from simulation import Simulation  # noqa: E402

READS = ("EIO", "ENOMEM")
SYNCS = ("EIO", "ENOSPC", "EROFS", "EDQUOT")
CHANGES = (*SYNCS, "ENOMEM")
ERRORS = {
    "openat": (*CHANGES, "EMFILE"), "openat2": (*CHANGES, "EMFILE"), "fcntl": ("EMFILE",),
    "close": ("EIO", "ENOSPC", "EDQUOT"),
    **dict.fromkeys("read pread64 getdents64 newfstatat faccessat2 readlink statx".split(), READS),
    **dict.fromkeys("fsync fdatasync syncfs".split(), SYNCS),
    **dict.fromkeys("write ftruncate renameat linkat unlinkat mkdir mkdirat fchmod ioctl".split(), CHANGES)}
FILES = re.compile("replicated_by_|/mnt/part.persistent|/tmp|F_DUPFD")
WRITES = "fsync,fdatasync,syncfs,renameat,unlinkat"
DONE = re.compile(r"(f\w*sync|syncfs|renameat\(.*TempUpdate_|unlinkat\((?!.*(TempUpdate_|SyncDigest|/replaced>)))"
                  ".*= 0$")
UNSYNCED = re.compile("^r|[^fs]r|r[^fs]|r$|u[^fs]*$")  # in the first letters of those calls
NO_FAILURE = re.compile("F_GETFL|F_GETFD|F_SETFD|F_SETFL")
OTHER_USER = 1000
NONE = 9999  # a call that a scenario never reaches
WAIT = 30 * SECOND  # for the answer, on the simulated clock


class Point(NamedTuple):
    scenario: Scenario
    em: int
    call: str
    number: int
    error: str  # "KILL" to kill the daemon
    keeps: bool  # a call on a kept file, whose failure must not fail the request

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
            self._write(2 if scenario.changed else scenario.em, path, content, second=1)
        for n in EMS:
            machines[n].environment = scenario.settings
            self.pair.start(n)
        self.pair.flow(5000, self.pair.now + 10 * SECOND)
        for file in self._files(".$SyncDigest$*", ROOTS if scenario.digests else ()):
            self._change_digests(file)
        if scenario.foreign:
            os.chown(machines[3 - scenario.em].path(scenario.foreign), OTHER_USER, -1)
        for path, changed in scenario.changed.items():
            self._write(2, path, changed, second=2)
        self.open_files = self._open_files()

    def _files(self, pattern: str, folders) -> list[Path]:
        return [path for machine in self.pair.machines.values() for folder in folders
                for path in Path(machine.path(folder)).rglob(pattern)]

    def _change_digests(self, file: Path) -> None:
        assert self.scenario.digests
        text = self.scenario.digests(file.read_text())
        file.write_text(text) if text else file.unlink()

    def _write(self, n: int, path: str, content: bytes | None, second: int) -> None:
        """Writes a file, or removes it with its directory if that is empty then."""
        file = Path(self.pair.machines[n].path(path))
        if content is None:
            file.unlink()
            with suppress(OSError):
                file.parent.rmdir()
        else:
            file.parent.mkdir(parents=True, exist_ok=True)
            file.write_bytes(content)
            os.utime(file, (second, second))
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
            file.chmod(scenario.mode)
        elif source:
            effects = {source: None, destination: scenario.before[source]}
        pair.ask(scenario.em, source, destination, effects, COMPARE if scenario.compared else UPDATE)
        limit = pair.now + WAIT
        while pair.callers[scenario.em] and pair.now < limit:
            pair.flow(50, pair.now + SECOND)

    def check(self, point: Point, writes: str = "") -> None:
        """The checks after calls work again. `writes` are the syncs, renames and deletions so far."""
        pair, scenario, killed = self.pair, self.scenario, point.error == "KILL"
        for answer in pair.answers:
            self._check_answer(answer, point.keeps)
            if answer.success and not killed and UNSYNCED.search(writes):
                raise Wrong(f"a success without a sync around a rename or after a deletion: {writes}")
        for file in self._files("[!c]*", [KEPT]):
            if file.is_file() and file.read_bytes() not in scenario.before.values():
                raise Wrong(f"kept: {file}")
        if scenario.settings == GUARD:
            if len(pair.machines[1].read(PEERS)) != len(scenario.before):
                raise Wrong("deleted without permission")
            for n in EMS:
                pair.start(n)
                pair.diagnose(n, "allow-deletions")
        failed = [answer for answer in pair.answers if not answer.success]
        if scenario.compared or failed and scenario.em == 2:  # a standby EM does not retry by itself
            pair.ask(scenario.em, "", "", {})
        pair.come_to_rest()
        left = self._files("TempUpdate_*", ROOTS)
        if left and not killed and point.call != "unlinkat":
            raise Wrong(f"left over: {left}")
        # A close that strace lets fail does not close.
        if not killed and point.call != "close" and self._open_files() != self.open_files:
            raise Wrong(f"open files: {self.open_files} became {self._open_files()}")

    def _check_answer(self, answer: Answer, keeps: bool) -> None:
        if answer.reason and not TEXTS.match(answer.reason):
            raise Wrong(f"the manual has no '{answer.reason}'")
        if keeps and not answer.success:
            raise Wrong(f"a file that was not kept failed the request: {answer}")
        complete = answer.success and answer.peer_present
        if complete and self.scenario.compared.encode() not in answer.report:
            raise Wrong(f"not reported as different: {answer}")


TEXTS = known_texts()


def points(machines: dict[int, Machine], scenario: Scenario, em: int) -> list[Point]:
    """No failure, then all calls of EM `em` on files in a scenario, each with all its errors."""
    found = [Point(scenario, em, "fsync", NONE, "EIO", False)]
    numbers: Counter = Counter()
    work = Round(machines, scenario)
    try:
        with Strace(machines[em], "-e", "trace=" + ",".join(ERRORS)) as strace:
            work.ask()
        for line in strace.log:
            call = re.match(r"(\w+)\(", line)
            if call is None or call[1] not in ERRORS:
                continue
            numbers[call[1]] += 1
            if FILES.search(line) and not NO_FAILURE.search(line):
                found += [Point(scenario, em, call[1], numbers[call[1]], error,
                                KEPT in line and error != "KILL")
                          for error in (*ERRORS[call[1]], "KILL")]
    finally:
        work.pair.close()
    return found


def examine(machines: dict[int, Machine], point: Point) -> str:
    """A report if this point fails, or an empty text."""
    what = "signal=KILL" if point.error == "KILL" else f"error={point.error}"
    work = Round(machines, point.scenario)
    try:
        with Strace(machines[point.em], "-e", f"trace={point.call},{WRITES}", "-e",
                    f"inject={point.call}:{what}:when={point.number}") as strace:
            work.ask()
        work.check(point, "".join(line[0] for line in strace.log if DONE.match(line)))
    except (Wrong, Hang) as wrong:
        return f"   FAILED  {point}\n           {wrong}\n"
    finally:
        work.pair.close()
    return ""


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
    chance = random.Random(options.seed)
    scenarios = [(scenario, em) for scenario in SCENARIOS for em in EMS
                 if not options.only or options.only.startswith(scenario.name)]
    if options.seconds < 60:
        scenarios = chance.sample(scenarios, 8)

    def examine_part(machines: dict[int, Machine], part: int) -> Iterator[str]:
        known = [point for scenario, em in scenarios[part::workers.WORKERS]
                 for point in points(machines, scenario, em) if options.only in str(point)]
        chance.shuffle(known)
        known.sort(key=lambda point: point.number != NONE)
        for point in known[:options.points // workers.WORKERS]:
            if time.monotonic() > end:
                return
            yield examine(machines, point)

    return workers.run(examine_part, options.first)


if __name__ == "__main__":
    sys.exit(main())
