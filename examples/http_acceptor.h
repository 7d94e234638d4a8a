// What the HTTP servers of the examples have in common: listening, and running until the user asks for the
// end.
#pragma once

#include <Plinth/Plinth.h>
#include <Ravelo/Ravelo.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

/// Set by Ctrl-C and SIGTERM.
inline volatile std::sig_atomic_t stop_requested = 0;

inline void stop_on_signals() {
    const auto request_stop = [](int) { stop_requested = 1; };
    std::signal(SIGINT, request_stop);
    std::signal(SIGTERM, request_stop);
}

/// Routes the library's log to standard error, each line behind the seconds since the start.
inline void log_to_stderr() {
    using namespace Veltro;
    const std::uint64_t start_us = Plinth::CTime::getCurrentMicroSecond();
    Plinth::setLogSink([start_us](int level, const char*, const char*, int, const char* message) {
        const std::uint64_t elapsed_us = Plinth::CTime::getCurrentMicroSecond() - start_us;
        std::fprintf(stderr, "%12.6f level %d %s", static_cast<double>(elapsed_us) / 1e6, level, message);
    });
}

/// Listens, and makes a connection of every client.
/// @tparam Server what all connections share; its `live` knows the handlers that are alive.
template <typename Connection, typename Server>
class CHttpAcceptor : public Veltro::Ravelo::CNetHandler {
public:
    explicit CHttpAcceptor(Server& server) : m_server(server) {}

    /// Listens at an address whose port may be 0 and writes the one it got into it. @return success.
    bool Start(Veltro::Ravelo::CSockAddrIPv4& where) {
        m_server.live.Add(GetID());
        Veltro::Plinth::CLockGuard guard(m_mutex);
        return m_acceptor.Open(where) == 0 && m_acceptor.GetLocalAddr(&where) == 0 &&
               RegisterSock(m_acceptor, Veltro::Ravelo::EventMask::Read, 0) == 0;
    }
    /// Ends the acceptor and all connections. The object may be gone when this returns.
    void Stop() {
        {
            Veltro::Plinth::CLockGuard guard(m_mutex);
            RemoveSock(m_acceptor);
            m_acceptor.Close();
            for (const long id : m_server.live.GetIds()) Notify(id, Connection::MESSAGE_STOP, 0);
        }
        Close();
    }

private:
    static constexpr std::int64_t PAUSE_US = 50'000;

    int handle_input(int) override {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        if (!m_acceptor.IsValid()) return -1;
        std::unique_ptr<Veltro::Ravelo::CSockStream> stream(m_acceptor.Accept());
        if (stream == nullptr) {
            // Out of descriptors, most likely: the client stays in line, so look again a little later.
            UnregisterSock(m_acceptor, Veltro::Ravelo::EventMask::Read);
            SetTimer(PAUSE_US);
            return 0;
        }
        stream->SetSockNoDelay(true);
        auto* connection = new Connection(std::move(stream), m_server);
        connection->Start();
        return 0;
    }
    std::int64_t handle_timeout(long) override {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        if (m_acceptor.IsValid()) RegisterSock(m_acceptor, Veltro::Ravelo::EventMask::Read, 0);
        return -1;
    }
    int handle_close(CNetHandler*) override {
        m_server.live.Remove(GetID());
        delete this;
        return 0;
    }

    Server& m_server;
    Veltro::Plinth::CMutex m_mutex;  ///< the program's thread stops what the pool's threads use
    Veltro::Ravelo::CSockAcceptor m_acceptor PLINTH_GUARDED_BY(m_mutex);
};

/// Serves until the user asks for the end; the pools are up.
template <typename Connection, typename Server>
int serve(unsigned short port, Server& server) {
    Veltro::Ravelo::CSockAddrIPv4 where("127.0.0.1", port);
    auto* acceptor = new CHttpAcceptor<Connection, Server>(server);
    const bool started = acceptor->Start(where);
    if (started) {
        std::printf("listening on 127.0.0.1:%d\n", where.GetPort());
        std::fflush(stdout);
        Veltro::Plinth::CSemaphore never;  // a signal may not post one, so its flag is looked at now and then
        while (stop_requested == 0) never.pend(100'000);
    }
    acceptor->Stop();
    server.live.WaitForNone();
    std::printf(started ? "stopped\n" : "cannot listen\n");
    return started ? EXIT_SUCCESS : EXIT_FAILURE;
}

/// A number from the command line.
inline unsigned argument(int argc, char** argv, int position, unsigned otherwise) {
    return position < argc ? static_cast<unsigned>(std::strtoul(argv[position], nullptr, 10)) : otherwise;
}
