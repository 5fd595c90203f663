"""Reads replicated trees as replication sees them, and compares them.

The trees may change meanwhile; a file that disappears counts as missing.
"""

import os
import stat
from dataclasses import dataclass
from pathlib import Path

UNREPLICATED = ("TempUpdate_", ".$SyncDigest$")
OPEN_TO_ALL = 0o644


@dataclass(frozen=True)
class File:
    path: Path
    size: int
    mode: int

    @property
    def restricted(self) -> bool:
        """Whether replication makes the copy 0600 instead of 0644."""
        return self.mode & OPEN_TO_ALL != OPEN_TO_ALL


def files(root: Path) -> dict[str, File]:
    """The replicated files below `root` by relative path, without symlinks and empty directories."""
    found = {}
    for folder, subfolders, names in os.walk(root):
        subfolders[:] = [name for name in subfolders if not name.startswith(UNREPLICATED[0])]
        for name in names:
            path = Path(folder, name)
            try:
                status = path.lstat()
            except FileNotFoundError:
                continue
            if stat.S_ISREG(status.st_mode) and not name.startswith(UNREPLICATED):
                relative = str(path.relative_to(root))
                found[relative] = File(path, status.st_size, stat.S_IMODE(status.st_mode))
    return found


def same_content(one: File, other: File) -> bool:
    if one.size != other.size:
        return False
    try:
        with open(one.path, "rb") as first, open(other.path, "rb") as second:
            while block := first.read(1 << 20):
                if block != second.read(len(block)):
                    return False
    except FileNotFoundError:
        return False
    return True


def differences(source: Path, copy: Path) -> list[str]:
    """Why `copy` is not a replica of `source`: one line per file, [] if it is one."""
    have, want = files(copy), files(source)
    found = [f"missing: {name}" for name in want.keys() - have.keys()]
    found += [f"left over: {name}" for name in have.keys() - want.keys()]
    for name in want.keys() & have.keys():
        if not same_content(want[name], have[name]):
            found.append(f"content differs: {name}")
        elif want[name].restricted != have[name].restricted:
            found.append(f"mode {want[name].mode:04o} became {have[name].mode:04o}: {name}")
    return sorted(found)


def same_outline(source: Path, copy: Path) -> bool:
    """Compares only names and sizes: a fast check for waiting. Use differences() to be sure."""
    return ({name: file.size for name, file in files(source).items()} ==
            {name: file.size for name, file in files(copy).items()})


def count(root: Path) -> tuple[int, int]:
    """Number and total bytes of the replicated files below `root`."""
    found = files(root).values()
    return len(found), sum(file.size for file in found)
