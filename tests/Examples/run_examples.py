"""Runs the example programs as their users do, one case per call.

usage: run_examples.py CASE --bin FOLDER [--suffix .exe] [--emulator wine] --nc NC --socat SOCAT
"""

import argparse
import contextlib
import os
import random
import resource
import select
import shutil
import signal
import socket
import struct
import subprocess
import sys

PATIENCE = 60  # seconds that nothing here comes near to, unless it hangs
CROWD = 5000


class Program:
    """A running program: stopped as by Ctrl-C when the block ends, and expected to end well."""

    def __init__(self, options, name, *arguments, **settings):
        self.command = [options.emulator] if options.emulator else []
        self.command += [os.path.join(options.bin, name + options.suffix), *map(str, arguments)]
        self.process = subprocess.Popen(self.command, stdout=subprocess.PIPE, **settings)

    def __enter__(self):
        line = self.process.stdout.readline().decode().strip()
        assert line.startswith("listening on 127.0.0.1:"), f"{self.command} said: {line!r}"
        self.port = int(line.rsplit(":", 1)[1])
        return self

    def __exit__(self, failure, *_):
        try:
            if not failure:
                self.end()
        finally:
            self.process.kill()
            self.process.wait()

    def end(self):
        self.process.send_signal(signal.SIGINT)
        output, _ = self.process.communicate(timeout=PATIENCE)
        assert self.process.returncode == 0, f"the server ended with {self.process.returncode}"
        assert output.decode().split() == ["stopped"], output

    def connect(self):
        stream = socket.create_connection(("127.0.0.1", self.port), timeout=PATIENCE)
        stream.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        return stream


def server(options, threads=2, pool_size=2):
    return Program(options, "echo_server", 0, threads, pool_size)


def client(options, *arguments, text=None):
    command = [options.emulator] if options.emulator else []
    command += [os.path.join(options.bin, "echo_client" + options.suffix), *map(str, arguments)]
    result = subprocess.run(command, input=text, capture_output=True, timeout=PATIENCE, check=False)
    return result.returncode, result.stdout.replace(b"\r\n", b"\n"), result.stderr


def exchange(stream, data):
    """Sends bytes and expects them back; at most as many as the kernel's buffers hold."""
    stream.sendall(data)
    received = b""
    while len(received) < len(data):
        part = stream.recv(65536)
        assert part, "the server has hung up"
        received += part
    assert received == data, f"sent {data[:40]!r}, received {received[:40]!r}"


@contextlib.contextmanager
def undisturbed(echo):
    """A polite connection that must work before, and while, something rude happens."""
    with echo.connect() as polite:
        exchange(polite, b"before\n")
        yield polite
        exchange(polite, b"after\n")


def ClientGetsItsLinesBack(options):
    with server(options) as echo:
        text = b"".join(b"line %d\n" % number for number in range(200)) + b"x" * 100000 + b"\n"
        assert client(options, echo.port, text=text)[:2] == (0, text)
        assert client(options, echo.port, "one line")[:2] == (0, b"one line\n")


def ClientFailsWithoutAServer(options):
    with socket.socket() as unheard:
        unheard.bind(("127.0.0.1", 0))
        status, output, errors = client(options, unheard.getsockname()[1], "anybody there?")
    assert status == 1 and output == b"", (status, output)
    assert b"cannot connect" in errors, errors


def netcat(options, port, data):
    command = [options.nc, "-N", "127.0.0.1", str(port)]
    return subprocess.run(command, input=data, capture_output=True, timeout=PATIENCE, check=True).stdout


def NetcatGetsItsBytesBack(options):
    with server(options) as echo:
        for size in (1, 5, 16 * 1024, 16 * 1024 + 1, 3_000_000):
            data = random.Random(size).randbytes(size)
            assert netcat(options, echo.port, data) == data, f"{size} bytes came back wrong"


def ConnectionsMayLiveInThePublicPool(options):
    with server(options, threads=1, pool_size=0) as echo:
        assert netcat(options, echo.port, b"served by the public pool\n") == b"served by the public pool\n"


def ServerEndsCleanlyWithConnectionsOpen(options):
    streams = []
    with server(options) as echo:
        for _ in range(20):
            streams.append(echo.connect())
            exchange(streams[-1], b"still here\n")
    for stream in streams:
        with stream:
            assert stream.recv(1) == b"", "the server ended, so its connections have"


def GarbageComesBackUnchanged(options):
    with server(options) as echo, undisturbed(echo), echo.connect() as stream:
        for size in (1, 7, 1000, 60000):
            exchange(stream, random.Random(size).randbytes(size))


def ResetHarmsNobodyElse(options):
    with server(options) as echo, undisturbed(echo):
        for _ in range(200):
            stream = echo.connect()
            stream.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            stream.sendall(b"half a sen")
            stream.close()


def SilentClientHarmsNobodyElse(options):
    with server(options) as echo, undisturbed(echo), echo.connect(), echo.connect():
        assert netcat(options, echo.port, b"not silent\n") == b"not silent\n"


def stuff(stream, block):
    """Sends a block over and over, until nobody has taken a byte for half a second: how many were sent."""
    stream.setblocking(False)
    sent = 0
    while select.select([], [stream], [], 0.5)[1]:
        sent += stream.send(block[sent % len(block):])
        assert sent < 1_000_000_000, "the server hoards what its client does not take back"
    stream.setblocking(True)
    stream.settimeout(PATIENCE)
    return sent


def ClientThatReadsLateHarmsNobodyElse(options):
    block = random.Random(1).randbytes(65536)
    with server(options) as echo, undisturbed(echo) as polite, echo.connect() as stream:
        sent = stuff(stream, block)
        exchange(polite, b"in the meantime\n")
        received = 0
        while received < sent:
            part = stream.recv(65536 - received % 65536)
            assert part and part == block[received % 65536:][:len(part)], f"wrong after {received} bytes"
            received += len(part)
        print(f"{sent} bytes came back late, but came back")


def ClientThatNeverReadsHarmsNobodyElse(options):
    with server(options) as echo, undisturbed(echo) as polite, echo.connect() as stream:
        stuff(stream, b"x" * 65536)
        exchange(polite, b"in the meantime\n")


def FiveThousandConnectionsHarmNobodyElse(options):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    wanted = CROWD + 500
    if hard != resource.RLIM_INFINITY and hard < wanted:
        print(f"skipped: a process may open {hard} descriptors only, and this needs {wanted}")
        sys.exit(77)
    if soft < wanted:
        resource.setrlimit(resource.RLIMIT_NOFILE, (wanted, hard))
    with server(options) as echo, undisturbed(echo) as polite, contextlib.ExitStack() as crowd:
        for _ in range(CROWD):
            crowd.enter_context(echo.connect())
        exchange(polite, b"in the crowd\n")


class ReadmeServer(Program):
    """Ends when its input does."""

    def __init__(self, options):
        # It drops what is still open at its end, so leaks are not looked for.
        environment = {**os.environ, "ASAN_OPTIONS": "detect_leaks=0"}
        super().__init__(options, "readme_server", stdin=subprocess.PIPE, env=environment)

    def end(self):
        self.process.communicate(timeout=PATIENCE)
        assert self.process.returncode == 0, f"the server ended with {self.process.returncode}"


def ReadmeServerEchoes(options):
    with ReadmeServer(options) as echo:
        assert netcat(options, echo.port, b"hello\n") == b"hello\n"


GROUP, GROUP6 = "239.255.77.3", "ff15::77:3"


def skip(reason):
    print(f"skipped: {reason}")
    sys.exit(77)


def free_port(group):
    """A port of a group that this machine can join on its default interface."""
    family = socket.AF_INET6 if ":" in group else socket.AF_INET
    try:
        with socket.socket(family, socket.SOCK_DGRAM) as probe:
            probe.bind(("", 0))
            membership = socket.inet_pton(family, group) + bytes(4)
            if family == socket.AF_INET6:
                probe.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_JOIN_GROUP, membership)
            else:
                probe.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, membership)
            return probe.getsockname()[1]
    except OSError as error:
        return skip(f"{group} cannot be joined here: {error}")


class Chat(Program):
    """One who chats."""

    def __init__(self, options, *arguments):
        super().__init__(options, "udp_chat", *arguments, stdin=subprocess.PIPE)

    def __enter__(self):
        self.expect(lambda line: line.startswith("joined "))
        return self

    def say(self, text):
        self.process.stdin.write(text.encode() + b"\n")
        self.process.stdin.flush()

    def expect(self, wanted):
        line = self.process.stdout.readline().decode().strip()
        assert wanted(line), f"{self.command} said: {line!r}"

    def hears(self, text):
        self.expect(lambda line: line == text)


def converse(options, group, interface):
    port = free_port(group)
    with Chat(options, group, port, interface, "anna") as anna, Chat(options, group, port, interface, "bob") as bob:
        for number in range(20):
            for speaker, name in ((anna, "anna"), (bob, "bob")):
                speaker.say(f"line {number}")
                anna.hears(f"{name}: line {number}")
                bob.hears(f"{name}: line {number}")


def ChatsSeeEachOthersLines(options):
    converse(options, GROUP, "127.0.0.1")


def ChatsSeeEachOthersLinesOnTheDefaultInterface(options):
    converse(options, GROUP, "-")


def ChatsSeeEachOthersLinesOverIPv6(options):
    converse(options, GROUP6, "-")


def ChatEndsWithItsInput(options):
    with Chat(options, GROUP, free_port(GROUP), "127.0.0.1") as chat:
        chat.say("last words")
        chat.hears("somebody: last words")
        chat.process.stdin.close()
        chat.hears("stopped")
        assert chat.process.wait(PATIENCE) == 0
        chat.end = lambda: None


def ChatFailsWithoutAGroup(options):
    for arguments in (("nonsense:", 1), ("127.0.0.1", 0), (GROUP, 0, "198.51.100.1")):
        chat = Chat(options, *arguments)
        output, _ = chat.process.communicate(timeout=PATIENCE)
        assert chat.process.returncode == 1, f"{arguments} ended with {chat.process.returncode}"
        assert output.startswith(b"cannot join "), output


def ChatTalksToSocat(options):
    if options.emulator or not options.socat:
        skip("this needs socat, and a program of its own platform")
    port = free_port(GROUP)
    address = (f"UDP4-DATAGRAM:{GROUP}:{port},bind=:{port},reuseaddr,ip-add-membership={GROUP}:127.0.0.1,"
               "ip-multicast-if=127.0.0.1,ip-multicast-loop=1,ip-multicast-ttl=0")
    with Chat(options, GROUP, port, "127.0.0.1", "anna") as anna:
        peer = subprocess.Popen([options.socat, "-d", "-d", "STDIO", address], stdin=subprocess.PIPE,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        try:
            while b"starting data transfer loop" not in peer.stderr.readline():
                assert peer.poll() is None, "socat does not start"
            anna.say("who is there?")
            anna.hears("anna: who is there?")
            assert peer.stdout.readline() == b"anna: who is there?\n"
            peer.stdin.write(b"socat is\n")
            peer.stdin.flush()
            anna.hears("socat is")
        finally:
            peer.kill()
            peer.communicate()


def parse_options():
    parser = argparse.ArgumentParser()
    parser.add_argument("case")
    parser.add_argument("--bin", required=True)
    parser.add_argument("--suffix", default="")
    parser.add_argument("--emulator", default="")
    parser.add_argument("--nc", default=shutil.which("nc"))
    parser.add_argument("--socat", default=shutil.which("socat"))
    parser.add_argument("--certificates", default="")
    return parser.parse_args()


if __name__ == "__main__":
    chosen = parse_options()
    globals()[chosen.case](chosen)
