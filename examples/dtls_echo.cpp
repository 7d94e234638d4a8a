// An echo over DTLS: the client sends a text, the server sends it back. Both verify each other if they are
// told how.
//
//   dtls_echo server port certificate key chain [authority]
//   dtls_echo client port authority text [certificate key chain]
//
// port         on 127.0.0.1; a server takes a free one for 0
// certificate  the own one, with its key and the one that stands between it and its authority; PEM files
// authority    a file with the certificates that the peer's must lead to
//
// The server serves one client after the other until somebody ends it, and says each time that it listens;
// who comes before finds the port closed. The client connects twice, the second time resuming the session of
// the first.
#include <Plinth/Plinth.h>
#include <Ravelo/Ravelo.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

using namespace Veltro;
using namespace Veltro::Ravelo;

namespace {

unsigned short port_of(const char* text) {
    return static_cast<unsigned short>(std::strtoul(text, nullptr, 10));
}

/// Gives a socket its certificates; null stands for what is not used.
bool set_certificates(CSslDgram& dgram, const char* const own[3], const char* authority) {
    auto certificates = std::make_unique<CSslX509>();
    int type = 0;
    if (own != nullptr) {
        if (certificates->SetCert(own[0], own[1]) != 0 || certificates->SetCA(own[2]) != 0) return false;
        type |= SslCertOwn;
    }
    if (authority != nullptr) {
        if (certificates->SetTrustCA(authority) != 0) return false;
        type |= SslCertVerifyPeer;
    }
    return dgram.SetOption(SslOptCert, type, certificates.release()) == 0;
}

/// Sends back what comes until the client closes. The socket waits for it, since no reactor does.
void echo(CSslDgram& dgram) {
    char record[16'384];
    int length = 0;
    dgram.SetBlockOpt(true);
    while ((length = dgram.Recv(record, sizeof(record))) >= 0) {
        if (length > 0) dgram.Send(record, static_cast<unsigned>(length));
    }
}

int serve(unsigned short port, const char* const own[3], const char* authority) {
    // A server that resumes by tickets needs keys to seal them with; creating a thread pool makes them, too.
    CSslDgram::Init();
    CSockAddrIPv4 address("127.0.0.1", port);
    for (;;) {
        CSslDgram dgram;
        int number = 0;
        if (!set_certificates(dgram, own, authority) || dgram.Open(&address, true) != 0) return EXIT_FAILURE;
        dgram.SetOption(SslOptSession, SslSessionId | SslSessionTicket, &number);
        dgram.GetLocalAddr(&address);
        std::printf("listening on 127.0.0.1:%u\n", address.GetPort());
        std::fflush(stdout);
        if (dgram.AcceptX(nullptr) != 0) continue;  // the log says why
        CSockAddrIPv4 client;
        dgram.GetRemoteAddr(&client);
        std::printf("client of port %u\n", client.GetPort());
        std::fflush(stdout);
        echo(dgram);
    }
}

/// Sends a line and prints what comes back; again and again, for either may get lost.
bool ask(CSslDgram& dgram, const std::string& text) {
    char record[16'384];
    for (int tries = 0; tries < 100; ++tries) {
        if (tries % 10 == 0) dgram.Send(text.data(), static_cast<unsigned>(text.size()));
        const int length = dgram.Recv(record, sizeof(record));
        if (length < 0) return false;
        if (length > 0) return std::printf("%.*s", length, record) > 0 && std::fflush(stdout) == 0;
        Plinth::sleepMilliSecond(100);
    }
    return false;
}

int connect_twice(unsigned short port, const char* const own[3], const char* authority,
                  const std::string& text) {
    const CSockAddrIPv4 server("127.0.0.1", port);
    for (int i = 0; i < 2; ++i) {
        CSslDgram dgram;
        int number = 0;
        if (!set_certificates(dgram, own, authority)) return EXIT_FAILURE;
        dgram.SetOption(SslOptSession, SslSessionTicket, &number);
        // Between two clients a server of one client at a time may have no socket.
        int tries = 0;
        while (dgram.Connect(&server, nullptr) != 0) {
            if (++tries == (i == 0 ? 1 : 20)) return EXIT_FAILURE;
            Plinth::sleepMilliSecond(100);
        }
        if (!ask(dgram, text)) return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
    const bool is_server = argc >= 6 && std::strcmp(argv[1], "server") == 0;
    const bool is_client = argc >= 5 && std::strcmp(argv[1], "client") == 0;
    if (!is_server && !is_client) {
        std::fprintf(stderr,
                     "usage: dtls_echo server port certificate key chain [authority]\n"
                     "       dtls_echo client port authority text [certificate key chain]\n");
        return EXIT_FAILURE;
    }
    // A pool starts the system's socket layer and OpenSSL, although nothing here uses its threads.
    if (CNetThread::CreateThreadPool(1, false) != 0) return EXIT_FAILURE;
    const unsigned short port = port_of(argv[2]);
    const int result =
        is_server ? serve(port, argv + 3, argc > 6 ? argv[6] : nullptr)
                  : connect_twice(port, argc > 7 ? argv + 5 : nullptr, argv[3], std::string(argv[4]) + "\n");
    CNetThread::DestroyThreadPool();
    return result;
}
