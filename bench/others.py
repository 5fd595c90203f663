"""Other programs that keep two trees equal, Debian's versions, over the link of the pair.

Each has `clear()`, which empties the peer's tree and the program's state, and `sync()`, the seconds of a run
from EM 1 to EM 2 without the start of the command.
"""

import subprocess
import time
from typing import Protocol

from measure import ACTIVE, DIGESTS, EMS, PERSISTENT, EmPair, clear  # first, because it sets the path
from em_pair import wait_for
from keeper import ADDRESSES


def timed(pair: EmPair, argv: list, **options) -> float:
    """Seconds of a command on EM 1, minus the start of an empty command there."""
    begin = time.monotonic()
    pair.run(1, ["true"], check=True)
    start = time.monotonic()
    pair.run(1, argv, timeout=600, check=True, **options)
    return (time.monotonic() - start) - (start - begin)


def serve(pair: EmPair, port: int, argv: list) -> None:
    """Starts a server on EM 2 and waits until it listens."""
    pair.popen(2, argv, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    wait_for(lambda: pair.run(2, ["ss", "-Hltn", f"sport = :{port}"], check=True,
                              capture_output=True).stdout, 10, f"{argv} on port {port}")


class Other(Protocol):
    """A program that makes the active tree of EM 2 equal to that of EM 1."""

    name: str

    def clear(self) -> None: ...

    def sync(self) -> float: ...


class Rsync:
    COPY = f"{PERSISTENT}/rsync"

    def __init__(self, pair: EmPair, *options: str):
        self.pair, self.options = pair, options
        self.name = " ".join(("rsync", *options))
        config = pair.path(2, "/run/rsyncd.conf")
        config.write_text("use chroot = no\nuid = root\ngid = root\n[tree]\n"
                          f"path = {self.COPY}\nread only = no\n")
        pair.run(2, ["mkdir", "-p", self.COPY])
        serve(pair, 873, ["rsync", "--daemon", "--no-detach", "--config=/run/rsyncd.conf"])

    def clear(self) -> None:
        clear(self.pair, 2, self.COPY)

    def sync(self) -> float:
        return timed(self.pair, ["rsync", *self.options, "--delete", f"--exclude={DIGESTS}",
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
        serve(pair, 30865, ["csync2", "-ii", "-N", "em2", "-D", "/run/csync2.db"])

    def clear(self) -> None:
        clear(self.pair, 2)
        for n in EMS:
            clear(self.pair, n, "/run/csync2.db")

    def sync(self) -> float:
        return timed(self.pair, ["csync2", "-x", "-r", "-N", "em1", "-D", "/run/csync2.db"])


class Unison:
    name = "unison"
    COPY = f"{PERSISTENT}/unison"

    def __init__(self, pair: EmPair):
        self.pair = pair
        for n in EMS:
            pair.run(n, ["mkdir", "-p", "/run/unison", self.COPY], check=True)
        serve(pair, 5000, ["env", "UNISON=/run/unison", "unison", "-socket", "5000"])

    def clear(self) -> None:
        clear(self.pair, 2, self.COPY)
        for n in EMS:
            clear(self.pair, n, "/run/unison")

    def sync(self) -> float:
        return timed(self.pair, [
            "env", "UNISON=/run/unison", "unison", ACTIVE,
            f"socket://{ADDRESSES[2]}:5000/{self.COPY}", "-batch", "-auto", "-silent",
            "-force", ACTIVE, "-ignore", f"Name {DIGESTS}"])
