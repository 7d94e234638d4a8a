"""Runs the live stream example as its users and its enemies do, one case per call; arguments as of run_examples.py."""

import contextlib
import os
import shutil
import socket
import subprocess
import tempfile
import threading

from run_examples import PATIENCE, Program, parse_options, skip

GET = b"GET /live.ts HTTP/1.1\r\nHost: here\r\n\r\n"
PACKET, VIDEO, MAP = 188, 0x100, 0x1000


def packet(pid, counter, payload, begins=False, key=False, clock=None):
    """One transport packet; what the payload lacks is stuffed."""
    field = b""
    if key or clock is not None:
        field = bytes([0x40 * key | 0x10 * (clock is not None)])
        if clock is not None:
            field += (clock << 15).to_bytes(6, "big")
    room = PACKET - 4 - (1 + len(field) if field else 0)
    if len(payload) < room:
        field = (field or b"\0" if room - len(payload) > 1 or field else b"")
        field += b"\xff" * (PACKET - 4 - 1 - len(field) - len(payload))
        has_field = True
    else:
        has_field = bool(field)
    head = bytes([0x47, 0x40 * begins | pid >> 8, pid & 0xFF, (0x30 if has_field else 0x10) | counter & 15])
    body = head + (bytes([len(field)]) + field if has_field else b"") + payload
    assert len(body) == PACKET, len(body)
    return body


def section(table, number, body):
    """A section with a checksum that nobody here looks at."""
    length = 5 + len(body) + 4
    return b"\0" + bytes([table, 0xB0 | length >> 8, length & 0xFF, 0, number, 0xC1, 0, 0]) + body + b"\0" * 4


def synthetic(frames, frame_bytes, group=10, step=900):
    """A stream of numbered pictures; every `group`th is a key frame, each lasts `step` ticks of 1/90,000 s."""
    counters = {}

    def put(pid, payload, **settings):
        counters[pid] = counters.get(pid, -1) + 1
        return packet(pid, counters[pid], payload, **settings)

    tables = (put(0, section(0, 1, b"\0\x01" + (0xE000 | MAP).to_bytes(2, "big")), begins=True) +
              put(MAP, section(2, 1, (0xE000 | VIDEO).to_bytes(2, "big") + b"\xF0\0" + b"\x1B" +
                               (0xE000 | VIDEO).to_bytes(2, "big") + b"\xF0\0"), begins=True))
    stream = [tables]
    for number in range(frames):
        text = b"\0\0\x01\xE0\0\0\x80\0\0" + b"picture %08d;" % number
        text += bytes([number % 251]) * (frame_bytes - len(text))
        first = put(VIDEO, text[:150], begins=True, key=number % group == 0, clock=number * step)
        stream.append(first + b"".join(put(VIDEO, text[at:at + 184]) for at in range(150, len(text), 184)))
    return stream


class Reader:
    """A client that takes the answer's chunks; each is a frame."""

    def __init__(self, live, request=GET):
        self.stream = live.connect()
        self.stream.sendall(request)
        self.data = b""

    def more(self):
        part = self.stream.recv(65536)
        assert part, "the server has hung up"
        self.data += part

    def upto(self, end):
        while end not in self.data:
            self.more()
        found, _, self.data = self.data.partition(end)
        return found

    def head(self):
        head = self.upto(b"\r\n\r\n").decode()
        assert head.startswith("HTTP/1.1 200 OK\r\n"), head
        assert "Content-Type: video/mp2t\r\n" in head and "Transfer-Encoding: chunked\r\n" in head, head

    def chunk(self):
        size = int(self.upto(b"\r\n"), 16)
        while len(self.data) < size + 2:
            self.more()
        frame, end, self.data = self.data[:size], self.data[size:size + 2], self.data[size + 2:]
        assert end == b"\r\n", end
        return frame

    def frames(self):
        while frame := self.chunk():
            yield frame


def number_of(frame):
    return int(frame[frame.index(b"picture ") + 8:][:8])


def judge(stream, received, group=10):
    """Whole pictures in order, beginning with a key frame, and after a gap too: their numbers."""
    numbers = []
    for frame in received:
        number = number_of(frame)
        is_key = number % group == 0
        expected = stream[0] + stream[number + 1] if is_key else stream[number + 1]
        assert frame == expected, f"picture {number} came out wrong"
        assert not numbers or number > numbers[-1], (numbers[-1], number)
        assert is_key or numbers and number == numbers[-1] + 1, f"picture {number} after {numbers[-1:]}"
        numbers.append(number)
    return numbers


@contextlib.contextmanager
def server(options, stream, **settings):
    """The server with a stream in a file."""
    with tempfile.NamedTemporaryFile(suffix=".ts") as file:
        file.write(b"".join(stream))
        file.flush()
        name = ("Z:" + file.name) if options.emulator else file.name
        with Program(options, "live_fanout", name, **settings) as live:
            yield live


def EveryClientGetsTheStream(options):
    stream = synthetic(400, 3000)
    with server(options, stream) as live:
        readers = [Reader(live) for _ in range(20)]
        found = {}

        def read(index):
            readers[index].head()
            found[index] = judge(stream, readers[index].frames())

        threads = [threading.Thread(target=read, args=(index,)) for index in range(len(readers))]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(PATIENCE)
        assert len(found) == len(readers), "not everybody was served"
        for numbers in found.values():
            assert numbers[-1] == 399, "the last picture is missing"
            assert len(numbers) == 400 - numbers[0], "a fast client has lost pictures"


def LateClientBeginsWithAKeyFrame(options):
    stream = synthetic(400, 1000)
    with server(options, stream) as live:
        first = Reader(live)
        first.head()
        for frame in first.frames():
            if number_of(frame) == 105:
                break
        late = Reader(live)
        late.head()
        numbers = judge(stream, late.frames())
        assert numbers[0] > 105 and numbers[0] % 10 == 0 and numbers[-1] == 399, numbers


def ThrottledClientSkipsToKeyFrames(options):
    # 4 s of 8 Mbit/s for a client of one.
    stream = synthetic(400, 10_000)
    with server(options, stream) as live:
        slow = Reader(live, GET.replace(b"live.ts", b"live.ts?mbit=1"))
        fast = Reader(live)
        fast.head()
        counted = []
        thread = threading.Thread(target=lambda: counted.extend(judge(stream, fast.frames())))
        thread.start()
        slow.head()
        numbers = judge(stream, slow.frames())
        thread.join(PATIENCE)
        assert counted[-1] == 399 and len(counted) == 400 - counted[0], "the fast client has lost pictures"
        assert 10 < len(numbers) < 200, len(numbers)
        assert any(second > first + 1 for first, second in zip(numbers, numbers[1:])), "nothing was skipped"


def resident_bytes(process):
    with open(f"/proc/{process.pid}/status", encoding="ascii") as status:
        return next(int(line.split()[1]) * 1024 for line in status if line.startswith("VmRSS:"))


def ClientThatNeverReadsCostsBoundedMemory(options):
    # 6 s of 16 Mbit/s: what 20 silent clients would hoard without a bound is 240 MB.
    stream = synthetic(600, 20_000)
    with server(options, stream) as live:
        silent = [Reader(live) for _ in range(20)]
        reader = Reader(live)
        reader.head()
        frames = reader.frames()
        received = [next(frames) for _ in range(50)]
        before = resident_bytes(live.process)
        received += frames
        after = resident_bytes(live.process)
        numbers = judge(stream, received)
        assert len(numbers) == 600 - numbers[0] and numbers[-1] == 599, "the reader has lost pictures"
        # A build with the address sanitizer keeps what was freed for a while.
        assert after - before < 100_000_000, f"grew by {after - before} bytes"
        print(f"grew by {after - before} bytes")
        for stalled in silent:
            stalled.stream.close()


def ClientsThatResetHarmNobody(options):
    stream = synthetic(400, 3000)
    with server(options, stream) as live:
        reader = Reader(live)
        reader.head()
        frames = reader.frames()
        received = [next(frames)]
        for _ in range(50):
            rude = Reader(live)
            rude.stream.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, b"\1\0\0\0\0\0\0\0")
            received.append(next(frames))
            rude.stream.close()
        numbers = judge(stream, received + list(frames))
        assert numbers[-1] == 399 and len(numbers) == 400 - numbers[0]


def RequestsForOtherThingsAreRefused(options):
    with server(options, synthetic(2000, 500)) as live:
        for request, status in ((b"GET / HTTP/1.1\r\n\r\n", 404), (b"GET /live.tsx HTTP/1.1\r\n\r\n", 404),
                                (b"GET /live.ts?mbit= x HTTP/1.1\r\n\r\n", 404), (b"\r\n\r\n", 501),
                                (b"GET /live.ts?mbit=-1 HTTP/1.1\r\n\r\n", 404), (b"POST /live.ts HTTP/1.1\r\n\r\n", 501),
                                (b"GET /live.ts HTTP/1.0\r\n\r\n", 505), (b"x" * 5000, 431)):
            with live.connect() as stream:
                stream.sendall(request)
                answer = b""
                with contextlib.suppress(ConnectionError):
                    while part := stream.recv(4096):
                        answer += part
                assert answer.startswith(b"HTTP/1.1 %d " % status) or status == 431 and not answer, (request, answer)


def ServerEndsCleanlyWithClientsConnected(options):
    with server(options, synthetic(4000, 500)) as live:
        readers = [Reader(live) for _ in range(5)]
        for reader in readers:
            reader.head()
            reader.chunk()
        live.end()
        live.end = lambda: None
        for reader in readers:
            for _ in reader.frames():
                pass
            assert not reader.stream.recv(10), "the last chunk is the end"


# With a stream that nobody here has made.

def encoder(*arguments):
    if not shutil.which("ffmpeg") or not shutil.which("ffprobe"):
        skip("this needs ffmpeg and ffprobe")
    # Noise, so that the encoder has something to do.
    return ["ffmpeg", "-v", "error", *arguments, "-f", "lavfi", "-i",
            "testsrc2=size=640x360:rate=25,noise=alls=30", "-t", "8", "-pix_fmt", "yuv420p", "-c:v", "mpeg2video",
            "-g", "25", "-bf", "0", "-b:v", "3M", "-minrate", "3M", "-maxrate", "3M", "-bufsize", "1M",
            "-f", "mpegts"]


def decode(live, query=""):
    """How many pictures ffprobe decodes of the stream; it must not complain."""
    command = ["ffprobe", "-v", "error", "-count_frames", "-select_streams", "v", "-show_entries",
               "stream=nb_read_frames", "-of", "default=nokey=1:noprint_wrappers=1",
               f"http://127.0.0.1:{live.port}/live.ts{query}"]
    environment = {**os.environ, "no_proxy": "*"}
    result = subprocess.run(command, capture_output=True, timeout=PATIENCE, check=False, env=environment)
    assert result.returncode == 0 and not result.stderr, result
    return int(result.stdout.split()[0])


def real_stream():
    return [subprocess.run([*encoder(), "-"], capture_output=True, timeout=PATIENCE, check=True).stdout]


def DecodersReadTheStream(options):
    with server(options, real_stream()) as live:
        counts = {}
        queries = ["", "", "?mbit=1", "?mbit=4095"]
        threads = [threading.Thread(target=lambda at=at, query=query: counts.update({at: decode(live, query)}))
                   for at, query in enumerate(queries)]
        for thread in threads:
            thread.start()
        silent = Reader(live)
        for thread in threads:
            thread.join(PATIENCE)
        print(f"decoded {counts} of 200 pictures")
        assert len(counts) == 4, "a decoder failed"
        assert counts[0] >= 125 and counts[1] >= 125 and counts[3] >= 125, counts
        assert 25 <= counts[2] < counts[0] - 25, "the slow one was to skip"
        silent.stream.close()


def EncoderMayFeedThePipe(options):
    if options.emulator:
        skip("the standard input is text there")
    command = [*encoder("-re"), "-"]
    with subprocess.Popen(command, stdout=subprocess.PIPE) as source:
        with Program(options, "live_fanout", "-", stdin=source.stdout) as live:
            source.stdout.close()
            count = decode(live)
            print(f"decoded {count} of 200 pictures")
            assert count >= 125, count


if __name__ == "__main__":
    chosen = parse_options()
    globals()[chosen.case.removeprefix("Live")](chosen)
