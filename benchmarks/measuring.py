"""What the end-to-end benchmarks share: a web server and the cost of running a program."""
import os
import pathlib
import shutil
import socket
import statistics
import subprocess
import time


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Nginx:
    """The system's nginx, serving a folder until the end of the with statement.

    With a folder that holds certificate.pem and key.pem it serves https as well, HTTP/2 offered.
    """

    def __init__(self, folder, site, tls=None, address="127.0.0.1"):
        # No proxy is to be asked for it.
        for name in [name for name in os.environ if name.lower().endswith("_proxy")]:
            del os.environ[name]
        self.address = address
        self.port = free_port()
        self.secure_port = free_port() if tls else None
        https = tls and f"""
            server {{
                listen {address}:{self.secure_port} ssl http2; root "{site}";
                ssl_certificate "{tls}/certificate.pem"; ssl_certificate_key "{tls}/key.pem";
                ssl_session_cache shared:s:1m;
            }}"""
        configuration = folder / "nginx.conf"
        configuration.write_text(f"""
            daemon off; worker_processes 1; pid nginx.pid; error_log error.log;
            events {{ worker_connections 1024; }}
            http {{
                access_log off; sendfile on; keepalive_requests 100000;
                client_body_temp_path b; proxy_temp_path p; fastcgi_temp_path f;
                uwsgi_temp_path u; scgi_temp_path s;
                server {{ listen {address}:{self.port}; root "{site}"; }}
                {https or ""}
            }}""")
        self.process = subprocess.Popen(
            ["/usr/sbin/nginx", "-p", str(folder), "-c", str(configuration),
             "-e", str(folder / "error.log")])

    def __enter__(self):
        deadline = time.monotonic() + 30
        while True:
            with socket.socket() as probe:
                if probe.connect_ex((self.address, self.port)) == 0:
                    return self
            if time.monotonic() > deadline:
                raise RuntimeError("nginx does not start")
            time.sleep(0.05)

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait()

    def url(self, path):
        return f"http://{self.address}:{self.port}/{path}"

    def secure_url(self, path):
        return f"https://{self.address}:{self.secure_port}/{path}"


class Cost:
    """Of one run: seconds of CPU time (user and system), of wall time, MiB of memory at most."""

    def __init__(self, cpu, wall, memory):
        self.cpu, self.wall, self.memory = cpu, wall, memory


def measure(command, output, finish=None):
    """The cost of one run into an empty folder; finish is a command whose wall time counts too."""
    shutil.rmtree(output, ignore_errors=True)
    output.mkdir()
    begin = time.monotonic()
    process = subprocess.Popen(command, stdout=subprocess.DEVNULL)
    _, status, usage = os.wait4(process.pid, 0)
    if finish:
        subprocess.run(finish, check=True)
    wall = time.monotonic() - begin
    if status != 0:
        raise RuntimeError(f"{command[0]} ended with status {status}")
    return Cost(usage.ru_utime + usage.ru_stime, wall, usage.ru_maxrss / 1024)


def medians(commands, output, runs, expected_bytes, finish=None):
    """The median costs by name; the commands are run in turn, another one first in each round, and
    each run must fetch all bytes."""
    costs = {name: [] for name in commands}
    names = list(commands)
    # Does not count: memory that the machine has not used for a while takes it longer to hand out.
    measure(commands[names[0]], output)
    for _ in range(runs):
        for name in names:
            costs[name].append(measure(commands[name], output, (finish or {}).get(name)))
            arrived = sum(entry.stat().st_size for entry in pathlib.Path(output).iterdir())
            if arrived != expected_bytes:
                raise RuntimeError(f"{name} has fetched {arrived} of {expected_bytes} bytes")
        names.append(names.pop(0))
    return {name: Cost(*(statistics.median(getattr(cost, what) for cost in samples)
                         for what in ("cpu", "wall", "memory")))
            for name, samples in costs.items()}
