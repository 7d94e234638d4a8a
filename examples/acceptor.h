// Listening, as all servers of the examples do.
#pragma once

#include <Plinth/Plinth.h>
#include <Ravelo/Ravelo.h>

#include <memory>
#include <utility>

#include "live_handlers.h"

/// Who serves the clients that an acceptor accepts.
class CClients {
public:
    virtual ~CClients() = default;
    /// Takes one. Called on a worker of the pool, which it must not hold up.
    virtual void Take(std::unique_ptr<Veltro::Ravelo::CSockStream> stream,
                      const Veltro::Ravelo::CSockAddrIPv4& from) = 0;
    /// No more come. When this returns, all that were taken are among the live handlers, or gone.
    virtual void Stop() {}
};

/// Makes a connection of every client.
/// @tparam Server what all connections share.
template <typename Connection, typename Server>
class CPlainClients : public CClients {
public:
    explicit CPlainClients(Server& server) : m_server(server) {}
    void Take(std::unique_ptr<Veltro::Ravelo::CSockStream> stream,
              const Veltro::Ravelo::CSockAddrIPv4&) override {
        auto* connection = new Connection(std::move(stream), m_server);
        connection->Start();
    }

private:
    Server& m_server;
};

/// Listens, and hands over every client.
class CAcceptor : public Veltro::Ravelo::CNetHandler {
public:
    CAcceptor(CLiveHandlers& live, CClients& clients) : m_live(live), m_clients(clients) {}

    /// Listens at an address whose port may be 0 and writes the one it got into it. @return success.
    bool Start(Veltro::Ravelo::CSockAddrIPv4& where) {
        m_live.Add(GetID());
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
        }
        m_clients.Stop();
        for (const long id : m_live.GetIds()) Notify(id, MESSAGE_STOP, 0);
        Close();
    }

private:
    static constexpr std::int64_t PAUSE_US = 50'000;

    int handle_input(int) override {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        if (!m_acceptor.IsValid()) return -1;
        Veltro::Ravelo::CSockAddrIPv4 client;
        std::unique_ptr<Veltro::Ravelo::CSockStream> stream(m_acceptor.Accept(&client));
        if (stream == nullptr) {
            // Out of descriptors, most likely: the client stays in line, so look again a little later.
            UnregisterSock(m_acceptor, Veltro::Ravelo::EventMask::Read);
            SetTimer(PAUSE_US);
            return 0;
        }
        stream->SetSockNoDelay(true);
        m_clients.Take(std::move(stream), client);
        return 0;
    }
    std::int64_t handle_timeout(long) override {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        if (m_acceptor.IsValid()) RegisterSock(m_acceptor, Veltro::Ravelo::EventMask::Read, 0);
        return -1;
    }
    int handle_close(CNetHandler*) override {
        m_live.Remove(GetID());
        delete this;
        return 0;
    }

    CLiveHandlers& m_live;
    CClients& m_clients;
    Veltro::Plinth::CMutex m_mutex;  ///< the program's thread stops what the pool's threads use
    Veltro::Ravelo::CSockAcceptor m_acceptor PLINTH_GUARDED_BY(m_mutex);
};
