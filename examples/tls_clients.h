// The clients of a server over TLS.
#pragma once

#include <array>
#include <memory>
#include <utility>

#include "acceptor.h"
#include "tls_negotiator.h"

/// Makes a connection of every client that comes through the handshake. That blocks its thread, so a few
/// threads of their own negotiate. One client always meets the same thread: its sessions are known there, and
/// if it keeps the thread waiting it mostly waits for itself.
/// @tparam Server what all connections share.
template <typename Connection, typename Server>
class CTlsClients : public CClients {
public:
    CTlsClients(const CTlsOptions& options, Server& server) {
        const auto serve = [&server](std::unique_ptr<Veltro::Ravelo::CSslStream> stream) {
            auto* connection = new Connection(std::move(stream), server);
            connection->Start();
        };
        for (auto& each : m_negotiators) each = std::make_unique<CNegotiator>(options, serve);
    }
    /// @return whether the certificate is usable, and there are threads.
    bool Start() {
        for (auto& each : m_negotiators) {
            if (!each->Start()) return false;
        }
        return true;
    }
    void Take(std::unique_ptr<Veltro::Ravelo::CSockStream> stream,
              const Veltro::Ravelo::CSockAddrIPv4& from) override {
        m_negotiators[from.GetIp() % NEGOTIATORS]->Give(std::move(stream));
    }
    void Stop() override {
        for (auto& each : m_negotiators) each->Stop();
    }

private:
    static constexpr unsigned NEGOTIATORS = 4;

    std::array<std::unique_ptr<CNegotiator>, NEGOTIATORS> m_negotiators;
};
