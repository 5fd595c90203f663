"""Measures the daemon on the testbed against two floors, rsync, csync2 and unison; see ../run bench.

Every row is a ratio of two things measured in turn in one run, over the same link between the same
namespaces and on equal trees: medians, with the spread of ours. Nothing here passes or fails.
"""

import argparse
import json
import sys
from dataclasses import asdict
from pathlib import Path

from measure import REPO, Bench, Row  # first: it sets the path to the testbed
from rows import ROWS


def print_table(rows: list[Row]) -> None:
    print(f"{'work':<58}{'ours':>10} {'':<5}{'other':>10} {'':<5}{'ratio':>7}{'reach':>7}  against")
    for r in rows:
        low, high = r.spread
        print(f"{r.name:<58}{r.ours:>10.4g} {r.unit:<5}{r.theirs:>10.4g} {r.unit:<5}"
              f"{r.ratio:>7.3f}{'-' if r.reach is None else f'{r.reach:.2f}':>7}"
              f"{' ' if r.reached else '!'} {r.against}  ({low:.4g} to {high:.4g})"
              f"{'' if r.cpu is None else f', both daemons {1000 * r.cpu:.3g} ms of CPU'}")


def main() -> None:
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
    rows = []
    for name in options.rows or ROWS:
        print(f"{name} ...", file=sys.stderr, flush=True)
        rows += ROWS[name](bench)
    print(f"Corosync transport {options.transport}; medians, in brackets the spread of ours; "
          "'!' is out of reach")
    print_table(rows)
    print(*bench.findings, sep="\n")
    out = options.out or options.build / "bench"
    out.mkdir(parents=True, exist_ok=True)
    (out / "results.json").write_text(json.dumps(
        {"transport": options.transport, "quick": options.quick, "series": bench.series,
         "findings": bench.findings,
         "rows": [asdict(r) | {"ratio": r.ratio, "reached": r.reached} for r in rows]}, indent=1))
    print(f"also in {out}")
    if options.document:
        from document import document  # plots want a library that nothing else here needs
        document(out / "results.json", REPO / "docs/performance.md")


if __name__ == "__main__":
    main()
