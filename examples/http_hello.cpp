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
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "http_connection.h"

using namespace Veltro;
using namespace Veltro::Ravelo;

namespace {

volatile std::sig_atomic_t stop_requested = 0;

void request_stop(int) {
    stop_requested = 1;
}

/// Routes the library's log to standard error, each line behind the seconds since the start.
void log_to_stderr() {
    const std::uint64_t start_us = Plinth::CTime::getCurrentMicroSecond();
    Plinth::setLogSink([start_us](int level, const char*, const char*, int, const char* message) {
        const std::uint64_t elapsed_us = Plinth::CTime::getCurrentMicroSecond() - start_us;
        std::fprintf(stderr, "%12.6f level %d %s", static_cast<double>(elapsed_us) / 1e6, level, message);
    });
}

/// Listens, and makes a CHttpConnection of every client.
class CHttpAcceptor : public CNetHandler {
public:
    explicit CHttpAcceptor(SHttpServer& server) : m_server(server) {}

    /// Listens at an address whose port may be 0 and writes the one it got into it. @return success.
    bool Start(CSockAddrIPv4& where) {
        m_server.live.Add(GetID());
        Plinth::CLockGuard guard(m_mutex);
        return m_acceptor.Open(where) == 0 && m_acceptor.GetLocalAddr(&where) == 0 &&
               RegisterSock(m_acceptor, EventMask::Read, 0) == 0;
    }
    /// Ends the acceptor and all connections. The object may be gone when this returns.
    void Stop() {
        {
            Plinth::CLockGuard guard(m_mutex);
            RemoveSock(m_acceptor);
            m_acceptor.Close();
            for (const long id : m_server.live.GetIds()) Notify(id, CHttpConnection::MESSAGE_STOP, 0);
        }
        Close();
    }

private:
    static constexpr std::int64_t PAUSE_US = 50'000;

    int handle_input(int) override {
        Plinth::CLockGuard guard(m_mutex);
        if (!m_acceptor.IsValid()) return -1;
        std::unique_ptr<CSockStream> stream(m_acceptor.Accept());
        if (stream == nullptr) {
            // Out of descriptors, most likely: the client stays in line, so look again a little later.
            UnregisterSock(m_acceptor, EventMask::Read);
            SetTimer(PAUSE_US);
            return 0;
        }
        stream->SetSockNoDelay(true);
        auto* connection = new CHttpConnection(std::move(stream), m_server);
        connection->Start();
        return 0;
    }
    std::int64_t handle_timeout(long) override {
        Plinth::CLockGuard guard(m_mutex);
        if (m_acceptor.IsValid()) RegisterSock(m_acceptor, EventMask::Read, 0);
        return -1;
    }
    int handle_close(CNetHandler*) override {
        m_server.live.Remove(GetID());
        delete this;
        return 0;
    }

    SHttpServer& m_server;
    Plinth::CMutex m_mutex;  ///< the program's thread stops what the pool's threads use
    CSockAcceptor m_acceptor PLINTH_GUARDED_BY(m_mutex);
};

/// Serves until the user asks for the end; the pools are up.
int serve(unsigned short port, SHttpServer& server) {
    CSockAddrIPv4 where("127.0.0.1", port);
    auto* acceptor = new CHttpAcceptor(server);
    const bool started = acceptor->Start(where);
    if (started) {
        std::printf("listening on 127.0.0.1:%d\n", where.GetPort());
        std::fflush(stdout);
        Plinth::CSemaphore never;  // a signal may not post one, so its flag is looked at now and then
        while (stop_requested == 0) never.pend(100'000);
    }
    acceptor->Stop();
    server.live.WaitForNone();
    std::printf(started ? "stopped\n" : "cannot listen\n");
    return started ? EXIT_SUCCESS : EXIT_FAILURE;
}

unsigned argument(int argc, char** argv, int position, unsigned otherwise) {
    return position < argc ? static_cast<unsigned>(std::strtoul(argv[position], nullptr, 10)) : otherwise;
}

}  // namespace

int main(int argc, char** argv) {
    log_to_stderr();
    std::signal(SIGINT, request_stop);
    std::signal(SIGTERM, request_stop);

    const auto port = static_cast<unsigned short>(argument(argc, argv, 1, 0));
    const unsigned threads = argument(argc, argv, 2, 1);
    const unsigned pool_size = argument(argc, argv, 3, 0);
    SHttpServer server;  // outlives the pools, whose threads use it
    server.timeout_us = static_cast<int>(argument(argc, argv, 4, 10)) * 1'000'000;
    if (CNetThread::CreateThreadPool(threads, false) != 0) return EXIT_FAILURE;
    server.pool = pool_size == 0 ? 0 : CNetThread::CreatePrivatePool(pool_size, false);
    const int result = server.pool < 0 ? EXIT_FAILURE : serve(port, server);
    if (server.pool > 0) CNetThread::DestroyPrivatePool(server.pool);
    CNetThread::DestroyThreadPool();
    return result;
}
