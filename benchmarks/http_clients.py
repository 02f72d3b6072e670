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
import shutil
import socket
import statistics
import subprocess
import tempfile
import time

SMALL_FILES = 2000
SMALL_BYTES = 16 * 1024
LARGE_BYTES = 512 * 1024 * 1024
THREADS = 8


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Nginx:
    """The system's nginx, serving a folder until the end of the with statement."""

    def __init__(self, folder, site):
        self.port = free_port()
        configuration = folder / "nginx.conf"
        configuration.write_text(f"""
            daemon off; worker_processes 1; pid nginx.pid; error_log error.log;
            events {{ worker_connections 1024; }}
            http {{
                access_log off; sendfile on; keepalive_requests 100000;
                client_body_temp_path b; proxy_temp_path p; fastcgi_temp_path f;
                uwsgi_temp_path u; scgi_temp_path s;
                server {{ listen 127.0.0.1:{self.port}; root "{site}"; }}
            }}""")
        self.process = subprocess.Popen(
            ["/usr/sbin/nginx", "-p", str(folder), "-c", str(configuration),
             "-e", str(folder / "error.log")])

    def __enter__(self):
        deadline = time.monotonic() + 30
        while True:
            with socket.socket() as probe:
                if probe.connect_ex(("127.0.0.1", self.port)) == 0:
                    return self
            if time.monotonic() > deadline:
                raise RuntimeError("nginx does not start")
            time.sleep(0.05)

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait()

    def url(self, path):
        return f"http://127.0.0.1:{self.port}/{path}"


def measure(command, output):
    """CPU and wall seconds of one run into an empty folder."""
    shutil.rmtree(output, ignore_errors=True)
    output.mkdir()
    begin = time.monotonic()
    process = subprocess.Popen(command, stdout=subprocess.DEVNULL)
    _, status, usage = os.wait4(process.pid, 0)
    wall = time.monotonic() - begin
    if status != 0:
        raise RuntimeError(f"{command[0]} ended with status {status}")
    return usage.ru_utime + usage.ru_stime, wall


def compare(title, commands, output, runs, expected):
    """Medians by name, each command run in turn."""
    times = {name: [] for name in commands}
    for _ in range(runs):
        for name, command in commands.items():
            times[name].append(measure(command, output))
            arrived = sum(entry.stat().st_size for entry in output.iterdir())
            if arrived != expected:
                raise RuntimeError(f"{name} has fetched {arrived} of {expected} bytes")
    print(f"{title}, median of {runs}")
    medians = {}
    for name, samples in times.items():
        cpu, wall = (statistics.median(column) for column in zip(*samples))
        medians[name] = cpu
        print(f"  {name:8} cpu {cpu:7.3f} s   wall {wall:7.3f} s")
    return medians


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
