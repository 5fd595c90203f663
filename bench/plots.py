"""Draws the plots of a benchmark run as SVG files next to its results.json."""

import json
from pathlib import Path

import matplotlib
import matplotlib.pyplot as plt

matplotlib.use("svg")
# Searchable text, and identical output for identical results.
matplotlib.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "bench",
                            "figure.figsize": (6, 3.6), "axes.grid": True, "grid.alpha": 0.3,
                            "axes.spines.top": False, "axes.spines.right": False})
STYLES = {"daemon": "C0-", "bare messages": "C7--", "bare work": "C2--", "rsync -ac": "C1-"}


def style(name: str) -> str:
    """Style of a curve. Curves on disk are dotted, in the same colour."""
    kind, on_disk, _ = name.partition(", on disk")
    return STYLES[kind][:2] + ":" if on_disk else STYLES[kind]


def draw(results: Path) -> None:
    """Draws one plot for each family of rows in the results."""
    series = json.loads(results.read_text())["series"]
    for name, plot in (("files", plot_files), ("bytes", plot_bytes), ("rename", plot_rename)):
        if name not in series:
            continue
        figure, axes = plt.subplots(layout="constrained")
        plot(axes, series[name])
        axes.legend(frameon=False)
        figure.savefig(results.with_name(f"{name}.svg"), metadata={"Date": None})
        plt.close(figure)


def plot_files(axes, curves: dict) -> None:
    for name, points in curves.items():
        axes.plot(*zip(*points), style(name), marker="o", label=name)
    axes.axhline(10, color="C3", linewidth=1, linestyle=":", label="time limit")
    axes.set(xlabel="files a side", ylabel="seconds", ylim=(0, None),
             title="An exchange with nothing to do")
    axes.xaxis.set_major_formatter("{x:,.0f}")


def plot_bytes(axes, curves: dict) -> None:
    for name, points in curves.items():
        axes.plot(*zip(*points), style(name), marker="o", label=name)
    axes.set(xlabel="MiB in files of 64 MiB", ylabel="seconds", xscale="log", yscale="log",
             title="Every chunk of large files changed")
    axes.xaxis.set_major_formatter("{x:,.0f}")


def plot_rename(axes, curves: dict) -> None:
    for name, values in curves.items():
        shares = [(i + 1) / len(values) for i in range(len(values))]
        axes.step(values, shares, style(name), where="post", label=name)
    axes.set(xlabel="milliseconds", ylabel="share of the calls", ylim=(0, 1),
             xlim=(0, 3 * max(values[len(values) // 2] for values in curves.values())),
             title="Publishing a file of 4 KiB")
