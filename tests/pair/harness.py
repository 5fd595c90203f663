"""Base of the tests that run on a pair of daemons.

A test file is tests/pair/test_*.py with subclasses of PairTest. One pair serves all tests of a
class; every test starts with two joined, idle daemons, EM 1 active, empty trees and no fault
injected, whatever the test before left behind.
"""

import json
import os
import sys
import time
import unittest
from pathlib import Path

REPO = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(REPO / "testbed"))

# What the tests themselves use from the testbed.
from em_pair import (ACTIVE, EMS, OWN, PEERS, VOLATILE, EmPair,  # noqa: E402,F401
                     PairError, wait_for)
from trees import differences, files, same_outline  # noqa: E402

BUILD = Path(os.environ.get("EM_PAIR_BUILD", REPO / "build"))
ROOTS = (ACTIVE, VOLATILE, OWN, PEERS)
DEADLINE = 60
LOG_LINES = 40


class PairTest(unittest.TestCase):
    """`options` are further arguments of EmPair for the pair of the class."""

    options: dict = {}
    pair: EmPair

    @classmethod
    def setUpClass(cls):
        cls.pair = EmPair(**{"build_dir": BUILD, "log_level": 7} | cls.options).start()
        cls.addClassCleanup(cls.pair.stop)

    def setUp(self):
        self._log_start = {n: len(self.pair.log(n)) for n in EMS}
        self.make_ready()
        self._log_start = {n: len(self.pair.log(n)) for n in EMS}

    def make_ready(self) -> None:
        pair = self.pair
        if pair.form == "two-node":
            pair.heal()
        for n in pair.nodes():
            if not pair.alive(n, "corosync"):
                pair.restart(n, "corosync")
        pair.wait_nodes()
        for n in EMS:
            if not pair.alive(n, "daemon"):
                pair.start_daemon(n)
        pair.wait_joined()
        pair.set_active(1)
        for n in EMS:
            self.diag(n, "fail-none")
        # A first exchange may still meet what the previous test left: the second one counts.
        wait_for(lambda: self.ctl(1, "sync")["success"], DEADLINE, "an exchange succeeds", 0.5)
        for n in EMS:
            for root in ROOTS:
                # By a process on the EM, which sees the tree as the daemon does.
                pair.run(n, ["find", root, "-mindepth", "1", "-delete"], check=True)
        self.sync(1)

    def run(self, result=None):
        outcome = super().run(result)
        result = result or outcome
        failed = () if result is None else result.failures + result.errors
        if any(getattr(test, "test_case", test) is self for test, _ in failed):  # of a sub-test
            for n in EMS:
                start = getattr(self, "_log_start", {}).get(n, 0)
                lines = self.pair.log(n)[start:].splitlines()[-LOG_LINES:]
                print(f"-- daemon of EM {n}", *lines, sep="\n     ", flush=True)
        return outcome

    # Files.

    def write(self, n: int, path: str, content: bytes | str, mode: int = 0o644) -> None:
        """Makes a file on EM `n` without its daemon."""
        target = self.pair.path(n, path)
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_bytes(content.encode() if isinstance(content, str) else content)
        target.chmod(mode)

    def read(self, n: int, path: str) -> bytes:
        return self.pair.path(n, path).read_bytes()

    def exists(self, n: int, path: str) -> bool:
        return self.pair.path(n, path).exists()

    def tree(self, n: int, root: str) -> set[str]:
        """Relative paths of the replicated files of a tree."""
        return set(files(self.pair.path(n, root)))

    def replicas(self) -> list[tuple[Path, Path]]:
        """Source and copy of each of the four trees."""
        at = self.pair.path
        active = 1 if self.pair.is_active(1) else 2
        shared = [(at(active, root), at(3 - active, root)) for root in (ACTIVE, VOLATILE)]
        return shared + [(at(n, OWN), at(3 - n, PEERS)) for n in EMS]

    def assert_identical(self) -> None:
        for source, copy in self.replicas():
            self.assertEqual([], differences(source, copy), f"{source} and {copy}")

    def wait_identical(self, timeout: float = DEADLINE) -> None:
        """Waits for the daemons to make the trees identical by themselves."""
        wait_for(lambda: all(same_outline(*trees) and not differences(*trees)
                             for trees in self.replicas()), timeout, "identical trees", 0.1)

    # The daemons.

    def ctl(self, n: int, *command: str, timeout: float = DEADLINE) -> dict:
        """Asks EM `n`'s daemon; returns the answer of cluster_sync_ctl --json."""
        answer = self.pair.ctl(n, "--json", "--timeout", f"{timeout:g}", *command,
                               timeout=timeout + 10)
        try:
            return json.loads(answer.stdout)
        except ValueError:
            raise PairError(f"cluster_sync_ctl {command} on EM {n}: status {answer.returncode}, "
                            f"{answer.stdout!r}, {answer.stderr!r}") from None

    def diag(self, n: int, command: str) -> None:
        self.assertEqual(0, self.pair.ctl(n, "diag", command).returncode, command)

    def sync(self, n: int) -> None:
        answer = self.ctl(n, "sync")
        self.assertTrue(answer["success"], answer)

    def stats(self, n: int) -> dict[str, int]:
        """The counters of EM `n`'s daemon by their labels, such as "Syncs from self"."""
        start = len(self.pair.log(n))
        self.diag(n, "stats=dump")
        dump = wait_for(lambda: (text := self.pair.log(n)[start:]).count("File sys bytes scanned")
                        and text, DEADLINE, "the counters are in the log")
        found = {}
        for line in dump.splitlines():
            label, _, value = line.rpartition(":")
            if value.strip().isdigit():
                found[label.rpartition(": ")[2].strip()] = int(value)
        return found

    def new_log(self, n: int) -> str:
        """What EM `n`'s daemon logged since the test began."""
        return self.pair.log(n)[self._log_start[n]:]

    def wait_log(self, n: int, text: str, timeout: float = DEADLINE) -> None:
        wait_for(lambda: text in self.new_log(n), timeout, f"EM {n} logs '{text}'")


class Progress(unittest.TestResult):
    """One line for each test when it ends, the reason of a failure below it."""

    def __init__(self):
        super().__init__()
        self.passed = 0
        self.bad: set[str] = set()

    def startTest(self, test):
        super().startTest(test)
        self._began = time.monotonic()

    def stopTest(self, test):
        super().stopTest(test)
        verdict = "FAILED" if test.id() in self.bad else "ok"
        self.passed += verdict == "ok"
        print(f"   {verdict:6} {time.monotonic() - self._began:6.1f} s  {test.id()}", flush=True)

    def _failed(self, test, reason):
        self.bad.add(test.id())
        print(f"-- {test}\n{reason}", flush=True)

    def addError(self, test, err):
        super().addError(test, err)
        self._failed(test, self.errors[-1][1])

    def addFailure(self, test, err):
        super().addFailure(test, err)
        self._failed(test, self.failures[-1][1])

    def addSubTest(self, test, subtest, err):
        super().addSubTest(test, subtest, err)
        if err is not None:
            self._failed(test, f"{subtest}\n{self._exc_info_to_string(err, test)}")

    def addSkip(self, test, reason):
        # Nothing may hide: what these tests need is installed before they run.
        super().addSkip(test, reason)
        self._failed(test, f"skipped: {reason}")


def main(wanted: list[str]) -> int:
    """Runs the tests whose names contain one of `wanted`, all without; the last line counts."""
    loader = unittest.TestLoader()
    if wanted:
        loader.testNamePatterns = [f"*{word}*" for word in wanted]
    result = Progress()
    loader.discover(str(Path(__file__).parent)).run(result)
    print(f"{result.passed} passed, {len(result.bad)} failed", flush=True)
    return 0 if result.passed and not result.bad else 1
