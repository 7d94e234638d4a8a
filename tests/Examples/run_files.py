"""Runs the file server as its users and its enemies do, one case per call; arguments as of run_examples.py.

A case whose name begins with Tls is the one of the name behind that, over TLS.
"""

import concurrent.futures
import contextlib
import hashlib
import os
import random
import shutil
import socket
import ssl
import subprocess
import tempfile
import time

from run_examples import PATIENCE, Program, parse_options

GIB = 1 << 30
HUNG_UP = (ConnectionError, ssl.SSLError)


class Folder:
    """A folder of files to show, with one beside it that must not be seen."""

    def __init__(self):
        self.path = tempfile.mkdtemp(prefix="ravelo_files_")
        self.root = os.path.join(self.path, "root")
        os.mkdir(self.root)
        with open(os.path.join(self.path, "secret"), "wb") as secret:
            secret.write(b"not to be seen")

    def add(self, name, content):
        path = os.path.join(self.root, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.write(content)
        return content

    def __enter__(self):
        return self

    def __exit__(self, *_):
        shutil.rmtree(self.path)


class FileServer(Program):
    """The server of a folder, over TLS if the options say so."""

    def __init__(self, options, *arguments, **settings):
        self.scheme = "https" if options.tls else "http"
        if options.tls:
            drive = "Z:" if options.emulator else ""
            made = os.path.join(options.certificates, "server")
            arguments += (f"cert={drive}{made}.pem", f"key={drive}{made}_key.pem")
        super().__init__(options, "file_server", *arguments, **settings)

    def connect(self):
        stream = super().connect()
        if self.scheme == "http":
            return stream
        context = ssl.create_default_context()
        context.check_hostname = False
        context.verify_mode = ssl.CERT_NONE
        return context.wrap_socket(stream)

    def url(self, target):
        return f"{self.scheme}://127.0.0.1:{self.port}{target}"


@contextlib.contextmanager
def served(options, timeout=30, threads=2, pool_size=2):
    with Folder() as folder, FileServer(options, folder.root, 0, threads, pool_size, timeout) as web:
        yield folder, web


def curl(web, target, *arguments, check=True):
    """What curl prints."""
    command = ["curl", "--silent", "--show-error", "--max-time", str(PATIENCE), "--path-as-is", "--noproxy", "*",
               "--insecure", *arguments, web.url(target)]
    return subprocess.run(command, capture_output=True, timeout=PATIENCE + 5, check=check).stdout


def status_of(web, target, *arguments):
    return int(curl(web, target, "--output", os.devnull, "--write-out", "%{http_code}", *arguments))


def read_all(stream):
    """Everything up to the end; a reset counts as one."""
    received = b""
    try:
        while part := stream.recv(1 << 20):
            received += part
    except HUNG_UP:
        pass
    return received


def request(target, *fields, method="GET"):
    lines = [f"{method} {target} HTTP/1.1", "Host: here", *fields, "", ""]
    return "\r\n".join(lines).encode()


def talk(web, data):
    with web.connect() as stream:
        stream.sendall(data)
        return read_all(stream)


def statuses(data, bodies):
    """The statuses of answers with bodies of known lengths."""
    found = []
    for length in bodies:
        head, separator, data = data.partition(b"\r\n\r\n")
        assert separator, head
        found.append(int(head.split()[1]))
        assert len(data) >= length
        data = data[length:]
    assert data == b"", data[:100]
    return found


def WholeFiles(options):
    draw = random.Random(1)
    with served(options) as (folder, web):
        for size in (0, 1, 100, 131_071, 131_072, 131_073, 5_000_001):
            content = folder.add(f"sub/{size}.bin", draw.randbytes(size))
            assert curl(web, f"/sub/{size}.bin") == content, size
        assert curl(web, "/sub/./100.bin?query=1#x", "--http1.0") == curl(web, "//sub//100.bin")


def HeadHasTheLengthAndNoBody(options):
    with served(options) as (folder, web):
        folder.add("file", b"x" * 1234)
        lines = curl(web, "/file", "--head").split(b"\r\n")
        assert lines[0] == b"HTTP/1.1 200 OK" and b"Content-Length: 1234" in lines, lines
        assert b"Accept-Ranges: bytes" in lines, lines
        assert talk(web, request("/file", "Connection: close", method="HEAD")).endswith(b"\r\n\r\n")


def NamesMayBeEscapedAndNotAscii(options):
    with served(options) as (folder, web):
        content = folder.add("\u00e4\u0416 \u4e2d%.txt", b"non-ASCII")
        assert curl(web, "/%C3%A4%D0%96%20%e4%b8%ad%25.txt") == content


def RangesGiveParts(options):
    content = random.Random(2).randbytes(1_000_000)
    parts = {"0-0": (0, 1), "0-": (0, 1_000_000), "5-9": (5, 10), "-1": (999_999, 1_000_000), "-2000000": (0, 1_000_000),
             "999999-": (999_999, 1_000_000), "131071-131073": (131_071, 131_074), "400000-99999999": (400_000, 1_000_000),
             "7-99999999999999999999999999": (7, 1_000_000)}
    with served(options) as (folder, web):
        folder.add("file", content)
        for wanted, (begin, end) in parts.items():
            head = os.path.join(folder.path, "head")
            got = curl(web, "/file", "--range", wanted, "--dump-header", head)
            with open(head, "rb") as lines:
                fields = lines.read()
            assert got == content[begin:end], wanted
            assert fields.startswith(b"HTTP/1.1 206 "), (wanted, fields)
            assert b"Content-Range: bytes %d-%d/1000000\r\n" % (begin, end - 1) in fields, (wanted, fields)


def RangesThatAreNotThereAreRefused(options):
    with served(options) as (folder, web):
        folder.add("file", b"0123456789")
        folder.add("empty", b"")
        for target, wanted in (("/file", "10-"), ("/file", "10-20"), ("/file", "-0"), ("/empty", "0-"),
                               ("/empty", "-5"), ("/file", "99999999999999999999-")):
            answer = talk(web, request(target, f"Range: bytes={wanted}", "Connection: close"))
            size = 10 if target == "/file" else 0
            assert answer.startswith(b"HTTP/1.1 416 "), (wanted, answer)
            assert b"Content-Range: bytes */%d\r\n" % size in answer and answer.endswith(b"\r\n\r\n"), answer


def RangesThatMeanNothingAreIgnored(options):
    with served(options) as (folder, web):
        content = folder.add("file", b"0123456789")
        for wanted in ("bytes=", "bytes=-", "bytes=a-b", "bytes=5-3", "bytes=0-1,3-4", "lines=0-1", "0-1", "bytes=1-2x",
                       "bytes=--1", "bytes=1", "bytes 0-1"):
            answer = talk(web, request("/file", f"Range: {wanted}", "Connection: close"))
            assert answer.startswith(b"HTTP/1.1 200 ") and answer.endswith(content), (wanted, answer)


def IfRangeGivesThePartOnlyOfTheSameFile(options):
    with served(options) as (folder, web):
        folder.add("file", b"0123456789")
        head = curl(web, "/file", "--head").decode()
        tag = next(line[6:] for line in head.split("\r\n") if line.startswith("ETag: "))
        same = curl(web, "/file", "--range", "2-3", "--header", f"If-Range: {tag}")
        assert same == b"23", same
        assert curl(web, "/file", "--range", "2-3", "--header", 'If-Range: "other"') == b"0123456789"


def AnInterruptedDownloadIsResumed(options):
    content = random.Random(3).randbytes(3_000_000)
    with served(options) as (folder, web):
        folder.add("file", content)
        target = os.path.join(folder.path, "download")
        for begun in (0, 1, 131_072, 2_999_999):
            with open(target, "wb") as file:
                file.write(content[:begun])
            curl(web, "/file", "--continue-at", "-", "--output", target)
            with open(target, "rb") as file:
                assert file.read() == content, begun


def FiftyDownloadsAtOnce(options):
    draw = random.Random(4)
    with served(options) as (folder, web):
        digests = {}
        for number in range(5):
            content = folder.add(f"{number}", draw.randbytes(2_000_000 + number * 12_345))
            digests[f"/{number}"] = hashlib.sha256(content).hexdigest()
        targets = [f"/{number % 5}" for number in range(50)]
        with concurrent.futures.ThreadPoolExecutor(50) as threads:
            for target, got in zip(targets, threads.map(lambda target: curl(web, target), targets)):
                assert hashlib.sha256(got).hexdigest() == digests[target], target


def FilesBeyondFourGigabytes(options):
    with served(options) as (folder, web):
        with open(os.path.join(folder.root, "big"), "wb") as file:
            file.seek(5 * GIB)
            file.write(b"the end")
        assert b"Content-Length: %d\r\n" % (5 * GIB + 7) in curl(web, "/big", "--head")
        assert curl(web, "/big", "--range", f"{5 * GIB - 3}-") == b"\0\0\0the end"
        assert curl(web, "/big", "--range", "-3") == b"end"


def ConnectionsAreKeptAndRequestsPipelined(options):
    with served(options) as (folder, web):
        folder.add("one", b"1" * 1000)
        folder.add("two", b"2" * 300_000)
        url = web.url("/one")
        output = curl(web, "/one", "--write-out", "%{num_connects} ", url, url)
        assert output == b"1" * 1000 + b"1 " + (b"1" * 1000 + b"0 ") * 2
        answers = talk(web, request("/one") + request("/two") + request("/none") + request("/one", "Connection: close"))
        assert statuses(answers, (1000, 300_000, len("404 Not Found\n"), 1000)) == [200, 200, 404, 200]


def NothingOutsideTheRootIsShown(options):
    with served(options) as (folder, web):
        folder.add("sub/file", b"inside")
        for target in ("/../secret", "/sub/../../secret", "/%2e%2e/secret", "/sub/%2E%2E/%2e./secret", "/..%2fsecret",
                       "/sub/..", "/..", "/sub/../sub/file", "/..%5csecret", "/..\\secret", "/C:/secret",
                       "//etc/passwd", folder.path + "/secret"):
            assert status_of(web, target) == 404, target


def LinksAreFollowedInsideTheRootOnly(options):
    with served(options) as (folder, web):
        folder.add("sub/file", b"inside")
        try:
            os.symlink("sub/file", os.path.join(folder.root, "within"))
            os.symlink("../secret", os.path.join(folder.root, "out"))
            os.symlink("..", os.path.join(folder.root, "above"))
            os.symlink("/", os.path.join(folder.root, "top"))
            os.symlink("loop", os.path.join(folder.root, "loop"))
        except OSError as failure:
            print(f"no links here: {failure}")
            raise SystemExit(77) from failure
        assert curl(web, "/within") == b"inside"
        if options.suffix:
            print("the rest is not run: programs for Windows cannot tell the links of this system from files")
            raise SystemExit(77)
        for target in ("/out", "/above/secret", "/above/root/sub/../../secret", "/top/etc/passwd", "/loop"):
            assert status_of(web, target) == 404, target


def WhatIsNoFileIsNotFound(options):
    with served(options) as (folder, web):
        folder.add("sub/file", b"inside")
        for target in ("/", "/sub", "/sub/", "/none", "/sub/file/more", "/" + "x" * 300, "/a" * 3000):
            assert status_of(web, target) == 404, target[:50]


def BadRequestsAreRefused(options):
    bad = [(400, request("/%")), (400, request("/%4")), (400, request("/%zz")), (400, request("/a%00b")),
           (400, request("file")), (400, request("*")), (400, b"GET /file HTTP/1.1\r\n\r\n"), (400, b"\0\1\2\r\n\r\n"),
           (501, request("/file", method="DELETE")), (501, request("/file", "Content-Length: 3", method="POST") + b"abc"),
           (413, request("/file", "Content-Length: 3") + b"abc"), (505, b"GET /file HTTP/3.0\r\n\r\n"),
           (431, request("/file", "X: " + "x" * 65536))]
    with served(options) as (folder, web):
        content = folder.add("file", b"content")
        for status, data in bad:
            with web.connect() as stream:
                with contextlib.suppress(ConnectionError):
                    stream.sendall(data)
                answer = stream.recv(100)
                assert answer.startswith(b"HTTP/1.1 %d " % status), (status, data[:60], answer)
            assert curl(web, "/file") == content


def resident_bytes(web):
    with open(f"/proc/{web.process.pid}/statm", encoding="ascii") as account:
        return int(account.read().split()[1]) * 4096


def AClientThatReadsLateGetsAll(options):
    content = random.Random(5).randbytes(30_000_000)
    with served(options) as (folder, web):
        folder.add("file", content)
        folder.add("small", b"small")
        with web.connect() as stream:
            before = resident_bytes(web)
            stream.sendall(request("/file", "Connection: close"))
            # The buffers between us fill; meanwhile others are served.
            for _ in range(20):
                assert curl(web, "/small") == b"small"
            held = resident_bytes(web) - before
            assert held < 20_000_000, f"the server took {held} bytes"
            answer = read_all(stream)
            assert answer.partition(b"\r\n\r\n")[2] == content


def AClientThatNeverReadsIsLeft(options):
    with served(options, timeout=1) as (folder, web):
        folder.add("file", b"x" * 50_000_000)
        with web.connect() as stream:
            stream.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            stream.sendall(request("/file"))
            start = time.monotonic()
            while time.monotonic() - start < PATIENCE:  # until it is told that nobody listens
                try:
                    stream.sendall(b"x")
                    time.sleep(0.1)
                except HUNG_UP:
                    return
            raise AssertionError("the server still waits")


def ClientsThatHangUpHarmNobodyElse(options):
    with served(options) as (folder, web):
        content = folder.add("file", random.Random(6).randbytes(3_000_000))
        for number in range(60):
            with web.connect() as stream:
                stream.sendall(request("/file")[:20 if number % 3 == 0 else 1000])
                if number % 3 == 2:
                    stream.recv(100_000)
        assert curl(web, "/file") == content


def AFileCutWhileItIsSentEndsTheConnection(options):
    with served(options, timeout=5) as (folder, web):
        folder.add("file", b"x" * 40_000_000)
        with web.connect() as stream:
            stream.sendall(request("/file"))
            stream.recv(1000)
            try:
                os.truncate(os.path.join(folder.root, "file"), 1000)
            except OSError as failure:
                print(f"the file cannot be cut: {failure}")
                raise SystemExit(77) from failure
            assert len(read_all(stream)) < 40_000_000
        folder.add("other", b"other")
        assert curl(web, "/other") == b"other"


def SilentConnectionsAreClosed(options):
    with served(options, timeout=1) as (folder, web):
        folder.add("file", b"content")
        for start in (b"", b"GET /fi", request("/file")):
            with web.connect() as stream:
                stream.sendall(start)
                assert read_all(stream).endswith(b"content" if start.endswith(b"\r\n\r\n") else b"")


def EndsCleanlyWithDownloadsUnderWay(options):
    streams = []
    with served(options) as (folder, web):
        folder.add("file", b"x" * 30_000_000)
        for number in range(10):
            streams.append(web.connect())
            streams[-1].sendall(request("/file"))
            if number % 2:
                streams[-1].recv(1000)
    for stream in streams:
        with stream:
            read_all(stream)


def RudeClientsHarmNobodyElse(options):
    """Those who speak no TLS, or leave in the middle of a handshake."""
    hello = b"\x16\x03\x01\x02\x00\x01"
    with served(options) as (folder, web):
        content = folder.add("file", b"content")
        for number in range(40):
            with socket.create_connection(("127.0.0.1", web.port), PATIENCE) as rude:
                rude.sendall((request("/file"), hello, random.Random(number).randbytes(300), b"x")[number % 4])
        assert curl(web, "/file") == content


def UnusableCertificatesAreRefused(options):
    with Folder() as folder:
        server = os.path.join(options.bin, "file_server" + options.suffix)
        command = [*filter(None, [options.emulator]), server, folder.root, "cert=none.pem", "key=none.pem"]
        done = subprocess.run(command, capture_output=True, timeout=PATIENCE, check=False)
        assert done.returncode == 1 and b"cannot use the certificate" in done.stderr, done


def main():
    options = parse_options()
    case = options.case.removeprefix("FileServer")
    options.tls = case.startswith("Tls")
    globals()[case.removeprefix("Tls")](options)


main()
