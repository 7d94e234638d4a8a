"""Runs the recorder as its users and its enemies do, one case per call; arguments as of run_examples.py."""

import contextlib
import os
import random
import resource
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time

from run_examples import PATIENCE, Program, parse_options, skip

GET = b"GET / HTTP/1.1\r\nHost: here\r\n\r\n"


class Source:
    """Where a stream comes from: somebody who waits for the recorder, and sends it what the case says."""

    def __enter__(self):
        self._listener = socket.create_server(("127.0.0.1", 0))
        self._listener.settimeout(PATIENCE)
        self.port = self._listener.getsockname()[1]
        return self

    def accept(self):
        self.stream, _ = self._listener.accept()
        return self

    def send(self, data):
        self.stream.sendall(data)

    def end(self):
        self.stream.close()

    def __exit__(self, *_):
        self._listener.close()


class Folder:
    """A place for a recording."""

    def __enter__(self):
        self.path = tempfile.mkdtemp(prefix="ravelo_recorder_")
        self.file = os.path.join(self.path, "film.ts")
        return self

    def content(self):
        with open(self.file, "rb") as file:
            return file.read()

    def __exit__(self, *_):
        shutil.rmtree(self.path)


@contextlib.contextmanager
def recorded(options, rate=100_000):
    with Folder() as folder, Source() as source:
        with Program(options, "recorder", folder.file, source.port, rate) as recorder:
            yield folder, source.accept(), recorder


def refused(options, *arguments, **settings):
    """What a recorder that cannot begin says."""
    command = [*filter(None, [options.emulator]), os.path.join(options.bin, "recorder" + options.suffix),
               *map(str, arguments)]
    done = subprocess.run(command, capture_output=True, timeout=PATIENCE, check=False, **settings)
    assert done.returncode == 1 and b"listening" not in done.stdout, done
    return done.stderr


def curl(recorder, *arguments):
    command = ["curl", "--silent", "--show-error", "--no-buffer", "--max-time", str(PATIENCE), "--noproxy", "*",
               *arguments, f"http://127.0.0.1:{recorder.port}/"]
    return subprocess.Popen(command, stdout=subprocess.PIPE)


def everything(reader):
    """What curl gets, which has to be content in the end."""
    output = reader.stdout.read()
    assert reader.wait(PATIENCE) == 0, reader.returncode
    return output


def until(true, what):
    start = time.monotonic()
    while not true():
        assert time.monotonic() - start < PATIENCE, what
        time.sleep(0.02)


def EveryByteReachesTheDiskAndItsReaders(options):
    data = random.Random(1).randbytes(10_000_000)
    with recorded(options) as (folder, source, recorder):
        readers = [curl(recorder) for _ in range(3)]
        threads = [threading.Thread(target=lambda: (source.send(data), source.end()))]
        got = []
        threads += [threading.Thread(target=lambda reader=reader: got.append(everything(reader))) for reader in readers]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        assert got == [data] * 3, [len(each) for each in got]
        assert everything(curl(recorder)) == data, "also when it is over"
        assert folder.content() == data


def ReadersFollowWhileItGrows(options):
    draw = random.Random(2)
    with recorded(options) as (_, source, recorder):
        reader = curl(recorder)
        for length in (1, 188, 131_072, 300_000, 1):
            part = draw.randbytes(length)
            source.send(part)
            assert reader.stdout.read(length) == part, length
        source.end()
        assert everything(reader) == b""


def TheSourceIsTakenAtTheRate(options):
    data = random.Random(3).randbytes(1_000_000)
    with recorded(options, rate=500) as (folder, source, recorder):
        start = time.monotonic()
        reader = curl(recorder)
        source.send(data)
        source.end()
        assert everything(reader) == data
        assert time.monotonic() - start > 1, "at 512,000 bytes a second"


def AnEmptyStreamIsAnEmptyFile(options):
    with recorded(options) as (folder, source, recorder):
        source.end()
        assert everything(curl(recorder)) == b""
        assert folder.content() == b""


def HeadHasNoBodyAndBadRequestsAreRefused(options):
    with recorded(options) as (_, source, recorder):
        source.send(b"x" * 1000)
        for request, start in ((GET.replace(b"GET", b"HEAD"), b"HTTP/1.1 200 "), (b"\0\r\n\r\n", b"HTTP/1.1 400 "),
                               (GET.replace(b"GET", b"DELETE"), b"HTTP/1.1 501 ")):
            with recorder.connect() as stream:
                stream.sendall(request)
                answer = b"".join(iter(lambda: stream.recv(65536), b""))
                assert answer.startswith(start) and b"xxx" not in answer, answer
        source.end()


def AReaderThatReadsNothingHoldsUpNobody(options):
    data = random.Random(4).randbytes(20_000_000)
    with recorded(options) as (folder, source, recorder), recorder.connect() as lazy:
        lazy.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        lazy.sendall(GET)
        reader = curl(recorder)
        sender = threading.Thread(target=lambda: (source.send(data), source.end()))
        sender.start()
        assert everything(reader) == data
        sender.join()
        assert folder.content() == data


def ReadersThatHangUpHarmNobody(options):
    data = random.Random(5).randbytes(3_000_000)
    with recorded(options) as (_, source, recorder):
        for number in range(30):
            with recorder.connect() as stream:
                stream.sendall(GET[:5] if number % 3 == 0 else GET)
                if number % 3 == 2:
                    source.send(data[number * 1000:number * 1000 + 1000])
                    stream.recv(1000)
        source.end()
        assert len(everything(curl(recorder))) == 10_000


def AnInterruptLosesNothingThatWasTaken(options):
    data = random.Random(6).randbytes(1_000_000)
    with Folder() as folder, Source() as source:
        # It fails when the disk has less than it took: leaving the block is the assertion.
        with Program(options, "recorder", folder.file, source.port, 20_000) as recorder:
            source.accept()

            def flood():
                with contextlib.suppress(ConnectionError):
                    while True:
                        source.send(data)

            flooding = threading.Thread(target=flood)
            flooding.start()
            reader = curl(recorder)
            assert reader.stdout.read(200_000) == data[:200_000]
        flooding.join()
        reader.communicate(timeout=PATIENCE)
        assert reader.returncode != 0, "curl knows that there was to be more"
        content = folder.content()
        assert len(content) >= 200_000
        assert content == (data * (len(content) // len(data) + 1))[:len(content)]


def await_complaint(recorder):
    lines = [recorder.process.stderr.readline()]
    while b"the disk does not take" not in lines[-1]:
        assert lines[-1], lines
        lines.append(recorder.process.stderr.readline())


def AFullDiskIsReported(options):
    with Source() as source:
        full = ("Z:" if options.emulator else "") + "/dev/full"
        with Program(options, "recorder", full, source.port, stderr=subprocess.PIPE) as recorder:
            source.accept().send(b"x" * 100_000)
            await_complaint(recorder)
            recorder.process.send_signal(signal.SIGINT)
            output, errors = recorder.process.communicate(timeout=PATIENCE)
            assert recorder.process.returncode == 1 and output.split() == [b"stopped"], output
            assert b"of 100000 bytes that were taken, 100000 are lost" in errors, errors
            recorder.end = lambda: None  # it has ended


def ADiskThatHasRoomAgainLosesNothing(options):
    if options.emulator:
        skip("wine's own process bears the limit of a file's size")
    data = random.Random(7).randbytes(2_000_000)
    limits = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (500_000, resource.RLIM_INFINITY))
    with Folder() as folder, Source() as source:
        # A signal of the limit would end the program; ignored, as Python has it, it is an error of the write.
        with Program(options, "recorder", folder.file, source.port, 100_000, stderr=subprocess.PIPE,
                     preexec_fn=limits, restore_signals=False) as recorder:
            source.accept()
            sender = threading.Thread(target=lambda: (source.send(data), source.end()))
            sender.start()
            await_complaint(recorder)
            reader = curl(recorder)
            assert len(reader.stdout.read(400_000)) == 400_000
            unlimited = (resource.RLIM_INFINITY, resource.RLIM_INFINITY)
            resource.prlimit(recorder.process.pid, resource.RLIMIT_FSIZE, unlimited)
            assert everything(reader) == data[400_000:]
            sender.join()
        assert folder.content() == data


def APathThatCannotBeWrittenIsReported(options):
    with Folder() as folder, Source() as source:
        for path in (os.path.join(folder.path, "none", "film.ts"), folder.path):
            errors = refused(options, path, source.port)
            assert b"open file failed!" in errors and b": cannot write the file" in errors, errors


def AMissingSourceIsReported(options):
    with Folder() as folder, Source() as source:
        port = source.port
    with Folder() as folder:
        assert b": cannot connect to the source" in refused(options, folder.file, port)
        assert not os.path.exists(folder.file), "nothing was made, and no older recording is lost"


def ASocatStreamIsRecorded(options):
    data = random.Random(8).randbytes(3_000_000)
    with Folder() as folder:
        given = os.path.join(folder.path, "given")
        with open(given, "wb") as file:
            file.write(data)
        command = [options.socat, "-dd", "-u", f"FILE:{given}", "TCP-LISTEN:0,bind=127.0.0.1"]
        with subprocess.Popen(command, stderr=subprocess.PIPE) as socat:
            line = b""
            while b"listening on" not in line:
                line = socat.stderr.readline()
            port = int(line.rsplit(b":", 1)[1])
            with Program(options, "recorder", folder.file, port, 100_000) as recorder:
                assert everything(curl(recorder)) == data
                socat.communicate(timeout=PATIENCE)
        assert folder.content() == data


def pictures(place):
    """How many pictures ffprobe decodes; it must not complain."""
    command = ["ffprobe", "-v", "error", "-count_frames", "-select_streams", "v", "-show_entries",
               "stream=nb_read_frames", "-of", "default=nokey=1:noprint_wrappers=1", place]
    done = subprocess.run(command, capture_output=True, timeout=PATIENCE, check=False, env={**os.environ, "no_proxy": "*"})
    assert done.returncode == 0 and not done.stderr, done
    return int(done.stdout.split()[0])


def AnEncodersStreamIsRecordedAndPlayedMeanwhile(options):
    if not shutil.which("ffmpeg") or not shutil.which("ffprobe"):
        skip("this needs ffmpeg and ffprobe")
    encoder = ["ffmpeg", "-v", "error", "-re", "-f", "lavfi", "-i", "testsrc2=size=320x180:rate=25", "-t", "4",
               "-c:v", "mpeg2video", "-g", "25", "-bf", "0", "-f", "mpegts"]
    with socket.create_server(("127.0.0.1", 0)) as free:
        port = free.getsockname()[1]
    with Folder() as folder:
        with subprocess.Popen([*encoder, f"tcp://127.0.0.1:{port}?listen=1"]) as ffmpeg:
            until(lambda: f"0100007F:{port:04X}" in listening(), "ffmpeg does not listen")
            with Program(options, "recorder", folder.file, port, 5_000) as recorder:
                assert pictures(f"http://127.0.0.1:{recorder.port}/") == 100
                assert ffmpeg.wait(PATIENCE) == 0
        assert pictures(folder.file) == 100


def listening():
    """The addresses of this machine that somebody listens at."""
    with open("/proc/net/tcp", encoding="ascii") as table:
        return [line.split()[1] for line in table if line.split()[3] == "0A"]


def main():
    options = parse_options()
    globals()[options.case.removeprefix("Recorder")](options)


main()
