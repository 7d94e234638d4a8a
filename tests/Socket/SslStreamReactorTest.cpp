// TLS streams that the reactor calls back.
#include <Plinth/Semaphore.h>
#include <Ravelo/SslStream.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Support/Load.h"
#include "Support/LogCapture.h"
#include "Support/Reactor.h"
#include "Support/TlsPair.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::closeAndWait;
using TestSupport::CPublicPool;
using TestSupport::CTestHandler;
using TestSupport::STlsPair;
using TestSupport::STlsServer;
using TestSupport::waitUntil;

/// The byte at a place of the stream that a test sends.
char byteAt(std::size_t place) {
    return static_cast<char>(place * 131 + place / 251);
}

/// Takes what a stream brings, as the reactor reports it, and checks every byte.
class CByteCounter {
public:
    /// @param room how much each Recv() has room for.
    CByteCounter(CSslStream& stream, std::size_t room)
        : m_stream(stream), m_buffer(room), m_handler(new CTestHandler) {
        m_handler->on_input = [this](int) { return take(); };
        EXPECT_EQ(0, m_handler->RegisterSock(m_stream, EventMask::Read, 0));
    }
    ~CByteCounter() {
        m_handler->RemoveSock(m_stream);
        closeAndWait(m_handler);
    }

    bool waitFor(std::size_t count) {
        return waitUntil([this, count] { return m_count.load() >= count; });
    }
    std::size_t count() const { return m_count.load(); }
    bool isRight() const { return m_is_right.load(); }

private:
    /// Reads until it is told to try again.
    int take() {
        for (;;) {
            const int received = m_stream.Recv(m_buffer.data(), static_cast<unsigned>(m_buffer.size()));
            if (received <= 0) return received;
            std::size_t place = m_count.load();
            for (int i = 0; i < received; ++i, ++place) {
                if (m_buffer[static_cast<std::size_t>(i)] != byteAt(place)) m_is_right = false;
            }
            m_count = place;
        }
    }

    CSslStream& m_stream;
    std::vector<char> m_buffer;
    CTestHandler* m_handler;
    std::atomic<std::size_t> m_count{0};
    std::atomic<bool> m_is_right{true};
};

/// Sends a record of the stream's next bytes.
void sendRecord(CSslStream& stream, std::size_t* place, std::size_t length) {
    std::string text(length, '\0');
    for (char& byte : text) byte = byteAt((*place)++);
    ASSERT_EQ(static_cast<int>(length),
              stream.Send_n(text.data(), static_cast<unsigned>(length), 20'000'000));
}

struct SCase {
    bool up_to_tls12;
    std::size_t room;
};

class SslStreamReactor : public ::testing::TestWithParam<SCase> {};

INSTANTIATE_TEST_SUITE_P(EveryWay, SslStreamReactor,
                         ::testing::Values(SCase{false, 16'384}, SCase{false, 100}, SCase{true, 16'384},
                                           SCase{true, 100}, SCase{false, 65'536}),
                         [](const auto& way) {
                             return std::string(way.param.up_to_tls12 ? "Tls12" : "Tls13") + "Room" +
                                    std::to_string(way.param.room);
                         });

TEST_P(SslStreamReactor, EveryByteOfBurstsArrives) {
    CPublicPool pool;
    STlsPair pair(GetParam().up_to_tls12);
    CByteCounter counter(pair.server, GetParam().room);
    std::mt19937 draw(11);
    std::size_t sent = 0;
    const std::size_t bursts = TestSupport::scaledDown(400);
    for (std::size_t burst = 0; burst < bursts; ++burst) {
        const std::size_t records = 1 + draw() % 12;
        for (std::size_t i = 0; i < records; ++i) {
            // As many short ones as long ones.
            const std::size_t length = std::max<std::size_t>(1, 16'384U >> draw() % 15);
            sendRecord(pair.client, &sent, std::max<std::size_t>(1, length - draw() % length));
        }
        // Some bursts follow each other closely, others find the socket read empty.
        if (burst % 4 != 0) {
            ASSERT_TRUE(counter.waitFor(sent)) << "stalled at " << counter.count() << " of " << sent;
        }
    }
    ASSERT_TRUE(counter.waitFor(sent)) << "stalled at " << counter.count() << " of " << sent;
    EXPECT_TRUE(counter.isRight());
}

TEST_P(SslStreamReactor, RecordsThatComeOneByOneArrive) {
    CPublicPool pool;
    STlsPair pair(GetParam().up_to_tls12);
    CByteCounter counter(pair.server, GetParam().room);
    std::size_t sent = 0;
    // Long enough for the multiplexer to count on a socket that is always read empty.
    for (std::size_t i = 0; i < 100; ++i) {
        sendRecord(pair.client, &sent, 1 + i * 163);
        ASSERT_TRUE(counter.waitFor(sent)) << "stalled at " << counter.count() << " of " << sent;
    }
    EXPECT_TRUE(counter.isRight());
}

TEST_P(SslStreamReactor, RecordsThatComeInPiecesArrive) {
    CPublicPool pool;
    STlsPair pair(GetParam().up_to_tls12);
    CByteCounter counter(pair.server, GetParam().room);
    std::size_t sent = 0;
    CSockStream wire;
    BIO* memory = BIO_new(BIO_s_mem());
    // What the client writes is carried to the socket by hand.
    SSL* ssl = TestSupport::sslOf(pair.client);
    BIO* own = SSL_get_wbio(ssl);
    BIO_up_ref(own);
    SSL_set0_wbio(ssl, memory);
    wire.Attach(pair.client.GetHandle());
    std::mt19937 draw(5);
    for (std::size_t i = 0; i < 60; ++i) {
        std::string text(1 + draw() % 3000, '\0');
        for (char& byte : text) byte = byteAt(sent++);
        ASSERT_EQ(static_cast<int>(text.size()), SSL_write(ssl, text.data(), static_cast<int>(text.size())));
        std::string record(BIO_ctrl_pending(memory), '\0');
        BIO_read(memory, record.data(), static_cast<int>(record.size()));
        for (std::size_t at = 0; at < record.size();) {
            const std::size_t piece = std::min<std::size_t>(record.size() - at, 1 + draw() % 700);
            ASSERT_EQ(static_cast<int>(piece),
                      wire.Send_n(record.data() + at, static_cast<unsigned>(piece), 20'000'000));
            at += piece;
            if (draw() % 4 == 0) Plinth::sleepMilliSecond(1);
        }
        ASSERT_TRUE(counter.waitFor(sent)) << "stalled at " << counter.count() << " of " << sent;
    }
    EXPECT_TRUE(counter.isRight());
    SSL_set0_wbio(ssl, own);
    wire.Detach();
}

TEST(SslStreamReactorEnd, AnEndIsReported) {
    CPublicPool pool;
    STlsServer listener;
    CSslStream server;
    auto client = std::make_unique<CSslStream>();
    ASSERT_TRUE(listener.serve(server, *client));
    const TestSupport::CLogCapture log;
    std::atomic<int> result{0};
    auto* handler = new CTestHandler;
    handler->on_input = [&](int) {
        char text[100];
        int received = 0;
        while ((received = server.Recv(text, sizeof(text))) > 0) {
        }
        if (received < 0) {
            handler->RemoveSock(server);
            result = received;
        }
        return received;
    };
    ASSERT_EQ(0, handler->RegisterSock(server, EventMask::Read, 0));
    for (int i = 0; i < 40; ++i) {
        TestSupport::sendText(*client, "some bytes before");
        Plinth::sleepMilliSecond(1);
    }
    client.reset();
    EXPECT_TRUE(waitUntil([&result] { return result.load() == -1; }));
    closeAndWait(handler);
}

TEST(SslStreamReactorEnd, AnAcceptorMayBeRegistered) {
    CPublicPool pool;
    STlsServer listener;
    std::unique_ptr<CSslStream> server;
    Plinth::CSemaphore accepted;
    auto* handler = new CTestHandler;
    handler->on_input = [&](int) {
        server.reset(listener.acceptor.Accept());
        accepted.post();
        return 0;
    };
    ASSERT_EQ(0, handler->RegisterSock(listener.acceptor, EventMask::Read, 0));
    for (int i = 0; i < 5; ++i) {
        CSslStream client;
        EXPECT_EQ(0, client.Connect(listener.address));
        EXPECT_TRUE(accepted.pend(20'000'000));
        ASSERT_NE(nullptr, server);
        EXPECT_EQ(2, TestSupport::sendText(client, "hi"));
        EXPECT_EQ("hi", TestSupport::receive(*server, 2));
    }
    handler->RemoveSock(listener.acceptor);
    closeAndWait(handler);
}

TEST(SslStreamReactorEnd, PoolsMayComeAndGoWithTrafficBetween) {
    STlsServer listener;
    listener.allowSessions(SslSessionId | SslSessionTicket);
    for (int round = 0; round < 5; ++round) {
        {
            CPublicPool pool;
            CSslStream server;
            CSslStream client;
            client.SetOption(SslOptSession, SslSessionId | SslSessionTicket, nullptr);
            ASSERT_TRUE(listener.serve(server, client));
            EXPECT_EQ(round > 0, SSL_session_reused(TestSupport::sslOf(server)) == 1);
            TestSupport::sendText(server, "x");
            EXPECT_EQ("x", TestSupport::receive(client, 1));
            CByteCounter counter(server, 1000);
            std::size_t sent = 0;
            for (int i = 0; i < 20; ++i) sendRecord(client, &sent, 5000);
            EXPECT_TRUE(counter.waitFor(sent));
            EXPECT_TRUE(counter.isRight());
        }
        CSslStream server;
        CSslStream client;
        ASSERT_TRUE(listener.serve(server, client));
        EXPECT_EQ(2, TestSupport::sendText(client, "hi"));
        EXPECT_EQ("hi", TestSupport::receive(server, 2));
    }
}

}  // namespace
}  // namespace Veltro::Ravelo
