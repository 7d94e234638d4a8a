"""Runs dtls_echo against openssl's own client and server, one case per call.

usage: run_dtls.py CASE --bin FOLDER [--suffix .exe] [--emulator wine] --openssl OPENSSL --certificates FOLDER
"""

import argparse
import contextlib
import os
import queue
import socket
import subprocess
import sys
import tempfile
import threading

PATIENCE = 60  # seconds that nothing here comes near to, unless it hangs


class Running:
    """A program that goes on until the block ends, and the lines that it says."""

    def __init__(self, command):
        self.process = subprocess.Popen([str(part) for part in command], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.lines = queue.Queue()
        self.heard = []
        threading.Thread(target=self.listen, daemon=True).start()

    def listen(self):
        for line in self.process.stdout:
            self.lines.put(line.decode(errors="replace").rstrip())

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()

    def say(self, text):
        self.process.stdin.write(text.encode() + b"\n")
        self.process.stdin.flush()

    def hear(self, *parts):
        """Waits for a line with one of some texts."""
        try:
            while not any(part in (line := self.lines.get(timeout=PATIENCE)) for part in parts):
                self.heard.append(line)
        except queue.Empty:
            sys.exit(f"nobody said {parts}, but:\n" + "\n".join(self.heard))
        self.heard.append(line)
        return line


def certificate(options, name):
    return os.path.join(options.certificates, name + ".pem")


def example(options, *arguments):
    command = [options.emulator] if options.emulator else []
    return command + [os.path.join(options.bin, "dtls_echo" + options.suffix), *map(str, arguments)]


def own(options, name):
    return [certificate(options, part) for part in (name, name + "_key", "intermediate_1")]


def our_server(options, *authority, name="server"):
    return Running(example(options, "server", 0, *own(options, name), *authority))


def port_of(server):
    """Waits until our server listens: between two clients it has no socket."""
    return server.hear("listening on 127.0.0.1:").rsplit(":", 1)[1]


def their_client(options, server, *arguments):
    # Without -brief it says whether it has resumed.
    return Running([options.openssl, "s_client", "-dtls1_2", "-connect", f"127.0.0.1:{port_of(server)}", "-CAfile",
                    certificate(options, "root_ca"), "-verify_return_error", *arguments])


def shown(options, name):
    """What openssl's client is told to show its certificate."""
    return ["-cert", certificate(options, name), "-key", certificate(options, name + "_key"), "-cert_chain",
            certificate(options, "intermediate_1")]


def free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


@contextlib.contextmanager
def their_server(options, *arguments):
    port = free_port()
    with Running([options.openssl, "s_server", "-dtls1_2", "-accept", f"127.0.0.1:{port}", "-cert",
                  certificate(options, "server"), "-key", certificate(options, "server_key"), "-cert_chain",
                  certificate(options, "intermediate_1"), *arguments]) as server:
        server.hear("ACCEPT")
        server.port = port
        yield server


def our_client(options, port, text, *certificates):
    return Running(example(options, "client", port, certificate(options, "root_ca"), text, *certificates))


def echo_with(options, server, expected, *arguments):
    with their_client(options, server, *arguments) as client:
        client.hear(expected + ", TLSv1.2")
        client.say("hello from openssl")
        client.hear("hello from openssl")


def ClientOfOpensslGetsItsLineBack(options):
    with our_server(options) as server:
        echo_with(options, server, "New")
        server.hear("client of port")


def ClientOfOpensslShowsItsCertificate(options):
    with our_server(options, certificate(options, "root_ca")) as server:
        echo_with(options, server, "New", *shown(options, "client"))


def ClientOfOpensslWithoutACertificateIsRefused(options):
    with our_server(options, certificate(options, "root_ca")) as server:
        with their_client(options, server):
            server.hear("peer did not return a certificate")


def ClientsOfOpensslWithTheWrongCertificatesAreRefused(options):
    with our_server(options, certificate(options, "root_ca")) as server:
        for name in ("expired", "other_server"):
            with their_client(options, server, *shown(options, name)):
                server.hear("certificate verify failed")
        # Who comes next is served.
        echo_with(options, server, "New", *shown(options, "client"))


def ClientOfOpensslRefusesTheWrongServers(options):
    for name, authority in (("server", "other_ca"), ("expired", "root_ca")):
        with our_server(options, name=name) as server:
            with their_client(options, server, "-CAfile", certificate(options, authority)) as client:
                client.hear("verify error")
                assert client.process.wait(PATIENCE) == 1


def resume(options, *arguments):
    with our_server(options) as server, tempfile.TemporaryDirectory() as folder:
        session = os.path.join(folder, "session")
        for expected, option in (("New", "-sess_out"), ("Reused", "-sess_in"), ("Reused", "-sess_in")):
            with their_client(options, server, option, session, *arguments) as client:
                client.hear(expected + ", TLSv1.2")
                client.say("hello")
                client.hear("hello")
                client.say("Q")  # ends with its close notification
                client.process.wait(PATIENCE)


def ClientOfOpensslResumesByTicket(options):
    resume(options)


def ClientOfOpensslResumesById(options):
    resume(options, "-no_ticket")


def answer(server, text):
    """Hears a client's text and answers it."""
    server.hear(text)
    server.say("answer to " + text)


def ServerOfOpensslHearsTwoConnectionsTheSecondOneResumed(options):
    with their_server(options) as server, our_client(options, server.port, "question") as client:
        answer(server, "question")
        client.hear("answer to question")
        server.hear("Reused session-id")
        answer(server, "question")
        client.hear("answer to question")
        assert client.process.wait(PATIENCE) == 0


def ServerOfOpensslSeesOurCertificate(options):
    checks = ["-Verify", "3", "-verify_return_error", "-CAfile", certificate(options, "root_ca")]
    with their_server(options, *checks) as server:
        with our_client(options, server.port, "question", *own(options, "client")) as client:
            server.hear("subject=C = GB", "CN = client")
            answer(server, "question")
            client.hear("answer to question")


def ServerOfOpensslRefusesOurWrongCertificates(options):
    checks = ["-Verify", "3", "-verify_return_error", "-CAfile", certificate(options, "root_ca")]
    for certificates in ([], own(options, "expired"), own(options, "other_server")):
        with their_server(options, *checks) as server:
            with our_client(options, server.port, "question", *certificates) as client:
                assert client.process.wait(PATIENCE) == 1, certificates


def ServerOfOpensslThatNobodyKnowsIsRefused(options):
    with their_server(options) as server:
        command = example(options, "client", server.port, certificate(options, "other_ca"), "question")
        with Running(command) as client:
            client.hear("certificate verify failed")
            assert client.process.wait(PATIENCE) == 1


def OursTalkToEachOther(options):
    with our_server(options, certificate(options, "root_ca")) as server:
        with our_client(options, port_of(server), "hello", *own(options, "client")) as client:
            client.hear("hello")
            client.hear("hello")
            assert client.process.wait(PATIENCE) == 0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("case")
    parser.add_argument("--bin", required=True)
    parser.add_argument("--suffix", default="")
    parser.add_argument("--emulator", default="")
    parser.add_argument("--openssl", required=True)
    parser.add_argument("--certificates", required=True)
    options = parser.parse_args()
    globals()[options.case](options)


main()
