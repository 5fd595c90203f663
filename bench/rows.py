"""The rows of the benchmarks. Each function measures one family and returns its rows."""

import os
import statistics
import subprocess
import time
from collections.abc import Callable
from pathlib import Path

from caller import Caller
from em_pair import ACTIVE, EMS, OWN, PEERS, EmPair
from keeper import LINK
from measure import (CHUNK, HEADER, MESSAGES, UPDATE_HEADER, WORK, Bench, Row, Timed, ask,
                     change_every_chunk, clear, counted_calls, cpu_seconds, exchange, floor,
                     forget_digests, listing_size, make_large, make_mixed, make_small, memory,
                     process_sum, pushes, put_on_disk, row)
from others import Csync2, Other, Rsync, Unison

PAIRS = 3  # for rows near their target, because one pair may be slower than the next, floors included


def sha1(bench: Bench) -> list[Row]:
    lines = subprocess.run([bench.build / "scan_rate", "128" if bench.quick else "1024",
                            str(bench.runs(9, 2))], cwd=bench.build, capture_output=True, text=True,
                           check=True).stdout.splitlines()
    rates = [(float(words[1]), float(words[4])) for words in map(str.split, lines)]
    return [row("SHA-1 of a cold tree of large files", [scan for scan, _ in rates],
                [loop for _, loop in rates], "MB/s", 0.97, "read(2) and SHA-1 in a loop",
                better="high")]


def nothing_to_do(bench: Bench) -> list[Row]:
    rows, name = [], "exchange with nothing to do"
    with bench.pair() as pair:
        root = make_mixed(pair, bench)
        warm = Timed(pair)
        warm.ask()
        warm.ask()  # the peer hashes its copies once
        timed = Timed(pair)
        others: list[tuple[Other, float | None]] = [(Rsync(pair, "-ac"), 0.5), (Unison(pair), None)]
        for other, _ in others:
            other.sync()
        script = exchange(2, listing_size(root), [])
        digests, before = digest_times(pair), sum(written(pair))
        bare: list[float] = []
        theirs: dict[str, list[float]] = {other.name: [] for other, _ in others}
        for _ in range(bench.runs(11, 2)):
            timed.ask()
            bare += floor(pair, bench, script, WORK, 2)[1:]
            for other, _ in others:
                theirs[other.name].append(other.sync())
        bench.findings.append(
            f"An exchange with nothing to do: {(sum(written(pair)) - before) // len(bare):,} B "
            "written on both sides together, log lines included; digest files "
            f"{'untouched' if digest_times(pair) == digests else 'REWRITTEN'}.")
        rows.append(row(name, timed.seconds, bare, "s", 1.25, WORK, cpu=timed.cpu))
        rows += [row(name, timed.seconds, theirs[other.name], "s", target, other.name)
                 for other, target in others]
    with bench.pair() as pair:
        # csync2 needs the same path on both sides, so make our copy first.
        make_mixed(pair, bench)
        ours = Timed(pair)
        ours.ask()
        other = Csync2(pair)
        other.clear()
        other.sync()
        rows.append(row(name, timed.seconds, [other.sync() for _ in range(bench.runs(5))], "s",
                        None, other.name))
    return rows


def written(pair: EmPair) -> list[int]:
    """Bytes that each daemon has passed to write(2)."""
    return [int(Path(f"/proc/{pair.process(n, 'daemon').pid}/io").read_text()
                .split("wchar: ")[1].split()[0]) for n in EMS]


def digest_times(pair: EmPair) -> list[int]:
    return [file.stat().st_mtime_ns for n in EMS
            for file in sorted(pair.path(n, ACTIVE).rglob(".$SyncDigest$*"))]


def measure_first_sync(bench: Bench, on_disk: bool, floors: tuple[str, ...], rounds: int,
                       ) -> tuple[dict[str, list[float]], float]:
    """Seconds of first syncs of the mixed tree by the daemon and the floors, in turn; CPU seconds of one."""
    seconds: dict[str, list[float]] = {kind: [] for kind in ("daemon", *floors)}
    cpu: list[float] = []
    for _ in range(bench.runs(PAIRS)):
        with bench.pair() as pair:
            if on_disk:
                put_on_disk(pair, 512)
            script = exchange(2, 0, pushes(make_mixed(pair, bench)))
            timed = Timed(pair)
            for _ in range(rounds):
                forget_digests(pair)
                timed.ask()
                clear(pair, 2)
                for kind in floors:
                    forget_digests(pair)
                    seconds[kind] += floor(pair, bench, script, kind)
                    clear(pair, 2)
            seconds["daemon"] += timed.seconds
            cpu.append(timed.cpu)
    return seconds, statistics.mean(cpu)


def first_sync(bench: Bench) -> list[Row]:
    name = "first sync, in memory"
    seconds, cpu = measure_first_sync(bench, False, (WORK, MESSAGES), bench.runs(4))
    rows = [row(name, seconds["daemon"], seconds[kind], "s", target, kind, cpu=cpu)
            for kind, target in ((WORK, 1.12), (MESSAGES, None))]
    with bench.pair() as pair:
        make_mixed(pair, bench)
        kinds: tuple[tuple[Callable[[EmPair], Other], float | None], ...] = (
            (Csync2, 0.3), (lambda p: Rsync(p, "-a"), None), (Unison, None))
        for kind, target in kinds:
            other = kind(pair)
            theirs: list[float] = []
            for _ in range(bench.runs(3)):
                other.clear()
                theirs.append(other.sync())
            rows.append(row(name, seconds["daemon"], theirs, "s", target, other.name))
    return rows


def first_sync_on_disk(bench: Bench) -> list[Row]:
    name = "first sync, on disk, durable"
    seconds, cpu = measure_first_sync(bench, True, (WORK,), bench.runs(2))
    with bench.pair() as pair:
        put_on_disk(pair, 512)
        make_mixed(pair, bench)
        other, theirs = Rsync(pair, "-a", "--fsync"), []
        for _ in range(bench.runs(3)):
            other.clear()
            theirs.append(other.sync())
    return [row(name, seconds["daemon"], seconds[WORK], "s", 1.2, f"{WORK}, on disk", cpu=cpu),
            row(name, seconds["daemon"], theirs, "s", None, f"{other.name}, on disk")]


def large_files(bench: Bench) -> list[Row]:
    """A few large files, up to 4 GiB in all, with a change in every chunk.

    The files are overwritten, not created: in a virtual machine the first use of memory costs several times
    as much as the rest of a chunk.
    """
    counts = {False: [1, 2] if bench.quick else [1, 4, 16],
              True: [1, 2] if bench.quick else [1, 4]}
    size = ((4 if bench.quick else 64) << 20) - 1  # avoids an empty chunk at the end
    curves: dict[str, list[tuple[int, float]]] = {}
    for on_disk in (False, True):
        place = ", on disk" if on_disk else ""
        for count in counts[on_disk]:
            mebibytes = count * (size + 1) >> 20
            for kind, seconds in change_all(bench, count, size, on_disk).items():
                curves.setdefault(kind + place, []).append((mebibytes, seconds))
    bench.series["bytes"] = curves
    return [row(f"{x:,} MiB in files of {(size + 1) >> 20} MiB, all chunks changed{place}", [ours],
                [theirs], "s", None, WORK + place)
            for place, last in (("", len(counts[False])), (", on disk", len(counts[True])))
            for (x, ours), (_, theirs) in [(curves["daemon" + place][last - 1],
                                            curves[WORK + place][last - 1])]]


def change_all(bench: Bench, count: int, size: int, on_disk: bool) -> dict[str, float]:
    """Seconds of an exchange of `count` files with every chunk changed, and of its floors."""
    seconds = {}
    with bench.pair() as pair:
        if on_disk:
            put_on_disk(pair, 1024)
        root = pair.path(1, ACTIVE) / "large"
        make_large(root, count, size)
        timed = Timed(pair)
        timed.ask()
        timed.ask()  # the peer hashes its copies once
        script = exchange(2, listing_size(root.parent), pushes(root.parent))
        for kind in ("daemon", WORK) if on_disk else ("daemon", WORK, MESSAGES):
            change_every_chunk(root, size)
            if kind == WORK:  # which trusts digest files
                pair.run(1, ["find", ACTIVE, "-name", ".$SyncDigest$*", "-delete"], check=True)
            seconds[kind] = (timed.ask() if kind == "daemon" else
                             floor(pair, bench, script, kind)[0])
    return seconds


def too_large(bench: Bench) -> list[Row]:
    """The answer to a caller if hashing takes longer than the short timeout, and how long that lasts."""
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
            time.sleep(5)  # a late answer aborts the exchange that runs when it arrives
            attempt += 1
            begin = time.monotonic()
            caller.send()
            result = caller.outcome()
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
        """Bytes transferred over the link in both directions."""
        counters = pair.run(1, ["cat", "/proc/net/dev"], check=True).stdout
        words = counters.split(f" {LINK}:")[1].split()
        return int(words[0]) + int(words[8])

    with bench.pair() as pair:
        root = pair.path(1, ACTIVE)
        make_large(root / "large", 1, size)
        timed = Timed(pair)
        timed.ask()
        timed.ask()  # the peer hashes its copy once
        listing, used = listing_size(root), []
        path = next((root / "large").glob("large*"))
        for i in range(bench.runs(5)):
            with path.open("r+b") as file:
                file.seek(7 * CHUNK)
                file.write(os.urandom(CHUNK))
            second = int(path.stat().st_mtime) + 2 + i
            os.utime(path, (second, second))
            before = wire(pair)
            timed.ask()
            used.append(wire(pair) - before)
    return [row(f"one 64 KiB change in a file of {size >> 20} MiB", used, [2 * CHUNK + listing], "B",
                1, "2 chunks and the listing")]


def measure_renames(bench: Bench, on_disk: bool, floors: tuple[str, ...], count: int,
                    ) -> tuple[dict[str, list[float]], float]:
    """Milliseconds of publishing a file by the daemon and the floors, in turn; CPU seconds of one."""
    seconds: dict[str, list[float]] = {kind: [] for kind in ("daemon", *floors)}
    cpu: list[float] = []
    source, target = f"{OWN}/TempUpdate_bench", f"{OWN}/target"
    size, base = 4096, HEADER + UPDATE_HEADER + len("target") + 1
    push = f"1 {base + size} {base} push {target} {PEERS}/target 0 {size} {size}"
    for _ in range(bench.runs(PAIRS)):
        with bench.pair() as pair:
            if on_disk:
                put_on_disk(pair, 64)
            root = pair.path(1, OWN)
            make_small(root / "small", 10, 256)
            Timed(pair).ask()
            script = exchange(len(source) + len(target) + 2, listing_size(root), [push],
                              f"publish {source} {target} {size}")
            timed = Timed(pair)
            for _ in range(2):
                for _ in range(count):
                    pair.path(1, source).write_bytes(os.urandom(size))
                    timed.ask((source, target))
                for kind in floors:
                    seconds[kind] += floor(pair, bench, script, kind, count)
            seconds["daemon"] += timed.seconds
            cpu.append(timed.cpu)
    return ({kind: [1000 * s for s in values] for kind, values in seconds.items()},
            statistics.mean(cpu))


def calls(bench: Bench) -> list[Row]:
    """System calls, which do not vary with noise."""
    files = bench.runs(5000, 1000)
    with bench.pair() as pair, Caller(pair, 1, None) as caller:
        ask(caller)
        make_small(pair.path(1, ACTIVE) / "small", files)
        with counted_calls(pair, "sync_thread") as first:
            ask(caller)
    count, size = bench.runs(20, 5), 4096
    source, target = f"{OWN}/TempUpdate_bench", f"{OWN}/file0"
    with bench.pair() as pair:
        for i in range(8):
            (pair.path(1, OWN) / f"file{i}").write_bytes(os.urandom(size))
        Timed(pair).ask()
        with counted_calls(pair) as renames:
            for _ in range(count):
                pair.path(1, source).write_bytes(os.urandom(size))
                with Caller(pair, 1, None) as caller:
                    ask(caller, (source, target))
    return [row(f"system calls of {what}, {who}", [value], [bound], "", 1, f"{bound:g}")
            for what, values, bounds in (
                ("a first sync for each small file", [n / files for n in first], (17.5, 21)),
                ("a rename, 8 files a side", [n / count for n in renames], (120, 96)))
            for who, value, bound in zip(("requester", "responder"), values, bounds)]


def rename(bench: Bench) -> list[Row]:
    ours, cpu = measure_renames(bench, False, (WORK, MESSAGES), bench.runs(100, 10))
    durable, durable_cpu = measure_renames(bench, True, (WORK,), bench.runs(30, 10))
    bench.series["rename"] = {kind: sorted(values) for kind, values in ours.items()} | {
        f"{kind}, on disk": sorted(values) for kind, values in durable.items()}
    name = "RPC rename of a 4 KiB file, trees of 10 files"
    return [row(name, ours["daemon"], ours[WORK], "ms", 1.2, WORK, cpu=cpu),
            row(name, ours["daemon"], ours[MESSAGES], "ms", None, MESSAGES),
            row(f"{name}, on disk, durable", durable["daemon"], durable[WORK], "ms", 1.25,
                f"{WORK}, on disk", cpu=durable_cpu)]


def fill(pair: EmPair, count: int) -> Timed:
    for n in EMS:
        make_small(pair.path(n, ACTIVE) / "s", count, 256)
    return Timed(pair)


def growth(bench: Bench) -> list[Row]:
    """Both sizes in turn, on two pairs. Page faults and bare work show what grows."""
    counts = (1000, 10000) if bench.quick else (10000, 100000)
    with bench.pair() as first, bench.pair() as second:
        pairs = dict(zip(counts, (first, second)))
        timed = {n: fill(pair, n) for n, pair in pairs.items()}
        bare: dict[int, list[float]] = {n: [] for n in counts}
        scripts = {n: exchange(2, listing_size(pair.path(1, ACTIVE)), [])
                   for n, pair in pairs.items()}
        for one in timed.values():
            one.ask()
            one.seconds.clear()
        cpu = {n: cpu_seconds(pair) for n, pair in pairs.items()}
        faults = {n: sum(minor_faults(pair)) for n, pair in pairs.items()}
        for _ in range(bench.runs(7, 2)):
            for n in counts:
                timed[n].ask()
                bare[n] += floor(pairs[n], bench, scripts[n], WORK)
        for n, pair in pairs.items():
            rounds = len(timed[n].seconds)
            bench.findings.append(
                f"{n:,} files a side: {(cpu_seconds(pair) - cpu[n]) / rounds / n * 1e6:.2f} us of "
                "both daemons' processor time and "
                f"{(sum(minor_faults(pair)) - faults[n]) / rounds / n:.2f} page faults a file.")
    small, large = counts
    what = f"{small:,} to {large:,} files"
    return [row(f"exchange with nothing to do, {what}", timed[large].seconds,
                [10 * s for s in timed[small].seconds], "s", 1.1, "ten times the smaller one"),
            row(f"{WORK} of the same, {what}", bare[large], [10 * s for s in bare[small]], "s",
                None, "ten times the smaller one")]


def minor_faults(pair: EmPair) -> list[int]:
    return [int(Path(f"/proc/{pair.process(n, 'daemon').pid}/stat").read_text()
                .rsplit(")", 1)[1].split()[7]) for n in EMS]


def scale(bench: Bench) -> list[Row]:
    counts = [1000, 10000] if bench.quick else [10000, 50000, 100000, 250000]
    seconds, used = {}, {}
    curves: dict[str, list[tuple[int, float]]] = {"daemon": [], WORK: [], "rsync -ac": []}
    for count in counts:
        with bench.pair() as pair:
            base = memory(pair, 1, "VmHWM")
            timed = fill(pair, count)
            seconds[count] = [timed.ask() for _ in range(bench.runs(3))]
            peak = memory(pair, 1, "VmHWM")
            used[count] = (peak - base) / (2 * count)
            pid = pair.process(1, "daemon").pid
            bench.findings.append(
                f"{count:,} files a side: {peak >> 20} MiB peak memory of the requester,"
                f" {len(os.listdir(f'/proc/{pid}/fd'))} descriptors afterwards.")
            script = exchange(2, listing_size(pair.path(1, ACTIVE)), [])
            other = Rsync(pair, "-ac")
            other.sync()
            curves["daemon"].append((count, min(seconds[count])))
            curves[WORK].append((count, min(floor(pair, bench, script, WORK, bench.runs(3)))))
            curves[other.name].append((count, other.sync()))
    bench.series["files"] = curves
    most = counts[-1]
    return [row("requester's memory per chunk of both listings", [used[most]], [600], "B", 1,
                "600 bytes"),
            row(f"exchange with {most:,} files a side", seconds[most], [10], "s", 1,
                "the 10 s timeout", cpu=timed.cpu)]


def at_rest(bench: Bench) -> list[Row]:
    """The cost of an idle pair: each daemon, and its Corosync for comparison."""
    with bench.pair() as pair:
        make_mixed(pair, bench)
        timed = Timed(pair)
        timed.ask()
        timed.ask()
        time.sleep(2)
        begin, cpu, woken = time.monotonic(), cpu_seconds(pair), sum(wakeups(pair))
        time.sleep(bench.runs(30, 5))
        hours = (time.monotonic() - begin) / 3600
        bench.findings.append(
            f"A daemon at rest: {(sum(wakeups(pair)) - woken) / hours / 2:,.0f} wake-ups and "
            f"{(cpu_seconds(pair) - cpu) / hours / 2:.2f} s of processor time an hour, "
            f"{memory(pair, 1, 'VmRSS') / 2**20:.1f} MiB resident.")
    return []


def wakeups(pair: EmPair) -> list[int]:
    return process_sum(pair, "status", "\nvoluntary_ctxt_switches:")


ROWS = {"sha1": sha1, "idle": nothing_to_do, "first": first_sync, "disk": first_sync_on_disk,
        "bytes": large_files, "chunk": one_chunk, "rename": rename, "calls": calls, "growth": growth,
        "scale": scale, "rest": at_rest, "limit": too_large}
