"""python3 tests/sim/releases.py [--keep VERSION [BUILD]]: compares a fixed series of exchanges, byte by byte,
with the bytes of earlier releases. The two EMs are upgraded one after the other, so each must read the other
release's messages and its own old digest cache files.

With --keep, writes the bytes of this build, or of another one, to releases/VERSION.
"""

import difflib
import hashlib
import os
import sys
from collections import deque
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "testbed"))

from em_pair import ACTIVE, EMS, OWN, VOLATILE  # noqa: E402
from questions import CHUNK, PAYLOAD  # noqa: E402
from simulated.machine import BUILD, ROOTS, Machine  # noqa: E402
from simulation import Simulation  # noqa: E402

KEPT = Path(__file__).with_name("releases")
SHOWN = 400  # bytes of a message that are shown; the rest as a digest
LARGE = bytes(range(256)) * (2 * CHUNK // 256) + b"end"


def some_exchanges(pair: Simulation) -> None:
    """One file per tree at a time, because the order of several depends on the file system."""
    for n, path, content, mode in ((1, f"{ACTIVE}/large", LARGE, 0o644),
                                   (1, f"{OWN}/d/secret", b"secret", 0o600),
                                   (2, f"{OWN}/large", LARGE[1:], 0o600)):
        file = Path(pair.machines[n].path(path))
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_bytes(content)
        file.chmod(mode)
        os.utime(file, (1_500_000_000,) * 2)
        pair.questions.put(n, path, content)
    for n in EMS:
        pair.start(n)
    pair.flow(5000)
    new, large, renamed = f"{VOLATILE}/TempUpdate_", f"{OWN}/large", f"{OWN}/renamed"
    Path(pair.machines[1].path(new)).write_bytes(b"small")
    requests: tuple[tuple[int, str, str, dict[str, bytes | None]], ...] = (
        (2, "", "", {}), (1, new, f"{VOLATILE}/small", {f"{VOLATILE}/small": b"small"}),
        (2, large, renamed, {large: None, renamed: LARGE[1:]}),
        (1, "", f"{ACTIVE}/large", {f"{ACTIVE}/large": None}))
    for request in requests:
        pair.ask(*request)
        pair.flow(5000)


def course(build: Path) -> list[str]:
    """The messages and the digest cache files, one line each."""
    machines = {n: Machine(n, visible=[build]) for n in EMS}
    pair = Simulation(machines)
    pair.sent = deque()
    try:
        for machine in machines.values():
            machine.build = build
        some_exchanges(pair)
        failed = [answer for answer in pair.answers if not answer.success]
        lines = [f"EM {n}: {message[:PAYLOAD].rstrip(bytes(1)).hex()} {message[PAYLOAD:SHOWN].hex()} "
                 f"{len(message)} {hashlib.sha1(message).hexdigest()}" for n, message in pair.sent]
        return [*map(str, failed), *lines, *digests(machines)]
    finally:
        pair.close()
        for machine in machines.values():
            machine.close()


def digests(machines: dict[int, Machine]) -> list[str]:
    return [f"EM {n}: {root}/{file.name}: {file.read_text()!r}" for n in EMS for root in ROOTS
            for file in sorted(Path(machines[n].path(root)).rglob(".$SyncDigest$*"))]


def main(arguments: list[str]) -> int:
    if arguments[:1] == ["--keep"]:
        build = Path(arguments[2]).resolve() if len(arguments) > 2 else BUILD
        (KEPT / arguments[1]).write_text("\n".join(course(build)) + "\n")
        return 0
    lines, passed, releases = course(BUILD), 0, sorted(KEPT.iterdir())
    for release in releases:
        different = list(difflib.unified_diff(release.read_text().splitlines(), lines, lineterm="", n=0))
        passed += not different
        print(f"   {'FAILED' if different else 'ok    '}  the bytes of release {release.name}", *different[:10],
              sep="\n           ")
    print(f"{passed} passed, {len(releases) - passed} failed")
    return 0 if passed == len(releases) else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
