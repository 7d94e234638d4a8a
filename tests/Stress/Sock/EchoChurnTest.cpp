// Connections that come, are served once or twice and go, from many threads at once.

#include <algorithm>

#include "Support/SockRegistry.h"

using namespace Veltro::Ravelo;
using namespace Veltro::TestSupport;
namespace Plinth = Veltro::Plinth;

namespace {

constexpr int CLIENTS = 8;
constexpr int ROUNDS_PER_CLIENT = STRESS_ROUNDS / CLIENTS;

struct SCounts {
    std::atomic<std::int64_t> bytes_received{0};
    std::atomic<int> accepted{0};
    std::atomic<int> closed{0};
    std::atomic<int> inputs_without_data{0};
    std::atomic<int> inputs_after_the_end{0};
    std::atomic<int> overlaps{0};
};

/// One served connection; deletes itself.
class CConnection : public CNetHandler {
public:
    explicit CConnection(SCounts& counts) : m_counts(counts) {}

    CSockStream& stream() { return m_stream; }
    int start() { return RegisterSock(m_stream, EventMask::Read, 60'000'000); }

    int handle_input(int) override {
        if (m_inside.fetch_add(1) != 0) ++m_counts.overlaps;
        if (m_has_ended) ++m_counts.inputs_after_the_end;
        const int result = echo();
        m_inside.fetch_sub(1);
        return result;
    }
    int handle_close(CNetHandler*) override {
        SCounts& counts = m_counts;
        delete this;
        ++counts.closed;
        return 0;
    }

private:
    int echo() {
        char bytes[256];
        int received = 0;
        bool has_data = false;
        while ((received = m_stream.Recv(bytes, sizeof bytes)) > 0) {
            has_data = true;
            m_counts.bytes_received += received;
            EXPECT_EQ(received, m_stream.Send(bytes, static_cast<unsigned>(received)));
        }
        if (received == 0) {
            if (!has_data) ++m_counts.inputs_without_data;
            return 0;
        }
        m_has_ended = true;
        RemoveSock(m_stream);
        m_stream.Close();  // its number may be the next connection's at once
        Close();
        return -1;
    }

    SCounts& m_counts;
    CSockStream m_stream;
    std::atomic<int> m_inside{0};
    bool m_has_ended = false;
};

/// Accepts all that waits.
int acceptAll(CSockAcceptor& acceptor, SCounts& counts) {
    for (;;) {
        auto* connection = new CConnection(counts);
        if (acceptor.Accept(connection->stream()) != 0) {
            connection->Close();
            return 0;
        }
        ++counts.accepted;
        EXPECT_EQ(0, connection->start());
    }
}

/// One connection of a client; the number of bytes that were echoed rightly.
int playRound(const CSockAddrIPv4& address, int number) {
    CSockStream stream;
    if (stream.Connect(address) != 0 || !waitWritable(stream) || stream.GetConnectStatus() != 0) return -1;
    const unsigned length = 1 + static_cast<unsigned>(number) % 100;
    int echoed = 0;
    for (int exchange = 0; exchange < 1 + number % 2; ++exchange) {
        const std::string sent(length, static_cast<char>('a' + (number + exchange) % 26));
        std::string answer(length, '\0');
        if (stream.Send_n(sent.data(), length, 20'000'000) != static_cast<int>(length)) return -1;
        if (stream.Recv_n(answer.data(), length, 20'000'000) != static_cast<int>(length)) return -1;
        if (answer != sent) return -1;
        echoed += static_cast<int>(length);
    }
    reset(stream);  // an end of another kind would keep the port for a minute
    return echoed;
}

}  // namespace

TEST(EchoChurn, NoEventIsLostAndNoneIsDeliveredTwice) {
    CLogCapture quiet(Plinth::LOG_LEVEL_FATAL);  // each reset is worth a warning
    const CPublicPool pool(2);
    SCounts counts;
    SListener listener;
    listener.acceptor.SetBlockOpt(false);
    CScopedHandler server;
    server->on_input = [&](int) { return acceptAll(listener.acceptor, counts); };
    ASSERT_EQ(0, server->RegisterSock(listener.acceptor, EventMask::Read, 0));

    std::atomic<std::int64_t> bytes_echoed{0};
    std::atomic<int> failures{0};
    std::vector<std::unique_ptr<Plinth::CThreadLite>> clients;
    for (int c = 0; c < CLIENTS; ++c) {
        clients.push_back(std::make_unique<Plinth::CThreadLite>(
            [&, c](Plinth::CThreadLite&) {
                for (int i = 0; i < ROUNDS_PER_CLIENT && failures.load() < 10; ++i) {
                    const int echoed = playRound(listener.address, c * ROUNDS_PER_CLIENT + i);
                    if (echoed < 0) ++failures;
                    if (echoed > 0) bytes_echoed += echoed;
                }
            },
            "client"));
        ASSERT_TRUE(clients.back()->createThread());
    }
    for (auto& client : clients) client->destroyThread();

    EXPECT_EQ(0, failures.load());
    EXPECT_EQ(CLIENTS * ROUNDS_PER_CLIENT, counts.accepted.load());
    // Every connection's end is an event, too; what was made for nothing in acceptAll() is closed as well.
    EXPECT_TRUE(waitUntil([&] { return counts.closed.load() >= counts.accepted.load(); }));
    EXPECT_EQ(bytes_echoed.load(), counts.bytes_received.load());
    EXPECT_EQ(0, counts.inputs_without_data.load());
    EXPECT_EQ(0, counts.inputs_after_the_end.load());
    EXPECT_EQ(0, counts.overlaps.load());
    server->RemoveSock(listener.acceptor);
    server.close();
    const CPoolPin pin(0);
    EXPECT_TRUE(waitUntil([&] {
        Plinth::CReadGuard guard(pin->sockets().lock());
        return pin->sockets().size() == 0;
    }));
    EXPECT_TRUE(waitUntil([&] {
        Plinth::CReadGuard guard(pin->objects().lock());
        return pin->objects().size() == 0;
    }));
}
