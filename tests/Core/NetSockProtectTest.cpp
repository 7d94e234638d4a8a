// Owners: takeover, protection, counts, owners that have gone.
#include "Core/NetSock.h"

#include "Support/SockRegistry.h"

using namespace Veltro::Ravelo;
using namespace Veltro::TestSupport;
namespace Plinth = Veltro::Plinth;

namespace {

/// The tail of a refusal's line, as far as it is the same for all.
std::string owners(const CTestHandler* owner, const CTestHandler* caller) {
    char text[300];
    const std::string type = SNetHandlerRecord::className(caller);
    std::snprintf(text, sizeof text, "owner:%p, owner type:%s, new:%p, new type:%s",
                  static_cast<const void*>(owner), type.c_str(), static_cast<const void*>(caller),
                  type.c_str());
    return text;
}

}  // namespace

TEST(NetSockProtect, AnotherHandlerTakesAnUnprotectedSocketOver) {
    const CPublicPool pool;
    Plinth::CSemaphore done;
    std::atomic<int> first_inputs{0};
    CScopedHandler first;
    CScopedHandler second;
    SSocketPair pair;
    first->on_input = [&](int) { return ++first_inputs; };
    second->on_input = [&](int fd) {
        EXPECT_EQ(1, drain(fd));
        done.post();
        return 0;
    };
    EXPECT_EQ(0, first->RegisterSock(pair.server, EventMask::Read, 0));
    EXPECT_EQ(0, second->RegisterSock(pair.server, EventMask::None, 0));
    EXPECT_EQ(SNetHandlerRecord::of(*second.get()).id(), sockState(pair.server.GetHandle()).owner_id);
    // The counts stay as they are.
    EXPECT_EQ(1, sockCount(first.get()));
    EXPECT_EQ(0, sockCount(second.get()));
    sendByte(pair.client);
    EXPECT_TRUE(pend(done));
    EXPECT_EQ(0, first_inputs.load());
    second->RemoveSock(pair.server);
    EXPECT_EQ(-1, sockCount(second.get()));
}

TEST(NetSockProtect, AProtectedSocketIsChangedByItsOwnerOnly) {
    const CPublicPool pool;
    CScopedHandler owner;
    CScopedHandler other;
    SSocketPair pair;
    const int fd = pair.server.GetHandle();
    const unsigned mask = EventMask::Read | EventMask::Protect;
    EXPECT_EQ(0, owner->RegisterSock(pair.server, mask, 0));
    const std::string socket = " failed, socket:" + std::to_string(fd) + ", ";
    const std::string tail = owners(owner.get(), other.get());
    CLogCapture log;
    EXPECT_EQ(-1, other->RegisterSock(pair.server, EventMask::Write, 0));
    EXPECT_EQ(1,
              log.count(Plinth::LOG_LEVEL_ERROR, "modify a protected socket event" + socket + tail + ",\n"));
    EXPECT_EQ(-1, other->UnregisterSock(pair.server, EventMask::Read));
    EXPECT_EQ(
        1, log.count(Plinth::LOG_LEVEL_ERROR, "unregister a protected socket event" + socket + tail + "\n"));
    EXPECT_EQ(-1, other->RemoveSock(pair.server));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR, "remove a protected socket" + socket + tail + "\n"));
    EXPECT_EQ(3, errorLines(log));
    EXPECT_EQ(mask, sockState(fd).mask);
    EXPECT_EQ(SNetHandlerRecord::of(*owner.get()).id(), sockState(fd).owner_id);
    EXPECT_EQ(0, owner->RegisterSock(pair.server, EventMask::Except, 0));
    EXPECT_EQ(0, owner->UnregisterSock(pair.server, EventMask::Protect));
    EXPECT_EQ(0, other->RemoveSock(pair.server));
    EXPECT_FALSE(sockState(fd).registered);
}

TEST(NetSockProtect, AProtectingOwnerThatHasGoneIsNamedNull) {
    const CPublicPool pool;
    CScopedHandler owner;
    CScopedHandler other;
    SSocketPair pair;
    EXPECT_EQ(0, owner->RegisterSock(pair.server, EventMask::Read | EventMask::Protect, 0));
    owner.close();
    CLogCapture log;
    EXPECT_EQ(-1, other->RemoveSock(pair.server));
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR, "owner type:NULL, new:"));
}

TEST(NetSockProtect, ARemovedSocketInFlightIsNoLongerProtected) {
    const CPublicPool pool(2);
    Plinth::CSemaphore removed;
    Plinth::CSemaphore go_on;
    CScopedHandler owner;
    CScopedHandler other;
    SSocketPair pair;
    owner->on_input = [&](int fd) {
        EXPECT_EQ(1, drain(fd));
        EXPECT_EQ(0, owner->RemoveSock(pair.server));
        removed.post();
        EXPECT_TRUE(pend(go_on));
        return 0;
    };
    EXPECT_EQ(0, owner->RegisterSock(pair.server, EventMask::Read | EventMask::Protect, 0));
    sendByte(pair.client);
    ASSERT_TRUE(pend(removed));
    EXPECT_EQ(0, other->RegisterSock(pair.server, EventMask::Read, 0));
    go_on.post();
    EXPECT_TRUE(waitUntil([&] { return isIdle(pair.server.GetHandle()); }));
    EXPECT_EQ(0, sockCount(owner.get()));
    EXPECT_EQ(1, sockCount(other.get()));
    other->RemoveSock(pair.server);
}

TEST(NetSockProtect, TheOwnersCountFollowsItsSockets) {
    const CPublicPool pool;
    CScopedHandler handler;
    SSocketPair pairs[3];
    for (SSocketPair& pair : pairs) handler->RegisterSock(pair.server, EventMask::Read, 0);
    EXPECT_EQ(3, sockCount(handler.get()));
    handler->RegisterSock(pairs[0].server, EventMask::Read, 0);
    EXPECT_EQ(3, sockCount(handler.get()));
    for (SSocketPair& pair : pairs) handler->RemoveSock(pair.server);
    EXPECT_EQ(0, sockCount(handler.get()));
    handler->RemoveSock(pairs[0].server);
    EXPECT_EQ(0, sockCount(handler.get()));
}

TEST(NetSockProtect, TheCountFallsAlsoWhenTheOwnerHasLeftItsTable) {
    const CPublicPool pool;
    CScopedHandler owner;
    CScopedHandler other;
    SSocketPair pair;
    EXPECT_EQ(0, owner->RegisterSock(pair.server, EventMask::Read, 0));
    CTestHandler* object = owner.get();
    std::atomic<int> closed{0};
    object->closed = &closed;
    object->AddRef();
    object->Close();
    const std::int64_t id = SNetHandlerRecord::of(*object).id();
    EXPECT_TRUE(waitUntil([&] {
        const CPoolPin pin(0);
        CNetHandler* found = pin->findHandler(id);
        if (found != nullptr) found->DecRef();
        return found == nullptr;
    }));
    EXPECT_EQ(1, sockCount(object));
    EXPECT_EQ(0, other->RemoveSock(pair.server));
    EXPECT_EQ(0, sockCount(object));
    CLogCapture log;
    object->DecRef();
    EXPECT_TRUE(waitUntil([&] { return closed.load() == 1; }));
    owner.release();
    EXPECT_EQ(0, log.count(Plinth::LOG_LEVEL_ERROR, "has not been removed"));
}

TEST(NetSockProtect, AnOwnerThatLeavesASocketBehindIsLogged) {
    const CPublicPool pool;
    CScopedHandler other;
    SSocketPair pair;
    CLogCapture log;
    {
        CScopedHandler owner;
        owner->RegisterSock(pair.server, EventMask::Read, 0);
    }
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR, "some sockets registered on obj "));
    // Removal long after the owner has been deleted is harmless.
    EXPECT_EQ(0, other->RemoveSock(pair.server));
}

TEST(NetSockProtect, ASocketWhoseOwnerHasGoneIsArmedAgainWithoutATimeOut) {
    const CPublicPool pool;
    Plinth::CSemaphore done;
    CScopedHandler other;
    SSocketPair pair;
    const int fd = pair.server.GetHandle();
    {
        CScopedHandler owner;
        owner->RegisterSock(pair.server, EventMask::Read, 60'000'000);
    }
    EXPECT_TRUE(sockState(fd).in_list);
    sendByte(pair.client);
    EXPECT_TRUE(waitUntil([&] { return isIdle(fd) && !sockState(fd).in_list; }));
    other->on_input = [&](int input_fd) {
        EXPECT_EQ(1, drain(input_fd));
        done.post();
        return 0;
    };
    EXPECT_EQ(0, other->RegisterSock(pair.server, EventMask::Read, 0));
    EXPECT_TRUE(pend(done));
    other->RemoveSock(pair.server);
}

TEST(NetSockProtect, HandlersOfAPoolThatHasGoneAreRefused) {
    const CPublicPool pool;
    const int number = CNetThread::CreatePrivatePool(2, false);
    ASSERT_GT(number, 0);
    SSocketPair pair;
    std::atomic<int> closed{0};
    auto* handler = new CTestHandler(number);
    handler->closed = &closed;
    EXPECT_EQ(0, handler->RegisterSock(pair.server, EventMask::Read, 1'000'000));
    EXPECT_EQ(0, CNetThread::DestroyPrivatePool(number));
    EXPECT_EQ(-1, handler->RegisterSock(pair.client, EventMask::Read, 0));
    EXPECT_EQ(-1, handler->UnregisterSock(pair.server, EventMask::Read));
    EXPECT_EQ(-1, handler->RemoveSock(pair.server));
    EXPECT_EQ(-1, handler->SetTimer(10'000));
    // Nor does a new pool under the old number serve them.
    EXPECT_EQ(number, CNetThread::CreatePrivatePool(2, false));
    EXPECT_EQ(-1, handler->RegisterSock(pair.client, EventMask::Read, 0));
    EXPECT_EQ(-1, handler->SetTimer(10'000));
    EXPECT_FALSE(sockState(pair.server.GetHandle(), number).registered);
    EXPECT_EQ(0, CNetThread::DestroyPrivatePool(number));
    handler->DecSock();  // its socket went with the pool
    handler->Close();
    handler->DecRef();  // the table's reference, which went with the pool
    EXPECT_EQ(1, closed.load());
}
