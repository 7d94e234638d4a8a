"""Runs ravelo-console as operators and scripts do, before the example operator_console; one case per call.

usage: run_console.py CASE --bin FOLDER [--suffix .exe] [--emulator wine] --socat SOCAT [--tmux TMUX]
"""

import argparse
import contextlib
import json
import os
import re
import socket
import subprocess
import sys
import tempfile
import time

PATIENCE = 60  # seconds that nothing here comes near to, unless it hangs


def skip(reason):
    print(f"skipped: {reason}")
    sys.exit(77)


class Target:
    """A process with a console, in a folder of its own."""

    def __init__(self, options, default_path=False, name="operator_console"):
        self.options = options
        self.folder = tempfile.TemporaryDirectory()
        environment = {**os.environ, "XDG_RUNTIME_DIR": self.folder.name, "HOME": self.folder.name}
        if options.emulator:
            environment = dict(os.environ)
        self.environment = environment
        arguments = [] if default_path else ["console"]
        self.process = subprocess.Popen(self.command(name) + arguments, stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, cwd=self.folder.name, env=environment)

    def command(self, name):
        return ([self.options.emulator] if self.options.emulator else []) + [
            os.path.join(self.options.bin, name + self.options.suffix)]

    def __enter__(self):
        line = self.process.stdout.readline().decode().strip()
        assert line.startswith("console at "), line
        self.path = line.removeprefix("console at ")
        # The pool finds the console a moment later.
        for _ in range(PATIENCE):
            if b"rvl" in self.run("-c", "commands", check=False)[1].split():
                return self
            time.sleep(0.2)
        raise AssertionError("the command rvl is not there")

    def __exit__(self, failure, *_):
        try:
            if not failure:
                self.end()
        finally:
            self.process.kill()
            self.process.wait()
            self.folder.cleanup()

    def end(self):
        self.process.communicate(timeout=PATIENCE)
        assert self.process.returncode == 0, f"the process ended with {self.process.returncode}"

    def run(self, *arguments, text=None, path=True, check=True):
        """ravelo-console with arguments: exit code, output, errors."""
        command = self.command("ravelo-console") + (["--path", self.path] if path else []) + list(arguments)
        result = subprocess.run(command, input=text, capture_output=True, timeout=PATIENCE, check=False,
                                cwd=self.folder.name, env=self.environment)
        output = result.stdout.replace(b"\r\n", b"\n")
        if check:
            assert result.returncode == 0, (result.returncode, output, result.stderr)
        return result.returncode, output, result.stderr

    def socat(self, text, *options):
        """socat on the Unix socket."""
        if self.options.emulator:
            skip("there is no Unix socket on this platform")
        command = [self.options.socat, "-t", "20", *options, "-", f"UNIX-CONNECT:{os.path.join(self.folder.name, self.path)}"]
        return subprocess.run(command, input=text, capture_output=True, timeout=PATIENCE, check=True).stdout


def RunsACommand(options):
    with Target(options) as target:
        output = target.run("--command", "rvl -dump -fd all")[1].decode()
        assert "Display all fd info\n" in output, output
        assert "][CDoorbell] SEvent ------------\n---- obj: " in output, output
        assert "\n---- m_event_mask: 1|Read|\n" in output, output


def RunsSeveralCommandsInTheirOrder(options):
    with Target(options) as target:
        output = target.run("-c", "rings", "-c", "rvl -man mask 3", "-c", "rings")[1].decode()
        assert output.startswith("0 rings\n") and output.endswith("0 rings\n"), output
        assert "\nevent mask type[3] = 3|Read|Write|\n" in output, output


def ReadsCommandsFromItsInput(options):
    with Target(options) as target:
        output = target.run(text=b"rings\n\nrvl -man mask 0\nexit\nrings\n")[1].decode()
        assert output.count("0 rings\n") == 1, output
        assert "event mask type[0] = 0|None|\n" in output, output


def FitsEightyColumns(options):
    commands = [part for text in ("help", "rvl -h", "rvl -v", "rvl -sock", "rvl -sock on", "rvl -sock off", "rvl x",
                                  "rvl -dump -fd", "rvl -thd", "rvl -man mask", "rvl -man revents", "no such command")
                for part in ("-c", text)]
    with Target(options) as target:
        status, output, _ = target.run("--columns", "80", *commands, check=False)
        assert status == 4, status
        lines = output.decode().splitlines()
        assert len(lines) > 80, len(lines)
        assert max(map(len, lines)) <= 80, max(lines, key=len)


def HelpFitsEightyColumns(options):
    with Target(options) as target:
        lines = target.run("--help", path=False)[1].decode().splitlines()
        assert any("--command" in line for line in lines), lines
        assert max(map(len, lines)) <= 80, max(lines, key=len)


def SaysHowItWentByItsExit(options):
    with Target(options) as target:
        for expected, arguments in ((0, ["-c", "rings"]), (4, ["-c", "nonsense"]), (4, ["-c", "rings", "-c", "bell\a"]),
                                    (4, ["-c", "rings\nrings"]), (4, ["-c", "x" * 5000, "-c", "rings"]),
                                    (2, ["--nonsense"]), (2, ["--columns", "many"])):
            status, output, errors = target.run(*arguments, check=False)
            assert status == expected, (arguments, status, output, errors)
        status, output, errors = target.run("--path", "nobody", "-c", "rings", path=False, check=False)
        assert (status, output) == (3, b""), (status, output)
        assert b"cannot attach to nobody: " in errors, errors


def FindsTheConsoleByItself(options):
    if options.emulator:
        skip("under emulation the folder is shared with other tests")
    with Target(options, default_path=True) as target:
        assert target.run("-c", "rings", path=False)[1] == b"0 rings\n"
        assert target.run("--list", path=False)[1].decode() == target.path + "\n"
        assert target.run("--pid", str(target.process.pid), "-c", "rings", path=False)[1] == b"0 rings\n"
        with contextlib.ExitStack() as stack:
            stack.enter_context(contextlib.closing(socket.socket(socket.AF_UNIX)))
            other = subprocess.Popen(target.command("operator_console"), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     cwd=target.folder.name, env=target.environment)
            other.stdout.readline()
            status, _, errors = target.run("-c", "rings", path=False, check=False)
            assert status == 3 and errors.count(b"ravelo-console/") == 2, (status, errors)
            other.communicate(timeout=PATIENCE)
    with tempfile.TemporaryDirectory() as empty:
        result = subprocess.run(target.command("ravelo-console"), capture_output=True, check=False,
                                env={**os.environ, "XDG_RUNTIME_DIR": empty}, stdin=subprocess.DEVNULL)
        assert result.returncode == 3 and b"no console in " in result.stderr, result


def EndsWhenTheProcessDoes(options):
    with Target(options) as target:
        command = target.command("ravelo-console") + ["--path", target.path]
        tool = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                cwd=target.folder.name, env=target.environment)
        tool.stdin.write(b"rings\n")
        tool.stdin.flush()
        assert tool.stdout.readline().strip() == b"0 rings"
        target.end()
        _, errors = tool.communicate(b"rings\n", timeout=PATIENCE)
        assert tool.returncode == 5 and b"the connection was lost" in errors, (tool.returncode, errors)
        target.end = lambda: None


def SocatSeesTheDump(options):
    with Target(options) as target:
        output = target.socat(b"rvl -dump -fd all\nrvl -thd all\n").decode()
        assert "][CDoorbell] SEvent ------------\n" in output, output
        assert "], name[Ravelo0], module[NULL]\n" in output, output
        assert target.socat(b"rings") == b"", "an unfinished line was run"


def SocatSendsAMegabyte(options):
    with Target(options) as target:
        output = target.socat(b"x" * (1 << 20) + b"\n" + b"a\0b\nrings\n")
        assert output == (b"line too long: at most 4096 bytes\n"
                          b"control character in the line: not run\n0 rings\n"), output


def ThirtyOperatorsAtOnce(options):
    with Target(options) as target:
        tools = [subprocess.Popen(target.command("ravelo-console") + ["--path", target.path, "-c", "rings"],
                                  stdout=subprocess.PIPE, cwd=target.folder.name, env=target.environment)
                 for _ in range(30 if not options.emulator else 5)]
        for tool in tools:
            output, _ = tool.communicate(timeout=PATIENCE)
            assert tool.returncode == 0 and output.strip() == b"0 rings", (tool.returncode, output)


def SilentSocatDisturbsNobody(options):
    if options.emulator:
        skip("there is no Unix socket on this platform")
    with Target(options) as target, socket.socket(socket.AF_UNIX) as silent:
        silent.connect(os.path.join(target.folder.name, target.path))
        silent.setblocking(False)
        asked = 0
        with contextlib.suppress(BlockingIOError):
            for _ in range(100_000):
                asked += silent.send(b"rvl -h\n" * 500)
        print(f"{asked} bytes asked and nothing read")
        assert target.run("-c", "rings")[1] == b"0 rings\n"
        with open(f"/proc/{target.process.pid}/status", encoding="ascii") as status:
            resident = next(int(line.split()[1]) for line in status if line.startswith("VmRSS"))
        print(f"{resident} KiB resident")
        assert resident < 500_000, "what nobody reads is hoarded"
        assert target.run("-c", "rings")[1] == b"0 rings\n"


def MetricsArePrometheusText(options):
    with tempfile.TemporaryDirectory() as folder:
        environment = {**os.environ, "XDG_RUNTIME_DIR": folder} if not options.emulator else dict(os.environ)
        command = ([options.emulator] if options.emulator else []) + [
            os.path.join(options.bin, "metrics" + options.suffix)]
        with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=environment) as server:
            try:
                address = server.stdout.readline().decode().strip().removeprefix("listening on ")
                page = ""
                for _ in range(PATIENCE):
                    result = subprocess.run([options.curl, "-s", "--max-time", "20", f"http://{address}/metrics"],
                                            capture_output=True, check=True, timeout=PATIENCE)
                    page = result.stdout.decode()
                    if page.startswith("# "):
                        break
                    time.sleep(0.2)
                samples = metrics(page)
                assert samples["ravelo_handlers", '{class="CPage"}'] == 1, page
                assert samples["ravelo_media_senders_living", None] == 0, page
                server.communicate(b"\n", timeout=PATIENCE)
                assert server.returncode == 0, server.returncode
            finally:
                server.kill()


def metrics(page):
    """The samples of a page in the text format of Prometheus, by name and labels; what breaks its rules fails."""
    samples, types, helped, current = {}, {}, set(), None
    for line in page.splitlines():
        if line.startswith("# HELP "):
            _, _, name, text = line.split(" ", 3)
            assert name not in helped and text.strip(), line
            helped.add(name)
            continue
        if line.startswith("# TYPE "):
            _, _, current, kind = line.split(" ")
            assert current not in types and kind in ("gauge", "counter"), line
            assert (kind == "counter") == current.endswith("_total"), line
            types[current] = kind
            continue
        label = r'[a-z_]+="(?:[^"\\\n]|\\["\\n])*"'
        match = re.fullmatch(rf"(ravelo_[a-z0-9_]+)(\{{{label}(?:,{label})*\}})? (-?[0-9]+(?:\.[0-9]+)?)", line)
        assert match, f"no sample: {line!r}"
        name, labels, value = match.groups()
        assert name == current, f"{line!r} stands among the samples of {current}"
        assert (name, labels) not in samples, f"twice: {line!r}"
        samples[name, labels] = float(value)
    assert helped == set(types) == {name for name, _ in samples}, helped ^ set(types)
    return samples


def StatOfAQuietProcessIsJson(options):
    with Target(options) as target:
        figures = json.loads(target.run("-c", "stat -json")[1])
        assert [list(pool)[0] for pool in figures["pool"]] == ["number"], figures
        assert {"class": "CDoorbell", "count": 1, "sockets": 1} in figures["handler"], figures
        assert figures["stream_senders"][0]["living"] == 0 and figures["stream_sender"] == [], figures
        assert figures["memory"][0]["thread_caches"] >= 2, figures
        for word in ("pools", "threads", "handlers", "sockets", "timers", "messages", "memory", "senders", "buffers",
                     "times"):
            assert json.loads(target.run("-c", f"stat {word} -json")[1]), word


def seen(target, command, enough):
    """What a command answers, as JSON, once it shows enough."""
    for _ in range(PATIENCE):
        figures = json.loads(target.run("-c", command)[1])
        if enough(figures):
            return figures
        time.sleep(0.5)
    raise AssertionError(figures)


def TheWorstOfACrowdAreSeen(options):
    with Target(options, name="crowded_target") as target:
        def all_have_begun(figures):
            return (figures["media_senders"][0]["stalled"] >= 20 and figures["stream_senders"][0]["stalled"] == 4
                    and figures["media_senders"][0]["longest_stall_us"] > 1_500_000)
        figures = seen(target, "stat -json", all_have_begun)
        assert figures["media_senders"][0]["living"] == 2000, figures["media_senders"]
        assert figures["media_buffers"][0]["senders"] == 2000, figures["media_buffers"]
        assert len(figures["media_sender"]) == 5 and len(figures["stream_sender"]) == 4, figures
        stalls = [sender["now_us"] for sender in figures["media_sender"]]
        assert stalls == sorted(stalls, reverse=True) and stalls[-1] > 0, stalls
        assert figures["stream_senders"][0]["bytes_queued"] == 4000, figures["stream_senders"]

        lines = target.run("-c", "stat")[1].decode().splitlines()
        print("\n".join(lines))
        assert len(lines) < 80, len(lines)
        assert max(map(len, lines)) <= 80, max(lines, key=len)
        title = lines.index("media_sender: 5 of 2000, longest stall first")
        assert lines[title + 1].split() == ["id", "fd", "frames", "bytes", "late", "to_key", "channel", "stalled",
                                            "now"], lines[title + 1]
        assert all(re.fullmatch(r" +-[0-9]+ +[0-9]+( +[0-9.]+[kMG]?){5}( +[0-9.]+(us|ms|s|h)){2}", line)
                   for line in lines[title + 2:title + 7]), lines[title + 2:title + 7]

        everybody = json.loads(target.run("-c", "stat senders -json")[1])
        assert len({sender["id"] for sender in everybody["media_sender"]}) == 2000
        assert len(everybody["stream_sender"]) == 40
        lines = target.run("-c", "stat senders")[1].decode().splitlines()
        assert "media_sender: 2000 of 2000, longest stall first" in lines
        assert len(lines) > 2040 and max(map(len, lines)) <= 80, max(lines, key=len)

        before = metrics(target.run("-c", "stat -metrics")[1].decode())
        after = metrics(target.run("-c", "stat senders buffers -metrics")[1].decode())
        assert len(before) < 150, "the number of samples depends on that of senders"
        for (name, labels), value in after.items():
            assert not name.endswith("_total") or value >= before[name, labels], (name, value)
        assert after["ravelo_media_senders_living", None] == 2000
        assert after["ravelo_media_senders_frames_sent_total", None] > 2000


def ACrowdThatNeverReadsDisturbsNobody(options):
    if options.emulator:
        skip("there is no Unix socket on this platform")
    with Target(options, name="crowded_target") as target, contextlib.ExitStack() as crowd:
        def frames_put():
            return json.loads(target.run("-c", "stat buffers -json")[1])["media_buffers"][0]["frames_put"]
        for _ in range(99):
            silent = crowd.enter_context(socket.socket(socket.AF_UNIX))
            silent.connect(os.path.join(target.folder.name, target.path))
            silent.sendall(b"stat senders\nstat senders -json\nstat\n" + b"x" * 5000)
        before = frames_put()
        for _ in range(PATIENCE):
            time.sleep(0.2)
            if frames_put() > before + 5:
                break
        else:
            raise AssertionError("the reactor waits for operators")
        with open(f"/proc/{target.process.pid}/status", encoding="ascii") as status:
            resident = next(int(line.split()[1]) for line in status if line.startswith("VmRSS"))
        print(f"{resident} KiB resident")
        assert resident < 500_000, "what nobody reads is hoarded"


class Screen:
    """A terminal of 80 columns that tmux keeps."""

    def __init__(self, options, target, command):
        self.base = [options.tmux, "-S", os.path.join(target.folder.name, "tmux")]
        self.call("-f", "/dev/null", "new-session", "-d", "-s", "s", "-x", "80", "-y", "40", command)

    def call(self, *arguments):
        return subprocess.run(self.base + list(arguments), capture_output=True, check=True, timeout=PATIENCE).stdout

    def keys(self, *keys):
        self.call("send-keys", "-t", "s", *keys)

    def see(self, text):
        """Waits until the screen shows a text."""
        for _ in range(PATIENCE * 10):
            shown = self.call("capture-pane", "-p", "-t", "s").decode()
            if text in shown:
                return shown
            time.sleep(0.1)
        raise AssertionError(f"{text!r} is not shown:\n{shown}")

    def end(self):
        subprocess.run(self.base + ["kill-server"], capture_output=True, check=False)


def APersonEditsAndCompletes(options):
    if options.emulator or not options.tmux:
        skip("this needs tmux, and a program of its own platform")
    with Target(options) as target:
        tool = target.command("ravelo-console")[0]
        screen = Screen(options, target, f"HOME={target.folder.name} TERM=screen {tool} --path {target.folder.name}/{target.path}")
        try:
            screen.see("ravelo>")
            screen.keys("rin", "Tab", "Enter")
            screen.see("ravelo> rings\n0 rings\nravelo>")
            # Two keywords begin so: both are shown, and the line stays.
            screen.keys("rv", "Tab", "-s", "Tab", "o", "Tab")
            screen.see("off  on")
            screen.keys("n", "Enter")
            screen.see("Turn on socket event flow dump")
            # The command before the last, with one letter taken away.
            screen.keys("Up", "Up", "Enter")
            assert screen.see("ravelo> rings\n0 rings\nravelo>").count("0 rings") == 2
            screen.keys("rvl -v!", "BSpace", "Enter")
            shown = screen.see("Ravelo Build:")
            assert max(map(len, shown.splitlines())) <= 80
            screen.keys("nonsense", "Enter")
            screen.see("unknown command: nonsense")
            screen.keys("exit", "Enter")
            for _ in range(PATIENCE * 10):
                if subprocess.run(screen.base + ["has-session"], capture_output=True, check=False).returncode:
                    break
                time.sleep(0.1)
            else:
                raise AssertionError("the program does not end")
            with open(os.path.join(target.folder.name, ".ravelo_console_history"), encoding="utf-8") as history:
                assert "rings" in history.read()
        finally:
            screen.end()


def parse_options():
    parser = argparse.ArgumentParser()
    parser.add_argument("case")
    parser.add_argument("--bin", required=True)
    parser.add_argument("--suffix", default="")
    parser.add_argument("--emulator", default="")
    parser.add_argument("--socat", default="socat")
    parser.add_argument("--curl", default="curl")
    parser.add_argument("--tmux", default="tmux")
    return parser.parse_args()


if __name__ == "__main__":
    chosen = parse_options()
    globals()[chosen.case](chosen)
