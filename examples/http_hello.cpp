// An HTTP/1.1 server with one page: keep-alive, pipelining, and a refusal for what is no request.
//
//   http_hello [port [threads [pool_size [timeout]]]]
//
// port       where to listen on 127.0.0.1; 0, the default, takes any free port
// threads    threads of the public pool, which accepts; 1 by default
// pool_size  threads of a private pool that serves the connections; 0, the default: the public pool does
// timeout    seconds that a client may take to send a request, or to take an answer; 10 by default
//
// Threads are rounded up to a multiple of the processors. Ctrl-C and SIGTERM end it cleanly.
#include "http_connection.h"
#include "server_program.h"

int main(int argc, char** argv) {
    log_to_stderr();
    stop_on_signals();

    const auto port = static_cast<unsigned short>(argument(argc, argv, 1, 0));
    const unsigned threads = argument(argc, argv, 2, 1);
    const unsigned pool_size = argument(argc, argv, 3, 0);
    SHttpServer server;  // outlives the pools, whose threads use it
    server.timeout_us = static_cast<int>(argument(argc, argv, 4, 10)) * 1'000'000;
    const CPools pools(threads, pool_size, false);
    if (!pools.AreThere()) return EXIT_FAILURE;
    server.pool = pools.ForConnections();
    CPlainClients<CHttpConnection, SHttpServer> clients(server);
    return serve(port, server.live, clients);
}
