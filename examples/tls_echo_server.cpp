// An echo server over TLS.
//
//   tls_echo_server cert=FILE key=FILE [chain=FILE] [port=N] [ca=FILE [crl=FILE]] [timeout=MS] [resume=FLAGS]
//
// cert, key   the server's certificate and key, PEM; chain: what stands between it and its root
// port        where to listen on 127.0.0.1; 0, the default, takes any free port
// ca, crl     clients must show a certificate of this authority, which this list does not revoke
// timeout     how long a handshake may take; 5000 ms by default
// resume      how sessions are resumed: 1 by id, 2 by ticket, 3 (the default) both, 0 not at all
//
// A handshake blocks its thread, so the reactor only accepts connections and hands them to a few threads that
// negotiate. One client always meets the same thread: its sessions are known there, and if it keeps the
// thread waiting it mostly waits for itself. Ctrl-C and SIGTERM end the server cleanly.
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

#include "tls_negotiator.h"

using namespace Veltro;
using namespace Veltro::Ravelo;

namespace {

volatile std::sig_atomic_t stop_requested = 0;

void request_stop(int) {
    stop_requested = 1;
}

/// Listens, and gives every client to a negotiator.
class CTlsEchoAcceptor : public CNetHandler {
public:
    static constexpr unsigned NEGOTIATORS = 4;

    CTlsEchoAcceptor(const CTlsOptions& options, CLiveHandlers& live) : m_live(live) {
        for (auto& negotiator : m_negotiators) negotiator = std::make_unique<CNegotiator>(options, live);
    }
    /// Listens at an address whose port may be 0 and writes the one it got into it. @return success.
    bool Start(CSockAddrIPv4& where) {
        m_live.Add(GetID());
        for (auto& negotiator : m_negotiators) {
            if (!negotiator->Start()) return false;
        }
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
        }
        for (auto& negotiator : m_negotiators) negotiator->Stop();
        for (const long id : m_live.GetIds()) Notify(id, CTlsEchoConnection::MESSAGE_STOP, 0);
        Close();
    }

private:
    static constexpr std::int64_t PAUSE_US = 50'000;

    int handle_input(int) override {
        Plinth::CLockGuard guard(m_mutex);
        if (!m_acceptor.IsValid()) return -1;
        CSockAddrIPv4 client;
        std::unique_ptr<CSockStream> stream(m_acceptor.Accept(&client));
        if (stream == nullptr) {
            // Out of descriptors, most likely: the client stays in line, so look again a little later.
            UnregisterSock(m_acceptor, EventMask::Read);
            SetTimer(PAUSE_US);
            return 0;
        }
        m_negotiators[client.GetIp() % NEGOTIATORS]->Give(std::move(stream));
        return 0;
    }
    std::int64_t handle_timeout(long) override {
        Plinth::CLockGuard guard(m_mutex);
        if (m_acceptor.IsValid()) RegisterSock(m_acceptor, EventMask::Read, 0);
        return -1;
    }
    int handle_close(CNetHandler*) override {
        m_live.Remove(GetID());
        delete this;
        return 0;
    }

    CLiveHandlers& m_live;
    std::array<std::unique_ptr<CNegotiator>, NEGOTIATORS> m_negotiators;
    Plinth::CMutex m_mutex;  ///< the program's thread stops what the pool's threads use
    CSockAcceptor m_acceptor PLINTH_GUARDED_BY(m_mutex);
};

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGINT, request_stop);
    std::signal(SIGTERM, request_stop);
    const CTlsOptions options(argc, argv);
    CLiveHandlers live;  // outlives the pool, whose threads use it
    if (CNetThread::CreateThreadPool(1, false) != 0) return EXIT_FAILURE;
    CSockAddrIPv4 where("127.0.0.1", static_cast<unsigned short>(options.GetNumber("port", 0)));
    auto* acceptor = new CTlsEchoAcceptor(options, live);
    const bool started = acceptor->Start(where);
    if (started) {
        std::printf("listening on 127.0.0.1:%d\n", where.GetPort());
        std::fflush(stdout);
        Plinth::CSemaphore never;  // a signal may not post one, so its flag is looked at now and then
        while (stop_requested == 0) never.pend(100'000);
    }
    acceptor->Stop();
    live.WaitForNone();
    CNetThread::DestroyThreadPool();
    std::printf(started ? "stopped\n" : "cannot listen\n");
    return started ? EXIT_SUCCESS : EXIT_FAILURE;
}
