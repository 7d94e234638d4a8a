"""Echo servers under load."""

import time
from dataclasses import dataclass, field

from . import machine, table
from .process import Server, run_json

BASE = "epoll"
SERVERS = ["epoll", "ravelo", "libevent", "libuv", "asio"]
QUIET_AFTER_S = 0.5


@dataclass(frozen=True)
class Row:
    """One kind of load."""

    name: str
    arguments: tuple


@dataclass(frozen=True)
class Placement:
    """How many threads serve, and on which processors everything runs."""

    title: str
    threads: int
    server: tuple
    load: tuple


@dataclass
class Results:
    """What the rounds of one row gave, per server."""

    runs: dict = field(default_factory=dict)

    def add(self, server, run):
        self.runs.setdefault(server, []).append(run)

    def values(self, server, key):
        return [run[key] for run in self.runs[server]]


PLACEMENTS = [
    Placement("server with 1 thread on processor 0, load on processor 1", 1, (0,), (1,)),
    Placement("server with 2 threads, nothing pinned (processors 0 and 1)", 2, (0, 1), (0, 1)),
]


def rows():
    idle = machine.idle_connections(10000)
    return [
        Row("1 x 64 B", ("--connections", 1)),
        Row("100 x 64 B", ("--connections", 100)),
        Row("1000 x 64 B", ("--connections", 1000)),
        Row("100 x 16 KiB", ("--connections", 100, "--size", 16384)),
        Row("churn, 32 at once", ("--mode", "churn", "--connections", 32)),
        Row(f"{idle} idle, 100 active", ("--connections", 100, "--idle", idle)),
    ]


def built_servers(programs):
    found = [name for name in SERVERS if (programs / f"echo_{name}").exists()]
    for name in sorted(set(SERVERS) - set(found)):
        print(f"! echo_{name} is not built and is left out\n")
    return found


def measure(programs, server, placement, row, options):
    """One run: a fresh server, one load, stop."""
    with Server(programs / f"echo_{server}", placement.threads, placement.server) as running:
        command = [programs / "echo_load", "--port", running.port, "--pid", running.pid, "--warmup",
                   options.warmup, "--seconds", options.seconds, *row.arguments]
        return run_json(command, placement.load, 120)


def measure_row(programs, servers, placement, row, options):
    """All rounds of a row. Servers take turns, and another one begins each round."""
    results = Results()
    for number in range(options.rounds):
        first = number % len(servers)
        for server in servers[first:] + servers[:first]:
            results.add(server, measure(programs, server, placement, row, options))
    return results


def show_row(row, servers, results):
    head = [row.name, "requests/s (min .. max)", "p50 us", "p99 us", "p99.9 us", "server CPU us/request", "load busy"]
    lines = []
    for server in servers:
        values = {key: results.values(server, key)
                  for key in ("rps", "p50_us", "p99_us", "p999_us", "cpu_us", "load_busy")}
        lines.append([server, table.spread(values["rps"]),
                      *(table.number(table.median(values[key])) for key in ("p50_us", "p99_us", "p999_us")),
                      table.spread(values["cpu_us"]), f"{table.median(values['load_busy']):.0%}"])
    table.show(head, lines)


def show_ratios(servers, all_results):
    """The summary: per row and server, requests/s and CPU per request relative to raw epoll."""
    if BASE not in servers:
        return
    for key, title in (("rps", "requests/s / epoll (more is better)"),
                       ("cpu_us", "CPU per request / epoll (less is better)")):
        lines = [[name, *(table.ratio(results.values(server, key), results.values(BASE, key))
                          for server in servers)] for name, results in all_results.items()]
        table.show([title, *servers], lines)


def show_quiet(programs, servers, placement, options):
    """Processor time of a server that has had traffic and has none now."""
    lines = []
    for server in servers:
        with Server(programs / f"echo_{server}", placement.threads, placement.server) as running:
            run_json([programs / "echo_load", "--port", running.port, "--pid", running.pid, "--connections", 100,
                      "--seconds", 0.2], placement.load, 60)
            time.sleep(QUIET_AFTER_S)
            before_ns = running.cpu_ns()
            time.sleep(options.quiet)
            lines.append([server, f"{(running.cpu_ns() - before_ns) / 1e6 / options.quiet:.3f}"])
    table.show(["without traffic", "CPU ms per second"], lines)


def run(programs, options):
    servers = built_servers(programs)
    summaries = []
    for placement in PLACEMENTS:
        print(f"== echo: {placement.title}\n")
        all_results = {}
        for row in rows():
            all_results[row.name] = measure_row(programs, servers, placement, row, options)
            show_row(row, servers, all_results[row.name])
        show_quiet(programs, servers, placement, options)
        summaries.append((placement, all_results))
    for placement, all_results in summaries:
        print(f"== echo, ratios: {placement.title}\n")
        show_ratios(servers, all_results)
