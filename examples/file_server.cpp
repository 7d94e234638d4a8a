// An HTTP/1.1 server of files: GET and HEAD, one range of bytes, keep-alive; files of any size.
//
//   file_server root [port [threads [pool_size [timeout]]]] [cert=FILE key=FILE ...]
//
// root       the folder to show; links out of it are not followed (on Windows, where the C++ library does not
//            see through them, leave none there)
// port       where to listen on 127.0.0.1; 0, the default, takes any free port
// threads    threads of the public pool, which accepts; 1 by default
// pool_size  threads of a private pool that serves the connections; 0, the default: the public pool does
// timeout    seconds in which a client must send a request, and take some of its answer; 10 by default
// cert, key  serve over TLS (https) with this certificate and its key, PEM; also chain, ca, crl and resume,
//            as in tls_echo_server.cpp
//
// Threads are rounded up to a multiple of the processors. Ctrl-C and SIGTERM end it cleanly.
#include "file_connection.h"
#include "server_program.h"
#include "tls_clients.h"

int main(int argc, char** argv) {
    log_to_stderr();
    stop_on_signals();

    const CTlsOptions options(argc, argv);
    SFileServer server;  // outlives the pools, whose threads use it
    if (argc < 2 || !server.root.Open(argv[1])) {
        std::fprintf(stderr, "usage: %s root [port [threads [pool_size [timeout]]]] [cert=FILE key=FILE]\n",
                     argv[0]);
        return EXIT_FAILURE;
    }
    const auto port = static_cast<unsigned short>(argument(argc, argv, 2, 0));
    const unsigned threads = argument(argc, argv, 3, 1);
    const unsigned pool_size = argument(argc, argv, 4, 0);
    server.timeout_us = static_cast<int>(argument(argc, argv, 5, 10)) * 1'000'000;
    const CPools pools(threads, pool_size, true);
    if (!pools.AreThere()) return EXIT_FAILURE;
    server.pool = pools.ForConnections();

    if (options.Has("cert")) {
        CTlsClients<CFileConnection, SFileServer> clients(options, server);
        if (clients.Start()) return serve(port, server.live, clients);
        std::fprintf(stderr, "cannot use the certificate\n");
        return EXIT_FAILURE;
    }
    CPlainClients<CFileConnection, SFileServer> clients(server);
    return serve(port, server.live, clients);
}
