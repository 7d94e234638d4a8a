// TLS server on plain OpenSSL calls: blocking sockets, one connection after the other on one thread. What the
// cryptography and the system cost.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "common/Net.h"
#include "common/ServerMain.h"
#include "tls/TlsPeer.h"

namespace {

using namespace Bench;

const std::vector<char> s_block(STREAM_BLOCK_BYTES);

/// Answers until the client goes.
void serve(SSL* ssl) {
    char wish = 0;
    while (SSL_read(ssl, &wish, 1) == 1) {
        if (wish == PING && SSL_write(ssl, &wish, 1) != 1) return;
        while (wish == STREAM) {
            if (SSL_write(ssl, s_block.data(), static_cast<int>(s_block.size())) <= 0) return;
        }
    }
    SSL_shutdown(ssl);
}

void serve_all(int listener, SSL_CTX* context) {
    for (;;) {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) return;
        set_no_delay(fd);
        const TSsl ssl(SSL_new(context));
        SSL_set_fd(ssl.get(), fd);
        if (SSL_accept(ssl.get()) == 1) serve(ssl.get());
        close(fd);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const SServerOptions options = prepare_server(argc, argv);
    const TSslContext context = server_context();
    const int listener = listen_on(options.port, false);
    if (fcntl(listener, F_SETFL, 0) != 0) die("fcntl");
    std::thread server([&] { serve_all(listener, context.get()); });
    announce_port(local_port(listener));
    wait_for_stop();
    shutdown(listener, SHUT_RDWR);
    server.join();
    close(listener);
    return 0;
}
