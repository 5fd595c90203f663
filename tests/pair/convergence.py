"""Random operations on both EMs of a pair, and a model of what replication must make of them.

The model starts from the trees before a request. It applies the request on both EMs like the daemons do, and
then predicts every tree after a successful exchange: the sources are unchanged, the copies have the same
files, with the mode class of a copy.
"""

import hashlib
import os
import random
import shutil
import stat
from dataclasses import dataclass, field
from pathlib import Path

from em_pair import ACTIVE, EMS, OWN, PEERS, PERSISTENT, VOLATILE
from support import ROOTS, Caller, flows
from trees import OPEN_TO_ALL, UNREPLICATED

CHUNK = 65536
TEMPORARY, DIGEST = UNREPLICATED
NEW = f"{TEMPORARY}new"  # made by the driver
TOPS = (PERSISTENT, os.path.dirname(VOLATILE))
SIZES = (0, 1, 100, 4000, CHUNK - 1, CHUNK, CHUNK + 1, 2 * CHUNK, 2 * CHUNK + 1, 300_000)
MODES = (0o644, 0o644, 0o644, 0o755, 0o664, 0o640, 0o600, 0o400)
NAMES = ("a", "b", "c", "d  e", "ü", "line\nbreak", "behind ", "%s%n", "'\"\\", "\udcff\udc80",
         ".hidden", "n" * 240, "A 0 0 0 G x")
NAMES_AT_A_TIME = 5  # few, so that files and directories collide
FILES_PER_TREE = 12


def expect(condition: object, text: str) -> None:
    if not condition:
        raise AssertionError(text)


# The model.


@dataclass(frozen=True)
class Node:
    """The object at a path: a file if it has content, otherwise a directory or something special."""

    mode: int
    mtime: int = field(compare=False)
    content: bytes | None = field(default=None, repr=False)

    @property
    def restricted(self) -> bool:
        return self.mode & OPEN_TO_ALL != OPEN_TO_ALL


class Machine:
    """Everything below the roots of one EM, by absolute path."""

    def __init__(self, pair, n: int):
        self.nodes: dict[str, Node] = {}
        for top in (*ROOTS, *(f"{top}/{NEW}" for top in TOPS)):
            outside = str(pair.path(n, top))
            walk: list[tuple[str, list[str], list[str]]] = [("", [outside], []), *os.walk(outside)]
            for folder, subfolders, names in walk:
                for path in (os.path.join(folder, name) for name in subfolders + names):
                    try:
                        status = os.lstat(path)
                        content = (Path(path).read_bytes() if stat.S_ISREG(status.st_mode)
                                   else None)
                    except FileNotFoundError:  # does not exist yet, or a daemon is changing it
                        continue
                    self.nodes[top + path[len(outside):]] = Node(
                        status.st_mode, int(status.st_mtime), content)

    def files(self, root: str) -> dict[str, Node]:
        """The replicated files of a tree by relative path."""
        return {path[len(root) + 1:]: node for path, node in self.nodes.items()
                if node.content is not None and path.startswith(root + "/") and
                not os.path.basename(path).startswith(DIGEST) and f"/{TEMPORARY}" not in path}

    def rename(self, source: str, destination: str) -> bool:
        """rename(2) between paths that are not roots."""
        moved, replaced = self.nodes.get(source), self.nodes.get(destination)
        parent = self.nodes.get(os.path.dirname(destination))
        if moved is None or parent is None or not stat.S_ISDIR(parent.mode) or (
                source.startswith(PERSISTENT) != destination.startswith(PERSISTENT)):
            return False  # the last root is on another file system
        if source == destination:
            return True
        if destination.startswith(source + "/") or replaced and (
                stat.S_ISDIR(replaced.mode) != stat.S_ISDIR(moved.mode) or
                self._below(destination)):
            return False
        for path in [source, *self._below(source)]:
            self.nodes[destination + path[len(source):]] = self.nodes.pop(path)
        return True

    def _below(self, path: str) -> list[str]:
        return [other for other in self.nodes if other.startswith(path + "/")]

    def unlink(self, path: str) -> bool:
        return (path in self.nodes and not stat.S_ISDIR(self.nodes[path].mode) and
                bool(self.nodes.pop(path)))

    def left_over(self) -> list[str]:
        return [path for path in self.nodes
                if f"/{TEMPORARY}" in path and not path.endswith(NEW)]

    def wrong_digests(self) -> list[str]:
        """Digest cache files that a scan would trust although the data file has other content."""
        wrong = []
        for path, node in self.nodes.items():
            data = self.nodes.get(path.replace(DIGEST, ""))
            if DIGEST not in path or data is None or data.content is None:
                continue
            chunks = [data.content[begin:begin + CHUNK]
                      for begin in range(0, len(data.content) + 1, CHUNK)]
            lines = [f"{hashlib.sha1(chunk).hexdigest()} {i * CHUNK:08x} "
                     f"{i * CHUNK + len(chunk):08x}\n" for i, chunk in enumerate(chunks)]
            header = f"Digest-V1 {len(data.content)} {data.mtime}\n"
            text = (node.content or b"").decode()
            if text.startswith(header) and text != header + "".join(lines):
                wrong.append(path)
        return wrong


def is_shared(path: str) -> bool:
    return path.startswith((ACTIVE + "/", VOLATILE + "/"))


def copied(source: Node, old: Node | None) -> Node:
    """The copy of a file after an exchange that found `old` in its place."""
    mode = stat.S_IFREG | (0o600 if source.restricted else 0o644)
    content = source.content or b""
    # Only a chunk that is the whole file replaces the file including its mode.
    if old is not None and old.restricted == source.restricted and (
            len(content) > CHUNK or (old.content or b"")[:CHUNK] == content[:CHUNK]):
        mode = old.mode
    return Node(mode, 0, source.content)


# The driver.


class Driver:
    """Operations drawn from `seed` on a pair with empty trees, EM 1 active.

    All random choices come from the seed, so that a run can be repeated.
    """

    def __init__(self, pair, callers: dict[int, Caller], seed: int):
        """`callers` are lasting connections, one for each EM."""
        self.callers = callers
        self.pair, self._at, self.random = pair, pair.path, random.Random(seed)
        self.names = self.random.sample(NAMES, NAMES_AT_A_TIME)
        self.active = 1
        self.history: list[str] = []  # of the burst
        self._second = 1_500_000_000

    def burst(self) -> None:
        """Some operations, a request, and exchanges until one of the active EM succeeds."""
        self.history = []
        for _ in range(self.random.randint(1, 8)):
            self._operate()
        chance = self.random.random()
        if chance < 0.8:
            self._ask(self.active if self.random.random() < 0.75 else 3 - self.active,
                      *self._some_request())
        expect(self._ask(self.active, "", ""), "no success")

    # Requests and their expected results.

    def _ask(self, n: int, source: str, destination: str) -> bool:
        """A request and its effects on both EMs. Returns whether it succeeded."""
        machines = {m: Machine(self.pair, m) for m in EMS}
        refused = not self._apply(machines, n, source, destination)
        trees = {(m, root): machines[m].files(root) for m in EMS for root in ROOTS}
        wanted = trees | {(3 - m, copy): {name: copied(node, trees[3 - m, copy].get(name))
                                          for name, node in trees[m, root].items()}
                          for m, root, copy in flows(self.active, n)}
        self.callers[n].send((source, destination))
        result = self.callers[n].result()
        self.history.append(f"EM {n}: '{source}' -> '{destination}': {result}")
        if refused:
            expect(not result.success and not result.local_ok, "what cannot be carried out was")
            wanted = trees
        else:
            expect(result.success and result.peer_present and not result.reason, "a failure without a cause")
        self._compare(wanted)
        return result.success

    def _apply(self, machines: dict[int, Machine], n: int, source: str, destination: str) -> bool:
        """The effect of a request on EM `n`, and on its peer; False if it is refused."""
        if destination.startswith(PEERS + "/") or n != self.active and is_shared(destination):
            return False
        if not source:
            return not destination or machines[n].unlink(destination)
        if not machines[n].rename(source, destination):
            return False
        copies = [copy for path in (source, destination) if (copy := self._copy(n, path))]
        if f"/{TEMPORARY}" not in source and len(copies) == 2:
            machines[3 - n].rename(*copies)
        return True

    def _copy(self, n: int, path: str) -> str | None:
        """The path of the other EM's copy of EM `n`'s file."""
        if path.startswith(OWN + "/"):
            return PEERS + path[len(OWN):]
        return path if is_shared(path) and n == self.active else None

    def _compare(self, wanted: dict[tuple[int, str], dict[str, Node]]) -> None:
        found = {n: Machine(self.pair, n) for n in EMS}
        different = []
        for (n, root), want in wanted.items():
            have = found[n].files(root)
            different += [f"EM {n} {root}: {name}: {want.get(name)} became {have.get(name)}"
                          for name in want.keys() | have.keys() if want.get(name) != have.get(name)]
        different += [f"EM {n}: {path}" for n in EMS for path in (
            *found[n].wrong_digests(), *found[n].left_over())]
        expect(not different, "\n".join(different))

    def _some_request(self) -> tuple[str, str]:
        chance = self.random.random()
        n = self.random.choice(EMS)
        if chance < 0.3:
            return "", ""
        destination = self._some_path(n, self.random.choice(ROOTS))
        if chance < 0.45:
            return "", destination
        if chance < 0.75:
            places = self.random.sample((*TOPS, *ROOTS), len(TOPS) + len(ROOTS))
            top = next(place for place in places if destination.startswith(place + "/"))
            source = f"{top}/{NEW}"
            for m in EMS:  # only one of them may be sent
                self._write(m, source)
            return source, destination
        root = self.random.choice((*ROOTS, OWN, ACTIVE))
        if self.random.random() < 0.7:
            destination = self._some_path(n, root)
        return self._some_path(n, root), destination

    # Operations without the daemons.

    def _paths(self, n: int, root: str, folders: bool = False) -> list[str]:
        """The replicated files of a tree, or its directories."""
        wanted = stat.S_ISDIR if folders else stat.S_ISREG
        outside = self._at(n, root)
        return sorted(f"{root}/{path.relative_to(outside)}" for path in outside.rglob("*")
                      if not path.name.startswith(UNREPLICATED) and wanted(path.lstat().st_mode))

    def _some_path(self, n: int, root: str) -> str:
        """A path below a root: usually of a file, sometimes of a directory or of nothing yet."""
        chance = self.random.random()
        known = self._paths(n, root, folders=chance < 0.12) if chance < 0.65 else []
        if known:
            return self.random.choice(known)
        return "/".join([root, *self.random.choices(self.names, k=self.random.randint(1, 3))])

    def _make_room(self, n: int, path: str) -> Path:
        """Makes the directories above `path`, replacing files in their place."""
        for folder in reversed(self._at(n, path).parents):
            if not folder.is_dir():
                folder.unlink(missing_ok=True)
                folder.mkdir()
        return self._at(n, path)

    def _remove(self, target: Path) -> None:
        if target.is_dir():
            shutil.rmtree(target)
        else:
            target.unlink(missing_ok=True)

    def _touch(self, target: Path) -> None:
        self._second += 1  # a second that no file had before
        os.utime(target, (self._second, self._second))

    def _write(self, n: int, path: str) -> None:
        size, mode = self.random.choice(SIZES), self.random.choice(MODES)
        self.history.append(f"EM {n}: write {size} bytes {mode:o} {path}")
        target = self._make_room(n, path)
        self._remove(target)
        target.write_bytes(self.random.randbytes(size))
        target.chmod(mode)
        self._touch(target)

    def _operate(self) -> None:
        chance = self.random.random()
        if chance < 0.04:
            self.active = 3 - self.active
            self.pair.set_active(self.active)
            self.history.append(f"EM {self.active} is active")
            return
        n, root = self.random.choice(EMS), self.random.choice(ROOTS)
        path = self._some_path(n, root)
        target = self._at(n, path)
        crowded = len(self._paths(n, root)) > FILES_PER_TREE
        if chance < 0.4 and not crowded:
            self._write(n, path)
        elif chance < 0.68 and target.is_file():
            self._edit(n, path)
        elif chance < 0.82 and target.exists():
            self.history.append(f"EM {n}: delete {path}")
            self._remove(target)
        else:
            self.history.append(f"EM {n}: directory {path}")
            self._make_room(n, f"{path}/file")

    def _edit(self, n: int, path: str) -> None:
        """Grows, shrinks or changes a file in place."""
        target = self._at(n, path)
        content = target.read_bytes()
        at = self.random.choice((0, 1, CHUNK - 1, CHUNK, 2 * CHUNK, len(content) // 2))
        how, content = self.random.choice((
            ("grow", content + self.random.randbytes(self.random.choice((1, 100, CHUNK)))),
            ("shrink", content[:at]),
            ("swap", content[CHUNK:] + content[:CHUNK]),  # content that the other side has elsewhere
            ("change", content[:at] + b"?" + content[at + 1:]),
            ("chmod", content)))
        self.history.append(f"EM {n}: {how} to {len(content)} bytes {path}")
        if how == "chmod":
            target.chmod(self.random.choice(MODES))
        else:
            target.write_bytes(content)
            self._touch(target)
