// DTLS sockets in the reactor.
#include <atomic>

#include "Support/DtlsPeers.h"
#include "Support/DtlsRelay.h"
#include "Support/SockRegistry.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CDtlsRelay;
using TestSupport::CLogCapture;
using TestSupport::CPublicPool;
using TestSupport::CScopedHandler;
using TestSupport::receiveRecord;
using TestSupport::SDtlsPair;
using TestSupport::sendText;
using TestSupport::waitUntil;

TEST(SslDgramReactor, ARegisteredSocketReceivesEveryRecord) {
    constexpr int RECORDS = 2000;
    constexpr int AT_ONCE = 50;  // that fit a socket's buffer
    SDtlsPair pair;
    std::atomic<int> received{0};
    std::atomic<int> out_of_order{0};
    const CPublicPool pool;
    CScopedHandler handler;
    handler->on_input = [&](int) {
        char text[16] = {};
        const int length = pair.server.dgram.Recv(text, sizeof(text) - 1);
        if (length > 0 && std::to_string(received) != text) ++out_of_order;
        if (length > 0) ++received;
        return 0;
    };
    ASSERT_EQ(0, handler->RegisterSock(pair.server.dgram, EventMask::Read, 0));
    for (int sent = 0; sent < RECORDS; ++sent) {
        if (sent % AT_ONCE == 0) {
            ASSERT_TRUE(waitUntil([&] { return received == sent; }));
        }
        ASSERT_LT(0, sendText(pair.client, std::to_string(sent)));
    }
    EXPECT_TRUE(waitUntil([&] { return received == RECORDS; })) << received;
    EXPECT_EQ(0, out_of_order);
    handler->RemoveSock(pair.server.dgram);
}

TEST(SslDgramReactor, WhatASmallBufferLeavesInsideIsReportedAgain) {
    SDtlsPair pair;
    std::string whole;
    for (int i = 0; i < 1000; ++i) whole += std::to_string(i);
    std::atomic<std::size_t> received{0};
    std::string text;
    const CPublicPool pool;
    CScopedHandler handler;
    handler->on_input = [&](int) {
        char bytes[7];
        const int length = pair.server.dgram.Recv(bytes, sizeof(bytes));
        if (length > 0) text.append(bytes, static_cast<std::size_t>(length));
        if (length > 0) received += static_cast<std::size_t>(length);
        return 0;
    };
    ASSERT_EQ(0, handler->RegisterSock(pair.server.dgram, EventMask::Read, 0));
    ASSERT_EQ(static_cast<int>(whole.size()), sendText(pair.client, whole));
    EXPECT_TRUE(waitUntil([&] { return received == whole.size(); })) << received;
    handler->RemoveSock(pair.server.dgram);
    EXPECT_EQ(whole, text);
}

TEST(SslDgramReactor, RecordsOfOneDatagramAreReportedOneAfterTheOther) {
    const TestSupport::CQuickDtls quick;
    TestSupport::SDtlsServer server;
    CSslDgram client;
    std::string held;
    int count = 0;
    const CDtlsRelay relay(server.address, [&](const std::string& datagram, bool is_from_client) {
        if (datagram.empty()) return std::vector<std::string>{};
        if (!is_from_client || TestSupport::isHandshake(datagram)) return std::vector<std::string>{datagram};
        held += datagram;
        return ++count == 3 ? std::vector<std::string>{held} : std::vector<std::string>{};
    });
    ASSERT_TRUE(negotiate(server, client, &relay.address()).areGood());
    std::atomic<int> received{0};
    const CPublicPool pool;
    CScopedHandler handler;
    handler->on_input = [&](int) {
        char bytes[64];
        if (server.dgram.Recv(bytes, sizeof(bytes)) > 0) ++received;
        return 0;
    };
    ASSERT_EQ(0, handler->RegisterSock(server.dgram, EventMask::Read, 0));
    for (const char* text : {"one", "two", "three"}) sendText(client, text);
    EXPECT_TRUE(waitUntil([&] { return received == 3; })) << received;
    handler->RemoveSock(server.dgram);
}

TEST(SslDgramReactor, GarbageIsReportedAndLeavesTheSocketArmed) {
    const TestSupport::CQuickDtls quick;
    TestSupport::SDtlsServer server;
    CSslDgram client;
    std::atomic<bool> adds_garbage{false};
    const CDtlsRelay relay(server.address, [&](const std::string& datagram, bool is_from_client) {
        if (datagram.empty() && is_from_client && adds_garbage.exchange(false))
            return std::vector<std::string>{"garbage"};
        return datagram.empty() ? std::vector<std::string>{} : std::vector<std::string>{datagram};
    });
    ASSERT_TRUE(negotiate(server, client, &relay.address()).areGood());
    std::atomic<int> calls{0};
    std::atomic<int> received{0};
    const CPublicPool pool;
    CScopedHandler handler;
    handler->on_input = [&](int) {
        char bytes[64];
        if (server.dgram.Recv(bytes, sizeof(bytes)) > 0) ++received;
        ++calls;
        return 0;
    };
    ASSERT_EQ(0, handler->RegisterSock(server.dgram, EventMask::Read, 0));
    adds_garbage = true;
    EXPECT_TRUE(waitUntil([&] { return calls > 0; }));
    EXPECT_EQ(0, received);
    ASSERT_EQ(5, sendText(client, "hello"));
    EXPECT_TRUE(waitUntil([&] { return received == 1; }));
    handler->RemoveSock(server.dgram);
}

TEST(SslDgramReactor, AnEchoServesItsClient) {
    SDtlsPair pair;
    std::atomic<bool> has_ended{false};
    const CPublicPool pool;
    CScopedHandler handler;
    const CLogCapture unheard;
    handler->on_input = [&](int) {
        char bytes[2048];
        const int length = pair.server.dgram.Recv(bytes, sizeof(bytes));
        if (length > 0) pair.server.dgram.Send(bytes, static_cast<unsigned>(length));
        if (length < 0) has_ended = true;
        return length < 0 ? -1 : 0;
    };
    ASSERT_EQ(0, handler->RegisterSock(pair.server.dgram, EventMask::Read, 0));
    for (int i = 0; i < 100; ++i) {
        const std::string text = "question " + std::to_string(i);
        ASSERT_LT(0, sendText(pair.client, text));
        EXPECT_EQ(text, receiveRecord(pair.client));
    }
    handler->RemoveSock(pair.server.dgram);
    EXPECT_FALSE(has_ended);
}

TEST(SslDgramReactor, ASilentSocketTimesOut) {
    SDtlsPair pair;
    std::atomic<int> timed_out{0};
    const CPublicPool pool;
    CScopedHandler handler;
    handler->on_input_timeout = [&](int) {
        ++timed_out;
        return 0;
    };
    ASSERT_EQ(0, handler->RegisterSock(pair.client, EventMask::Read, 1000));
    EXPECT_TRUE(waitUntil([&] { return timed_out > 0; }));
    handler->RemoveSock(pair.client);
}

}  // namespace
}  // namespace Veltro::Ravelo
