// Connections that live long: what each sends, in bursts of every size, comes back to the last byte.

#include <random>

#include "Support/Gate.h"
#include "Support/Load.h"
#include "Support/SockRegistry.h"

using namespace Veltro::Ravelo;
using namespace Veltro::TestSupport;
namespace Plinth = Veltro::Plinth;

namespace {

constexpr int CLIENTS = 8;
constexpr int END_OF_SENDING = 1;  // of shutdown(), on every platform

/// Echoes what one read gives, as most servers do: sometimes that is all there is and sometimes it is not.
/// Deletes itself at the end.
class CConnection : public CNetHandler {
public:
    explicit CConnection(std::atomic<int>& closed) : m_closed(closed) {}

    CSockStream& stream() { return m_stream; }
    int start() { return RegisterSock(m_stream, EventMask::Read, 0); }

    int handle_input(int) override {
        char bytes[4096];
        const int received = m_stream.Recv(bytes, sizeof bytes);
        if (received == 0) return 0;
        if (received > 0 && sendAll(bytes, received)) return 0;
        RemoveSock(m_stream);
        m_stream.Close();
        Close();
        return -1;
    }
    int handle_close(CNetHandler*) override {
        std::atomic<int>& closed = m_closed;
        delete this;
        ++closed;
        return 0;
    }

private:
    bool sendAll(const char* bytes, int length) {
        while (length > 0) {
            const int sent = m_stream.Send(bytes, static_cast<unsigned>(length));
            if (sent < 0) return false;
            if (sent == 0) Plinth::yieldThread();
            bytes += sent;
            length -= sent;
        }
        return true;
    }

    std::atomic<int>& m_closed;
    CSockStream m_stream;
};

/// Sends bursts, now and then without waiting for the last one's echo, and ends right behind the last byte.
/// Returns whether all came back.
bool converse(const CSockAddrIPv4& address, unsigned seed, std::size_t bursts) {
    CSockStream stream;
    if (stream.Connect(address) != 0 || !waitWritable(stream) || stream.GetConnectStatus() != 0) return false;
    stream.SetSockNoDelay(true);
    std::mt19937 random(seed);
    std::string owed;
    for (std::size_t burst = 0; burst < bursts; ++burst) {
        const unsigned length = 1 + static_cast<unsigned>(random()) % (random() % 8 == 0 ? 10'000U : 100U);
        const std::string text(length, static_cast<char>('a' + random() % 26));
        if (stream.Send_n(text.data(), length, 20'000'000) != static_cast<int>(length)) return false;
        owed += text;
        if (random() % 4 == 0) continue;
        if (receive(stream, owed.size()) != owed) return false;
        owed.clear();
    }
    if (::shutdown(stream.GetHandle(), END_OF_SENDING) != 0) return false;
    if (receive(stream, owed.size()) != owed) return false;
    char more = 0;
    return waitReadable(stream) && stream.Recv(&more, 1) < 0;
}

}  // namespace

TEST(LongConversation, EveryByteComesBackAndTheEndIsSeen) {
    const CPublicPool pool(2);
    const std::size_t bursts = std::max<std::size_t>(scaledDown(4'000), 400);
    SListener listener;
    std::atomic<int> closed{0};
    CScopedHandler server;
    server->on_input = [&](int) {
        auto* connection = new CConnection(closed);
        EXPECT_EQ(0, listener.acceptor.Accept(connection->stream()));
        return connection->start();
    };
    ASSERT_EQ(0, server->RegisterSock(listener.acceptor, EventMask::Read, 0));

    std::atomic<int> failures{0};
    {
        std::vector<std::unique_ptr<CRunner>> clients;
        for (unsigned c = 0; c < CLIENTS; ++c) {
            clients.push_back(std::make_unique<CRunner>([&, c] {
                for (unsigned i = 0; i < 3; ++i) {
                    if (!converse(listener.address, c * 3 + i, bursts / 3)) ++failures;
                }
            }));
        }
    }
    EXPECT_EQ(0, failures.load());
    EXPECT_TRUE(waitUntil([&] { return closed.load() == 3 * CLIENTS; }));
    server->RemoveSock(listener.acceptor);
}
