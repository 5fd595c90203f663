"""python3 tests/failover [keepalived|pacemaker] [KIND]...: failovers decided by real cluster managers.

Runs FAILOVERS (5) of each kind while a program writes to the active EM all the time. Two EMs are never active
at once, unless the link is cut or one of them is frozen. Changes answered with peer_present Y are not lost,
unless two EMs were active. The new active EM has the role within 3 s of the decision, and then an exchange.
"""

import os
import signal
import subprocess
import sys
import threading
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE.parents[1] / "testbed")]

from caller import Caller  # noqa: E402
from deciders import FENCE_AGENT, PATIENCE, Decider, Keepalived, Pacemaker  # noqa: E402
from em_pair import ACTIVE, EMS, EmPair, PairError, wait_for  # noqa: E402

FAILOVERS = int(os.environ.get("FAILOVERS", "5"))
MARK_LIMIT = 3.0  # seconds from the decision to the role
OVERLAP_LIMIT = 3.0  # seconds for which an EM that was frozen or cut off may keep the role
NAMES = 40


class Watch(threading.Thread):
    """Checks the roles of both EMs about every millisecond."""

    def __init__(self, pair: EmPair):
        super().__init__(daemon=True)
        self.marks = {n: pair.path(n, "/run/em/active") for n in EMS}
        self.excused = ""  # why two active EMs are allowed now
        self.over = False
        self.two = 0.0  # seconds with two active EMs, without an excuse
        self.ever_two = False  # with or without an excuse, since forget()

    def active(self) -> list[int]:
        return [n for n in EMS if self.marks[n].exists()]

    def forget(self) -> None:
        self.two, self.ever_two = 0.0, False

    def run(self):
        last = time.monotonic()
        while not self.over:
            # In both orders, so that a role that moves meanwhile is not counted twice.
            two = len(self.active()) == 2 and self.marks[1].exists()
            now = time.monotonic()
            if two:
                self.ever_two = True
                self.two += 0 if self.excused else now - last
            last = now
            time.sleep(0.001)


class Writer(threading.Thread):
    """Publishes one file after the other on the active EM and records what was promised."""

    def __init__(self, pair: EmPair, watch: Watch):
        super().__init__(daemon=True)
        self.pair, self.watch = pair, watch
        self.promised: dict[str, int] = {}
        self.answers = 0
        self.over = False

    def put(self, n: int, name: str, number: int) -> bool:
        """Whether both EMs have the file."""
        temporary = f"{ACTIVE}/TempUpdate_{name}"
        self.pair.path(n, temporary).write_text(str(number))
        with Caller(self.pair, n, (temporary, f"{ACTIVE}/{name}")) as caller:
            result = caller.outcome()
        return result is not None and result.success and result.peer_present

    def run(self):
        number = 0
        while not self.over:
            number += 1
            name = f"file{number % NAMES}"
            try:
                for n in self.watch.active()[:1]:
                    if self.put(n, name, number):
                        self.promised[name] = number
                        self.answers += 1
            except OSError:
                pass  # no daemon at the moment
            time.sleep(0.02)

    def lost(self) -> list[str]:
        """Files that are missing or too old on an EM that should have them."""
        found = []
        for name, number in list(self.promised.items()):
            for n in EMS:
                path = self.pair.path(n, f"{ACTIVE}/{name}")
                if not path.exists() or int(path.read_text() or 0) < number:
                    found.append(f"{name} on EM {n}: {number}")
        return found


class Site:
    """A pair with a cluster manager, a writer and a watch."""

    def __init__(self, kind: type[Decider]):
        self.pair = EmPair(log_level=7)
        try:
            self.pair.start(active=None)
            agent = FENCE_AGENT.format(work_dir=self.pair.work_dir)
            for n in EMS:
                self.pair.install(n, fence_testbed=agent)
            self.decider = kind(self.pair)
            for n in EMS:
                self.decider.start(n)
            self.decider.configure()
            self.watch = Watch(self.pair)
            self.watch.start()
            self.writer = Writer(self.pair, self.watch)
            self.writer.start()
            self.settle()
        except BaseException:
            self.close()
            raise

    def close(self) -> None:
        for thread in (getattr(self, "writer", None), getattr(self, "watch", None)):
            if thread:
                thread.over = True
        if hasattr(self, "decider"):
            self.decider.close()
        self.pair.stop()

    def boot(self, n: int) -> None:
        """Starts the missing processes of EM `n`."""
        if not self.pair.alive(n, "corosync"):
            self.pair.start_corosync(n)
            self.pair.wait_nodes()
        if not self.pair.alive(n, "daemon"):
            self.pair.start_daemon(n)
        self.decider.back(n)

    def settle(self) -> None:
        for n in EMS:
            self.boot(n)
        self.pair.wait_joined()
        wait_for(self.decider.ready, PATIENCE, "the decider is ready")
        wait_for(lambda: len(self.watch.active()) == 1, PATIENCE, "one EM is active")
        self.watch.excused = ""
        answers = self.writer.answers
        wait_for(lambda: self.writer.answers > answers + 3, PATIENCE, "both EMs take files")

    # Faults of the active EM `n`. The returned function undoes what settle() does not repair.

    def orderly(self, n: int):
        self.decider.orderly(n)

    def decider_killed(self, n: int):
        self.decider.crash(n)

    def daemon_killed(self, n: int):
        self.pair.kill(n, "daemon")

    def frozen(self, n: int):
        self.watch.excused = "frozen"

        def everything(number: int) -> None:
            for what in ("daemon", "corosync"):
                if self.pair.alive(n, what):
                    self.pair.signal(n, what, number)
            self.decider.signal(n, number)
        everything(signal.SIGSTOP)
        return lambda: everything(signal.SIGCONT)

    def link_cut(self, n: int):
        self.watch.excused = "cut"
        self.pair.cut()
        return self.pair.heal

    def failover(self, fault) -> tuple[float, float]:
        """One failover. Returns the seconds to the decision, and from there to the role. Errors are
        AssertionError and PairError."""
        old, = self.watch.active()
        new = 3 - old
        decisions = self.decider.decisions(new)
        resets = len(getattr(self.decider, "resets", ()))
        self.watch.forget()
        log = self.pair.log_path(new)
        log_size = log.stat().st_size
        undo = fault(self, old)

        def decided() -> bool:
            return self.decider.decisions(new) > decisions or \
                new in getattr(self.decider, "resets", ())[resets:]  # the old active EM has won
        begin = time.monotonic()
        wait_for(decided, PATIENCE, f"EM {new} takes over", 0.01)
        decision = time.monotonic()
        to_mark = 0.0
        if self.decider.decisions(new) > decisions:
            wait_for(self.watch.marks[new].exists, PATIENCE, f"EM {new} is active", 0.01)
            to_mark = time.monotonic() - decision
            assert to_mark <= MARK_LIMIT, f"{to_mark:.1f} s from the decision to the mark"
            wait_for(lambda: b"SYNC running explicit sync request" in log.read_bytes()[log_size:], PATIENCE,
                     "the new active EM synchronises")
        if undo:
            undo()
            wait_for(lambda: len(self.watch.active()) < 2, OVERLAP_LIMIT, "one EM gives its mark up", 0.01)
        reset = getattr(self.decider, "resets", ())[resets:]
        assert len(reset) < 2, "both were reset"
        self.settle()
        assert self.watch.two == 0, f"two were active for {self.watch.two * 1000:.0f} ms"
        if self.watch.ever_two:
            self.writer.promised.clear()
        else:
            lost = self.writer.lost()
            assert not lost, f"lost: {lost}"
        return decision - begin, to_mark


FAULTS = {"orderly": Site.orderly, "decider killed": Site.decider_killed,
          "daemon killed": Site.daemon_killed, "EM frozen": Site.frozen, "link cut": Site.link_cut}


def try_decider(kind: type[Decider], faults: list[str], lines: list[str]) -> None:
    site = Site(kind)
    try:
        for name in faults:
            begin, seen = time.monotonic(), []
            try:
                for _ in range(FAILOVERS):
                    seen.append(site.failover(FAULTS[name]))
                waits, marks = zip(*seen)
                outcome = f"ok      {len(seen)} times, decided after {min(waits):.1f} to {max(waits):.1f} s, " \
                    f"mark within {max(marks):.1f} s"
            except (AssertionError, PairError, OSError, subprocess.SubprocessError) as error:
                outcome = f"FAILED  after {len(seen)}: {error}"
            lines.append(outcome)
            print(f"   {kind.__name__}, {name}: {outcome} ({time.monotonic() - begin:.0f} s)", flush=True)
            if outcome.startswith("FAILED"):
                if os.environ.get("KEEP"):
                    input(f"{site.pair.work_dir}\n")
                site.close()
                site = Site(kind)
    finally:
        site.close()


def main(wanted: list[str]) -> int:
    kinds = [kind for kind in (Keepalived, Pacemaker) if kind.__name__.lower() in wanted]
    faults = [name for name in FAULTS if name in wanted] or list(FAULTS)
    lines: list[str] = []
    threads = [threading.Thread(target=try_decider, args=(kind, faults, lines))
               for kind in kinds or (Keepalived, Pacemaker)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    failed = len(threads) * len(faults) - sum(line.startswith("ok") for line in lines)
    print(f"{len(threads) * len(faults) - failed} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
