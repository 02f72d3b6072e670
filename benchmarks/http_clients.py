#!/usr/bin/env python3
"""Compares the CPU time of the HTTP clients, as halvex-fetch uses them, with each other and with curl.

    script/build release && benchmarks/http_clients.py build/release/tools/fetch/halvex-fetch

nginx serves from memory on loopback; files are written to memory. The runs of all programs are
interleaved; what is printed is the median of each, in seconds of CPU time (user and system) and of
wall time, and the two ratios that the clients are held to.
"""
import argparse
import os
import pathlib
import tempfile

from measuring import Nginx, medians

SMALL_FILES = 2000
SMALL_BYTES = 16 * 1024
LARGE_BYTES = 512 * 1024 * 1024
THREADS = 8


def compare(title, commands, output, runs, expected):
    """The median CPU times by name."""
    print(f"{title}, median of {runs}")
    costs = medians(commands, output, runs, expected)
    for name, cost in costs.items():
        print(f"  {name:8} cpu {cost.cpu:7.3f} s   wall {cost.wall:7.3f} s")
    return {name: cost.cpu for name, cost in costs.items()}


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("fetch", help="the halvex-fetch to measure")
    parser.add_argument("--runs", type=int, default=5)
    arguments = parser.parse_args()

    with tempfile.TemporaryDirectory(dir="/dev/shm") as memory:
        memory = pathlib.Path(memory)
        memory.chmod(0o755)
        site, output, server = memory / "site", memory / "output", memory / "nginx"
        site.mkdir()
        server.mkdir()
        for number in range(SMALL_FILES):
            (site / f"small{number}").write_bytes(os.urandom(SMALL_BYTES))
        (site / "large").write_bytes(os.urandom(1024 * 1024) * (LARGE_BYTES // (1024 * 1024)))
        with Nginx(server, site) as nginx:
            urls = memory / "urls"
            urls.write_text("".join(nginx.url(f"small{n}") + "\n" for n in range(SMALL_FILES)))

            def fetch(client, *what):
                return [arguments.fetch, "--client", client, "-j", str(THREADS), "--progress", "none",
                        "--log-level", "error", "-o", str(output), *map(str, what)]

            small = compare(f"{SMALL_FILES} files of {SMALL_BYTES} bytes",
                            {"native": fetch("native", "-i", urls), "qt": fetch("qt", "-i", urls)},
                            output, arguments.runs, SMALL_FILES * SMALL_BYTES)
            large = compare(f"one file of {LARGE_BYTES} bytes",
                            {"native": fetch("native", nginx.url("large")),
                             "qt": fetch("qt", nginx.url("large")),
                             "curl": ["curl", "-s", "-o", str(output / "large"),
                                      nginx.url("large")]},
                            output, arguments.runs, LARGE_BYTES)
    print(f"native / qt, small files: {small['native'] / small['qt']:.2f} (at most 0.50)")
    print(f"native / curl, large file: {large['native'] / large['curl']:.2f} (at most 1.15)")


if __name__ == "__main__":
    main()
