"""Compares the daemon on the testbed with two floors, rsync, csync2 and unison; see ../run bench.

Every row is a ratio of two things measured in turn in one run, over the same link between the same namespaces
and on equal trees: medians, with the range of ours. A row is printed and saved when it is measured. The exit
status is 1 if a row could not be measured; a missed target is not a failure.
"""

import argparse
import json
import sys
from dataclasses import asdict
from pathlib import Path

from measure import REPO, Bench, Row  # first, because it sets the path to the testbed
from rows import ROWS

NOISE = 0.05  # of the other; a larger variation is printed
HEADING = (f"{'work':<66}{'ours':>10} {'':<5}{'other':>10} {'':<5}{'ratio':>7}{'target':>7}  "
           "against")


def print_row(r: Row) -> None:
    low, high = r.spread
    print(f"{r.name:<66}{r.ours:>10.4g} {r.unit:<5}{r.theirs:>10.4g} {r.unit:<5}"
          f"{r.ratio:>7.3f}{'-' if r.target is None else f'{r.target:.2f}':>7}"
          f"{' ' if r.met else '!'} {r.against}  ({low:.4g} to {high:.4g})"
          f"{'' if r.cpu is None else f', both daemons {1000 * r.cpu:.3g} ms of CPU'}"
          f"{'' if r.noise < NOISE else f', the other varies by {100 * r.noise:.0f} %'}", flush=True)


def save(out: Path, options: argparse.Namespace, bench: Bench, rows: list[Row],
         failed: list[str]) -> None:
    out.mkdir(parents=True, exist_ok=True)
    (out / "results.json").write_text(json.dumps(
        {"transport": options.transport, "quick": options.quick, "series": bench.series,
         "findings": bench.findings, "failed": failed,
         "rows": [asdict(r) | {"ratio": r.ratio, "met": r.met} for r in rows]}, indent=1))


def main() -> int:
    parser = argparse.ArgumentParser(prog="./run bench", description=__doc__)
    parser.add_argument("rows", nargs="*", metavar="ROW", help=", ".join(ROWS))
    parser.add_argument("--quick", action="store_true", help="a smoke run on small trees")
    parser.add_argument("--transport", choices=("udpu", "knet"), default="udpu")
    parser.add_argument("--build", type=Path, default=REPO / "build")
    parser.add_argument("--out", type=Path, help="directory of results.json")
    parser.add_argument("--document", action="store_true",
                        help="write the results of this run into docs/performance.md")
    options = parser.parse_args()
    unknown = set(options.rows) - set(ROWS)
    if unknown:
        parser.error(f"no such row: {', '.join(sorted(unknown))}")
    bench = Bench(options.build.resolve(), options.transport, options.quick)
    out = options.out or options.build / "bench"
    wanted, rows, failed = options.rows or list(ROWS), [], []
    print(f"Corosync transport {options.transport}; medians, in brackets the spread of ours; "
          "'!' marks a missed target")
    print(HEADING, flush=True)
    for number, name in enumerate(wanted, 1):
        bench.say(f"{name}, {number} of {len(wanted)}")
        told = len(bench.findings)
        try:
            measured = ROWS[name](bench)
        except Exception as error:  # one failure must not lose the other rows
            failed.append(f"{name}: {error}")
            print(f"{name} FAILED: {error}", flush=True)
            measured = []
        for row in measured:
            print_row(row)
        for finding in bench.findings[told:]:
            print(finding, flush=True)
        rows += measured
        save(out, options, bench, rows, failed)
    print(f"{len(rows)} rows, also in {out}; {len(failed)} of {len(wanted)} failed to be measured")
    if options.document and not failed:
        from document import document  # late, because only the plots need its library
        document(out / "results.json", REPO / "docs/performance.md")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
