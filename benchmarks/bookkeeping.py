#!/usr/bin/env python3
"""Runs the micro-benchmarks and holds the library's own bookkeeping to its limits.

    benchmarks/bookkeeping.py BUILD_FOLDER [--quick] [--json FILE]
"""
import argparse
import json
import pathlib
import subprocess
import tempfile

MICROSECOND, MILLISECOND = 1e3, 1e6
UNITS = {"ns": 1, "us": MICROSECOND, "ms": MILLISECOND}


class Results:
    """The medians of one run, by the benchmarks' names."""

    def __init__(self, entries):
        self.entries = {entry["run_name"]: entry for entry in entries
                        if entry.get("aggregate_name") == "median"}

    def nanoseconds(self, name, clock="cpu_time"):
        entry = self.entries[name]
        return entry[clock] * UNITS[entry["time_unit"]]

    def per_item(self, name, items):
        return self.nanoseconds(name) / items

    def counter(self, name, counter):
        return self.entries[name][counter]


def verdicts(results):
    """What is held to which limit: name, value, limit, and whether more is better."""
    for name in ("ResourcesThatArePresent", "ResourcesThatAreDownloaded"):
        few, many = (results.per_item(f"{name}/{n}", n) for n in (1000, 100000))
        yield f"{name}: us per resource of 100,000", many / MICROSECOND, \
            15 if name == "ResourcesThatAreDownloaded" else None, False
        yield f"{name}: 100,000 against 1,000", many / few, 1.5, False
    few, many = (results.per_item(f"FilesThatExist/{n}", n) for n in (1000, 100000))
    yield "the look for those that are present alone: us", many / MICROSECOND, None, False
    yield "the look alone: 100,000 against 1,000", many / few, None, False
    yield "a progress report that is due for nobody, bundle of 100,000: us", \
        results.nanoseconds("ProgressReport/100000") / MICROSECOND, 1, False
    yield "a progress report, bundle of 100,000 against a bundle of one", \
        results.nanoseconds("ProgressReport/100000") / results.nanoseconds("ProgressReport/1"), \
        None, False
    yield "memory of a registered resource: bytes", \
        results.counter("MemoryOfResources/100000/iterations:1", "bytes_per_resource"), 1024, False
    alone, eight = (results.counter(f"TaskQueuePairs/real_time/threads:{n}", "items_per_second")
                    for n in (1, 8))
    yield "TaskQueue: million pairs per second, one thread", alone / 1e6, 2, True
    yield "TaskQueue: million pairs per second and thread, eight threads", eight / 8 / 1e6, 1, True
    yield "AddTask behind 100,000 others against an empty queue", \
        results.nanoseconds("AddTaskBehindOthers/100000/iterations:100000") \
        / results.nanoseconds("AddTaskBehindOthers/0/iterations:100000"), 1.5, False
    yield "an event in a trace file: us", \
        results.nanoseconds("TracedEvent/process_time") / MICROSECOND, 1, False
    yield "Init and the first notification: ms", \
        results.nanoseconds("InitAndFirstNotification", "real_time") / MILLISECOND, 10, False
    yield "Abort of an idle manager: ms", \
        results.nanoseconds("AbortOfAnIdleManager", "real_time") / MILLISECOND, 5, False


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build", type=pathlib.Path, help="the folder of the build to measure")
    parser.add_argument("--quick", action="store_true", help="three repetitions instead of five")
    parser.add_argument("--json", type=pathlib.Path, help="write the figures to this file too")
    arguments = parser.parse_args()

    with tempfile.NamedTemporaryFile() as output:
        subprocess.run([arguments.build / "benchmarks/HalvexMicroBenchmarks",
                        f"--benchmark_repetitions={3 if arguments.quick else 5}",
                        f"--benchmark_min_time={0.1 if arguments.quick else 0.2}",
                        "--benchmark_report_aggregates_only=true", "--benchmark_out_format=json",
                        f"--benchmark_out={output.name}"],
                       check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        results = Results(json.load(output)["benchmarks"])
    rows = []
    for name, value, limit, more_is_better in verdicts(results):
        holds = limit is None or (value >= limit if more_is_better else value <= limit)
        sign = " " if limit is None else (">=" if more_is_better else "<=") + f" {limit:g}"
        print(f"{name:68} {value:9.3f} {sign:8} {'' if limit is None else 'yes' if holds else 'NO'}")
        rows.append({"name": name, "value": value, "limit": limit, "holds": holds})
    if arguments.json:
        per_resource = {name: {n: results.per_item(f"{name}/{n}", n) for n in (1000, 10000, 100000)}
                        for name in ("ResourcesThatArePresent", "ResourcesThatAreDownloaded")}
        arguments.json.write_text(
            json.dumps({"limits": rows, "nanoseconds_per_resource": per_resource}, indent=1) + "\n")


if __name__ == "__main__":
    main()
