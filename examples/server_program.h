// What the main functions of the servers have in common.
#pragma once

#include <Plinth/Plinth.h>
#include <Ravelo/Ravelo.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "acceptor.h"

/// Set by Ctrl-C and SIGTERM.
inline volatile std::sig_atomic_t stop_requested = 0;

inline void stop_on_signals() {
    const auto request_stop = [](int) { stop_requested = 1; };
    std::signal(SIGINT, request_stop);
    std::signal(SIGTERM, request_stop);
}
inline void wait_for_stop() {
    Veltro::Plinth::CSemaphore never;  // a signal may not post one, so its flag is looked at now and then
    while (stop_requested == 0) never.pend(100'000);
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

/// A number from the command line, whose last arguments may be of the form name=value.
inline unsigned argument(int argc, char** argv, int position, unsigned otherwise) {
    if (position >= argc || std::strchr(argv[position], '=') != nullptr) return otherwise;
    return static_cast<unsigned>(std::strtoul(argv[position], nullptr, 10));
}

/// The pools of a server, for as long as this lives: the public one, which accepts, and a private one for the
/// connections if that is to have threads. Whatever the connections share has to live longer.
class CPools {
public:
    CPools(unsigned threads, unsigned private_threads, bool with_files)
        : m_has_public(Veltro::Ravelo::CNetThread::CreateThreadPool(threads, with_files) == 0) {
        if (m_has_public && private_threads > 0) {
            m_private = Veltro::Ravelo::CNetThread::CreatePrivatePool(private_threads, with_files);
        }
    }
    ~CPools() {
        if (m_private > 0) Veltro::Ravelo::CNetThread::DestroyPrivatePool(m_private);
        if (m_has_public) Veltro::Ravelo::CNetThread::DestroyThreadPool();
    }
    CPools(const CPools&) = delete;
    CPools& operator=(const CPools&) = delete;

    bool AreThere() const { return m_has_public && m_private >= 0; }
    /// The number of the pool that serves connections.
    int ForConnections() const { return m_private; }

private:
    const bool m_has_public;
    int m_private = 0;
};

/// Listens on 127.0.0.1 and serves clients until the work is done, by default until the user asks for the
/// end; the pools are there. @return what main() returns.
inline int serve(unsigned short port, CLiveHandlers& live, CClients& clients,
                 const std::function<void()>& work = wait_for_stop) {
    Veltro::Ravelo::CSockAddrIPv4 where("127.0.0.1", port);
    auto* acceptor = new CAcceptor(live, clients);
    const bool started = acceptor->Start(where);
    if (started) {
        std::printf("listening on 127.0.0.1:%d\n", where.GetPort());
        std::fflush(stdout);
        work();
    }
    acceptor->Stop();
    live.WaitForNone();
    std::printf(started ? "stopped\n" : "cannot listen\n");
    return started ? EXIT_SUCCESS : EXIT_FAILURE;
}
