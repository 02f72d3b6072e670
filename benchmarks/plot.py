#!/usr/bin/env python3
"""Draws the plots of docs/performance.md from what the benchmarks have written.

    benchmarks/plot.py RESULTS_FOLDER TARGET_FOLDER
"""
import json
import pathlib
import sys

import matplotlib

matplotlib.use("svg")
# The same bytes for the same figures.
matplotlib.rcParams["svg.hashsalt"] = "halvex"
from matplotlib import pyplot  # noqa: E402


def save(figure, path):
    figure.tight_layout()
    figure.savefig(path, metadata={"Date": None})


def plot_bookkeeping(results, path):
    figure, axes = pyplot.subplots(figsize=(6, 3.5))
    names = {"ResourcesThatArePresent": "found on disk",
             "ResourcesThatAreDownloaded": "downloaded by a fake downloader"}
    for name, values in results["nanoseconds_per_resource"].items():
        axes.plot([int(n) for n in values], [value / 1000 for value in values.values()],
                  marker="o", label=names[name])
    axes.set(xscale="log", xlabel="resources in one bundle", ylabel="CPU time per resource in µs",
             ylim=(0, None))
    axes.legend()
    save(figure, path)


def plot_downloads(results, path):
    figure, axes = pyplot.subplots(figsize=(7, 4.5))
    programs = ["halvex-fetch", "curl", "aria2c", "wget2"]
    height = 0.8 / len(programs)
    for number, program in enumerate(programs):
        rows = [(row, workload["costs"][program]["wall"] / workload["costs"]["halvex-fetch"]["wall"])
                for row, workload in enumerate(results) if program in workload["costs"]]
        axes.barh([row + number * height for row, _ in rows], [value for _, value in rows], height,
                  label=program)
    axes.set_yticks([row + 0.4 - height / 2 for row in range(len(results))],
                    [workload["name"] for workload in results], fontsize=7)
    axes.invert_yaxis()
    axes.set_xlabel("wall time, halvex-fetch = 1")
    axes.axvline(1, color="grey", linewidth=0.8)
    axes.legend(fontsize=7)
    save(figure, path)


def main():
    source, target = map(pathlib.Path, sys.argv[1:])
    plot_bookkeeping(json.loads((source / "bookkeeping.json").read_text()),
                     target / "performance-bookkeeping.svg")
    plot_downloads(json.loads((source / "downloads.json").read_text()),
                   target / "performance-downloads.svg")


if __name__ == "__main__":
    main()
