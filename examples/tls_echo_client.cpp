// Sends lines over TLS and prints what comes back.
//
//   tls_echo_client port=N [ca=FILE [crl=FILE]] [name=NAME] [cert=FILE key=FILE [chain=FILE]] [times=N]
//                   [resume=FLAGS] [timeout=MS]
//
// ca, crl   the server must show a certificate of this authority, which this list does not revoke
// name      the server's name, sent to it
// cert, key the client's own certificate and key, PEM; chain: what stands between it and its root
// times     how many connections to make, one after the other; each sends the line "hello". Without it, one
//           connection sends the lines of standard input.
// resume    how sessions are resumed: 1 by id, 2 by ticket, 3 (the default) both, 0 not at all
//
// The result is 0 only if as many bytes came back as were sent.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "tls_options.h"

using namespace Veltro::Ravelo;

namespace {

constexpr int ANSWER_US = 10'000'000;

bool fail(const char* reason) {
    std::fprintf(stderr, "tls_echo_client: %s\n", reason);
    return false;
}

bool connect(CSslStream& stream, const CTlsOptions& options) {
    int timeout_ms = options.GetNumber("timeout", 5000);
    const int resume = options.GetNumber("resume", 3);
    stream.SetOption(SslOptTimeout, 0, &timeout_ms);
    stream.SetOption(SslOptSession, resume, nullptr);
    if (!UseCertificates(stream, options)) return fail("cannot read the certificates");
    std::string name = options.Get("name");
    if (!name.empty()) stream.SetOption(SslOptServerName, 0, name.data());
    const CSockAddrIPv4 server("127.0.0.1", static_cast<unsigned short>(options.GetNumber("port", 0)));
    if (stream.Connect(server) != 0) return fail("cannot connect");
    return !IsRevoked(stream, options) || fail("the server's certificate is revoked");
}

/// Sends a line and prints as many bytes as it has.
bool exchange(CSslStream& stream, const std::string& line) {
    const auto length = static_cast<unsigned>(line.size());
    if (stream.Send_n(line.data(), length, ANSWER_US) != static_cast<int>(length)) return fail("cannot send");
    for (std::size_t left = line.size(); left > 0;) {
        char text[4096];
        const int received =
            stream.Recv_n(text, static_cast<unsigned>(std::min(left, sizeof text)), ANSWER_US);
        if (received <= 0) return fail(received == 0 ? "no answer" : "the server has gone");
        std::fwrite(text, 1, static_cast<std::size_t>(received), stdout);
        left -= static_cast<std::size_t>(received);
    }
    return true;
}

bool sayHello(const CTlsOptions& options) {
    CSslStream stream;
    return connect(stream, options) && exchange(stream, "hello\n");
}

bool sendLines(const CTlsOptions& options) {
    CSslStream stream;
    if (!connect(stream, options)) return false;
    for (std::string line; std::getline(std::cin, line);) {
        if (!exchange(stream, line + "\n")) return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    const CTlsOptions options(argc, argv);
    // The pool starts the library; the calls that wait need no more of it.
    if (CNetThread::CreateThreadPool(1, false) != 0) return EXIT_FAILURE;
    const int times = options.GetNumber("times", 0);
    bool succeeded = true;
    for (int i = 0; i < times && succeeded; ++i) succeeded = sayHello(options);
    if (times == 0) succeeded = sendLines(options);
    CNetThread::DestroyThreadPool();
    return succeeded ? EXIT_SUCCESS : EXIT_FAILURE;
}
