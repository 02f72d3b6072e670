"""Runs one example against a web server on loopback and checks what it prints and leaves behind.

run_example.py NAME PROGRAM
"""
import contextlib
import functools
import hashlib
import http.server
import json
import os
import pathlib
import socket
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request

FILES = {"hello.txt": b"Hello!\n", "b.bin": bytes(range(256)) * 1024}
AVAILABLE = "Status: Available, err:NoError =100%"


def run(program, arguments, folder):
    result = subprocess.run([program, *arguments], cwd=folder, timeout=100, capture_output=True,
                            text=True)
    print(result.stdout, result.stderr, sep="")
    return result.returncode, result.stdout.splitlines()


def check(claim, holds):
    if not holds:
        sys.exit(f"FAILED: {claim}")


def check_files(folder, names):
    check(f"{names} and nothing else are there", sorted(os.listdir(folder)) == sorted(names))
    for name in names:
        check(f"{name} is whole", (folder / name).read_bytes() == FILES[name])


def quickstart(program, url, folder):
    code, lines = run(program, [url], folder)
    check("it ends with the file available", code == 0 and lines[-1] == AVAILABLE)
    check("it begins with waiting", lines[0] == "Status: Waiting, err:NoError =0%")
    check_files(folder, ["hello.txt"])
    code, lines = run(program, [url + "missing/"], folder / "..")
    check("a missing file is an error", code == 1 and lines[-1].startswith("Status: Error"))


def qt_event_loop(program, url, folder):
    code, lines = run(program, [url, "hello.txt", "b.bin"], folder)
    check("it ends with both files available", code == 0 and lines[-1] == AVAILABLE)
    check_files(folder, ["hello.txt", "b.bin"])


def desktop(program, url, folder):
    """Its window is tested by itself; here it is the program around it, without a display."""
    os.environ["QT_QPA_PLATFORM"] = "offscreen"
    for arguments in [], [url], [url, "no bundle"]:
        code, _ = run(program, arguments, folder)
        check(f"it refuses {arguments}", code == 2)
    command = [program, "--folder", str(folder), url, "Start-up=hello.txt:7", "Others=b.bin"]
    with subprocess.Popen(command) as process:
        deadline = time.monotonic() + 100
        while not all((folder / name).exists() for name in FILES) and time.monotonic() < deadline:
            time.sleep(0.05)
        is_running = process.poll() is None
        process.terminate()
    check("it runs until it is closed", is_running)
    check_files(folder, FILES)


def validator(program, url, folder):
    code, lines = run(program, [url, "hello.txt", "7"], folder)
    check("a file of the right size is accepted", code == 0 and lines == [AVAILABLE])
    check_files(folder, ["hello.txt"])
    code, lines = run(program, [url, "hello.txt", "8"], folder)
    check("another size is rejected",
          code == 1 and lines == ["Status: Error, err:Corrupted =0%"])


def status_texts(program, url, folder):
    code, lines = run(program, [url, "b.bin"], folder)
    check("it says that the file is ready", code == 0 and lines[-1] == "Ready.")
    check("it begins with waiting", lines[0] == "Waiting...")
    check("it tells of progress", any(line.startswith("Downloading, ") for line in lines))
    check_files(folder, ["b.bin"])
    code, lines = run(program, [url, "missing"], folder)
    check("a missing file is the server's affair",
          code == 1 and lines[-1].startswith("The server could not send the file"))
    with socket.socket() as unused:
        unused.bind(("127.0.0.1", 0))
        nobody = f"http://127.0.0.1:{unused.getsockname()[1]}/"
        code, lines = run(program, [nobody, "b.bin"], folder)
    check("without a server there is no connection",
          code == 1 and lines[-1].startswith("No connection."))


def startup(program, url, folder):
    def manifest(content, base_url):
        files = [{"path": "hello.txt", "size": len(content),
                  "sha256": hashlib.sha256(content).hexdigest()}]
        path = folder / ".." / "manifest.json"
        path.write_text(json.dumps({"baseUrl": base_url, "bundles": [
            {"name": "needed", "startup": True, "files": files},
            {"name": "more", "files": [{"path": "b.bin", "size": len(FILES["b.bin"])}]}]}))
        return [str(path), str(folder), "60"]

    hello = FILES["hello.txt"]
    code, lines = run(program, manifest(hello, url), folder)
    check("with its files it starts", code == 0 and lines == ["Starting."])
    check_files(folder, ["b.bin", "hello.txt"])
    code, lines = run(program, manifest(b"A new version", url + "missing/"), folder)
    check("without the new one it starts with the old one",
          code == 0 and lines == ["Starting with the files of last time."])
    check_files(folder, ["b.bin", "hello.txt"])
    (folder / "hello.txt").unlink()
    code, lines = run(program, manifest(hello, url + "missing/"), folder)
    check("with none it does not start", code == 1 and lines[0].startswith("Cannot start"))


class Proxy(http.server.BaseHTTPRequestHandler):
    """Fetches for its clients, and keeps the addresses that they asked for."""
    asked = []

    def do_GET(self):
        Proxy.asked.append(self.path)
        with urllib.request.urlopen(self.path) as answer:
            body = answer.read()
        self.send_response(200)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)


def proxy(program, url, folder):
    with serving(Proxy) as server:
        code, lines = run(program, [url, "b.bin", f"127.0.0.1:{server.server_port}"], folder)
        check("the file comes through the proxy", code == 0 and Proxy.asked == [url + "b.bin"])
        check_files(folder, ["b.bin"])
    code, lines = run(program, [url, "hello.txt"], folder)
    check("without the setting it comes directly", code == 0 and len(Proxy.asked) == 1)


@contextlib.contextmanager
def serving(handler):
    """A web server on a thread of its own."""
    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler) as server:
        threading.Thread(target=server.serve_forever, daemon=True).start()
        yield server
        server.shutdown()


name, program = sys.argv[1:]
with tempfile.TemporaryDirectory() as scratch:
    site = pathlib.Path(scratch, "site")
    folder = pathlib.Path(scratch, "sub", "downloads")
    site.mkdir()
    folder.mkdir(parents=True)
    for file, content in FILES.items():
        (site / file).write_bytes(content)
    handler = functools.partial(http.server.SimpleHTTPRequestHandler, directory=str(site))
    with serving(handler) as server:
        globals()[name](program, f"http://127.0.0.1:{server.server_port}/", folder)
