// Sockets whose objects keep received bytes: what a callback leaves inside makes no event of its own.
#include "Core/NetSock.h"
#include "Socket/ReadWatch.h"

#include "Support/SockRegistry.h"

using namespace Veltro::Ravelo;
using namespace Veltro::TestSupport;

namespace {

/// A server's end whose callback says, the first times it is called, that bytes are left inside.
struct SKeepingSocket {
    SSocketPair pair;
    std::atomic<int> calls{0};

    void keep(CScopedHandler& handler, int times) {
        handler->on_input = [this, times](int fd) {
            char bytes[16];
            pair.server.Recv(bytes, sizeof(bytes));
            const bool is_left = ++calls <= times;
            CReadWatch::note(fd, is_left ? CReadWatch::ELeft::Inside : CReadWatch::ELeft::Nothing);
            return 0;
        };
    }
};

}  // namespace

TEST(NetSockBuffered, WhatIsLeftInsideIsDispatchedAgainWithoutAnEvent) {
    const CPublicPool pool;
    CScopedHandler handler;
    SKeepingSocket socket;
    socket.keep(handler, 3);
    EXPECT_EQ(0, handler->RegisterSock(socket.pair.server, EventMask::Read, 0));
    EXPECT_EQ(1, socket.pair.client.Send("x", 1));
    EXPECT_TRUE(waitUntil([&socket] { return socket.calls == 4; }));
    // Idle again, and armed: the next byte is an event.
    EXPECT_TRUE(waitUntil([&socket] { return isIdle(socket.pair.server.GetHandle()); }));
    EXPECT_EQ(1, socket.pair.client.Send("y", 1));
    EXPECT_TRUE(waitUntil([&socket] { return socket.calls == 5; }));
    handler->RemoveSock(socket.pair.server);
}

TEST(NetSockBuffered, ARemovedSocketIsNotDispatchedAgain) {
    const CPublicPool pool;
    CScopedHandler handler;
    SSocketPair pair;
    std::atomic<int> calls{0};
    handler->on_input = [&](int fd) {
        CReadWatch::note(fd, CReadWatch::ELeft::Inside);
        EXPECT_EQ(0, handler->RemoveSock(pair.server));
        ++calls;
        return 0;
    };
    EXPECT_EQ(0, handler->RegisterSock(pair.server, EventMask::Read, 0));
    EXPECT_EQ(1, pair.client.Send("x", 1));
    EXPECT_TRUE(waitUntil([&] { return !sockState(pair.server.GetHandle()).registered; }));
    EXPECT_EQ(1, calls);
}

TEST(NetSockBuffered, WithoutReadInterestWhatIsLeftWaits) {
    const CPublicPool pool;
    CScopedHandler handler;
    SKeepingSocket socket;
    socket.keep(handler, 1);
    const auto keeping = handler->on_input;
    handler->on_input = [&, keeping](int fd) {
        EXPECT_EQ(0, handler->UnregisterSock(socket.pair.server, EventMask::Read));
        return keeping(fd);
    };
    EXPECT_EQ(0, handler->RegisterSock(socket.pair.server, EventMask::Read | EventMask::Except, 0));
    EXPECT_EQ(1, socket.pair.client.Send("x", 1));
    EXPECT_TRUE(waitUntil([&] { return socket.calls == 1 && isIdle(socket.pair.server.GetHandle()); }));
    handler->RemoveSock(socket.pair.server);
}

TEST(NetSockBuffered, OthersAreServedBetweenTheDispatchesOfOne) {
    const CPublicPool pool(1);
    CScopedHandler keeper;
    CScopedHandler other;
    SSocketPair kept;
    std::atomic<bool> is_done{false};
    std::atomic<bool> is_met{false};
    keeper->on_input = [&](int fd) {
        if (!is_done) CReadWatch::note(fd, CReadWatch::ELeft::Inside);
        return 0;
    };
    other->on_message = [&](long, unsigned, long) {
        is_done = true;
        is_met = true;
        return 0;
    };
    EXPECT_EQ(0, keeper->RegisterSock(kept.server, EventMask::Read, 0));
    EXPECT_EQ(1, kept.client.Send("x", 1));
    keeper->Notify(other->GetID(), 100, 0);
    EXPECT_TRUE(waitUntil([&] { return is_met.load(); }));
    EXPECT_EQ(0, keeper->RemoveSock(kept.server));
}
