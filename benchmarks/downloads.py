#!/usr/bin/env python3
"""Compares halvex-fetch with the downloaders that an application could start instead.

    benchmarks/downloads.py BUILD_FOLDER [--quick] [--json FILE]

nginx serves from memory, on loopback or over a line with a round trip. Files are written to memory
unless a disk is named.
The programs run in turn, several times; the medians are compared. Needs curl, aria2c and wget2, and
of the build halvex-fetch, HalvexDelayedNetwork, HalvexDelayProxy, HalvexTrustedStore and
HalvexDownloadLayers, which shows what the library's layers take of it.
"""
import argparse
import contextlib
import ctypes
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

from measuring import Nginx, medians

KIB, MIB, GIB = 1024, 1024 ** 2, 1024 ** 3
LIBC = ctypes.CDLL(None, use_errno=True)
CLONE_NEWNET = 0x40000000  # as in linux/sched.h
STORE = "/etc/ssl/certs/ca-certificates.crt"


class Workload:
    """What is fetched, and what it may cost: ratios to the best peer's wall time and to curl's CPU
    time, MiB. None: not judged."""

    def __init__(self, name, files, size, wall, cpu=None, memory=None, secure=False, jobs=8,
                 delay=0, to_disk=False, runs=5, layers=()):
        self.name, self.files, self.size, self.runs = name, files, size, runs
        # What is measured beside the programs, and not judged: parts of the library.
        self.layers = layers
        self.wall, self.cpu, self.memory = wall, cpu, memory
        self.secure, self.jobs, self.delay, self.to_disk = secure, jobs, delay, to_disk


WORKLOADS = [
    Workload("20,000 files of 16 KiB", 20000, 16 * KIB, 0.95, 1.5, 64,
             layers=("bare", "calls", "client", "downloader", "proxy")),
    Workload("400 files of 1 MiB", 400, MIB, 0.95, 1.2, 48, runs=8),
    Workload("4 files of 1 GiB", 4, GIB, 1.0, 1.1, 32, runs=4),
    Workload("20,000 files of 16 KiB, https", 20000, 16 * KIB, 1.0, 1.5, 64, secure=True,
             layers=("bare",)),
    Workload("4 files of 1 GiB, https", 4, GIB, 1.0, 1.1, 32, secure=True, runs=4),
    Workload("2,000 files of 16 KiB, 20 ms round trip, 50 at a time", 2000, 16 * KIB, 0.9, jobs=50,
             delay=20, runs=9, layers=("bare",)),
    Workload("400 files of 1 MiB to disk, synced", 400, MIB, 1.2, to_disk=True, runs=4),
]


@contextlib.contextmanager
def started(*command):
    """Gives the words that a program of the benchmarks' prints first; none if it could not start."""
    process = subprocess.Popen(list(map(str, command)), stdout=subprocess.PIPE, text=True)
    try:
        yield process.stdout.readline().split()
    finally:
        process.terminate()
        process.wait()


@contextlib.contextmanager
def inside(namespace):
    """What is started until the end of the with statement has the network of that namespace."""
    def enter(file):
        if LIBC.setns(file.fileno(), CLONE_NEWNET) != 0:
            raise OSError(ctypes.get_errno(), "setns")

    with open("/proc/thread-self/ns/net") as before, open(namespace) as there:
        enter(there)
        try:
            yield
        finally:
            enter(before)


@contextlib.contextmanager
def delayed(milliseconds, build, folder, site, nginx):
    """Serves the site with that round trip; the folder is for the server itself. Gives what stands
    before a file's path, and what makes the delay: a network of its own, or, where one may not have
    that, a proxy before nginx, which delays no connecting."""
    each_way = milliseconds // 2
    with contextlib.ExitStack() as stack:
        network = stack.enter_context(started(build / "benchmarks/HalvexDelayedNetwork", each_way))
        if network:
            namespace, address, address_over_the_line = network
            stack.enter_context(inside(namespace))
            server = stack.enter_context(Nginx(folder, site, address=address))
            yield f"http://{address_over_the_line}:{server.port}/", "own network"
        else:
            proxy = started(build / "benchmarks/HalvexDelayProxy", nginx.port, each_way)
            port, = stack.enter_context(proxy)
            yield f"http://127.0.0.1:{port}/", "proxy"


def trusting(folder, build):
    """Makes a certificate; gives what stands before a program's command so that it trusts that."""
    module = build / "benchmarks/libHalvexTrustedStore.so"
    if not module.exists():
        raise RuntimeError(f"{module} has not been built")
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                    "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2", "-subj", "/CN=127.0.0.1",
                    "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", folder / "key.pem",
                    "-out", folder / "certificate.pem"], check=True, stderr=subprocess.DEVNULL)
    store = folder / "store.pem"
    store.write_bytes(pathlib.Path(STORE).read_bytes() + (folder / "certificate.pem").read_bytes())
    return ["env", f"HALVEX_TRUSTED_STORE={store}", f"LD_PRELOAD={module}"]


def commands_for(workload, build, urls, output, folder):
    """The programs to compare, by name; ours is the first. Layers stand in brackets."""
    jobs = str(workload.jobs)
    listing = folder / "urls"
    listing.write_text("".join(url + "\n" for url in urls))
    config = folder / "curl"
    config.write_text("".join(
        f'url = "{url}"\noutput = "{output}/{url.rsplit("/", 1)[1]}"\n' for url in urls))
    commands = {
        "halvex-fetch": [build / "tools/fetch/halvex-fetch", "--client", "native", "--progress",
                         "none", "--log-level", "error", "-j", jobs, "-o", output, "-i", listing],
        "curl": ["curl", "-s", "--no-progress-meter", "--parallel", "--parallel-max", jobs, "-K", config],
    }
    if not workload.delay:
        commands["aria2c"] = ["aria2c", "-q", "-j", jobs, "-i", listing, "-d", output,
                              "--file-allocation=none", f"--ca-certificate={STORE}"]
        commands["wget2"] = ["wget2", "-q", f"--max-threads={jobs}", "-i", listing, "-P", output,
                             f"--ca-certificate={STORE}"]
    for layer in workload.layers:
        commands[f"({layer})"] = [build / "benchmarks/HalvexDownloadLayers", layer, jobs, output,
                                  listing]
    return {name: list(map(str, command)) for name, command in commands.items()}


def judged(value, limit):
    if limit is None:
        return f"{value:8.2f}" + " " * 15
    return f"{value:8.2f} {'<=' if value <= limit else '> '} {limit:<5g} " + \
           ("yes" if value <= limit else "NO ")


def report(workload, note, costs):
    """Prints the medians and the verdict; gives what is kept. note: what follows the name."""
    ours = costs["halvex-fetch"]
    peers = [name for name in costs if name != "halvex-fetch" and not name.startswith("(")]
    best = min(peers, key=lambda name: costs[name].wall)
    print(f"\n{workload.name}{note}")
    for name, cost in costs.items():
        print(f"  {name:13} wall {cost.wall:7.3f} s   cpu {cost.cpu:7.3f} s   "
              f"memory {cost.memory:5.0f} MiB")
    wall, cpu = ours.wall / costs[best].wall, ours.cpu / costs["curl"].cpu
    print(f"  wall against {best:8} {judged(wall, workload.wall)}")
    print(f"  cpu against curl      {judged(cpu, workload.cpu)}")
    print(f"  memory in MiB         {judged(ours.memory, workload.memory)}")
    return {"name": workload.name + note, "best": best,
            "wall": wall, "cpu": cpu, "memory": ours.memory,
            "limits": {"wall": workload.wall, "cpu": workload.cpu, "memory": workload.memory},
            "costs": {name: vars(cost) for name, cost in costs.items()}}


def run(workload, build, nginx, memory, trusted, quick):
    files, size, runs, notes = workload.files, workload.size, workload.runs, []
    if quick and workload.delay:
        runs = 3  # With fewer files connecting would count too much.
    elif quick:
        files, size, runs = (files, size // 4, 2) if size >= GIB else (files // 5, size, 3)
        notes.append(f"here {files:,} of {f'{size // MIB} MiB' if size >= MIB else f'{size // KIB} KiB'}")
    site = memory / "site"
    shutil.rmtree(site, ignore_errors=True)
    site.mkdir()
    source = site / "source"
    with source.open("wb") as out:
        for _ in range(max(size // MIB, 1)):
            out.write(os.urandom(min(size, MIB)))
    names = [f"file{number}" for number in range(files)]
    for name in names:
        os.link(source, site / name)
    with tempfile.TemporaryDirectory(dir="/var/tmp" if workload.to_disk else memory) as place:
        output = pathlib.Path(place) / "output"
        url = nginx.secure_url if workload.secure else nginx.url

        def compare(urls):
            commands = commands_for(workload, build, urls, output, memory)
            if workload.secure:
                commands = {name: trusted + command for name, command in commands.items()}
            finish = {name: ["sync", "-f", place] for name in commands if name != "halvex-fetch"}
            return medians(commands, output, runs, files * size,
                           finish if workload.to_disk else None)

        if workload.delay:
            far = pathlib.Path(place) / "nginx"
            far.mkdir()
            with delayed(workload.delay, build, far, site, nginx) as (base, how):
                costs = compare([base + name for name in names])
                notes.append(how)
        else:
            costs = compare([url(name) for name in names])
    return report(workload, f" ({'; '.join(notes)})" if notes else "", costs)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build", type=pathlib.Path, help="the folder of the build to measure")
    parser.add_argument("--quick", action="store_true",
                        help="fewer runs: of a fifth of the files, of a quarter of each large one, and "
                             "of all of those that have a round trip")
    parser.add_argument("--json", type=pathlib.Path, help="write the figures to this file too")
    parser.add_argument("--only", default="", help="only the workloads whose name contains this")
    arguments = parser.parse_args()
    build = arguments.build.resolve()

    with tempfile.TemporaryDirectory(dir="/dev/shm") as place:
        memory = pathlib.Path(place)
        memory.chmod(0o755)
        tls, server = memory / "tls", memory / "nginx"
        tls.mkdir()
        server.mkdir()
        trusted = trusting(tls, build)
        results = []
        with Nginx(server, memory / "site", tls) as nginx:
            for workload in WORKLOADS:
                if arguments.only not in workload.name:
                    continue
                results.append(run(workload, build, nginx, memory, trusted, arguments.quick))
                sys.stdout.flush()
    if arguments.json:
        arguments.json.write_text(json.dumps(results, indent=1) + "\n")


if __name__ == "__main__":
    main()
