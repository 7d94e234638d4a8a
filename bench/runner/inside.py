"""Benchmarks that need no load generator: fan-out, messages, timers, files, texts and senders."""

import os
import subprocess
import tempfile

from . import machine, table
from .process import run_json

BOTH = (0, 1)
MESSAGE_LIBRARIES = ["queue", "ravelo", "asio", "libuv"]
MESSAGE_BASE = "queue"
SCENARIOS = {
    "post": "one thread to one handler, one worker",
    "chain": "a handler to itself, one worker",
    "pairs": "two threads to two handlers, two workers",
    "roundtrip": "to and fro in one pool of two workers",
    "crosstrip": "to and fro between two pools of one worker",
}
FANOUT_LIBRARIES = ["writev", "ravelo", "libevent"]
FANOUT_BASE = "writev"
FANOUT_MBIT = 4
TIMER_LIBRARIES = ["ravelo", "libevent", "asio"]
TIMER_BASE = "libevent"
TICK_PERIOD_US = 10_000
PACE_SYSTEMS = ["nanosleep", "ravelo", "libevent"]
PACE_BASE = "nanosleep"
PACE_PERIOD_US = 20_000
PACE_RECEIVERS = [1, 100, 1000]
FILE_SYSTEMS = ["plain", "ravelo", "libuv", "iouring"]
FILE_BASE = "plain"
PARSER_BASE = "memchr"
PARSERS = {"http": ["memchr", "ravelo", "httpparser"], "sdp": ["memchr", "ravelo"]}
SENDERS = ["raw", "ravelo", "evbuffer", "bufferevent"]
SENDER_BASE = "raw"
BLOCKS = [100, 1400, 4096, 16384, 65536]
TEXTS = {"http": "HTTP request, 1 KiB", "sdp": "session description, 2 KiB"}


def _built(programs, kind, libraries, base):
    """The libraries whose program is there; none if the one that ratios refer to is not."""
    found = [name for name in libraries if (programs / f"{kind}_{name}").exists()]
    for name in sorted(set(libraries) - set(found)):
        print(f"! {kind}_{name} is not built and is left out\n")
    return found if base in found else []


def _rounds(libraries, rounds, measure):
    """Runs of every library, which take turns."""
    runs = {name: [] for name in libraries}
    for number in range(rounds):
        first = number % len(libraries)
        for name in libraries[first:] + libraries[:first]:
            runs[name].append(measure(name))
    return runs


def _values(runs, library, key):
    return [run[key] for run in runs[library]]


def _trip(values):
    return table.number(table.median(values)) if any(values) else "-"


def run_messages(programs, options):
    libraries = _built(programs, "message", MESSAGE_LIBRARIES, MESSAGE_BASE)
    print("== message: ratios are messages/s to those of a mutex and a condition variable\n")
    for scenario, title in SCENARIOS.items() if libraries else ():
        runs = _rounds(libraries, options.rounds,
                       lambda name: run_json([programs / f"message_{name}", scenario], BOTH, 120))
        lines = [[name, table.spread(_values(runs, name, "per_second")),
                  table.number(table.median(_values(runs, name, "cpu_ns"))),
                  *(_trip(_values(runs, name, key)) for key in ("p50_us", "p99_us")),
                  table.ratio(_values(runs, name, "per_second"), _values(runs, MESSAGE_BASE, "per_second"))]
                 for name in libraries]
        table.show([f"{scenario}: {title}", "messages/s (min .. max)", "CPU ns", "trip p50 us", "trip p99 us",
                    "ratio"], lines)


def run_fanouts(programs, options):
    libraries = _built(programs, "fanout", FANOUT_LIBRARIES, FANOUT_BASE)
    print(f"== fanout: one stream of {FANOUT_MBIT} Mbit/s in packets of 1400 bytes; ratios are to a writev loop\n")
    for receivers in (100, 500, machine.idle_connections(4000) // 2) if libraries else ():
        runs = _rounds(libraries, options.rounds,
                       lambda name: run_json([programs / f"fanout_{name}", receivers, FANOUT_MBIT, options.seconds],
                                             BOTH, 120))
        lines = [[name, table.spread(_values(runs, name, "per_second")),
                  table.ratio(_values(runs, name, "per_second"), _values(runs, FANOUT_BASE, "per_second")),
                  table.spread(_values(runs, name, "cpu_s_per_gib")),
                  table.ratio(_values(runs, name, "cpu_s_per_gib"), _values(runs, FANOUT_BASE, "cpu_s_per_gib")),
                  *(table.number(table.median(_values(runs, name, key))) for key in ("p50_us", "p99_us")),
                  table.number(1024 * table.median(_values(runs, name, "receivers_kib")) / receivers),
                  table.number(table.median(_values(runs, name, "stream_kib")))]
                 for name in libraries]
        table.show([f"{receivers:,} receivers", "packets/s (min .. max)", "ratio", "CPU s/GiB (min .. max)", "ratio",
                    "delay p50 us", "p99 us", "bytes each", "stream KiB"], lines)


def run_timers(programs, options):
    libraries = _built(programs, "timer", TIMER_LIBRARIES, TIMER_BASE)
    print(f"== timer: ratios are to {TIMER_BASE} (less is better)\n")
    for count in options.timers if libraries else ():
        for order in ("armed", "reverse", "random"):
            runs = _rounds(libraries, options.rounds,
                           lambda name: run_json([programs / f"timer_{name}", count, order, options.timer_seconds],
                                                 BOTH, 120))
            table.show([f"{count:,} timers, cancelled in order: {order}", "arm ns (min .. max)", "ratio",
                        "cancel ns (min .. max)", "ratio", "cancelled"],
                       [_timer_line(runs, name, count) for name in libraries])


def _timer_line(runs, name, count):
    line = [name]
    for key in ("arm_ns", "cancel_ns"):
        line += [table.spread(_values(runs, name, key)),
                 table.ratio(_values(runs, name, key), _values(runs, TIMER_BASE, key))]
    cancelled = min(_values(runs, name, "cancelled"))
    return line + ["all" if cancelled == count else f"{cancelled:,} before the time was up"]


def run_ticks(programs, options):
    libraries = _built(programs, "ticks", TIMER_LIBRARIES, TIMER_BASE)
    print("== ticks: how far they come from the grid, in us; early counts as late does\n")
    if not libraries:
        return
    seconds = options.ticks * TICK_PERIOD_US / 1e6
    runs = _rounds(libraries, options.rounds,
                   lambda name: run_json([programs / f"ticks_{name}", options.ticks, TICK_PERIOD_US], BOTH,
                                         seconds + 60))
    lines = [[name, *(table.spread(_values(runs, name, key)) for key in ("median_us", "p99_us", "max_us")),
              f"{min(_values(runs, name, 'earliest_us')):+,.0f} .. {max(_values(runs, name, 'latest_us')):+,.0f}"]
             for name in libraries]
    table.show([f"{options.ticks:,} ticks of {TICK_PERIOD_US // 1000} ms", "median (min .. max)", "p99", "greatest",
                "earliest .. latest"], lines)


def run_pace(programs, options):
    systems = _built(programs, "pace", PACE_SYSTEMS, PACE_BASE)
    print("== pace: how late receivers are called, in us behind the earliest call of each\n")
    seconds = options.pace * PACE_PERIOD_US / 1e6
    for receivers in PACE_RECEIVERS if systems else ():
        runs = _rounds(systems, options.rounds,
                       lambda name: run_json([programs / f"pace_{name}", receivers, options.pace, PACE_PERIOD_US],
                                             BOTH, seconds + 60))
        table.show([f"{receivers:,} receivers, {options.pace:,} ticks of {PACE_PERIOD_US // 1000} ms",
                    "median (min .. max)", "p99", "greatest"],
                   [[name, *(table.spread(_values(runs, name, key)) for key in ("median_us", "p99_us", "max_us"))]
                    for name in systems])


def _works(program, folder):
    """Whether a system is there; its program prints why not."""
    trial = subprocess.run([program, "read", "1", "1", folder], capture_output=True, text=True, timeout=60, check=False)
    if trial.returncode != 0:
        print(f"! {program.name} is left out: {trial.stderr.strip()}\n")
    return trial.returncode == 0


def _run_file(program, command):
    os.sync()  # or the system writes what the round before has left just now
    return run_json([program, *command], BOTH, 300)


def run_files(programs, options):
    print("== file: ratios are MB/s to those of plain fwrite and fread; held: the longest callback by the clock, and the "
          "longest that one ran, was blocked, waited for a processor\n")
    with tempfile.TemporaryDirectory(prefix="ravelo_bench_", dir=options.folder) as folder:
        systems = [name for name in _built(programs, "file", FILE_SYSTEMS, FILE_BASE)
                   if _works(programs / f"file_{name}", folder)]
        for way in ("write", "read") if systems else ():
            for files in (1, 8):
                command = [way, files, options.file_mib, folder]
                runs = _rounds(systems, options.rounds,
                               lambda name: _run_file(programs / f"file_{name}", command))
                lines = [_file_line(runs, name) for name in systems]
                table.show([f"{way} {options.file_mib} MiB in {files} file(s)", "MB/s (min .. max)", "ratio",
                            "held us (min .. max)", "CPU us", "blocked us", "waiting us", "own > 1 ms", "stolen ms"],
                           lines)


def _file_line(runs, name):
    line = [name, table.spread(_values(runs, name, "mb_per_second")),
            table.ratio(_values(runs, name, "mb_per_second"), _values(runs, FILE_BASE, "mb_per_second"))]
    line += [table.spread(_values(runs, name, key))
             for key in ("hold_us", "hold_cpu_us", "hold_blocked_us", "hold_waiting_us")]
    above, callbacks = (sum(_values(runs, name, key)) for key in ("above_own", "callbacks"))
    return [*line, f"{above:.0f} of {callbacks:,.0f}", table.number(sum(_values(runs, name, "stolen_ms")))]


def run_parsers(programs, options):
    print("== parser: ratios are to a loop written by hand with memchr (less is better)\n")
    for text, title in TEXTS.items():
        parsers = _built(programs, "parser", PARSERS[text], PARSER_BASE)
        if not parsers:
            return
        runs = _rounds(parsers, options.rounds,
                       lambda name: run_json([programs / f"parser_{name}", text, options.seconds / 3], BOTH, 60))
        table.show([title, "ns per text (min .. max)", "ratio"],
                   [[name, table.spread(_values(runs, name, "ns")),
                     table.ratio(_values(runs, name, "ns"), _values(runs, PARSER_BASE, "ns"))] for name in parsers])


def run_senders(programs, options):
    senders = _built(programs, "sender", SENDERS, SENDER_BASE)
    print("== sender: ratios are to send() and poll()\n")
    for size in BLOCKS if senders else ():
        runs = _rounds(senders, options.rounds,
                       lambda name: run_json([programs / f"sender_{name}", size, options.seconds / 2], BOTH, 60))
        table.show([f"blocks of {size:,} B", "MB/s (min .. max)", "ratio", "CPU us/MB (min .. max)", "ratio"],
                   [_sender_line(runs, name) for name in senders])


def _sender_line(runs, name):
    line = [name]
    for key in ("mb_per_second", "cpu_us_per_mb"):
        line += [table.spread(_values(runs, name, key)),
                 table.ratio(_values(runs, name, key), _values(runs, SENDER_BASE, key))]
    return line
