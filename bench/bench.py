"""Measures the daemon on the testbed against the wire, rsync, csync2 and unison; see ../run bench.

Every row is a ratio of two things measured in turn in one run, over the same link between the same
namespaces and on equal trees: medians, with the spread of ours. Nothing here passes or fails.
"""

import argparse
import json
import os
import statistics
import subprocess
import sys
import time
from dataclasses import asdict, dataclass, field
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(REPO / "testbed"))
sys.dont_write_bytecode = True

import plots  # noqa: E402
from caller import SYNC, Caller, request  # noqa: E402
from em_pair import ACTIVE, EMS, OWN, EmPair, wait_for  # noqa: E402
from keeper import ADDRESSES, LINK  # noqa: E402

HEADER, UPDATE_HEADER, CHUNK, LINE_HEAD = 148, 32, 65536, 63
TREE = Path(ACTIVE)


@dataclass
class Row:
    name: str
    ours: float
    theirs: float
    unit: str
    reach: float | None  # None: for comparison only
    against: str
    spread: tuple[float, float] = (0, 0)  # of ours
    better: str = "low"  # which side of the reach is the good one
    notes: list[str] = field(default_factory=list)

    @property
    def ratio(self) -> float:
        return self.ours / self.theirs

    @property
    def reached(self) -> bool:
        if self.reach is None:
            return True
        return self.ratio <= self.reach if self.better == "low" else self.ratio >= self.reach


class Bench:
    def __init__(self, build: Path, transport: str, quick: bool):
        self.build, self.transport, self.quick = build, transport, quick
        # What the plots show: per family the points (x, y) or the sorted values of each curve.
        self.series: dict[str, dict[str, list]] = {}
        self.findings: list[str] = []  # what no ratio tells

    def runs(self, full: int, quick: int = 1) -> int:
        return quick if self.quick else full

    def pair(self) -> EmPair:
        return EmPair(build_dir=self.build, transport=self.transport, log_level=6)


def ask(caller: Caller, message: bytes = SYNC) -> float:
    """Seconds until the answer; a failure is an error."""
    begin = time.monotonic()
    caller.send(message)
    result = caller.result()
    seconds = time.monotonic() - begin
    if result is None or not result.success or result.peer_present != "Y":
        raise RuntimeError(f"exchange failed: {result}")
    return seconds


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
    """The tree of most rows: many small and some large files."""
    root = pair.path(1, ACTIVE)
    make_small(root / "small", 500 if bench.quick else 5000)
    make_large(root / "large", 4 if bench.quick else 40)
    return root


def clear(pair: EmPair, n: int, what: str = ".") -> None:
    pair.run(n, ["find", TREE / what, "-mindepth", "1", "-delete"], check=True)


def forget_digests(pair: EmPair) -> None:
    for n in EMS:
        pair.run(n, ["find", TREE, "-name", ".$SyncDigest$*", "-delete"], check=True)


def update_sizes(root: Path) -> list[tuple[int, int]]:
    """Request and answer size of the message of every chunk of a tree."""
    sizes = []
    for folder, _, names in os.walk(root):
        for name in names:
            if name.startswith(".$SyncDigest$"):
                continue
            path = Path(folder, name)
            base = HEADER + UPDATE_HEADER + len(os.fsencode(path.relative_to(root))) + 1
            size = path.stat().st_size
            chunks = [CHUNK] * (size // CHUNK) + [size % CHUNK]
            sizes += [(base + chunk, base) for chunk in chunks]
    return sizes


def listing_size(root: Path) -> int:
    return sum(LINE_HEAD + answer - HEADER - UPDATE_HEADER for _, answer in update_sizes(root))


# The others.

def floor(pair: EmPair, build: Path, script: list[tuple[int, int, int]], rounds: int) -> list[float]:
    """Seconds of each round of bare messages."""
    answering = pair.popen(2, [build / "cpg_floor", "answer"])
    text = "\n".join(" ".join(map(str, step)) for step in script)
    asked = pair.run(1, [build / "cpg_floor", "ask", str(rounds)], input=text, timeout=600,
                     check=True)
    answering.wait(timeout=20)
    return [float(line) for line in asked.stdout.split()]


def timed(pair: EmPair, argv: list, **options) -> float:
    """Seconds of a command on EM 1, without the start of one that does nothing there."""
    begin = time.monotonic()
    pair.run(1, ["true"], check=True)
    start = time.monotonic()
    pair.run(1, argv, timeout=600, check=True, **options)
    return (time.monotonic() - start) - (start - begin)


class Rsync:
    name = "rsync -ac"

    def __init__(self, pair: EmPair):
        self.pair = pair
        config = pair.path(2, "/run/rsyncd.conf")
        config.write_text("use chroot = no\nuid = root\ngid = root\n[tree]\n"
                          "path = /mnt/part.persistent/rsync\nread only = no\n")
        pair.run(2, ["mkdir", "-p", "/mnt/part.persistent/rsync"])
        pair.popen(2, ["rsync", "--daemon", "--no-detach", "--config=/run/rsyncd.conf"])

    def clear(self) -> None:
        self.pair.run(2, ["find", "/mnt/part.persistent/rsync", "-mindepth", "1", "-delete"])

    def sync(self) -> float:
        return timed(self.pair, ["rsync", "-ac", "--delete", "--exclude=.$SyncDigest$*",
                                 f"{ACTIVE}/", f"rsync://{ADDRESSES[2]}/tree/"])


class Csync2:
    name = "csync2"

    def __init__(self, pair: EmPair):
        self.pair = pair
        for n in EMS:
            pair.path(n, "/run/csync2.key").write_text("a.key.of.this.measurement." * 4 + "\n")
            pair.path(n, "/run/csync2.cfg").write_text(
                "nossl * *;\ngroup pair {\n" +
                "".join(f"  host em{m}@{ADDRESSES[m]};\n" for m in EMS) +
                f"  key /run/csync2.key;\n  include {ACTIVE};\n  exclude *SyncDigest*;\n"
                "  auto younger;\n}\n")
            pair.path(n, "/run/hosts").write_text(
                "".join(f"{ADDRESSES[m]} em{m}\n" for m in EMS))
            for ours, theirs in (("/run/csync2.cfg", "/etc/csync2.cfg"), ("/run/hosts", "/etc/hosts")):
                pair.run(n, ["mount", "--bind", ours, theirs], check=True)
            pair.run(n, ["mkdir", "-p", "/run/csync2.db"], check=True)
        pair.popen(2, ["csync2", "-ii", "-N", "em2", "-D", "/run/csync2.db"],
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def clear(self) -> None:
        clear(self.pair, 2)
        for n in EMS:
            self.pair.run(n, ["find", "/run/csync2.db", "-mindepth", "1", "-delete"])

    def sync(self) -> float:
        return timed(self.pair, ["csync2", "-x", "-r", "-N", "em1", "-D", "/run/csync2.db"])


class Unison:
    name = "unison"

    def __init__(self, pair: EmPair):
        self.pair = pair
        for n in EMS:
            pair.run(n, ["mkdir", "-p", "/run/unison", "/mnt/part.persistent/unison"], check=True)
        pair.popen(2, ["env", "UNISON=/run/unison", "unison", "-socket", "5000"],
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        time.sleep(1)

    def clear(self) -> None:
        self.pair.run(2, ["find", "/mnt/part.persistent/unison", "-mindepth", "1", "-delete"])
        for n in EMS:
            self.pair.run(n, ["find", "/run/unison", "-mindepth", "1", "-delete"])

    def sync(self) -> float:
        return timed(self.pair, [
            "env", "UNISON=/run/unison", "unison", ACTIVE,
            f"socket://{ADDRESSES[2]}:5000//mnt/part.persistent/unison", "-batch", "-auto",
            "-silent", "-force", ACTIVE, "-ignore", "Name .$SyncDigest$*"])


def row(name: str, ours: list[float], theirs: list[float], unit: str, reach: float | None,
        against: str, **more) -> Row:
    return Row(name, statistics.median(ours), statistics.median(theirs), unit, reach, against,
               (min(ours), max(ours)), **more)


# The rows.

def sha1(bench: Bench) -> list[Row]:
    lines = subprocess.run([bench.build / "scan_rate", "128" if bench.quick else "1024",
                            str(bench.runs(9, 2))], cwd=bench.build, capture_output=True, text=True,
                           check=True).stdout.splitlines()
    rates = [(float(words[1]), float(words[4])) for words in map(str.split, lines)]
    return [row("SHA-1 of a cold tree of large files", [scan for scan, _ in rates],
                [bare for _, bare in rates], "MB/s", 0.85, "SHA-1 in memory, one core",
                better="high")]


def nothing_to_do(bench: Bench) -> list[Row]:
    with bench.pair() as pair:
        make_mixed(pair, bench)
        caller = Caller(pair, 1, None)
        ask(caller)
        ask(caller)  # the peer hashes its copies once
        rows = []
        digests, before = digest_times(pair), written(pair)
        ours = [ask(caller) for _ in range(bench.runs(9, 2))]
        bench.findings.append(
            f"An exchange with nothing to do: {(written(pair) - before) // len(ours):,} B written on "
            "both sides together, log lines included; digest files "
            f"{'untouched' if digest_times(pair) == digests else 'REWRITTEN'}.")
        for other in (Rsync(pair), Unison(pair)):
            wait_for(lambda: other.sync() >= 0, 30, other.name)
            theirs = [other.sync() for _ in range(bench.runs(5))]
            reach = 0.75 if isinstance(other, Rsync) else None
            rows.append(row("exchange with nothing to do", ours, theirs, "s", reach, other.name))
    with bench.pair() as pair:
        # One that needs the very same path on both sides, after our own copy is there.
        make_mixed(pair, bench)
        caller = Caller(pair, 1, None)
        ask(caller)
        other = Csync2(pair)
        other.clear()
        other.sync()
        theirs = [other.sync() for _ in range(bench.runs(5))]
        rows.append(row("exchange with nothing to do", ours, theirs, "s", None, other.name))
    return rows


def written(pair: EmPair) -> int:
    """Bytes that both daemons have given to write(2)."""
    return sum(int(Path(f"/proc/{pair.process(n, 'daemon').pid}/io").read_text()
                   .split("wchar: ")[1].split()[0]) for n in EMS)


def digest_times(pair: EmPair) -> list[int]:
    return [file.stat().st_mtime_ns for n in EMS
            for file in sorted(pair.path(n, ACTIVE).rglob(".$SyncDigest$*"))]


def first_sync(bench: Bench) -> list[Row]:
    ours, bare, others = [], [], {}
    with bench.pair() as pair:
        root = make_mixed(pair, bench)
        caller = Caller(pair, 1, None)
        script = [(1, asked, answer) for asked, answer in update_sizes(root)]
        for _ in range(bench.runs(5)):
            clear(pair, 2)
            forget_digests(pair)
            ours.append(ask(caller))
            bare += floor(pair, bench.build, script, 1)
        for kind in (Rsync, Unison, Csync2):
            other = kind(pair)
            others[other.name] = []
            for _ in range(bench.runs(3)):
                other.clear()
                others[other.name].append(other.sync())
    messages = f"{len(script)} updates"
    rows = [row("first sync", ours, bare, "s", 1.15, "bare messages", notes=[messages])]
    reaches = {"csync2": 0.4}
    return rows + [row("first sync", ours, theirs, "s", reaches.get(name), name)
                   for name, theirs in others.items()]


def large_files(bench: Bench) -> list[Row]:
    """Few large files, up to 4 GiB in all, with a change in every chunk.

    Written over, not made: the first use of memory that a virtual machine has not touched lately
    costs several times what the rest of a chunk does.
    """
    counts = [1, 2] if bench.quick else [1, 4, 16, 64]
    size = ((4 if bench.quick else 64) << 20) - 1  # no empty chunk at the end
    ours, bare = {}, {}
    for count in counts:
        with bench.pair() as pair:
            root = pair.path(1, ACTIVE)
            make_large(root / "large", count, size)
            caller = Caller(pair, 1, None)
            ask(caller)
            ask(caller)  # the peer hashes its copies once
            change_every_chunk(root / "large", size)
            ours[count] = [ask(caller)]
            script = [(1, asked, answer) for asked, answer in update_sizes(root)]
            bare[count] = floor(pair, bench.build, script, 1)
    bench.series["bytes"] = {
        name: [(count * (size + 1) >> 20, runs[0]) for count, runs in curve.items()]
        for name, curve in (("daemon", ours), ("bare messages", bare))}
    return [row(f"{count * (size + 1) >> 20:,} MiB in {count} files, all chunks changed",
                ours[count], bare[count], "s", None, "bare messages")
            for count in (counts[0], counts[-1])]


def change_every_chunk(root: Path, size: int) -> None:
    for path in root.glob("large*"):
        with path.open("r+b") as file:
            for offset in range(0, size, CHUNK):
                file.seek(offset)
                byte = file.read(1)[0]
                file.seek(offset)
                file.write(bytes([byte ^ 1]))
        os.utime(path, (1, 1))


def too_large(bench: Bench) -> list[Row]:
    """What the caller hears when hashing takes longer than the short timeout, and until when."""
    if bench.quick:
        return []
    count = 8
    with bench.pair() as pair:
        for n in EMS:
            for i in range(count):
                path = pair.path(n, ACTIVE) / f"hole{i}"
                with path.open("wb") as file:
                    file.truncate(3 << 30)
                os.utime(path, (1, 1))
        caller, attempt, result = Caller(pair, 1, None), 0, None
        while attempt < 8 and not (result and result.success):
            time.sleep(5)  # an answer that comes too late ends the exchange that it meets
            attempt += 1
            begin = time.monotonic()
            caller.send()
            result = caller.result()
            if result is None:
                raise RuntimeError("the daemon has ended")
            bench.findings.append(
                f"{3 * count} GiB a side, never hashed, exchange {attempt}: "
                f"{'success' if result.success else repr(result.reason)} "
                f"after {time.monotonic() - begin:.1f} s.")
    return []


def one_chunk(bench: Bench) -> list[Row]:
    size = (64 if bench.quick else 1024) << 20

    def wire(pair: EmPair) -> int:
        """Bytes that the link has carried, both ways."""
        counters = pair.run(1, ["cat", "/proc/net/dev"], check=True).stdout
        words = counters.split(f" {LINK}:")[1].split()
        return int(words[0]) + int(words[8])

    with bench.pair() as pair:
        root = pair.path(1, ACTIVE)
        make_large(root / "large", 1, size)
        caller = Caller(pair, 1, None)
        ask(caller)
        ask(caller)  # the peer hashes its copy once
        listing = listing_size(root)
        used = []
        for i in range(bench.runs(5)):
            path = next((root / "large").glob("large*"))
            with path.open("r+b") as file:
                file.seek(7 * CHUNK)
                file.write(os.urandom(CHUNK))
            second = int(path.stat().st_mtime) + 2 + i
            os.utime(path, (second, second))
            before = wire(pair)
            ask(caller)
            used.append(wire(pair) - before)
    return [row(f"one 64 KiB change in a file of {size >> 20} MiB", used, [2 * CHUNK + listing], "B",
                1, "2 chunks and the listing", notes=[f"listing {listing} B"])]


def rename(bench: Bench) -> list[Row]:
    count = bench.runs(300, 20)
    with bench.pair() as pair:
        root = pair.path(1, OWN)
        make_small(root / "small", 10, 256)
        caller = Caller(pair, 1, None)
        ask(caller)
        source, target = f"{OWN}/TempUpdate_bench", f"{OWN}/target"
        ours = []
        for _ in range(count):
            pair.path(1, source).write_bytes(os.urandom(4096))
            ours.append(ask(caller, request(source, target)))
        base = HEADER + UPDATE_HEADER + len("target") + 1
        asked = HEADER + len(source) + len(target) + 2
        script = [(1, HEADER, 0), (1, asked, HEADER + listing_size(root)),
                  (1, base + 4096, base), (1, HEADER, 0)]
        bare = floor(pair, bench.build, script, count)
    bench.series["rename"] = {"daemon": sorted(1000 * s for s in ours),
                              "bare messages": sorted(1000 * s for s in bare)}
    return [row("RPC rename of a 4 KiB file, trees of 10 files", [1000 * s for s in ours],
                [1000 * s for s in bare], "ms", 1.5, "the same number of bare messages")]


def scale(bench: Bench) -> list[Row]:
    counts = [1000, 10000] if bench.quick else [10000, 50000, 100000, 250000]
    seconds, theirs, memory, rows = {}, {}, {}, []
    for count in counts:
        with bench.pair() as pair:
            for n in EMS:
                make_small(pair.path(n, ACTIVE) / "s", count, 256)
            base = high_water(pair)
            caller = Caller(pair, 1, None)
            seconds[count] = [ask(caller) for _ in range(bench.runs(3))]
            memory[count] = (high_water(pair) - base) / (2 * count)
            pid = pair.process(1, "daemon").pid
            bench.findings.append(
                f"{count:,} files a side: {high_water(pair) >> 20} MiB peak memory of the requester,"
                f" {len(os.listdir(f'/proc/{pid}/fd'))} descriptors afterwards.")
            other = Rsync(pair)
            wait_for(lambda: other.sync() >= 0, 60, other.name)
            theirs[count] = other.sync()
    bench.series["files"] = {"daemon": [(n, min(runs)) for n, runs in seconds.items()],
                             Rsync.name: list(theirs.items())}
    small, large = (counts[0], counts[-1]) if bench.quick else (10000, 100000)
    rows.append(row(f"exchange, {small:,} to {large:,} files", seconds[large],
                    [10 * s for s in seconds[small]], "s", 1.1, "ten times the smaller one"))
    rows.append(row("requester's memory per chunk of both listings", [memory[large]], [600], "B", 1,
                    "600 bytes"))
    rows.append(row(f"exchange with {counts[-1]:,} files a side", seconds[counts[-1]], [10], "s", 1,
                    "the 10 s timeout"))
    return rows


def high_water(pair: EmPair) -> int:
    status = Path(f"/proc/{pair.process(1, 'daemon').pid}/status").read_text()
    return int(status.split("VmHWM:")[1].split()[0]) * 1024


ROWS = {"sha1": sha1, "idle": nothing_to_do, "first": first_sync, "bytes": large_files,
        "chunk": one_chunk, "rename": rename, "scale": scale, "limit": too_large}


def print_table(rows: list[Row]) -> None:
    print(f"{'work':<48}{'ours':>10} {'':<5}{'other':>10} {'':<5}{'ratio':>7}{'reach':>7}  against")
    for r in rows:
        low, high = r.spread
        print(f"{r.name:<48}{r.ours:>10.4g} {r.unit:<5}{r.theirs:>10.4g} {r.unit:<5}"
              f"{r.ratio:>7.3f}{'-' if r.reach is None else f'{r.reach:.2f}':>7}"
              f"{' ' if r.reached else '!'} {r.against}"
              f"  ({low:.4g} to {high:.4g}){' ' + ', '.join(r.notes) if r.notes else ''}")


def main() -> None:
    parser = argparse.ArgumentParser(prog="./run bench", description=__doc__)
    parser.add_argument("rows", nargs="*", metavar="ROW", help=", ".join(ROWS))
    parser.add_argument("--quick", action="store_true", help="a smoke run on small trees")
    parser.add_argument("--transport", choices=("udpu", "knet"), default="udpu")
    parser.add_argument("--build", type=Path, default=REPO / "build")
    parser.add_argument("--out", type=Path, help="directory of results.json and the plots")
    options = parser.parse_args()
    unknown = set(options.rows) - set(ROWS)
    if unknown:
        parser.error(f"no such row: {', '.join(sorted(unknown))}")
    bench = Bench(options.build.resolve(), options.transport, options.quick)
    rows = []
    for name in options.rows or ROWS:
        print(f"{name} ...", file=sys.stderr, flush=True)
        rows += ROWS[name](bench)
    print(f"Corosync transport {options.transport}; medians, in brackets the spread of ours; "
          "'!' is out of reach")
    print_table(rows)
    print(*bench.findings, sep="\n")
    out = options.out or options.build / "bench"
    out.mkdir(parents=True, exist_ok=True)
    (out / "results.json").write_text(json.dumps(
        {"transport": options.transport, "quick": options.quick, "series": bench.series,
         "findings": bench.findings,
         "rows": [asdict(r) | {"ratio": r.ratio, "reached": r.reached} for r in rows]}, indent=1))
    plots.draw(out / "results.json")
    print(f"also in {out}, with plots")


if __name__ == "__main__":
    main()
