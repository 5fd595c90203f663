"""Writes the results of a run into docs/performance.md, so that no number is copied by hand."""

import json
import shutil
from pathlib import Path

from plots import draw

BEGIN, END = "<!-- written by ./run bench --document: {} -->", "<!-- end of {} -->"
FAMILIES = (("files", "Exchange with nothing to do"), ("bytes", "Every chunk of large files changed"),
            ("rename", "Publishing a file of 4 KiB"))
# MB/s of SHA-1 on the board, and the share of the 10 seconds for hashing. Both EMs hash, one after the other,
# and the files must also be read.
BOARDS, SHARE = (50, 100, 200), 0.4


def document(results: Path, page: Path) -> None:
    """Replaces the text between the marks of `page`, and the plots next to it."""
    run = json.loads(results.read_text())
    draw(results)
    pictures = page.with_suffix("")
    for name, _ in FAMILIES:
        if name in run["series"]:
            shutil.copy(results.with_name(f"{name}.svg"), pictures / f"{name}.svg")
    text = page.read_text()
    for name, block in (("results", measured(run)), ("boards", boards(run))):
        begin, end = BEGIN.format(name), END.format(name)
        head, rest = text.split(begin, 1)
        text = f"{head}{begin}\n\n{block}\n{end}{rest.split(end, 1)[1]}"
    page.write_text(text)


def quantity(value: float, unit: str) -> str:
    """Three significant digits, in a suitable unit."""
    for big, factor, name in (("s", 1e-3, "ms"), ("B", 1e6, "MB"), ("B", 1e3, "kB")):
        if unit == big and (value < 1 if factor < 1 else value >= factor):
            return quantity(value / factor, name)
    return f"{float(f'{value:.3g}'):,g} {unit}"


def measured(run: dict) -> str:
    lines = ["| work | ours | against | | ratio | target | CPU of both |", "|---|---|---|---|---|---|---|"]
    for row in run["rows"]:
        bound = "at least" if row["better"] == "high" else "at most"
        target = "-" if row["target"] is None else f"{bound} {row['target']:g}"
        cpu = "" if row["cpu"] is None else quantity(row["cpu"], "s")
        low, high = (quantity(value, row["unit"]) for value in row["spread"])
        lines.append(f"| {row['name']} | {quantity(row['ours'], row['unit'])} ({low} to {high}) "
                     f"| {row['against']} | {quantity(row['theirs'], row['unit'])} "
                     f"| {row['ratio']:.2f} | {target}{'' if row['met'] else ' **!**'} | {cpu} |")
    findings = [f"- {finding}" for finding in run["findings"]]
    pictures = [f"![{title}](performance/{name}.svg)" for name, title in FAMILIES
                if name in run["series"]]
    return "\n".join([*lines, "", *findings, "", *pictures, ""])


def boards(run: dict) -> str:
    """How much can be hashed in one exchange, given the SHA-1 rate of the board."""
    lines = ["| SHA-1 of the board | large files without digest files, each side | one file of 1 MiB |",
             "|---|---|---|"]
    for rate in BOARDS:
        lines.append(f"| {rate} MB/s | {rate * 10 * SHARE / 1000:g} GB | {1048.576 / rate:.1f} ms |")
    return "\n".join([*lines, ""])
