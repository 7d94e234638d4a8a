"""Runs the TLS examples as their users and their enemies do, one case per call; arguments as of run_examples.py."""

import contextlib
import os
import random
import socket
import subprocess
import tempfile
import threading

from run_examples import PATIENCE, Program, parse_options

HELLO = b"hello\n"
VERSIONS = ("-tls1_2", "-tls1_3")


def path(options, name):
    """A file of the build as the programs of the build name it."""
    return ("Z:" if options.emulator else "") + plain(options, name)


def plain(options, name):
    return os.path.join(options.certificates, name + ".pem")


def own(options, name):
    return [f"cert={path(options, name)}", f"key={path(options, name + '_key')}",
            f"chain={path(options, 'intermediate_1')}"]


def server(options, *arguments, name="server"):
    return Program(options, "tls_echo_server", *own(options, name), *arguments)


def client(options, port, *arguments, text=HELLO):
    command = [options.emulator] if options.emulator else []
    command += [os.path.join(options.bin, "tls_echo_client" + options.suffix), f"port={port}", *arguments]
    result = subprocess.run(command, input=text, capture_output=True, timeout=PATIENCE, check=False)
    return result.returncode, result.stdout.replace(b"\r\n", b"\n"), result.stderr


@contextlib.contextmanager
def openssl(*arguments):
    """A running openssl, ended when the block does, or when it hangs."""
    process = subprocess.Popen(["openssl", *map(str, arguments)], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT)
    watchdog = threading.Timer(PATIENCE, process.kill)
    watchdog.start()
    try:
        yield process
    finally:
        watchdog.cancel()
        process.kill()
        process.communicate()


def read_to(process, ending):
    """The output up to a line that ends so, or to the end."""
    output = b""
    for line in process.stdout:
        output += line
        if line.endswith(ending):
            break
    return output


def s_client(port, *arguments):
    """Sends a line and waits for its echo; the output, which lacks the line if the server did not serve."""
    with openssl("s_client", "-connect", f"127.0.0.1:{port}", *arguments) as process:
        with contextlib.suppress(BrokenPipeError):
            process.stdin.write(HELLO)
            process.stdin.flush()
        output = read_to(process, HELLO)
        with contextlib.suppress(BrokenPipeError):
            process.stdin.close()
        process.stdin = None
        return output + process.stdout.read()


@contextlib.contextmanager
def s_server(options, *arguments, name="server"):
    """openssl's server, in process.port."""
    with openssl("s_server", "-accept", "127.0.0.1:0", "-cert", plain(options, name), "-key",
                 plain(options, name + "_key"), "-cert_chain", plain(options, "intermediate_1"), *arguments) as process:
        process.port = read_port(process)
        yield process


def read_port(process):
    for line in process.stdout:
        if line.startswith(b"ACCEPT"):
            return int(line.decode().rsplit(":", 1)[1])
    raise AssertionError("openssl s_server did not start")


def meet(options, process, *arguments, times=1):
    """Lets our client talk to openssl's server, which answers each line; what the server said."""
    said = []

    def answer():
        for _ in range(times):
            output = read_to(process, HELLO)
            said.append(output)
            if not output.endswith(HELLO):
                return
            process.stdin.write(HELLO)
            process.stdin.flush()

    answerer = threading.Thread(target=answer)
    answerer.start()
    result = client(options, process.port, f"times={times}", *arguments)
    if result[0] != 0:
        process.kill()
    answerer.join()
    return result, b"".join(said)


def ClientGetsItsLinesBack(options):
    with server(options) as echo:
        text = b"".join(b"line %d\n" % number for number in range(200)) + b"x" * 100000 + b"\n"
        assert client(options, echo.port, f"ca={path(options, 'root_ca')}", text=text)[:2] == (0, text)
        assert client(options, echo.port, "times=3")[:2] == (0, HELLO * 3)


def ClientRefusesTheWrongServers(options):
    for name, authority in (("server", "other_ca"), ("expired", "root_ca"), ("other_server", "root_ca")):
        with server(options, name=name) as echo:
            status, output, errors = client(options, echo.port, f"ca={path(options, authority)}")
            assert (status, output) == (1, b"") and b"cannot connect" in errors, (name, errors)
            assert client(options, echo.port)[0] == 0, "who does not verify gets through"


def ClientRefusesARevokedServer(options):
    with server(options, name="revoked") as echo:
        ca = f"ca={path(options, 'root_ca')}"
        status, _, errors = client(options, echo.port, ca, f"crl={path(options, 'crl')}")
        assert status == 1 and b"revoked" in errors, errors
        assert client(options, echo.port, ca, f"crl={path(options, 'empty_crl')}")[0] == 0


def OpensslClientIsServed(options):
    with server(options) as echo:
        for version in VERSIONS:
            output = s_client(echo.port, version, "-CAfile", plain(options, "root_ca"), "-verify_return_error")
            assert HELLO in output and b"Verify return code: 0 (ok)" in output, output
            output = s_client(echo.port, version, "-CAfile", plain(options, "other_ca"), "-verify_return_error")
            assert HELLO not in output and b"verify error" in output, output
        for version in ("-tls1", "-tls1_1"):
            assert HELLO not in s_client(echo.port, version)
            assert HELLO not in s_client(echo.port, version, "-cipher", "ALL:@SECLEVEL=0")


def OpensslClientResumes(options):
    for resume in (1, 2, 3):
        with server(options, f"resume={resume}") as echo, tempfile.TemporaryDirectory() as folder:
            for version in VERSIONS:
                kept = os.path.join(folder, "session" + version)
                assert b"\nNew, " in s_client(echo.port, version, "-sess_out", kept)
                for _ in range(3):
                    output = s_client(echo.port, version, "-sess_in", kept, "-sess_out", kept)
                    assert HELLO in output and b"\nReused, " in output, (resume, version, output)
            assert s_client(echo.port, "-tls1_2", "-reconnect").count(b"\nReused, ") == 5
            # The server keeps sessions, too, whatever it seals.
            assert s_client(echo.port, "-tls1_2", "-reconnect", "-no_ticket").count(b"\nReused, ") == 5
    with server(options, "resume=0") as echo:
        assert s_client(echo.port, "-tls1_2", "-reconnect").count(b"\nReused, ") == 0


def OpensslClientShowsItsCertificate(options):
    with server(options, f"ca={path(options, 'root_ca')}", f"crl={path(options, 'crl')}") as echo:
        for version in VERSIONS:
            for name, served in (("client", True), ("expired", False), ("other_server", False), ("revoked", False)):
                output = s_client(echo.port, version, "-cert", plain(options, name), "-key",
                                  plain(options, name + "_key"), "-cert_chain", plain(options, "intermediate_1"))
                assert (HELLO in output) == served, (version, name, output)
            assert HELLO not in s_client(echo.port, version), "no certificate"


def OpensslServerServesUs(options):
    for version in VERSIONS:
        with s_server(options, version) as process:
            result, _ = meet(options, process, f"ca={path(options, 'root_ca')}")
            assert result[:2] == (0, HELLO), result
        with s_server(options, version) as process:
            result, _ = meet(options, process, f"ca={path(options, 'other_ca')}")
            assert result[0] == 1, result


def OpensslServerSeesOurCertificate(options):
    for version in VERSIONS:
        demand = (version, "-Verify", 3, "-verify_return_error", "-CAfile", plain(options, "root_ca"))
        with s_server(options, *demand) as process:
            result, said = meet(options, process, *own(options, "client"))
            assert result[:2] == (0, HELLO) and b"CN = client" in said, (result, said)
        for arguments in ([], own(options, "expired"), own(options, "other_server")):
            with s_server(options, *demand) as process:
                assert meet(options, process, *arguments)[0][0] == 1, arguments


def OpensslServerResumesOurSessions(options):
    for version in VERSIONS:
        for resume in (1, 2, 3):
            for more in ((), ("-no_ticket",)):
                with s_server(options, version, *more) as process:
                    result, said = meet(options, process, f"resume={resume}", times=4)
                    assert result[:2] == (0, HELLO * 4), result
                    assert said.count(b"Reused session-id") == 3, (version, resume, more, said)
        with s_server(options, version) as process:
            assert b"Reused" not in meet(options, process, "resume=0", times=3)[1]


def OpensslServerGetsItsName(options):
    named = ("-servername", "ravelo.test", "-servername_fatal", "-cert2", plain(options, "server"), "-key2",
             plain(options, "server_key"))
    with s_server(options, *named) as process:
        assert meet(options, process, "name=ravelo.test")[0][0] == 0
    with s_server(options, *named) as process:
        assert meet(options, process, "name=another.test")[0][0] == 1


def CurlGetsItsRequestBack(options):
    with server(options) as echo:
        result = subprocess.run(["curl", "--silent", "--http0.9", "--no-buffer", "--noproxy", "*", "--max-time", "3",
                                 "--cacert", plain(options, "root_ca"), f"https://localhost:{echo.port}/page"], capture_output=True,
                                timeout=PATIENCE, check=False)
        assert result.stdout.startswith(b"GET /page HTTP/1.1\r\nHost: localhost:"), result


def RudeClientsHarmNobodyElse(options):
    draw = random.Random(5)
    with server(options, "timeout=100") as echo, contextlib.ExitStack() as closing:
        for number in range(60):
            rude = closing.enter_context(echo.connect())
            with contextlib.suppress(ConnectionError):
                rude.sendall((b"", b"GET / HTTP/1.1\r\n\r\n", b"\x16\x03\x01\x02\x00\x01", draw.randbytes(300))[number % 4])
        # From another address, so that another thread negotiates.
        with socket.create_connection(("127.0.0.1", echo.port), PATIENCE, ("127.0.0.2", 0)):
            output = s_client(echo.port, "-bind", "127.0.0.2:0")
            assert HELLO in output, output
        assert HELLO in s_client(echo.port), "the line of the rude ones has ended, too"


def ServerEndsCleanlyWithClientsConnected(options):
    with contextlib.ExitStack() as closing:
        with server(options, "timeout=500") as echo:
            polite = closing.enter_context(openssl("s_client", "-quiet", "-connect", f"127.0.0.1:{echo.port}"))
            polite.stdin.write(HELLO)
            polite.stdin.flush()
            assert read_to(polite, HELLO).endswith(HELLO)
            closing.enter_context(echo.connect())
        assert polite.stdout.read() == b"" and polite.wait(PATIENCE) == 0, "it was told that this is the end"


def main():
    options = parse_options()
    globals()[options.case.removeprefix("Tls")](options)


main()
