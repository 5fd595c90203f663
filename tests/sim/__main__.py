"""python3 tests/sim: two real daemons on a simulated group, with every order of events that it allows.

Each seed is one run of 250 events. A failing run is reduced to a few events, which are printed with what the
pair did and a drawing of the last exchange.
"""

import argparse
import subprocess
import sys
import tempfile
import time
from collections.abc import Iterator
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "testbed"))

import simulation  # noqa: E402
import workers  # noqa: E402
from em_pair import EMS  # noqa: E402
from simulated.machine import BUILD, Machine  # noqa: E402
from shrink import shrink  # noqa: E402

EVENTS = 250
SHRINKING = 60  # seconds
MENDED = ("storm", "role", "overtake")  # in which the release before gives wrong answers, or fails on


def run(machines: dict[int, Machine], events: list, trace=None) -> str:
    return simulation.run(machines, events, trace)


def show(machines: dict[int, Machine], events: list, what: str) -> str:
    """Repeats a run with a trace and the daemons' logs, and draws the last exchange."""
    lines = [str(event) for event in events] if what == "events" else []
    with tempfile.TemporaryDirectory(prefix="sim.") as folder:
        for n, machine in machines.items():
            machine.log, machine.log_level = f"{folder}/em{n}", 7
        lines.append(run(machines, events, lines.append))
        logs = [str(machine.log) for machine in machines.values()]
        explain = [str(BUILD / "cluster_sync_ctl"), "explain", *logs]
        rows = subprocess.run(explain, capture_output=True, text=True).stdout.splitlines()
        if len(rows) > 1:
            drawn = subprocess.run([*explain, "--exchange", str(len(rows) - 1)],
                                   capture_output=True, text=True)
            lines += [*rows[-5:], drawn.stdout]
        for machine in machines.values():
            machine.log, machine.log_level = None, 0
    return "\n".join(lines)


def draw(machines: dict[int, Machine], seed: int, count: int) -> list:
    """The events of a seed, with a daemon of the release before those that it handles."""
    mixed = any(machine.build != BUILD for machine in machines.values())
    return [event for event in simulation.draw(seed, count) if not (mixed and event.name in MENDED)]


def examine(machines: dict[int, Machine], seed: int, count: int, first: bool = False) -> str:
    """A report on the run of a seed if it fails; empty if it passes."""
    events = draw(machines, seed, count)
    wrong = run(machines, events)
    if not wrong or first:
        return wrong and f"seed {seed}: {wrong}\n"
    few = shrink(events, lambda part: run(machines, part), SHRINKING)
    return (f"seed {seed}: {wrong}\n{len(few)} of {len(events)} events are enough:\n" +
            show(machines, few, "trace") + f"\nrepeat with: ./run simulate --seed {seed}\n")


def builds(options: argparse.Namespace) -> list[Path]:
    return [options.with_build] if options.with_build else []


def choose_builds(machines: dict[int, Machine], options: argparse.Namespace, seed: int) -> None:
    """Gives one EM the other release, if there is one."""
    if options.with_build:
        machines[1 + seed // workers.WORKERS % 2].build = BUILD
        machines[2 - seed // workers.WORKERS % 2].build = options.with_build


def simulate(options: argparse.Namespace) -> int:
    """Runs seeds on all workers until the time or the seeds are used up."""
    end = time.monotonic() + (options.seconds or 1e9)
    last = options.seed + options.runs if options.runs else 1 << 31

    def examine_part(machines: dict[int, Machine], part: int) -> Iterator[str]:
        for seed in range(options.seed + part, last, workers.WORKERS):
            if time.monotonic() > end:
                return
            choose_builds(machines, options, seed)
            yield examine(machines, seed, options.events, options.first)

    return workers.run(examine_part, options.first, visible=builds(options))


def repeat(options: argparse.Namespace) -> int:
    machines = {n: Machine(n, visible=builds(options)) for n in EMS}
    choose_builds(machines, options, options.seed)
    try:
        if options.trace:
            print(show(machines, draw(machines, options.seed, options.events), "trace"))
            return 0
        report = examine(machines, options.seed, options.events)
    finally:
        for machine in machines.values():
            machine.close()
    print(report or f"seed {options.seed}: nothing is wrong")
    return 1 if report else 0


def main() -> int:
    parser = argparse.ArgumentParser(prog="./run simulate", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seed", type=int, help="the run of this seed alone, or the first one")
    parser.add_argument("--trace", action="store_true", help="show all that the run of --seed does")
    parser.add_argument("--runs", type=int, help="so many seeds")
    parser.add_argument("--seconds", type=float, help="for so long")
    parser.add_argument("--with-build", type=lambda text: Path(text).resolve(),
                        help="directory of a build for one of the EMs")
    parser.add_argument("--first", action="store_true", help="end at the first failure, as it is")
    parser.add_argument("--events", type=int, default=EVENTS, help="of a run (%(default)s)")
    options = parser.parse_args()
    if options.seed is not None and not options.runs and not options.seconds:
        return repeat(options)
    options.seed = int(time.time()) if options.seed is None else options.seed
    if not options.runs and not options.seconds:
        options.seconds = 60
    print(f"Simulated pairs from seed {options.seed} on", flush=True)
    return simulate(options)


if __name__ == "__main__":
    sys.exit(main())
