"""The example that serves files beside nginx with sendfile, driven by wrk and, for a large file, by curl."""

import subprocess
import sys
import tempfile
from pathlib import Path

from .http import BASE, COLUMNS, CONNECTIONS, LOAD_CPU, Example, Nginx, columns, has_all, measure, take_turns
from .process import prepare

from . import table

SMALL = {"100 B": 100, "100 KiB": 100 * 1024}
LARGE_MIB = 100
DOWNLOADS = 5  # of the large file, one after the other, in a round


def run(programs, options):
    if not has_all("httpfile", programs / "file_server", "wrk", "curl", "nginx"):
        return
    print(f"== httpfile: files, server on processor 0; wrk with {CONNECTIONS} connections, curl with one, on "
          "processor 1\n")
    with tempfile.TemporaryDirectory(prefix="ravelo_bench_", dir=options.folder) as folder:
        Path(folder).chmod(0o755)
        root = Path(folder) / "files"
        root.mkdir()
        servers = {"ravelo": lambda: Example(programs / "file_server", str(root)), BASE: lambda: Nginx(folder)}
        for title, size in SMALL.items():
            (root / "file").write_bytes(b"x" * size)
            show_small(title, servers, options)
        (root / "file").write_bytes(b"x" * (LARGE_MIB << 20))
        show_large(servers, options)


def show_small(title, servers, options):
    def one(_, running):
        measure(running, None, 1, "/file")  # warm-up
        return measure(running, None, options.seconds * 2, "/file")

    runs = take_turns(servers, options.rounds, one)
    table.show([title, *COLUMNS], [[name, *columns(runs, name)] for name in runs])


def show_large(servers, options):
    def one(_, running):
        download(running)  # warm-up
        before_ns = running.cpu_ns()
        rates = [download(running) for _ in range(DOWNLOADS)]
        used_ms = (running.cpu_ns() - before_ns) / 1e6
        return {"rate": sum(rates) / DOWNLOADS, "cpu_ms": used_ms / DOWNLOADS}

    runs = take_turns(servers, options.rounds, one)
    lines = []
    for name, values in runs.items():
        line = [name]
        for key in ("rate", "cpu_ms"):
            line += [table.spread([run[key] for run in values]),
                     table.ratio([run[key] for run in values], [run[key] for run in runs[BASE]])]
        lines.append(line)
    table.show([f"{LARGE_MIB} MiB", "MB/s (min .. max)", "ratio", "server CPU ms/download", "ratio"], lines)


def download(running):
    """MB/s of one download."""
    command = ["curl", "--silent", "--show-error", "--fail", "--noproxy", "*", "--output", "/dev/null", "--write-out",
               "%{speed_download} %{size_download}", f"http://127.0.0.1:{running.port}/file"]
    done = subprocess.run(command, capture_output=True, text=True, preexec_fn=prepare(LOAD_CPU), timeout=120, check=False)
    if done.returncode or int(done.stdout.split()[1]) != LARGE_MIB << 20:
        sys.exit(f"curl failed:\n{done.stdout}{done.stderr}")
    return float(done.stdout.split()[0]) / 1e6
