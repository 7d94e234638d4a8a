// An echo server: every byte that a client sends comes back to it.
//
//   echo_server [port [threads [pool_size]]]
//
// port       where to listen on 127.0.0.1; 0, the default, takes any free port
// threads    threads of the public pool, which accepts; 1 by default
// pool_size  threads of a private pool that serves the connections; 0, the default: the public pool does
//
// Threads are rounded up to a multiple of the processors. Ctrl-C and SIGTERM end it cleanly.
#include "echo_connection.h"
#include "server_program.h"

int main(int argc, char** argv) {
    log_to_stderr();
    stop_on_signals();

    const auto port = static_cast<unsigned short>(argument(argc, argv, 1, 0));
    const unsigned threads = argument(argc, argv, 2, 1);
    const unsigned pool_size = argument(argc, argv, 3, 0);
    SEchoServer server;  // outlives the pools, whose threads use it
    const CPools pools(threads, pool_size, false);
    if (!pools.AreThere()) return EXIT_FAILURE;
    server.pool = pools.ForConnections();
    CPlainClients<CEchoConnection, SEchoServer> clients(server);
    return serve(port, server.live, clients);
}
