// Stands between a DTLS client and its server and does what a bad path does.
#pragma once

#include <Plinth/Mutex.h>
#include <Ravelo/SockAddrIPv4.h>
#include <Ravelo/SockDgram.h>

#include <atomic>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "Support/Datagrams.h"
#include "Support/Gate.h"

namespace Veltro::TestSupport {

/// Whether a datagram begins with a record of a handshake: the message itself or a change of cipher.
inline bool isHandshake(const std::string& datagram) {
    return !datagram.empty() && (datagram[0] == 20 || datagram[0] == 22);
}

/// Forwards datagrams between a server and the last other sender, on a thread of its own; a function says
/// what becomes of each.
class CDtlsRelay {
public:
    /// What to send on in place of a datagram: it, nothing, or several. Called on the relay's thread; with
    /// an empty datagram when nothing has come for a while.
    using TFate = std::function<std::vector<std::string>(const std::string& datagram, bool is_from_client)>;

    CDtlsRelay(const Ravelo::CSockAddrIPv4& server, TFate fate)
        : m_server(server), m_fate(std::move(fate)), m_runner([this] { run(); }) {}
    ~CDtlsRelay() {
        m_stops = true;
        m_runner.join();
    }
    CDtlsRelay(const CDtlsRelay&) = delete;
    CDtlsRelay& operator=(const CDtlsRelay&) = delete;

    /// Where the client connects to.
    const Ravelo::CSockAddrIPv4& address() const { return m_front.address; }
    /// How many datagrams have come in from either side.
    int count(bool from_client) const { return from_client ? m_from_client : m_from_server; }

private:
    void run() {
        std::vector<char> buffer(65'536);
        while (!m_stops) {
            unsigned ready = 0;
            if (Ravelo::SocketApi::waitOne(m_front.socket.GetHandle(), Ravelo::SocketApi::WAIT_READ, 5'000,
                                           &ready) == 0) {
                forward({}, true);
                forward({}, false);
                continue;
            }
            Ravelo::CSockAddrIPv4 sender;
            const int length =
                m_front.socket.Recv(buffer.data(), static_cast<unsigned>(buffer.size()), &sender);
            if (length <= 0) continue;
            const bool is_from_client = !(sender.GetPort() == m_server.GetPort());
            if (is_from_client) m_client = sender;
            ++(is_from_client ? m_from_client : m_from_server);
            forward({buffer.data(), static_cast<std::size_t>(length)}, is_from_client);
        }
    }
    void forward(const std::string& datagram, bool is_from_client) {
        for (const std::string& sent : m_fate(datagram, is_from_client)) {
            const Ravelo::CSockAddrIPv4& to = is_from_client ? m_server : m_client;
            if (!to.IsValid()) continue;
            // Unlike CSockDgram, the system sends empty datagrams, too.
            sockaddr_in6 system{};
            auto* address = reinterpret_cast<sockaddr*>(&system);
            to.GetAddr(address);
            Ravelo::SocketApi::sendTo(m_front.socket.GetHandle(), sent.data(),
                                      static_cast<unsigned>(sent.size()), address, to.GetAddrLen());
        }
    }

    SReceiver m_front;
    const Ravelo::CSockAddrIPv4 m_server;
    Ravelo::CSockAddrIPv4 m_client;
    const TFate m_fate;
    std::atomic<int> m_from_client{0};
    std::atomic<int> m_from_server{0};
    std::atomic<bool> m_stops{false};
    CRunner m_runner;
};

/// The fate of datagrams on a path that loses, doubles and reorders those of handshakes, the same way each
/// time for the same seed.
class CBadPath {
public:
    /// @param harm how many of 100 handshake datagrams are harmed.
    CBadPath(unsigned seed, unsigned harm) : m_random(seed), m_harm(harm) {}

    std::vector<std::string> operator()(const std::string& datagram, bool is_from_client) {
        std::vector<std::string>& held = m_held[is_from_client ? 1 : 0];
        std::vector<std::string> sent;
        if (!datagram.empty()) sent = harm(datagram, &held);
        // What was held back comes after what came after it.
        if (datagram.empty() || !sent.empty()) {
            sent.insert(sent.end(), held.begin(), held.end());
            held.clear();
        }
        return sent;
    }

private:
    std::vector<std::string> harm(const std::string& datagram, std::vector<std::string>* held) {
        if (!isHandshake(datagram) || m_random() % 100 >= m_harm) return {datagram};
        switch (m_random() % 3) {
            case 0:
                return {};
            case 1:
                return {datagram, datagram};
            default:
                held->push_back(datagram);
                return {};
        }
    }

    std::mt19937 m_random;
    unsigned m_harm;
    std::vector<std::string> m_held[2];
};

}  // namespace Veltro::TestSupport
