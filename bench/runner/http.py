"""The HTTP example beside nginx, both serving one small page, driven by wrk."""

import re
import shutil
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from . import table
from .process import Server, prepare

BASE = "nginx"
CONNECTIONS = 64
PIPELINED = 16
START_TIMEOUT_S = 10
SERVER_CPU, LOAD_CPU = (0,), (1,)
COLUMNS = ["requests/s (min .. max)", "ratio", "server CPU us/request", "ratio"]

CONFIGURATION = """
daemon off; master_process off; worker_processes 1; pid {folder}/pid; error_log {folder}/errors;
events {{ worker_connections 1024; }}
http {{
  access_log off; server_tokens off; default_type text/plain; keepalive_requests 1000000000; tcp_nodelay on;
  client_body_temp_path {folder}/1; proxy_temp_path {folder}/2; fastcgi_temp_path {folder}/3;
  uwsgi_temp_path {folder}/4; scgi_temp_path {folder}/5;
  sendfile on; root {folder}/files;
  server {{ listen 127.0.0.1:{port}; location = / {{ return 200 "Hello, world\\n"; }} }}
}}
"""
PIPELINE_SCRIPT = """
init = function(args)
  local one = wrk.format()
  all = string.rep(one, {count})
end
request = function() return all end
"""


class Example(Server):
    """A server of our examples; it says where it listens in words."""

    def __init__(self, program, *arguments):
        super().__init__(program, 1, SERVER_CPU)
        self._command = [str(program), *arguments, "0", "1"]

    def read_port(self, line):
        return int(line.rsplit(":", 1)[1]) if line.startswith("listening on ") else None


class Nginx(Server):
    """nginx with one worker and a configuration of its own."""

    def __init__(self, folder):
        super().__init__("nginx", 1, SERVER_CPU)
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            self._wanted = free.getsockname()[1]
        configuration = Path(folder) / "nginx.conf"
        configuration.write_text(CONFIGURATION.format(folder=folder, port=self._wanted), encoding="ascii")
        self._command = [shutil.which("nginx", path="/usr/sbin:/usr/bin"), "-e", f"{folder}/errors", "-c",
                         str(configuration)]

    def first_line(self):
        return ""

    def read_port(self, line):
        until = time.monotonic() + START_TIMEOUT_S
        while time.monotonic() < until:
            try:
                socket.create_connection(("127.0.0.1", self._wanted), timeout=1).close()
                return self._wanted
            except OSError:
                time.sleep(0.02)
        return None


def head_bytes(port):
    """How many bytes the answer's head has, and the page."""
    with socket.create_connection(("127.0.0.1", port)) as stream:
        stream.sendall(b"GET / HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n")
        answer = b"".join(iter(lambda: stream.recv(65536), b""))
    head, _, page = answer.partition(b"\r\n\r\n")
    return len(head) + 4, page


def measure(running, script, seconds, target="/"):
    """One run of wrk; requests per second, and the server's processor time for each."""
    command = ["wrk", "-t1", f"-c{CONNECTIONS}", f"-d{max(1, round(seconds))}"]
    command += ["-s", script] if script else []
    before_ns = running.cpu_ns()
    done = subprocess.run([*command, f"http://127.0.0.1:{running.port}{target}"], capture_output=True, text=True,
                          preexec_fn=prepare(LOAD_CPU), timeout=120, check=False)
    used_ns = running.cpu_ns() - before_ns
    total = re.search(r"(\d+) requests in", done.stdout)
    rate = re.search(r"Requests/sec:\s*([\d.]+)", done.stdout)
    if done.returncode or not total or not rate or re.search(r"Socket errors|Non-2xx", done.stdout):
        sys.exit(f"wrk failed:\n{done.stdout}{done.stderr}")
    return {"rps": float(rate.group(1)), "cpu_us": used_ns / 1e3 / int(total.group(1))}


def has_all(title, example, *tools):
    """Whether a measurement has what it takes; else it says what is missing."""
    missing = [name for name in tools if not shutil.which(name, path="/usr/sbin:/usr/bin")]
    if not example.exists():
        missing.append(example.name)
    if missing:
        print(f"! {title} is left out: {', '.join(missing)} missing\n")
    return not missing


def take_turns(servers, rounds, one):
    """What `one` gives for each server in each round; another begins each time."""
    runs = {name: [] for name in servers}
    for number in range(rounds):
        names = list(servers)
        for name in names[number % 2:] + names[:number % 2]:
            with servers[name]() as running:
                runs[name].append(one(name, running))
    return runs


def run(programs, options):
    if not has_all("http", programs / "http_hello", "wrk", "nginx"):
        return
    print(f"== http: one page over {CONNECTIONS} connections, server on processor 0, wrk on processor 1\n")
    with tempfile.TemporaryDirectory() as folder:
        script = Path(folder) / "pipeline.lua"
        script.write_text(PIPELINE_SCRIPT.format(count=PIPELINED), encoding="ascii")
        servers = {"ravelo": lambda: Example(programs / "http_hello"), BASE: lambda: Nginx(folder)}
        for title, lua in (("a request at a time", None), (f"{PIPELINED} requests at a time", str(script))):
            show(title, servers, lua, options)


def show(title, servers, script, options):
    heads = {}

    def one(name, running):
        heads[name], page = head_bytes(running.port)
        assert page == b"Hello, world\n", page
        measure(running, script, 1)  # warm-up
        return measure(running, script, options.seconds * 2)

    runs = take_turns(servers, options.rounds, one)
    table.show([title, "answer's head", *COLUMNS],
               [[name, f"{heads[name]} bytes", *columns(runs, name)] for name in runs])


def columns(runs, name):
    """Requests and processor time of one server beside those of the peer."""
    cells = []
    for key in ("rps", "cpu_us"):
        cells += [table.spread([run[key] for run in runs[name]]),
                  table.ratio([run[key] for run in runs[name]], [run[key] for run in runs[BASE]])]
    return cells
