// An HTTP/1.1 server of files: GET and HEAD, one range of bytes, keep-alive; files of any size.
//
//   file_server root [port [threads [pool_size [timeout]]]]
//
// root       the folder to show; links out of it are not followed (on Windows, where the C++ library does not
//            see through them, leave none there)
// port       where to listen on 127.0.0.1; 0, the default, takes any free port
// threads    threads of the public pool, which accepts; 1 by default
// pool_size  threads of a private pool that serves the connections; 0, the default: the public pool does
// timeout    seconds in which a client must send a request, and take some of its answer; 10 by default
//
// Threads are rounded up to a multiple of the processors. Ctrl-C and SIGTERM end it cleanly.
#include "file_connection.h"
#include "http_acceptor.h"

using namespace Veltro::Ravelo;

int main(int argc, char** argv) {
    log_to_stderr();
    stop_on_signals();

    SFileServer server;  // outlives the pools, whose threads use it
    if (argc < 2 || !server.root.Open(argv[1])) {
        std::fprintf(stderr, "usage: %s root [port [threads [pool_size [timeout]]]]\n", argv[0]);
        return EXIT_FAILURE;
    }
    const auto port = static_cast<unsigned short>(argument(argc, argv, 2, 0));
    const unsigned threads = argument(argc, argv, 3, 1);
    const unsigned pool_size = argument(argc, argv, 4, 0);
    server.timeout_us = static_cast<int>(argument(argc, argv, 5, 10)) * 1'000'000;
    if (CNetThread::CreateThreadPool(threads, true) != 0) return EXIT_FAILURE;
    server.pool = pool_size == 0 ? 0 : CNetThread::CreatePrivatePool(pool_size, true);
    const int result = server.pool < 0 ? EXIT_FAILURE : serve<CFileConnection>(port, server);
    if (server.pool > 0) CNetThread::DestroyPrivatePool(server.pool);
    CNetThread::DestroyThreadPool();
    return result;
}
