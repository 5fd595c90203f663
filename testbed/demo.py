#!/usr/bin/python3
"""Two EMs on this machine replicate real trees, change roles, survive a cut link and undo a mistake.

Prints what happens and how long it takes. The exit status is 0 only if all copies are identical after every
step.
"""

import os
import random
import shutil
import signal
import sys
import time
from collections.abc import Callable
from pathlib import Path

from em_pair import ACTIVE, OWN, PEERS, REPO, VOLATILE, EmPair, PairError, wait_for
from trees import count, differences, files, same_outline

FILES_FROM = ("/usr/include", "/usr/share/doc", "/etc", "/usr/lib")
SHARED_FILES = 3000
OWN_FILES = 300
MAX_FILE = 1 << 20
MAX_DEPTH = 12
LARGE_SIZES = (1 << 20) + 1, 5 << 20, (8 << 20) + 12345
DEADLINE = 60


class Mismatch(Exception):
    pass


def say(text: str = "") -> None:
    print(text, flush=True)


def step(title: str) -> None:
    say(f"\n== {title}")


def amount(number: int, size: int) -> str:
    return f"{number:,} files, {size / 1e6:,.1f} MB"


def timed(text: str, action: Callable):
    """Runs `action` and prints how long it took; returns its result."""
    start = time.monotonic()
    result = action()
    seconds = time.monotonic() - start
    say(f"   {text}: {seconds:.2f} s" if seconds >= 1 else f"   {text}: {seconds * 1e3:.1f} ms")
    return result


def real_files(limit: int) -> list[Path]:
    """Up to `limit` regular files of this machine, the same at every call."""
    found: list[Path] = []
    for top in FILES_FROM:
        for folder, subfolders, names in os.walk(top):
            subfolders.sort()
            if folder.count("/") >= MAX_DEPTH:
                subfolders.clear()
            for path in (Path(folder, name) for name in sorted(names)):
                if path.is_file() and not path.is_symlink() and path.stat().st_size < MAX_FILE:
                    found.append(path)
                    if len(found) == limit:
                        return found
    return found


def copy_files(sources: list[Path], root: Path) -> None:
    for source in sources:
        target = root / source.relative_to("/")
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(source, target)


def make_large_files(root: Path, seed: int) -> None:
    noise = random.Random(seed)
    root.mkdir(parents=True, exist_ok=True)
    for number, size in enumerate(LARGE_SIZES):
        (root / f"large{number}").write_bytes(noise.randbytes(size))
    private = root / "private key"
    private.write_bytes(noise.randbytes(3000))
    private.chmod(0o600)


def change_some(root: Path) -> str:
    """Changes files without the daemon; returns what was done."""
    small = sorted(name for name in files(root) if not name.startswith("made/"))
    names = [root / name for name in small]
    for path in names[:100]:
        with open(path, "ab") as file:
            file.write(b"\nchanged\n")
    for path in names[100:150]:
        path.unlink()
    for number in range(50):
        (root / f"new file {number}").write_text(f"{number}\n" * number)
    large = root / "made/large1"
    with open(large, "r+b") as file:
        file.seek(large.stat().st_size // 2)
        file.write(b"one changed place in a large file")
    return "100 files longer, 50 deleted, 50 new, one place in a 5 MiB file"


class Demo:
    def __init__(self, pair: EmPair):
        self.pair = pair

    def ask(self, n: int, *command: str):
        return self.pair.ctl(n, "--timeout", str(DEADLINE), *command, timeout=DEADLINE + 10)

    def do(self, text: str, n: int, *command: str) -> None:
        """Sends a command to EM `n`'s daemon; it must succeed."""
        answer = timed(text, lambda: self.ask(n, *command))
        if answer.returncode != 0:
            raise Mismatch(f"cluster_sync_ctl {' '.join(command)} on EM {n} failed:\n"
                           f"{answer.stdout}{answer.stderr}")

    def told(self, text: str, expected: str, n: int, *command: str) -> None:
        """Sends a command to EM `n`'s daemon and prints the answer, which must have the line `expected`."""
        answer = timed(text, lambda: self.ask(n, *command))
        lines = (answer.stdout + answer.stderr).splitlines()
        for line in lines:
            say(f"      {line}")
        if expected not in (" ".join(line.split()) for line in lines):
            raise Mismatch(f"cluster_sync_ctl {' '.join(command)} on EM {n} did not answer "
                           f"'{expected}'")

    def compared(self, text: str, differing: int) -> None:
        """Prints EM 2's comparison of the trees; `differing` is the expected exit status."""
        answer = timed(text, lambda: self.ask(2, "compare"))
        for line in answer.stdout.splitlines()[:6]:
            say(f"      {line}")
        if answer.returncode != differing:
            raise Mismatch(f"cluster_sync_ctl compare on EM 2 ended with {answer.returncode}:\n"
                           f"{answer.stdout[:1000]}{answer.stderr}")

    def replicas(self) -> list[tuple[str, Path, Path]]:
        active = 1 if self.pair.is_active(1) else 2
        standby = 3 - active
        at = self.pair.path
        return [
            (f"active tree, EM {active} to {standby}", at(active, ACTIVE), at(standby, ACTIVE)),
            (f"volatile tree, EM {active} to {standby}", at(active, VOLATILE),
             at(standby, VOLATILE)),
            ("EM 1's own tree on EM 2", at(1, OWN), at(2, PEERS)),
            ("EM 2's own tree on EM 1", at(2, OWN), at(1, PEERS)),
        ]

    def compare(self) -> None:
        for name, source, copy in self.replicas():
            found = differences(source, copy)
            if found:
                raise Mismatch(f"{name}: {len(found)} differences:\n" + "\n".join(found[:20]))
            say(f"   identical: {name}, {amount(*count(source))}")

    def identical(self) -> bool:
        trees = [(source, copy) for _, source, copy in self.replicas()]
        return (all(same_outline(*pair) for pair in trees) and
                not any(differences(*pair) for pair in trees))

    def prepare(self, n: int, name: str, size: int) -> str:
        """Writes a file to the active tree under a name that is not replicated."""
        path = f"{ACTIVE}/TempUpdate_{name}"
        self.pair.path(n, path).write_bytes(random.Random(name).randbytes(size))
        return path

    # The steps of the demo.

    def fill(self) -> None:
        step("Two EMs with different trees, nothing replicated yet")
        sources = real_files(SHARED_FILES + 2 * OWN_FILES)
        shared, own = sources[2 * OWN_FILES:], sources[:2 * OWN_FILES]
        at = self.pair.path
        copy_files(shared, at(1, ACTIVE))
        make_large_files(at(1, ACTIVE) / "made", 0)
        copy_files(own[:50], at(1, VOLATILE))
        for n in (1, 2):
            copy_files(own[(n - 1) * OWN_FILES:n * OWN_FILES], at(n, OWN))
            make_large_files(at(n, OWN) / "made", n)
        (at(2, ACTIVE) / "left over").write_text("only the standby EM has this, so it must go\n")
        for name, source, _ in self.replicas():
            say(f"   {name}: {amount(*count(source))}")

    def first_sync(self) -> None:
        step("The daemons start; the active EM 1 starts the first exchange by itself")
        start = time.monotonic()
        for n in (1, 2):
            self.pair.start_daemon(n)
        timed("both joined the group", self.pair.wait_joined)
        self.do("first exchange done, and a second one with nothing to do", 1, "sync")
        moved = [count(copy) for _, _, copy in self.replicas()]
        say(f"   in all {amount(sum(m[0] for m in moved), sum(m[1] for m in moved))} in "
            f"{time.monotonic() - start:.2f} s")
        self.compare()

    def single_updates(self) -> None:
        step("A local program replaces and deletes replicated files through the daemon")
        target = f"{ACTIVE}/settings/network.conf"
        self.pair.path(1, f"{ACTIVE}/settings").mkdir()
        for attempt in ("new file of 4 KiB renamed into place", "and replaced"):
            self.do(attempt, 1, "update", self.prepare(1, attempt, 4096), target)
        self.do("8 MiB file renamed on both EMs", 1, "update", f"{ACTIVE}/made/large2",
                f"{ACTIVE}/made/large renamed")
        self.do("5 MiB file in its own tree deleted by EM 2", 2, "delete", f"{OWN}/made/large1")
        self.told("the standby EM may not change the active tree",
                  f"cluster_sync_ctl: not deleted: Attempt to update shared replicated area while not "
                  f"active '{ACTIVE}/file'", 2, "delete", f"{ACTIVE}/file")
        self.compare()

    def plain_sync(self) -> None:
        step("Files change without the daemon, then a sync is requested")
        say(f"   on EM 1: {change_some(self.pair.path(1, ACTIVE))}")
        self.do("sync", 1, "sync")
        self.do("sync with nothing to do", 1, "sync")
        self.compare()

    def switch_roles(self) -> None:
        step("EM 2 becomes active; the shared trees now flow from EM 2 to EM 1")
        self.pair.set_active(2)
        say(f"   on EM 2: {change_some(self.pair.path(2, ACTIVE))}")
        (self.pair.path(2, VOLATILE) / "role").write_text("EM 2 is active\n")
        self.do("sync asked for on EM 2", 2, "sync")
        self.do("update on EM 2", 2, "update", self.prepare(2, "from EM 2", 4096),
                f"{ACTIVE}/settings/network.conf")
        self.compare()

    def cut_link(self) -> None:
        step("The link between the EMs is cut and healed")
        pair = self.pair
        self.compared("compare before the cut", 0)
        pair.cut()
        timed("cut; each EM sees that the other one is gone", lambda: wait_for(
            lambda: all(pair.node_members(n) == {n} for n in (1, 2)), DEADLINE, "split"))
        self.told("an update is done on this EM, and its caller learns that the other EM is away",
                  "published here; the other EM is away", 2, "update", self.prepare(2, "alone", 4096),
                  f"{ACTIVE}/settings/written alone")
        say(f"   on EM 2: {change_some(pair.path(2, ACTIVE))}")
        say(f"   on EM 1, its own tree: {change_some(pair.path(1, OWN))}")
        if self.identical():
            raise Mismatch("the trees are identical although no packet passed")
        pair.heal()
        timed("healed; the daemons found each other and repaired the trees by themselves",
              lambda: wait_for(self.identical, DEADLINE, "the trees are identical again", 0.2))
        self.do("sync", 2, "sync")
        self.compare()
        self.compared("compare after the cut", 0)

    def refuse_role(self) -> None:
        step("EM 1 tries to become active with an empty tree and is refused")
        self.pair.set_role(2, False)
        self.pair.run(1, ["find", ACTIVE, "-mindepth", "1", "-delete"], check=True)
        total = count(self.pair.path(2, ACTIVE))[0]
        self.compared("compare", 1)
        self.told("the role is refused", f"cluster_sync_ctl: becoming active would delete {total} of "
                  f"{total} files that the other EM has in 'active'; use --force to make this EM active "
                  "anyway", 1, "role", "active")
        self.do("EM 2 is active again", 2, "role", "active")
        self.do("EM 1 gets its tree back", 2, "sync")
        self.compare()

    def get_back(self) -> None:
        step("A file is overwritten by mistake; EM 1 has kept the old version, which is restored")
        target = f"{ACTIVE}/settings/addresses"
        for text, content in (("written on EM 2", "address 192.0.2.7\n"), ("overwritten", "oops\n")):
            prepared = self.prepare(2, "addresses", 1)
            self.pair.path(2, prepared).write_text(content)
            self.do(text, 2, "update", prepared, target)
        listed = self.ask(1, "kept").stdout.splitlines()
        name = listed[-1].split(maxsplit=5)[5]
        say(f"   EM 1 has kept {len(listed):,} files, this one last:\n      {listed[-1]}")
        self.told("its differences", "-address 192.0.2.7", 1, "kept", "diff", name)
        self.pair.path(2, "/run/old").write_text(self.ask(1, "kept", "restore", name, "-").stdout)
        self.told("restored on EM 2", "published on both EMs", 2, "put", "/run/old", target)
        if "192.0.2.7" not in self.pair.path(1, target).read_text():
            raise Mismatch(f"{target} is not what it was")
        self.compare()

    def run(self) -> None:
        self.fill()
        self.first_sync()
        self.single_updates()
        self.plain_sync()
        self.switch_roles()
        self.cut_link()
        self.refuse_role()
        self.get_back()


def show_logs(pair: EmPair) -> None:
    for n in (1, 2):
        say(f"\n-- end of the daemon's log on EM {n}")
        say("\n".join(pair.log(n).splitlines()[-30:]))


def main() -> int:
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))
    start = time.monotonic()
    pair = EmPair(build_dir=sys.argv[1] if len(sys.argv) > 1 else REPO / "build",
                  log_level=5, environment={"KEEP_REPLACED_MIB": "64"})
    verdict = "FAILED"
    try:
        step("Two EMs start: namespaces, a link, a Corosync on each")
        timed("up", lambda: pair.start(daemons=False))
        Demo(pair).run()
        verdict = "identical on both EMs after every step"
    except (PairError, Mismatch) as error:
        say(f"\n{error}")
        show_logs(pair)
    except KeyboardInterrupt:
        verdict = "stopped"
    finally:
        step("Everything is stopped")
        timed("down", pair.stop)
    say(f"\nTrees: {verdict}. {time.monotonic() - start:.1f} s in all.")
    return 0 if verdict.startswith("identical") else 1


if __name__ == "__main__":
    sys.exit(main())
