"""Child processes that never outlive the run."""

import ctypes
import json
import os
import signal
import subprocess
import sys

PR_SET_PDEATHSIG = 1
STOP_TIMEOUT_S = 10
_libc = ctypes.CDLL(None, use_errno=True)


def prepare(processors):
    """What a child does first: it ends with us, and runs on these processors."""
    def first():
        _libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
        os.sched_setaffinity(0, processors)

    return first


def run_json(command, processors, timeout_s):
    """Runs a program that prints one line of JSON; returns it as a dictionary.

    A program that fails, or prints nothing, ends the whole run: figures of a broken run are worth nothing.
    """
    done = subprocess.run([str(part) for part in command], preexec_fn=prepare(processors), timeout=timeout_s,
                          stdout=subprocess.PIPE, text=True, check=False)
    if done.returncode != 0:
        sys.exit(f"{' '.join(map(str, command))}: exit code {done.returncode}\n{done.stdout}")
    return json.loads(done.stdout)


class Server:
    """A server for the length of a `with` block; `port` is where it listens."""

    def __init__(self, program, threads, processors):
        self._command = [str(program), "0", str(threads)]
        self._processors = processors

    def __enter__(self):
        self._process = subprocess.Popen(self._command, preexec_fn=prepare(self._processors),
                                         stdout=subprocess.PIPE, text=True)
        line = self.first_line()
        self.port = self.read_port(line)
        if self.port is None:
            self.__exit__(None, None, None)
            sys.exit(f"{self._command[0]} did not start: {line!r}")
        self.pid = self._process.pid
        return self

    def first_line(self):
        return self._process.stdout.readline()

    def read_port(self, line):
        """The port that the first line tells, or None."""
        return int(line) if line.strip().isdigit() else None

    def cpu_ns(self):
        """Processor time used so far by the living threads."""
        total = 0
        for task in os.listdir(f"/proc/{self.pid}/task"):
            with open(f"/proc/{self.pid}/task/{task}/schedstat", encoding="ascii") as account:
                total += int(account.read().split()[0])
        return total

    def __exit__(self, kind, error, trace):
        self._process.terminate()
        try:
            code = self._process.wait(STOP_TIMEOUT_S)
        except subprocess.TimeoutExpired:
            self._process.kill()
            code = self._process.wait()
        self._process.stdout.close()
        if code != 0:
            print(f"! {self._command[0]} ended with {code} when told to stop", file=sys.stderr)
