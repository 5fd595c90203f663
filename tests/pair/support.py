"""Helpers of the tests on a pair of daemons."""

import os
import re
import signal
import time
import unittest
from collections.abc import Callable
from multiprocessing.util import Finalize
from pathlib import Path

from caller import SYNC, Caller, Result, Update
from em_pair import ACTIVE, EMS, OWN, PEERS, REPO, VOLATILE, EmPair, wait_for
from trees import differences, files

BUILD = Path(os.environ.get("EM_PAIR_BUILD", REPO / "build"))
FAILED = REPO / "build/failed"  # logs of failed tests
ROOTS = (ACTIVE, VOLATILE, OWN, PEERS)
DEADLINE = 60
LOG_LINES = 40
FAULT_EVENT = "/run/em/events/0x80000702"


def flows(active: int, requester: int) -> list[tuple[int, str, str]]:
    """The trees that an exchange of `requester` copies: EM of the source, its root, root of the copy."""
    shared = [(active, root, root) for root in (ACTIVE, VOLATILE)] if active == requester else []
    return shared + [(n, OWN, PEERS) for n in EMS]


class PairTest(unittest.TestCase):
    """Each test starts with two joined, idle daemons, EM 1 active, empty trees and no injected fault, whatever
    the previous test left. Tests with the same `options`, which are further arguments of EmPair, may use the
    same pair."""

    options: dict = {}
    pairs: dict[str, EmPair] = {}

    def setUp(self):
        key = repr(self.options)
        if key not in self.pairs:
            pair = EmPair(**{"build_dir": BUILD, "log_level": 7} | self.options)
            Finalize(None, pair.stop, exitpriority=0)
            self.pairs[key] = pair.start()
        self.pair = self.pairs[key]
        self.mark_logs()
        self.make_ready()
        self.mark_logs()

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
        for _ in range(2):  # the first exchange may still get late messages of the previous test
            self.clear()
            self.wait(lambda: self.ask(1).success, "an exchange succeeds")

    def wait(self, predicate: Callable[[], object], what: str):
        return wait_for(predicate, DEADLINE, what, 0.005)

    # Files.

    def write(self, n: int, path: str, content: bytes | str, mode: int = 0o644) -> Update:
        """Writes a file on EM `n` without its daemon. Returns the request that replicates it."""
        target = self.pair.path(n, path)
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_bytes(content.encode() if isinstance(content, str) else content)
        target.chmod(mode)
        return SYNC

    def prepared(self, n: int, path: str, content: bytes | str) -> Update:
        """Writes a finished file next to `path`; returns the request that renames it to `path`."""
        folder, name = os.path.split(path)
        self.write(n, f"{folder}/TempUpdate_{name}", content)
        return (f"{folder}/TempUpdate_{name}", path)

    def read(self, n: int, path: str) -> bytes:
        return self.pair.path(n, path).read_bytes()

    def exists(self, n: int, path: str) -> bool:
        return self.pair.path(n, path).exists()

    def tree(self, n: int, root: str) -> set[str]:
        """Relative paths of the replicated files of a tree."""
        return set(files(self.pair.path(n, root)))

    def clear(self) -> None:
        for n in EMS:  # by a process on the EM, which sees the trees like the daemon
            self.pair.run(n, ["find", *ROOTS, "-mindepth", "1", "-delete"], check=True)

    def different(self) -> list[str]:
        """Why the four copies are not replicas."""
        at, active = self.pair.path, 1 if self.pair.is_active(1) else 2
        return [f"{copy}: {line}" for n, root, copy in flows(active, active)
                for line in differences(at(n, root), at(3 - n, copy))]

    def assert_identical(self) -> None:
        self.assertEqual([], self.different())

    def wait_identical(self) -> None:
        """Waits until the daemons have made the trees identical by themselves."""
        self.wait(lambda: not self.different(), "identical trees")

    # The daemons.

    def call(self, n: int, asked: Update | str | None = SYNC) -> Caller:
        caller = Caller(self.pair, n, asked)
        self.addCleanup(caller.close)
        return caller

    def ask(self, n: int, asked: Update = SYNC) -> Result:
        """Sends a request on a new connection and returns its answer."""
        with Caller(self.pair, n, asked) as caller:
            return caller.result()

    def diag(self, n: int, command: str) -> None:
        """Sends a diagnostic command, which must succeed."""
        with Caller(self.pair, n, command) as caller:
            self.assertTrue(caller.accepted(), command)

    def synced(self, n: int) -> Result:
        result = self.ask(n)
        self.assertEqual((True, ""), (result.success, result.reason))
        return result

    def hold(self, n: int) -> None:
        """Freezes EM `n`'s daemon until the end of the test at the latest."""
        process = self.pair.process(n, "daemon")
        process.send_signal(signal.SIGSTOP)
        self.addCleanup(lambda: process.poll() is None and process.send_signal(signal.SIGCONT))

    def footprint(self, n: int) -> tuple[tuple[int, int], int]:
        """Number of descriptors and threads of EM `n`'s daemon when the workers of closed connections have
        ended, and its resident memory in kB."""
        folder = Path(f"/proc/{self.pair.process(n, 'daemon').pid}")
        end = 1 << (32 if n in self.pair.arm else 64)  # the emulator's own memory is above this address

        def look() -> tuple[tuple[int, int], int]:
            areas = re.findall(r"(?ms)^([0-9a-f]+)-\S+ .*?^Rss: +(\d+)", (folder / "smaps").read_text())
            resident = sum(int(kb) for start, kb in areas if int(start, 16) < end)
            return ((len(os.listdir(folder / "fd")), len(os.listdir(folder / "task"))), resident)

        def at_rest():
            first = look()
            time.sleep(0.2)
            return first if first[0] == look()[0] else None
        return self.wait(at_rest, "the number of threads comes to rest")

    # Logs of the daemons.

    def mark_logs(self) -> None:
        self._log_start = {n: self.pair.log_path(n).stat().st_size for n in EMS}

    def log(self, n: int) -> str:
        """What EM `n`'s daemon logged since the start of the test or the last mark."""
        with open(self.pair.log_path(n), "rb") as file:
            file.seek(self._log_start[n])
            return file.read().decode(errors="replace")

    def wait_log(self, n: int, text: str, times: int = 1) -> None:
        self.wait(lambda: self.log(n).count(text) >= times, f"EM {n} logs '{text}'")

    def daemon_logs(self) -> str:
        """The end of both logs, to analyse a failure, and where the complete logs are."""
        folder = FAILED / self.id()
        folder.mkdir(parents=True, exist_ok=True)
        for n in EMS:
            (folder / f"em{n}").write_text(self.log(n), errors="surrogateescape")
        tails = [line for n in EMS for line in (
            f"-- daemon of EM {n}", *self.log(n).splitlines()[-LOG_LINES:])]
        explain = f"(cd {folder} && {REPO}/build/cluster_sync_ctl explain em1 em2)"
        return "\n     ".join([*tails, "-- both logs, an exchange a line:", explain])
