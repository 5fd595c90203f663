"""Random operations on both EMs of a pair, and a model of what replication must make of them.

The model starts from the trees as they are before a request. It carries the request out on both
EMs as the daemons do, and then says what every tree must hold once an exchange has succeeded:
the sources what they held, the copies the same files, with the permission class that a copy gets.
"""

import hashlib
import os
import random
import shutil
import stat
from dataclasses import dataclass, field
from pathlib import Path

from em_pair import PERSISTENT
from harness import ACTIVE, EMS, OWN, PEERS, ROOTS, VOLATILE
from support import DIAGNOSTIC, EDOM, SYNC, Caller, request
from trees import OPEN_TO_ALL, UNREPLICATED

CHUNK = 65536
TEMPORARY, DIGEST = UNREPLICATED
NEW, NOISE = f"{TEMPORARY}new", f"{TEMPORARY}noise"  # made by the driver
TOPS = (PERSISTENT, os.path.dirname(VOLATILE))
SIZES = (0, 1, 100, 4000, CHUNK - 1, CHUNK, CHUNK + 1, 2 * CHUNK, 2 * CHUNK + 1, 200_000)
RARE_SIZE, RARE = (1 << 20) + 17, 0.03
MODES = (0o644, 0o644, 0o644, 0o755, 0o664, 0o640, 0o600, 0o400)
NAMES = ("a", "b", "c", "d  e", "ü")
FILES_PER_TREE = 12
# Deletions at a place that the same exchange made a file or a directory of; the next one succeeds.
PLACE_TAKEN = tuple(f"Unable to delete file ({error}): "
                    for error in ("Is a directory", "Not a directory"))
MAX_ATTEMPTS = 3


class Divergence(AssertionError):
    """The trees, or an answer, are not what the model says."""


# The model.


@dataclass(frozen=True)
class Node:
    """What stands at a path: a file when it has content, else a directory or something special."""

    mode: int
    mtime: int = field(compare=False)
    content: bytes | None = field(default=None, repr=False)

    @property
    def is_dir(self) -> bool:
        return stat.S_ISDIR(self.mode)

    @property
    def restricted(self) -> bool:
        return self.mode & OPEN_TO_ALL != OPEN_TO_ALL


class Machine:
    """Everything below the roots of one EM, by absolute path."""

    def __init__(self, pair, n: int):
        self.nodes: dict[str, Node] = {}
        for root in ROOTS:
            outside = str(pair.path(n, root))
            self._read(root, outside)
            for folder, subfolders, names in os.walk(outside):
                for name in subfolders + names:
                    path = os.path.join(folder, name)
                    self._read(root + path[len(outside):], path)
        for top in TOPS:
            self._read(f"{top}/{NEW}", str(pair.path(n, f"{top}/{NEW}")))

    def _read(self, inside: str, path: str) -> None:
        try:
            status = os.lstat(path)
            content = Path(path).read_bytes() if stat.S_ISREG(status.st_mode) else None
        except FileNotFoundError:  # a daemon at work
            return
        self.nodes[inside] = Node(status.st_mode, int(status.st_mtime), content)

    def files(self, root: str) -> dict[str, Node]:
        """The replicated files of a tree by relative path."""
        found = {}
        for path, node in self.nodes.items():
            if node.content is None or not path.startswith(root + "/"):
                continue
            *folders, name = path[len(root) + 1:].split("/")
            if not name.startswith(UNREPLICATED) and not any(folder.startswith(TEMPORARY)
                                                             for folder in folders):
                found[path[len(root) + 1:]] = node
        return found

    def rename(self, source: str, destination: str) -> bool:
        """rename(2) between paths that are not roots."""
        moved, replaced = self.nodes.get(source), self.nodes.get(destination)
        parent = self.nodes.get(os.path.dirname(destination))
        if moved is None or parent is None or not parent.is_dir:
            return False
        if source.startswith(PERSISTENT) != destination.startswith(PERSISTENT):
            return False  # another file system
        if source == destination:
            return True
        if moved.is_dir:
            if destination.startswith(source + "/"):
                return False
            if replaced and (not replaced.is_dir or self._below(destination)):
                return False
        elif replaced and replaced.is_dir:
            return False
        for path in [source, *self._below(source)]:
            self.nodes[destination + path[len(source):]] = self.nodes.pop(path)
        return True

    def _below(self, path: str) -> list[str]:
        return [other for other in self.nodes if other.startswith(path + "/")]

    def unlink(self, path: str) -> bool:
        if path not in self.nodes or self.nodes[path].is_dir:
            return False
        del self.nodes[path]
        return True

    def wrong_digests(self) -> list[str]:
        """Digest cache files that a scan would trust although the data file has other content."""
        wrong = []
        for path, node in self.nodes.items():
            folder, name = os.path.split(path)
            data = self.nodes.get(f"{folder}/{name[len(DIGEST):]}")
            if not name.startswith(DIGEST) or data is None or data.content is None:
                continue
            header, *lines = node.content.decode().splitlines()
            content = data.content
            if header == f"Digest-V1 {len(content)} {data.mtime}":
                spans = range(0, len(content) + 1, CHUNK)
                chunks = [content[begin:begin + CHUNK] for begin in spans]
                if lines != [f"{hashlib.sha1(chunk).hexdigest()} {begin:08x} "
                             f"{begin + len(chunk):08x}" for begin, chunk in zip(spans, chunks)]:
                    wrong.append(f"untrue digest cache file: {path}")
        return wrong


def copied(source: Node, old: Node | None) -> Node:
    """The copy of a file after an exchange that found `old` at its place."""
    mode = stat.S_IFREG | (0o600 if source.restricted else 0o644)
    if old is not None:
        same_start = (old.restricted == source.restricted and
                      old.content[:CHUNK] == source.content[:CHUNK])
        # Only a chunk that is the whole file replaces the file, mode and all.
        if same_start or len(source.content) > CHUNK:
            mode = old.mode
    return Node(mode, 0, source.content)


def flows(active: int, requester: int) -> list[tuple[int, str, str]]:
    """The trees that an exchange of `requester` moves: EM of the source, its root, copy's root."""
    shared = [(active, root, root) for root in (ACTIVE, VOLATILE)] if active == requester else []
    return shared + [(n, OWN, PEERS) for n in EMS]


def expected_trees(machines: dict[int, Machine], active: int,
                   requester: int) -> dict[tuple[int, str], dict[str, Node]]:
    trees = {(n, root): machines[n].files(root) for n in EMS for root in ROOTS}
    wanted = dict(trees)
    for n, root, copy in flows(active, requester):
        old = trees[3 - n, copy]
        wanted[3 - n, copy] = {name: copied(node, old.get(name))
                               for name, node in trees[n, root].items()}
    return wanted


def tree_differences(wanted: dict[str, Node], found: dict[str, Node], where: str) -> list[str]:
    different = [f"{where}: missing: {name}" for name in wanted.keys() - found.keys()]
    different += [f"{where}: left over: {name}" for name in found.keys() - wanted.keys()]
    for name in wanted.keys() & found.keys():
        want, have = wanted[name], found[name]
        if want != have:
            same = "content differs" if want.content != have.content else "same content"
            different.append(f"{where}: {name}: {len(want.content)} bytes {want.mode:o} wanted, "
                             f"{len(have.content)} bytes {have.mode:o} found, {same}")
    return different


# The driver.


class Driver:
    """Operations drawn from `seed` on a pair with empty trees, EM 1 active.

    Everything that depends on chance comes from the seed, so that a run can be repeated.
    """

    def __init__(self, pair, seed: int):
        self.pair, self.random = pair, random.Random(seed)
        self.active = 1
        self.history: list[str] = []  # of the burst
        self._second = 1_500_000_000
        self._connections: dict[tuple[int, int], Caller] = {}

    def close(self) -> None:
        for caller in self._connections.values():
            caller.socket.close()

    def burst(self) -> None:
        """Some operations, a request, and exchanges until the active EM's succeeds."""
        self.history = []
        for _ in range(self.random.randint(1, 8)):
            self._operate()
        chance = self.random.random()
        if chance < 0.06:
            self._both_ask()
        elif chance < 0.16:
            self._ask_with_injected_failure()
        elif chance < 0.8:
            self._ask(self.active if self.random.random() < 0.75 else 3 - self.active,
                      *self._some_request())
        self._settle()

    # Requests and what must come of them.

    def call(self, n: int, message: bytes, kind: int = 0):
        """One of the lasting connections, with the message sent on it."""
        if (n, kind) in self._connections:
            self._connections[n, kind].send(message, kind)
        else:
            self._connections[n, kind] = Caller(self.pair, n, message, kind)
        return self._connections[n, kind]

    def _diag(self, n: int, command: str) -> None:
        self._note(f"EM {n}: {command}")
        if self.call(n, os.fsencode(command), DIAGNOSTIC).status() != 0:
            raise Divergence(f"{command} is refused")

    def _settle(self) -> None:
        for _ in range(MAX_ATTEMPTS):
            if self._ask(self.active, "", ""):
                return
        raise Divergence(f"no success in {MAX_ATTEMPTS} exchanges")

    def _ask(self, n: int, source: str, destination: str, injected: str = "") -> bool:
        """A request and its consequences on both EMs. Returns whether it succeeded."""
        machines = {m: Machine(self.pair, m) for m in EMS}
        refused = not self._apply(machines, n, source, destination, injected)
        wanted = expected_trees(machines, self.active, n)
        sources = [(m, root) for m, root, _ in flows(self.active, self.active)]
        result = self.call(n, request(source, destination)).result()
        self._note(f"EM {n}: '{source}' -> '{destination}': {result}")
        if refused:
            if result.success or result.local_ok:
                raise Divergence("a request that cannot be carried out was")
            self._compare({key: machines[key[0]].files(key[1]) for key in wanted})
        elif result.success:
            if result.peer_present != "Y" or result.reason:
                raise Divergence("success without the peer")
            self._compare(wanted)
        else:
            if result.remote_ok or not result.reason.startswith(
                    PLACE_TAKEN if not injected else (*PLACE_TAKEN, injected)):
                raise Divergence("a failure without a cause")
            self._compare({key: wanted[key] for key in sources})
        return result.success

    def _apply(self, machines: dict[int, Machine], n: int, source: str, destination: str,
               injected: str) -> bool:
        """What EM `n` does with a request, and its peer with the same one; false if refused."""
        if destination.startswith((ACTIVE + "/", VOLATILE + "/")) and n != self.active:
            return False
        if not source:
            return not destination or machines[n].unlink(destination)
        if injected.startswith("Could not update") or not machines[n].rename(source, destination):
            return False
        if f"/{TEMPORARY}" not in source:
            machines[3 - n].rename(source, destination)
        return True

    def _compare(self, wanted: dict[tuple[int, str], dict[str, Node]]) -> None:
        found = {n: Machine(self.pair, n) for n in EMS}
        different = []
        for (n, root), files in wanted.items():
            different += tree_differences(files, found[n].files(root), f"EM {n} {root}")
        if len(wanted) == len(EMS) * len(ROOTS):  # no repetition can be under way
            for n in EMS:
                different += [f"EM {n} {line}" for line in found[n].wrong_digests()]
                different += [f"EM {n} left over: {path}" for path in found[n].nodes
                              if f"/{TEMPORARY}" in path and not path.endswith((NEW, NOISE))]
        if different:
            raise Divergence("\n".join(different))

    def _some_request(self) -> tuple[str, str]:
        chance = self.random.random()
        n = self.random.choice(EMS)
        if chance < 0.3:
            return "", ""
        destination = self._some_path(n, self.random.choice(ROOTS))
        if chance < 0.45:
            return "", destination
        if chance < 0.75:
            top = next(top for top in self.random.sample((*TOPS, *ROOTS), len(TOPS) + len(ROOTS))
                       if destination.startswith(top + "/"))
            source = f"{top}/{NEW}"
            for m in EMS:  # only one of them is to be taken
                self._write(m, source, self._content(), self.random.choice(MODES))
                self._disguise(m, source, destination)
            return source, destination
        root = self.random.choice((*ROOTS, OWN, ACTIVE))
        if self.random.random() < 0.7:
            destination = self._some_path(n, root)
        return self._some_path(n, root), destination

    def _ask_with_injected_failure(self) -> None:
        command = self.random.choice(("fail-write", "fail-read", "fail-rename"))
        responder = 3 - self.active
        if command == "fail-write":
            path = self._some_path(self.active, self.random.choice((ACTIVE, VOLATILE)))
            victim, text = responder, "Unable to update file"
        elif command == "fail-read":
            path = self._some_path(responder, OWN)
            victim, text = responder, "Could not read file"
        else:
            path = self._some_path(self.active, ACTIVE)
            victim, text = self.active, "Could not update file"
        self._diag(victim, f"{command}={path}")
        asked = ("", "")
        if command == "fail-rename":
            self._write(self.active, f"{ACTIVE}/{NEW}", self._content(), 0o644)
            asked = (f"{ACTIVE}/{NEW}", path)
        self._ask(self.active, *asked, injected=f"{text} ({EDOM}): {path}"[:115])
        self._diag(victim, "fail-none")

    def _both_ask(self) -> None:
        results = [caller.result() for caller in [self.call(n, SYNC) for n in EMS]]
        self._note(f"both ask: {results}")
        for result in results:
            if not result.success and not result.reason.startswith(PLACE_TAKEN):
                raise Divergence("a failure without a cause")

    # Operations without the daemons.

    def _note(self, text: str) -> None:
        self.history.append(text)

    def _at(self, n: int, path: str) -> Path:
        return self.pair.path(n, path)

    def _content(self) -> bytes:
        rare = self.random.random() < RARE
        return self.random.randbytes(RARE_SIZE if rare else self.random.choice(SIZES))

    def _paths(self, n: int, root: str, folders: bool = False) -> list[str]:
        """The replicated files of a tree, or its folders."""
        outside = str(self._at(n, root))
        found = []
        for folder, subfolders, names in os.walk(outside):
            wanted = stat.S_ISDIR if folders else stat.S_ISREG
            for path in (os.path.join(folder, name) for name in subfolders + names
                         if not name.startswith(UNREPLICATED)):
                if wanted(os.lstat(path).st_mode):
                    found.append(root + path[len(outside):])
        return sorted(found)

    def _some_path(self, n: int, root: str) -> str:
        """A path below a root: mostly of a file, sometimes of a directory, or of nothing yet."""
        chance = self.random.random()
        known = self._paths(n, root, folders=chance < 0.12) if chance < 0.65 else []
        if known:
            return self.random.choice(known)
        return "/".join([root, *self.random.choices(NAMES, k=self.random.randint(1, 3))])

    def _make_folders(self, n: int, path: str) -> None:
        """Makes the directories above `path`, in place of the files that may stand there."""
        root = max((root for root in (*TOPS, *ROOTS) if path.startswith(root + "/")), key=len)
        above = root
        for name in path[len(root) + 1:].split("/")[:-1]:
            above += f"/{name}"
            if not self._at(n, above).is_dir():
                self._at(n, above).unlink(missing_ok=True)
                self._at(n, above).mkdir()

    def _clear_place(self, n: int, path: str) -> None:
        self._make_folders(n, path)
        self._remove(n, path)

    def _remove(self, n: int, path: str) -> None:
        target = self._at(n, path)
        if target.is_dir():
            shutil.rmtree(target)
        else:
            target.unlink(missing_ok=True)

    def _touch(self, target: Path) -> None:
        """A modification second that no file had before."""
        self._second += 1
        os.utime(target, (self._second, self._second))

    def _write(self, n: int, path: str, content: bytes, mode: int) -> None:
        self._note(f"EM {n}: write {len(content)} bytes {mode:o} {path}")
        self._clear_place(n, path)
        target = self._at(n, path)
        target.write_bytes(content)
        target.chmod(mode)
        self._touch(target)

    def _disguise(self, n: int, path: str, other: str) -> None:
        """Half the time gives a file the size and the second of another one, if there is one."""
        target, model = self._at(n, path), self._at(n, other)
        if self.random.random() < 0.5 and model.is_file():
            status = model.stat()
            target.write_bytes(self.random.randbytes(status.st_size))
            os.utime(target, (status.st_mtime, status.st_mtime))
            self._note(f"EM {n}: {path} looks like {other}")

    def _operate(self) -> None:
        chance = self.random.random()
        if chance < 0.04:
            self.active = 3 - self.active
            self.pair.set_active(self.active)
            self._note(f"EM {self.active} is active")
            return
        n, root = self.random.choice(EMS), self.random.choice(ROOTS)
        path = self._some_path(n, root)
        target = self._at(n, path)
        crowded = len(self._paths(n, root)) > FILES_PER_TREE
        if chance < 0.4 and not crowded:
            self._write(n, path, self._content(), self.random.choice(MODES))
        elif chance < 0.6 and target.is_file():
            self._edit(n, path)
        elif chance < 0.68 and target.is_file():
            mode = self.random.choice(MODES)
            self._note(f"EM {n}: chmod {mode:o} {path}")
            target.chmod(mode)
        elif chance < 0.86 and target.exists():
            self._delete_or_move(n, root, path)
        else:
            self._add_what_is_not_replicated(n, path)

    def _edit(self, n: int, path: str) -> None:
        """Grows, shrinks or changes a file in place."""
        target = self._at(n, path)
        content = bytearray(target.read_bytes())
        how = self.random.choice(("grow", "shrink", "change", "swap"))
        if how == "grow":
            content += self.random.randbytes(self.random.choice((1, 100, CHUNK)))
        elif how == "shrink":
            del content[self.random.choice((0, 1, CHUNK - 1, CHUNK, 2 * CHUNK, len(content) // 2)):]
        elif how == "swap":  # chunks that the other side has, at other places
            content = content[CHUNK:] + content[:CHUNK]
        elif content:
            content[self.random.randrange(len(content))] ^= 0xFF
        self._note(f"EM {n}: {how} to {len(content)} bytes {path}")
        with open(target, "r+b") as file:
            file.write(content)
            file.truncate(len(content))
        self._touch(target)

    def _delete_or_move(self, n: int, root: str, path: str) -> None:
        target = self._at(n, path)
        new = self._some_path(n, root)
        inside = f"{new}/".startswith(f"{path}/") or f"{path}/".startswith(f"{new}/")
        if self.random.random() < 0.5 or inside:
            self._note(f"EM {n}: delete {path}")
            self._remove(n, path)
            return
        self._note(f"EM {n}: move {path} -> {new}")
        self._clear_place(n, new)
        target.rename(self._at(n, new))
        self._touch(self._at(n, new))

    def _add_what_is_not_replicated(self, n: int, path: str) -> None:
        self._make_folders(n, path)
        kind = self.random.choice(("folder", "link", "fifo", NOISE))
        place = self._at(n, os.path.dirname(path)) / kind
        self._note(f"EM {n}: {kind} beside {path}")
        if os.path.lexists(place):
            return
        if kind == "folder":
            place.mkdir()
        elif kind == "link":
            place.symlink_to(self.random.choice((OWN, NAMES[0], "/nowhere")))
        elif kind == "fifo":
            os.mkfifo(place)
        else:
            place.write_bytes(b"unfinished")
