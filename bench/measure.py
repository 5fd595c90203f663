"""Helpers of the benchmark rows: the row, the trees, the daemon, the floors."""

import os
import re
import signal
import statistics
import subprocess
import sys
import tempfile
import time
from collections.abc import Sequence
from contextlib import contextmanager
from dataclasses import dataclass, field
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(REPO / "testbed"))
sys.dont_write_bytecode = True

from caller import SYNC, Caller, Update  # noqa: E402
from em_pair import ACTIVE, EMS, OWN, PEERS, PERSISTENT, EmPair  # noqa: E402

HEADER, UPDATE_HEADER, CHUNK, LINE_HEAD = 148, 32, 65536, 63
# In the foreground a daemon also logs to standard output, which it never does on a real machine.
SILENT = ["sh", "-c", 'exec "$0" "$@" > /dev/null 2>&1']
DIGESTS = ".$SyncDigest$*"
MESSAGES, WORK = "bare messages", "bare work"


@dataclass
class Row:
    """Our value and that of the other, medians in the same unit."""

    name: str
    ours: float
    theirs: float
    unit: str
    target: float | None  # None: for comparison only
    against: str
    spread: tuple[float, float] = (0, 0)  # of ours
    better: str = "low"  # the good side of the target
    cpu: float | None = None  # CPU seconds of both daemons for one of ours
    noise: float = 0  # half of the other's values are within this fraction of its median

    @property
    def ratio(self) -> float:
        return self.ours / self.theirs

    @property
    def met(self) -> bool:
        if self.target is None:
            return True
        return self.ratio <= self.target if self.better == "low" else self.ratio >= self.target


@dataclass
class Bench:
    build: Path
    transport: str
    quick: bool
    # Data of the plots: for each family, the points (x, y) or the sorted values of each curve.
    series: dict[str, dict[str, list]] = field(default_factory=dict)
    findings: list[str] = field(default_factory=list)  # results that are not ratios
    begin: float = field(default_factory=time.monotonic)

    def runs(self, full: int, quick: int = 1) -> int:
        return quick if self.quick else full

    def say(self, text: str) -> None:
        """Prints a line of progress, with the seconds since the start."""
        print(f"   {time.monotonic() - self.begin:6.0f} s  {text}", file=sys.stderr, flush=True)

    def pair(self) -> EmPair:
        self.say("a new pair")
        return EmPair(build_dir=self.build, transport=self.transport, log_level=6, wrapper=SILENT)


def row(name: str, ours: Sequence[float], theirs: Sequence[float], unit: str, target: float | None,
        against: str, **more) -> Row:
    middle = statistics.median(theirs)
    quarters = statistics.quantiles(theirs, n=4) if len(theirs) > 3 else [middle] * 3
    return Row(name, statistics.median(ours), middle, unit, target, against,
               (min(ours), max(ours)), noise=(quarters[2] - quarters[0]) / 2 / middle, **more)


# Trees.

def make_small(root: Path, count: int, size: int = 1024) -> None:
    for i in range(count):
        folder = root / f"d{i // 1000}"
        if i % 1000 == 0:
            folder.mkdir(parents=True)
        (folder / f"file{i:06d}").write_bytes((b"%08d" % i) * (size // 8))


def make_large(root: Path, count: int, size: int = 1 << 20) -> None:
    root.mkdir(parents=True)
    for i in range(count):
        (root / f"large{i:03d}").write_bytes(os.urandom(size))


def make_mixed(pair: EmPair, bench: Bench) -> Path:
    """The tree of most rows: many small files and some large ones."""
    root = pair.path(1, ACTIVE)
    make_small(root / "small", 500 if bench.quick else 5000)
    make_large(root / "large", 4 if bench.quick else 40)
    return root


def change_every_chunk(root: Path, size: int) -> None:
    for path in root.glob("large*"):
        with path.open("r+b") as file:
            for offset in range(0, size, CHUNK):
                file.seek(offset)
                byte = file.read(1)[0]
                file.seek(offset)
                file.write(bytes([byte ^ 1]))
        os.utime(path, (1, 1))


def clear(pair: EmPair, n: int, tree: str = ACTIVE) -> None:
    pair.run(n, ["find", tree, "-mindepth", "1", "-delete"], check=True)


def forget_digests(pair: EmPair) -> None:
    for n in EMS:
        pair.run(n, ["find", PERSISTENT, "-name", DIGESTS, "-delete"], check=True)


def put_on_disk(pair: EmPair, mebibytes: int) -> None:
    """Gives each EM a separate ext4 on a loop device for its persistent trees."""
    for n in EMS:
        disk = pair.work_dir / f"em{n}" / "disk"
        pair.run(n, ["truncate", "-s", f"{mebibytes}M", str(disk)], check=True)
        pair.run(n, ["mkfs.ext4", "-q", str(disk)], check=True)
        pair.run(n, ["mount", "-n", "-o", "loop", str(disk), PERSISTENT], check=True)
        for tree in (ACTIVE, OWN, PEERS):
            pair.path(n, tree).mkdir()


# The daemons.

def ask(caller: Caller, asked: Update = SYNC) -> float:
    """Seconds until the answer; a failure raises an error."""
    begin = time.monotonic()
    caller.send(asked)
    result = caller.outcome()
    seconds = time.monotonic() - begin
    if result is None or not result.success or not result.peer_present:
        raise RuntimeError(f"exchange failed: {result}")
    return seconds


def process_sum(pair: EmPair, file: str, key: str = "") -> list[int]:
    """For each daemon, the sum over its threads of the first number after `key`."""
    return [sum(int(path.read_text().split(key, 1)[1].split()[0]) if key else
                int(path.read_text().split()[0])
                for path in Path(f"/proc/{pair.process(n, 'daemon').pid}/task").glob(f"*/{file}"))
            for n in EMS]


def cpu_seconds(pair: EmPair) -> float:
    """CPU seconds of both daemons since their start."""
    return sum(process_sum(pair, "schedstat")) / 1e9


def memory(pair: EmPair, n: int, what: str) -> int:
    """Bytes of VmHWM or VmRSS of EM `n`'s daemon."""
    status = Path(f"/proc/{pair.process(n, 'daemon').pid}/status").read_text()
    return int(status.split(f"{what}:")[1].split()[0]) * 1024


class Timed:
    """Exchanges of one caller: the seconds of each. The daemons do nothing else meanwhile."""

    def __init__(self, pair: EmPair):
        self.pair, self.caller = pair, Caller(pair, 1, None)
        self.seconds: list[float] = []
        self.cpu = 0.0  # CPU seconds of both daemons per exchange; they may exit before it is read
        self._cpu_before = cpu_seconds(pair)

    def ask(self, asked: Update = SYNC) -> float:
        self.seconds.append(ask(self.caller, asked))
        self.cpu = (cpu_seconds(self.pair) - self._cpu_before) / len(self.seconds)
        return self.seconds[-1]


@contextmanager
def counted_calls(pair: EmPair, thread: str | None = None):
    """Yields a list. After the block it holds, for each EM, the number of system calls of its daemon, or of one
    of its threads."""
    tracers: list[subprocess.Popen[str]] = []
    counts: list[int] = []
    for n in EMS:
        pid = pair.process(n, "daemon").pid
        what = ["-f", "-p", str(pid)] if thread is None else ["-p", next(
            task.name for task in Path(f"/proc/{pid}/task").iterdir()
            if (task / "comm").read_text().strip() == thread)]
        tracer = subprocess.Popen(["strace", "-c", "-U", "calls,name", *what], text=True,
                                  stderr=subprocess.PIPE)
        tracers.append(tracer)
        assert tracer.stderr and "attached" in tracer.stderr.readline()
    time.sleep(0.2)  # all threads
    yield counts
    for tracer in tracers:
        tracer.send_signal(signal.SIGINT)
        table = tracer.communicate(timeout=60)[1]
        counts += map(int, re.findall(r"(\d+) +total", table))


# The floors.

def data_files(root: Path) -> list[tuple[str, int]]:
    """Relative path and size of each file in a tree."""
    return [(str(path.relative_to(root)), path.stat().st_size)
            for folder, _, names in os.walk(root) for path in (Path(folder, n) for n in names)
            if not path.name.startswith(DIGESTS[:-1])]


def chunk_sizes(size: int) -> list[int]:
    return [CHUNK] * (size // CHUNK) + [size % CHUNK]


def listing_size(root: Path) -> int:
    return sum(len(chunk_sizes(size)) * (LINE_HEAD + len(os.fsencode(path)) + 1)
               for path, size in data_files(root))


def pushes(root: Path, tree: str = ACTIVE, copy: str = ACTIVE) -> list[str]:
    """The updates that make `copy` on the peer from `tree`, which is at `root` for this process."""
    lines = []
    for path, size in data_files(root):
        base = HEADER + UPDATE_HEADER + len(os.fsencode(path)) + 1
        lines += [f"1 {base + chunk} {base} push {tree}/{path} {copy}/{path} {i * CHUNK} {chunk} "
                  f"{size}" for i, chunk in enumerate(chunk_sizes(size))]
    return lines


def exchange(request: int, listing: int, updates: list[str], lock_work: str = "") -> list[str]:
    """All messages of an exchange. `request` and `listing` are payload sizes."""
    return [f"1 {HEADER} 0 {lock_work}", f"1 {HEADER + request} {HEADER + listing} scan", *updates,
            f"1 {HEADER} 0 report"]


def floor(pair: EmPair, bench: Bench, script: list[str], kind: str, rounds: int = 1) -> list[float]:
    """Seconds of each round of the script's messages, with or without work."""
    program = str(bench.build / "cpg_floor")
    # Corosync's library prints a line while it waits, so this output is of use only after a failure.
    with tempfile.TemporaryFile("w+") as output:
        answering = pair.popen(2, [program, "answer"], stdout=output, stderr=output)
        asked = pair.run(1, [program, "ask", str(rounds), *(["--work"] if kind == WORK else [])],
                         input="\n".join(script), timeout=600, check=True)
        if answering.wait(timeout=20) != 0:
            output.seek(0)
            raise RuntimeError(f"the floor's answering side failed: {output.read()[-2000:]}")
    return [float(line) for line in asked.stdout.splitlines() if line[:1].isdigit()]
