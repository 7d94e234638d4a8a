"""Runs the HTTP example as its users and its enemies do, one case per call; arguments as of run_examples.py."""

import contextlib
import random
import socket
import subprocess
import threading
import time

from run_examples import PATIENCE, Program, netcat, parse_options, stuff

GET = b"GET / HTTP/1.1\r\nHost: here\r\n\r\n"
ABSENT = b"GET /absent HTTP/1.1\r\nHost: here\r\n\r\n"
PAGE = b"Hello, world\n"
LAST = b"GET / HTTP/1.1\r\nHost: here\r\nConnection: close\r\n\r\n"

REFUSED = {
    "RefusesALineWithoutCr": [(400, b"GET / HTTP/1.1\nHost: here\n\n"), (400, b"GET / HTTP/1.1\r\nHost: here\n\r\n"),
                              (400, b"GET / HTTP/1.1\r\nHost: here\r\n\n"), (400, b"GET / HTTP/1.1\r \nHost: a\r\n\r\n")],
    "RefusesAHeadOf64KiB": [(431, b"GET / HTTP/1.1\r\nHost: here\r\nX: " + b"x" * 65536 + b"\r\n\r\n"),
                            (431, b"GET / HTTP/1.1\r\nHost: here\r\n" + b"X: y\r\n" * 11000 + b"\r\n"),
                            (431, b"GET /" + b"x" * 65536 + b" HTTP/1.1\r\nHost: here\r\n\r\n"),
                            (431, b"x" * 65536)],
    "RefusesAMissingHost": [(400, b"GET / HTTP/1.1\r\n\r\n"), (400, b"GET / HTTP/1.1\r\nHos: here\r\n\r\n"),
                            (400, b"GET / HTTP/1.1\r\nHost: a\r\nhost: b\r\n\r\n")],
    "RefusesANegativeLength": [(400, b"POST / HTTP/1.1\r\nHost: a\r\nContent-Length: " + length + b"\r\n\r\n")
                               for length in (b"-1", b"-0", b"+1", b"1.5", b"1 1", b"0x1", b"", b"1,1", b"one",
                                              b"1\r\nContent-Length: 1")],
    "RefusesANulInALine": [(400, b"GET /\0 HTTP/1.1\r\nHost: a\r\n\r\n"), (400, b"GET / HTTP/1.1\0\r\nHost: a\r\n\r\n"),
                           (400, b"GET / HTTP/1.1\r\nHost: a\0b\r\n\r\n"), (400, b"GET / HTTP/1.1\r\nHo\0st: a\r\n\r\n"),
                           (400, b"\0GET / HTTP/1.1\r\nHost: a\r\n\r\n")],
    "RefusesAnotherVersion": [(505, b"GET / HTTP/" + version + b"\r\nHost: a\r\n\r\n")
                              for version in (b"2.0", b"0.9", b"1.2", b"1", b"1.10", b"one")]
                             + [(400, b"GET /\r\n\r\n"), (400, b"GET / \r\n\r\n"), (400, b"GET / FTP/1.1\r\n\r\n")],
    "RefusesAFieldWithoutColon": [(400, b"GET / HTTP/1.1\r\nHost: a\r\n" + field + b"\r\n\r\n")
                                  for field in (b"field", b"field value", b": value", b"field : value", b" folded: x",
                                                b"fi(eld): value", b"field: va\x01lue", b"field: \x7f")],
    "RefusesABodyThatIsTooLarge": [(413, b"POST / HTTP/1.1\r\nHost: a\r\nContent-Length: " + length + b"\r\n\r\n")
                                   for length in (b"1048577", b"18446744073709551616", b"9" * 400)],
    "RefusesWhatItDoesNotKnow": [(501, b"PUT / HTTP/1.1\r\nHost: a\r\n\r\n"),
                                 (501, b"get / HTTP/1.1\r\nHost: a\r\n\r\n"),
                                 (501, b"POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n"),
                                 (501, b"A" * 300 + b" / HTTP/1.1\r\nHost: a\r\n\r\n"), (400, b"\r\n\r\n\r\n")],
}


def server(options, timeout=30, threads=2, pool_size=2):
    return Program(options, "http_hello", 0, threads, pool_size, timeout)


def read_all(stream):
    """Everything up to the end; a reset counts as one."""
    received = b""
    try:
        while part := stream.recv(65536):
            received += part
    except ConnectionError:
        pass
    return received


def answers(data):
    """Status and page of each answer, in order; nothing may be left over."""
    found = []
    while data:
        head, separator, data = data.partition(b"\r\n\r\n")
        lines = head.split(b"\r\n")
        fields = dict(line.lower().split(b": ", 1) for line in lines[1:])
        assert separator and lines[0].startswith(b"HTTP/1.1 "), head
        length = int(fields[b"content-length"])
        assert len(data) >= length, f"the page is cut: {data!r}"
        found.append((int(lines[0].split()[1]), data[:length]))
        data = data[length:]
    return found


def talk(web, *pieces):
    """Sends pieces on a connection of its own and reads to its end: the answers."""
    with web.connect() as stream:
        for piece in pieces:
            stream.sendall(piece)
        return answers(read_all(stream))


def refuse(options, requests):
    with server(options) as web, web.connect() as polite, contextlib.ExitStack() as closing:
        streams = []
        for _, request in requests:  # all at once, since each stays open for two seconds after its answer
            streams.append(closing.enter_context(web.connect()))
            with contextlib.suppress(ConnectionError):  # it may hang up while we still send
                streams[-1].sendall(request)
        start = time.monotonic()
        for stream, (status, request) in zip(streams, requests):
            given = [answer[0] for answer in answers(read_all(stream))]
            assert given == [status], f"{request[:60]!r} got {given}"
        assert time.monotonic() - start < 20, "a connection stayed open"
        # What stands before it is answered all the same.
        assert [answer[0] for answer in talk(web, GET + requests[0][1])] == [200, requests[0][0]]
        polite.sendall(LAST)
        assert answers(read_all(polite)) == [(200, PAGE)]


def curl(web, *arguments):
    command = ["curl", "--silent", "--show-error", "--max-time", str(PATIENCE), *arguments]
    command += ["--noproxy", "*", f"http://127.0.0.1:{web.port}/"]
    return subprocess.run(command, capture_output=True, timeout=PATIENCE + 5, check=True).stdout


def CurlGetsThePage(options):
    with server(options) as web:
        assert curl(web) == PAGE
        assert curl(web, "--http1.0") == PAGE
        head = curl(web, "--head")
        assert head.startswith(b"HTTP/1.1 200 OK\r\n") and head.endswith(b"\r\n\r\n"), head
        assert curl(web, "--request-target", "/absent") == b"404 Not Found\n"


def CurlSendsABody(options):
    with server(options) as web:
        for size in (0, 1, 1000, 100_000, 1_048_576):
            body = subprocess.run(["curl", "--silent", "--show-error", "--noproxy", "*", "--data-binary", "@-", "-H",
                                   "Expect: 100-continue", f"http://127.0.0.1:{web.port}/"], input=b"b" * size,
                                  capture_output=True, timeout=PATIENCE, check=True).stdout
            assert body == PAGE, (size, body)
        status = curl(web, "--data-binary", "x" * 100, "-H", "Content-Length: 1048577", "-w", "%{http_code}")
        assert status.endswith(b"413"), status


def CurlReusesItsConnection(options):
    with server(options) as web:
        url = f"http://127.0.0.1:{web.port}/"
        output = curl(web, "-w", "%{num_connects} ", url, url)
        assert output == PAGE + b"1 " + (PAGE + b"0 ") * 2, output


def NetcatGetsPipelinedPages(options):
    with server(options, threads=1, pool_size=0) as web:
        assert answers(netcat(options, web.port, GET * 3 + LAST)) == [(200, PAGE)] * 4


def ConnectionCloseIsHonoured(options):
    with server(options) as web:
        for request in (LAST, b"GET / HTTP/1.0\r\n\r\n", LAST.replace(b"close", b"foo, Close")):
            start = time.monotonic()
            assert talk(web, request + GET) == [(200, PAGE)]
            assert time.monotonic() - start < 20, "it took the time-out to close"
        kept = b"GET / HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n"
        assert talk(web, kept + LAST) == [(200, PAGE)] * 2


def PipelinedAnswersComeInOrder(options):
    draw = random.Random(7)
    wanted = [draw.choice((200, 404)) for _ in range(5000)]
    with server(options) as web, web.connect() as stream:
        data = b"".join(GET if status == 200 else ABSENT for status in wanted) + LAST
        received = b""
        for start in range(0, len(data), 4096):  # few enough answers at a time to fit the buffers between us
            stream.sendall(data[start:start + 4096])
            received += stream.recv(65536)
        assert [answer[0] for answer in answers(received + read_all(stream))] == wanted + [200]


def RequestsMayComeInPieces(options):
    post = b"POST / HTTP/1.1\r\nHost: here\r\nContent-Length: 5\r\n\r\n12345"
    whole = GET + post + b"\r\n" + ABSENT + post + LAST
    with server(options) as web:
        for size in (1, 2, 3, 7, 50):
            pieces = [whole[start:start + size] for start in range(0, len(whole), size)]
            given = [answer[0] for answer in talk(web, *pieces)]
            assert given == [200, 200, 404, 200, 200], (size, given)


def ContinueIsSaidBeforeTheBody(options):
    with server(options) as web, web.connect() as stream:
        stream.sendall(b"POST / HTTP/1.1\r\nHost: a\r\nExpect: 100-continue\r\nContent-Length: 3\r\n\r\n")
        assert stream.recv(1000) == b"HTTP/1.1 100 Continue\r\n\r\n"
        stream.sendall(b"abc" + LAST)
        assert answers(read_all(stream)) == [(200, PAGE)] * 2


def resident_bytes(web):
    with open(f"/proc/{web.process.pid}/statm", encoding="ascii") as account:
        return int(account.read().split()[1]) * 4096


def PipelinerThatReadsLateLosesNothing(options):
    with server(options) as web, web.connect() as polite, web.connect() as stream:
        before = resident_bytes(web)
        sent = stuff(stream, GET * 2000)
        held = resident_bytes(web) - before
        # Kernel buffers hold megabytes; the server's own are bounded, under wine and sanitizers too.
        assert held < 64_000_000, f"the server took {held} bytes"
        polite.sendall(LAST)
        assert answers(read_all(polite)) == [(200, PAGE)]
        # The rest fits only once we read.
        rest = threading.Thread(target=stream.sendall, args=((GET + LAST)[sent % len(GET):],))
        rest.start()
        received = bytearray()
        while part := stream.recv(1 << 20):
            received += part
        rest.join()
        given = bytes(received).split(b"HTTP/1.1 200 OK\r\n")[1:]
        wanted = sent // len(GET) + 2
        assert len(given) == wanted, f"{len(given)} of {wanted} answers came"
        assert all(answer.endswith(PAGE) and len(answer) == len(given[0]) for answer in given[:-1])
        print(f"{wanted} answers came late, but came; the server held {held} bytes")


def UnfinishedRequestIsClosed(options):
    with server(options, timeout=1) as web:
        for start in (b"GET / HT", GET[:-2], GET[:-1], b"POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 9\r\n\r\n1234"):
            with web.connect() as stream:
                stream.sendall(start)
                assert read_all(stream) == b""


def DrippedRequestIsClosed(options):
    with server(options, timeout=1) as web, web.connect() as stream:
        stream.sendall(b"GET / HTTP/1.1\r\nX: ")
        stream.settimeout(0.2)
        start = time.monotonic()
        while time.monotonic() - start < PATIENCE:
            try:
                stream.sendall(b"x")
                if stream.recv(100) == b"":
                    return
            except socket.timeout:
                continue
            except ConnectionError:
                return
        raise AssertionError("a drip keeps the connection open")


def SilentConnectionIsClosed(options):
    with server(options, timeout=1) as web, web.connect() as stream, web.connect() as other:
        other.sendall(GET)
        assert read_all(stream) == b""
        assert answers(read_all(other)) == [(200, PAGE)]


def GarbageHarmsNobodyElse(options):
    draw = random.Random(3)
    with server(options, timeout=2) as web, web.connect() as polite:
        for number in range(60):
            with web.connect() as stream:
                data = draw.randbytes(draw.randrange(1, 3000)) if number % 2 else bytearray(GET * 3)
                if number % 2 == 0:
                    for _ in range(3):
                        data[draw.randrange(len(data))] = draw.randrange(256)
                try:
                    stream.sendall(bytes(data))
                    stream.settimeout(0.05)
                    stream.recv(100000)
                except (socket.timeout, ConnectionError):
                    pass
        with web.connect() as stream:
            stream.sendall(LAST)
            assert answers(read_all(stream)) == [(200, PAGE)]
        del polite


def ServerEndsCleanlyWithClientsConnected(options):
    streams = []
    with server(options) as web:
        for start in (b"", GET, b"GET / HT", b"nonsense\r\n"):
            streams.append(web.connect())
            streams[-1].sendall(start)
        assert streams[1].recv(1000).endswith(PAGE)
    for stream in streams:
        with stream:
            read_all(stream)


def main():
    options = parse_options()
    case = options.case.removeprefix("Http")
    if case in REFUSED:
        refuse(options, REFUSED[case])
    else:
        globals()[case](options)


main()
