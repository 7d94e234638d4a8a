"""What the figures were measured on."""

import os
import platform
import re
import resource
import subprocess
from pathlib import Path


def _version(package):
    done = subprocess.run(["pkg-config", "--modversion", package], capture_output=True, text=True, check=False)
    return done.stdout.strip() or "?"


def _asio_version():
    header = Path("/usr/include/asio/version.hpp")
    found = re.search(r"#define ASIO_VERSION (\d+)", header.read_text()) if header.exists() else None
    if not found:
        return "?"
    code = int(found.group(1))
    return f"{code // 100000}.{code // 100 % 1000}.{code % 100}"


def _processor():
    found = re.search(r"model name\s*:\s*(.*)", Path("/proc/cpuinfo").read_text())
    return found.group(1) if found else platform.machine()


def _build_type(build):
    cache = build / "CMakeCache.txt"
    found = re.search(r"CMAKE_BUILD_TYPE:\w+=(.*)", cache.read_text()) if cache.exists() else None
    return found.group(1) if found else "?"


def describe(build, options):
    """Prints machine, versions and parameters."""
    load = ", ".join(f"{value:.2f}" for value in os.getloadavg())
    print(f"machine     {_processor()}, {os.cpu_count()} processors, Linux {platform.release()}")
    print(f"load        {load} before the run; a machine that is busy otherwise gives noisy figures")
    print(f"build       {build} ({_build_type(build)})")
    print(f"peers       libevent {_version('libevent')}, libuv {_version('libuv')}, Asio {_asio_version()}")
    print(f"parameters  {options.rounds} rounds, warm-up {options.warmup} s, window {options.seconds} s, "
          f"TCP_NODELAY, buffers of 16 KiB\n")


def idle_connections(wanted):
    """As many of the wanted connections as the limit of open descriptors allows."""
    limit = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    return wanted if limit == resource.RLIM_INFINITY else max(0, min(wanted, limit - 300))
