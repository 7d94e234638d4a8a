// Accepts the clients of the live stream server.
#pragma once

#include <memory>
#include <utility>

#include "live_client.h"

/// Listens, and makes a CLiveClient of every connection.
class CLiveAcceptor : public Veltro::Ravelo::CNetHandler {
public:
    explicit CLiveAcceptor(SLiveServer& server) : m_server(server) {}

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
            for (const long id : m_server.live.GetIds()) Notify(id, CLiveClient::MESSAGE_STOP, 0);
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
        auto* client = new CLiveClient(std::move(stream), m_server);
        client->Start();
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

    SLiveServer& m_server;
    Veltro::Plinth::CMutex m_mutex;  ///< the program's thread stops what the pool's threads use
    Veltro::Ravelo::CSockAcceptor m_acceptor PLINTH_GUARDED_BY(m_mutex);
};
