"""python3 tests/sim/planted.py [WORD...]: plants faults in a copy of the daemon, one at a time, and shows
which test finds each.

The table is matched by text, so that it follows the sources; an entry whose text no longer exists fails.
With WORDs, only the entries whose name has one of them.
"""

import os
import shutil
import subprocess
import sys
import tempfile
import time
import tomllib
from pathlib import Path
from typing import NamedTuple

REPO = Path(__file__).resolve().parents[2]
RUNS, POINTS = "500", "1600"  # limits for finding a fault: two minutes on two idle processors
SOURCES = ("CMakeLists.txt", "CMakePresets.json", "bench", "client", "cmake", "docs", "packaging",
           "platform", "redundancy_health", "testbed", "tests", "tools")


class Fault(NamedTuple):
    name: str
    file: str
    old: str
    new: str
    found_by: str = "simulation"  # or "faults"; otherwise the unit tests that find it


FAULTS = [Fault(**fault) for fault in tomllib.loads(
    Path(__file__).with_name("planted.toml").read_text())["fault"]]


def build(copy: Path, *targets: str) -> None:
    subprocess.run(["cmake", "--build", str(copy / "build"), "--target", *targets], check=True,
                   capture_output=True)


def finds(copy: Path, instrument: str) -> str:
    """The first line of the failure that a test reports for the copy; empty if it finds none within the
    limit."""
    if instrument not in ("simulation", "faults"):
        return finds_unit_test(copy, instrument)
    argv = {"simulation": ["tests/sim", "--runs", RUNS], "faults": ["tests/faults", "--points", POINTS]}
    output = subprocess.run([sys.executable, *argv[instrument], "--seed", "1", "--first"], cwd=copy,
                            text=True, capture_output=True,
                            env=os.environ | {"EM_PAIR_BUILD": copy / "build"})
    lines = [line for line in output.stdout.splitlines()[1:] if line.strip()]
    return lines[0].strip() if output.returncode else ""


def finds_unit_test(copy: Path, names: str) -> str:
    build(copy, "daemon_tests")
    output = subprocess.run([copy / "build/daemon_tests", f"--gtest_filter={names}"], text=True,
                            capture_output=True).stdout
    return next((line for line in output.splitlines() if line.startswith("[  FAILED  ]")), "")


def examine(copy: Path, fault: Fault) -> bool:
    path = copy / "redundancy_health" / fault.file
    text = path.read_text()
    if text.count(fault.old) != 1:
        print(f"   FAILED  {fault.name}: its text stands {text.count(fault.old)} times", flush=True)
        return False
    path.write_text(text.replace(fault.old, fault.new))
    try:
        build(copy, "cluster_sync_daemon")
        built = time.monotonic()
        wrong = finds(copy, fault.found_by)
    except subprocess.CalledProcessError as error:
        print(f"   FAILED  {fault.name}: does not build\n{error.stdout.decode()[-2000:]}", flush=True)
        return False
    finally:
        path.write_text(text)
    outcome = "ok    " if wrong else "FAILED"
    print(f"   {outcome}  {fault.name} ({fault.found_by}, {time.monotonic() - built:.0f} s): {wrong}",
          flush=True)
    return outcome != "FAILED"


def main(words: list[str]) -> int:
    chosen = [fault for fault in FAULTS if not words or any(word in fault.name for word in words)]
    with tempfile.TemporaryDirectory(prefix="planted.") as folder:
        copy = Path(folder)
        for name in SOURCES:
            source = REPO / name
            if source.is_dir():
                shutil.copytree(source, copy / name)
            else:
                shutil.copy(source, copy / name)
        subprocess.run(["cmake", "--preset", "default"], cwd=copy, check=True, capture_output=True)
        build(copy, "cluster_sync_daemon", "cluster_sync_ctl", "sim_group")
        passed = sum(examine(copy, fault) for fault in chosen)
    print(f"{passed} passed, {len(chosen) - passed} failed")
    return 0 if passed == len(chosen) else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
