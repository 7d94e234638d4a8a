// Load for the TLS servers: prints one line of JSON per run; ends with 1 if anything is not as it should be.
//
//   tls_load <port> <server's process> full|resumed|stream <seconds>
//
// full and resumed: connect, negotiate, a byte to and fro, close, one after the other, over and over.
// stream: one connection that receives as fast as it can.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "common/Clock.h"
#include "common/Net.h"
#include "common/ProcessCpu.h"
#include "tls/TlsPeer.h"

namespace {

using namespace Bench;

struct SLoad {
    std::uint16_t port;
    pid_t server;
    std::string_view mode;
    std::int64_t window_ns;
};

int connect_to(std::uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in remote{};
    remote.sin_family = AF_INET;
    remote.sin_port = htons(port);
    remote.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&remote), sizeof remote) != 0) die("connect");
    set_no_delay(fd);
    return fd;
}

/// A client and its latest session: in TLS 1.3 it comes after the handshake.
class CClient {
public:
    CClient() : m_context(client_context()) {
        SSL_CTX_set_session_cache_mode(m_context.get(), SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
        SSL_CTX_set_app_data(m_context.get(), this);
        SSL_CTX_sess_set_new_cb(m_context.get(), [](SSL* ssl, SSL_SESSION* session) {
            static_cast<CClient*>(SSL_CTX_get_app_data(SSL_get_SSL_CTX(ssl)))->m_session.reset(session);
            return 1;
        });
    }

    /// A negotiated connection over a connected socket.
    TSsl Negotiate(int fd, bool is_resumed) {
        TSsl ssl(SSL_new(m_context.get()));
        SSL_set_fd(ssl.get(), fd);
        if (is_resumed && m_session) SSL_set_session(ssl.get(), m_session.get());
        const bool is_offered = is_resumed && m_session;
        if (SSL_connect(ssl.get()) != 1) die_of_tls("SSL_connect");
        if (is_offered && SSL_session_reused(ssl.get()) != 1) die_of_tls("the session was not resumed");
        return ssl;
    }

    /// One connection from beginning to end.
    void Ping(std::uint16_t port, bool is_resumed) {
        const int fd = connect_to(port);
        const TSsl ssl = Negotiate(fd, is_resumed);
        char byte = PING;
        if (SSL_write(ssl.get(), &byte, 1) != 1 || SSL_read(ssl.get(), &byte, 1) != 1 || byte != PING)
            die_of_tls("no answer");
        SSL_shutdown(ssl.get());
        // A reset leaves no port behind that waits.
        const linger at_once{1, 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        close(fd);
    }

private:
    TSslContext m_context;
    TSslSession m_session;
};

/// Lets something happen for a while and prints how often it did. @param step returns how much one step was.
template <typename Step>
void measure(const SLoad& load, Step step) {
    const std::int64_t warm_ns = now_ns() + load.window_ns / 5;
    while (now_ns() < warm_ns) step();
    const std::int64_t start_ns = now_ns();
    const std::int64_t cpu_ns = process_cpu_ns(load.server);
    double done = 0;
    std::int64_t end_ns = start_ns;
    while (end_ns - start_ns < load.window_ns) {
        done += step();
        end_ns = now_ns();
    }
    const auto used_us = static_cast<double>(process_cpu_ns(load.server) - cpu_ns) / 1e3;
    std::printf("{\"per_second\":%.2f,\"cpu_us\":%.3f}\n",
                done / (static_cast<double>(end_ns - start_ns) / 1e9), used_us / done);
}

void shake_hands(const SLoad& load, bool is_resumed) {
    CClient client;
    measure(load, [&] {
        client.Ping(load.port, is_resumed);
        return 1.0;
    });
}

void stream(const SLoad& load) {
    CClient client;
    const int fd = connect_to(load.port);
    const TSsl ssl = client.Negotiate(fd, false);
    if (SSL_write(ssl.get(), &STREAM, 1) != 1) die_of_tls("SSL_write");
    std::vector<char> block(64 * 1024);
    measure(load, [&] {
        const int received = SSL_read(ssl.get(), block.data(), static_cast<int>(block.size()));
        if (received <= 0) die_of_tls("SSL_read");
        return received / 1048576.0;
    });
    close(fd);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: tls_load <port> <server's process> full|resumed|stream <seconds>\n");
        return 2;
    }
    const SLoad load{static_cast<std::uint16_t>(std::atoi(argv[1])), std::atoi(argv[2]), argv[3],
                     static_cast<std::int64_t>(std::atof(argv[4]) * 1e9)};
    if (load.mode == "stream")
        stream(load);
    else
        shake_hands(load, load.mode == "resumed");
    return 0;
}
