#!/usr/bin/env python3
"""Holds the speed at which halvex-fetch checks a file's SHA-256 to that of sha256sum.

    benchmarks/checksums.py BUILD_FOLDER [--quick]

The file, 512 MiB in memory, is there already and found to be the right one; its manifest is made
by halvex-fetch too. The runs are interleaved; what is printed is the median of each, in seconds of
CPU time (user and system) and of wall time, and how often as fast halvex-fetch is by CPU time.
"""
import argparse
import os
import pathlib
import subprocess
import tempfile

from measuring import medians

PIECE = 1024 * 1024
PIECES = 512
SPEED = 0.9


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build", type=pathlib.Path, help="the folder of the build to measure")
    parser.add_argument("--quick", action="store_true", help="three runs instead of five")
    arguments = parser.parse_args()
    fetch = arguments.build / "tools/fetch/halvex-fetch"
    runs = 3 if arguments.quick else 5

    with tempfile.TemporaryDirectory(dir="/dev/shm") as memory:
        memory = pathlib.Path(memory)
        folder = memory / "files"
        folder.mkdir()
        with open(folder / "large", "wb") as large:
            for _ in range(PIECES):
                large.write(os.urandom(PIECE))
        manifest = memory / "manifest.json"
        with open(manifest, "wb") as document:
            # Nothing listens there: a file that is not accepted fails the run.
            subprocess.run([fetch, "--make-manifest", folder,
                            "--base-url", "http://127.0.0.1:9"], stdout=document, check=True)
        costs = medians(
            {"sha256sum": ["sha256sum", folder / "large"],
             "halvex-fetch": [fetch, "-o", folder, "--progress", "none", manifest]},
            memory / "empty", runs, expected_bytes=0)

    print(f"SHA-256 of {PIECES} MiB, median of {runs}")
    for name, cost in costs.items():
        print(f"  {name:12} cpu {cost.cpu:7.3f} s   wall {cost.wall:7.3f} s")
    speed = costs["sha256sum"].cpu / costs["halvex-fetch"].cpu
    holds = speed >= SPEED
    print(f"  speed against sha256sum {speed:8.2f} {'>=' if holds else '< '} {SPEED:<5g} "
          f"{'yes' if holds else 'NO'}")


if __name__ == "__main__":
    main()
