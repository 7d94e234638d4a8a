"""TLS servers: handshakes and bulk."""

from . import table
from .echo import Results
from .process import Server, run_json

BASE = "plain"
SERVERS = ["plain", "ravelo", "libevent", "asio"]
SERVER_CPU, LOAD_CPU = (0,), (1,)
ROWS = {
    "full": ("full handshakes, one after the other", "handshakes/s"),
    "resumed": ("resumed handshakes, one after the other", "handshakes/s"),
    "stream": ("one connection, server to client", "MiB/s"),
}


def measure(programs, server, mode, options):
    """One run: a fresh server, one load, stop."""
    with Server(programs / f"tls_{server}", 1, SERVER_CPU) as running:
        return run_json([programs / "tls_load", running.port, running.pid, mode, options.seconds], LOAD_CPU, 120)


def run(programs, options):
    servers = [name for name in SERVERS if (programs / f"tls_{name}").exists()]
    for name in sorted(set(SERVERS) - set(servers)):
        print(f"! tls_{name} is not built and is left out\n")
    if BASE not in servers:
        return
    print("== tls: server on processor 0, load on processor 1; ratios are to plain OpenSSL calls\n")
    for mode, (title, unit) in ROWS.items():
        results = Results()
        for number in range(options.rounds):
            first = number % len(servers)
            for server in servers[first:] + servers[:first]:
                results.add(server, measure(programs, server, mode, options))
        show(title, unit, servers, results)


def show(title, unit, servers, results):
    lines = []
    for server in servers:
        line = [server]
        for key in ("per_second", "cpu_us"):
            values = results.values(server, key)
            line += [table.spread(values), table.ratio(values, results.values(BASE, key))]
        lines.append(line)
    table.show([title, f"{unit} (min .. max)", "ratio", f"server CPU us per {unit.split('/')[0].rstrip('s')}", "ratio"],
               lines)
