// The time-outs of registered sockets, and how callbacks' results set the next one.
#include "Core/NetSock.h"

#include "Support/SockRegistry.h"

using namespace Veltro::Ravelo;
using namespace Veltro::TestSupport;
namespace Plinth = Veltro::Plinth;

namespace {

std::int64_t nowMs() {
    return static_cast<std::int64_t>(Plinth::CTime::getCurrentMilliSecond());
}

/// A socket whose one event ends with a result; what the registry holds afterwards.
SSockState stateAfterResult(int timeout_us, int result) {
    Plinth::CSemaphore done;
    CScopedHandler handler;
    SSocketPair pair;
    const int fd = pair.server.GetHandle();
    handler->on_input = [&](int input_fd) {
        EXPECT_EQ(1, drain(input_fd));
        EXPECT_EQ(0, sockState(fd).time_out);  // disarmed as long as it is being handled
        done.post();
        return result;
    };
    handler->RegisterSock(pair.server, EventMask::Read, timeout_us);
    sendByte(pair.client);
    EXPECT_TRUE(pend(done));
    EXPECT_TRUE(waitUntil([fd] { return isIdle(fd); }));
    const SSockState state = sockState(fd);
    handler->RemoveSock(pair.server);
    return state;
}

/// Which time-out callback an interest leads to.
std::string timeoutOf(unsigned mask) {
    const CPublicPool pool;
    Plinth::CSemaphore done;
    std::string called;
    CScopedHandler handler;
    SSocketPair pair;
    fill(pair.server);
    handler->on_input_timeout = [&](int) {
        called += "input";
        done.post();
        return 0;
    };
    handler->on_output_timeout = [&](int) {
        called += "output";
        done.post();
        return 0;
    };
    const std::int64_t start_ms = nowMs();
    handler->RegisterSock(pair.server, mask, 1000);
    EXPECT_TRUE(pend(done));
    EXPECT_GE(nowMs() - start_ms, 1);
    handler->RemoveSock(pair.server);
    return called;
}

}  // namespace

TEST(NetSockTimeout, AReadersTimeOutIsOfTheInput) {
    EXPECT_EQ("input", timeoutOf(EventMask::Read));
}

TEST(NetSockTimeout, AWritersTimeOutIsOfTheOutput) {
    EXPECT_EQ("output", timeoutOf(EventMask::Write));
}

TEST(NetSockTimeout, WithBothInterestsItIsOfTheInput) {
    EXPECT_EQ("input", timeoutOf(EventMask::Read | EventMask::Write));
}

TEST(NetSockTimeout, NeverComesEarly) {
    const CPublicPool pool;
    Plinth::CSemaphore done;
    std::atomic<std::int64_t> fired_ms{0};
    CScopedHandler handler;
    SSocketPair pair;
    handler->on_input_timeout = [&](int) {
        fired_ms = nowMs();
        done.post();
        return 0;
    };
    const std::int64_t start_ms = nowMs();
    handler->RegisterSock(pair.server, EventMask::Read, 700'000);
    EXPECT_TRUE(pend(done));
    EXPECT_GE(fired_ms - start_ms, 700);
    handler->RemoveSock(pair.server);
}

TEST(NetSockTimeout, APositiveResultIsTheNextInterval) {
    const CPublicPool pool;
    for (const int timeout_us : {0, 60'000'000}) {
        const SSockState state = stateAfterResult(timeout_us, 3'000'000);
        EXPECT_TRUE(state.in_list);
        EXPECT_EQ(3000, state.set_time);
        EXPECT_GT(state.time_out, 0);
    }
}

TEST(NetSockTimeout, AResultOfZeroKeepsTheInterval) {
    const CPublicPool pool;
    const SSockState state = stateAfterResult(60'000'000, 0);
    EXPECT_TRUE(state.in_list);
    EXPECT_EQ(60'000, state.set_time);
    EXPECT_GT(state.time_out, 0);
    EXPECT_FALSE(stateAfterResult(0, 0).in_list);
}

TEST(NetSockTimeout, ANegativeResultDropsTheInterval) {
    const CPublicPool pool;
    const SSockState state = stateAfterResult(60'000'000, -1);
    EXPECT_TRUE(state.registered);
    EXPECT_FALSE(state.in_list);
    EXPECT_EQ(0, state.set_time);
    EXPECT_EQ(0, state.time_out);
}

TEST(NetSockTimeout, AResultBelowAMillisecondDropsTheIntervalToo) {
    const CPublicPool pool;
    EXPECT_FALSE(stateAfterResult(60'000'000, 999).in_list);
}

TEST(NetSockTimeout, IsOneShotWhateverTheCallbackReturns) {
    const CPublicPool pool;
    for (const int result : {-1, 0, 1'000'000}) {
        Plinth::CSemaphore timed_out;
        Plinth::CSemaphore input;
        CScopedHandler handler;
        SSocketPair pair;
        const int fd = pair.server.GetHandle();
        handler->on_input_timeout = [&](int) {
            timed_out.post();
            return result;
        };
        handler->on_input = [&](int input_fd) {
            EXPECT_EQ(1, drain(input_fd));
            input.post();
            return 0;
        };
        handler->RegisterSock(pair.server, EventMask::Read, 1000);
        EXPECT_TRUE(pend(timed_out));
        EXPECT_TRUE(waitUntil([fd] { return isIdle(fd); }));
        EXPECT_FALSE(sockState(fd).in_list);
        EXPECT_EQ(0, sockState(fd).set_time);
        // The socket itself goes on.
        sendByte(pair.client);
        EXPECT_TRUE(pend(input));
        handler->RemoveSock(pair.server);
        handler.close();
        EXPECT_FALSE(timed_out.tryPend());
    }
}

TEST(NetSockTimeout, RegisteredInsideItsOwnCallbackItIsOnlyStoredUntilTheNextEvent) {
    const CPublicPool pool;
    Plinth::CSemaphore timed_out;
    Plinth::CSemaphore input;
    CScopedHandler handler;
    SSocketPair pair;
    const int fd = pair.server.GetHandle();
    handler->on_input_timeout = [&](int) {
        EXPECT_EQ(0, handler->RegisterSock(pair.server, EventMask::Read, 60'000'000));
        timed_out.post();
        return 5'000'000;
    };
    handler->on_input = [&](int input_fd) {
        EXPECT_EQ(1, drain(input_fd));
        input.post();
        return 0;
    };
    handler->RegisterSock(pair.server, EventMask::Read, 1000);
    ASSERT_TRUE(pend(timed_out));
    EXPECT_TRUE(waitUntil([fd] { return isIdle(fd); }));
    EXPECT_FALSE(sockState(fd).in_list);
    EXPECT_EQ(60'000, sockState(fd).set_time);
    sendByte(pair.client);
    ASSERT_TRUE(pend(input));
    EXPECT_TRUE(waitUntil([fd] { return isIdle(fd); }));
    EXPECT_TRUE(sockState(fd).in_list);
    EXPECT_EQ(60'000, sockState(fd).set_time);
    handler->RemoveSock(pair.server);
}

TEST(NetSockTimeout, RegisteredAgainFromOutsideItComesToLife) {
    const CPublicPool pool;
    Plinth::CSemaphore timed_out;
    CScopedHandler handler;
    SSocketPair pair;
    const int fd = pair.server.GetHandle();
    handler->on_input_timeout = [&](int) {
        timed_out.post();
        return 0;
    };
    for (int i = 0; i < 2; ++i) {
        handler->RegisterSock(pair.server, EventMask::Read, 1000);
        ASSERT_TRUE(pend(timed_out));
        EXPECT_TRUE(waitUntil([fd] { return isIdle(fd); }));
    }
    handler->RemoveSock(pair.server);
}

namespace {
/// What stands of a time-out that is registered in a callback which returns 0: then, and afterwards.
struct SRegisteredInside {
    SRegisteredInside(int before_us, int inside_us) {
        const CPublicPool pool;
        Plinth::CSemaphore done;
        CScopedHandler handler;
        SSocketPair pair;
        const int fd = pair.server.GetHandle();
        handler->on_input = [&](int input_fd) {
            EXPECT_EQ(1, drain(input_fd));
            EXPECT_EQ(0, handler->RegisterSock(pair.server, EventMask::Read, inside_us));
            inside = sockState(fd);
            done.post();
            return 0;
        };
        handler->RegisterSock(pair.server, EventMask::Read, before_us);
        sendByte(pair.client);
        EXPECT_TRUE(pend(done));
        EXPECT_TRUE(waitUntil([fd] { return isIdle(fd); }));
        afterwards = sockState(fd);
        handler->RemoveSock(pair.server);
    }
    SSockState inside;
    SSockState afterwards;
};
}  // namespace

TEST(NetSockTimeout, RegisteredInsideANetworkCallbackThatReturnsZeroItTakesEffect) {
    const SRegisteredInside registered(0, 40'000'000);
    EXPECT_FALSE(registered.inside.in_list);
    EXPECT_TRUE(registered.afterwards.in_list);
    EXPECT_EQ(40'000, registered.afterwards.set_time);
}

TEST(NetSockTimeout, ANegativeOneRegisteredInsideACallbackThatReturnsZeroDropsIt) {
    const SRegisteredInside registered(60'000'000, -40'000'000);
    EXPECT_EQ(-40'000, registered.inside.set_time);
    EXPECT_FALSE(registered.afterwards.in_list);
    EXPECT_EQ(0, registered.afterwards.set_time);
}

TEST(NetSockTimeout, RegisteringWithoutOneDropsAnEarlierOne) {
    const CPublicPool pool;
    CScopedHandler handler;
    SSocketPair pair;
    const int fd = pair.server.GetHandle();
    handler->RegisterSock(pair.server, EventMask::Read, 60'000'000);
    EXPECT_TRUE(sockState(fd).in_list);
    handler->RegisterSock(pair.server, EventMask::Read, 0);
    EXPECT_FALSE(sockState(fd).in_list);
    handler->RegisterSock(pair.server, EventMask::Read, 60'000'000);
    handler->RegisterSock(pair.server, EventMask::Read, 30'000'000);
    EXPECT_EQ(30'000, sockState(fd).set_time);
    handler->RemoveSock(pair.server);
}

TEST(NetSockTimeout, ANegativeArgumentOrOneBelowAMillisecondCountsAsNone) {
    const CPublicPool pool;
    CScopedHandler handler;
    SSocketPair pair;
    for (const int timeout_us : {-1, -5'000'000, INT32_MIN, 0, 999}) {
        handler->RegisterSock(pair.server, EventMask::Read, timeout_us);
        EXPECT_FALSE(sockState(pair.server.GetHandle()).in_list) << timeout_us;
        handler->RemoveSock(pair.server);
    }
}

TEST(NetSockTimeout, WithNeitherReadNorWriteNobodyIsCalledAndTheSocketStaysUsable) {
    const CPublicPool pool;
    std::atomic<int> calls{0};
    Plinth::CSemaphore input;
    CScopedHandler handler;
    SSocketPair pair;
    const int fd = pair.server.GetHandle();
    handler->on_input_timeout = handler->on_output_timeout = [&](int) { return ++calls; };
    handler->on_input = [&](int input_fd) {
        EXPECT_EQ(1, drain(input_fd));
        input.post();
        return 0;
    };
    handler->RegisterSock(pair.server, EventMask::Except, 1000);
    EXPECT_TRUE(sockState(fd).in_list);
    EXPECT_TRUE(waitUntil([fd] { return !sockState(fd).in_list; }));
    EXPECT_TRUE(isIdle(fd));
    handler->RegisterSock(pair.server, EventMask::Read, 0);
    sendByte(pair.client);
    EXPECT_TRUE(pend(input));
    handler->RemoveSock(pair.server);
    EXPECT_FALSE(sockState(fd).registered && sockState(fd).mask != EventMask::Delete);
    handler.close();
    EXPECT_EQ(0, calls.load());
}

TEST(NetSockTimeout, RemovingTheSocketInsideItsTimeOutCallbackFreesIt) {
    const CPublicPool pool;
    Plinth::CSemaphore done;
    CScopedHandler handler;
    SSocketPair pair;
    const int fd = pair.server.GetHandle();
    handler->on_input_timeout = [&](int) {
        EXPECT_EQ(0, handler->RemoveSock(pair.server));
        EXPECT_EQ(unsigned{VL_POLLDEL}, sockState(fd).revents);
        done.post();
        return 0;
    };
    handler->RegisterSock(pair.server, EventMask::Read, 1000);
    EXPECT_TRUE(pend(done));
    EXPECT_TRUE(waitUntil([fd] { return !sockState(fd).registered; }));
}

TEST(NetSockTimeout, ALongDispatchIsNotTimedOut) {
    const CPublicPool pool(2);
    Plinth::CSemaphore entered;
    Plinth::CSemaphore go_on;
    std::atomic<int> timeouts{0};
    CScopedHandler handler;
    SSocketPair held;
    SSocketPair witness;
    handler->on_input = [&](int fd) {
        EXPECT_EQ(1, drain(fd));
        entered.post();
        EXPECT_TRUE(pend(go_on));
        return -1;
    };
    handler->on_input_timeout = [&](int fd) {
        if (fd == held.server.GetHandle()) ++timeouts;
        go_on.post();
        return 0;
    };
    handler->RegisterSock(held.server, EventMask::Read, 2'000'000);
    sendByte(held.client);
    ASSERT_TRUE(pend(entered));
    // When the witness's time comes, the held socket's would have come, too.
    handler->RegisterSock(witness.server, EventMask::Read, 2'600'000);
    EXPECT_TRUE(waitUntil([&] { return isIdle(held.server.GetHandle()); }));
    handler->RemoveSock(held.server);
    handler->RemoveSock(witness.server);
    handler.close();
    EXPECT_EQ(0, timeouts.load());
}

TEST(NetSockTimeout, OfADestroyedPoolNeverReachesItsSuccessor) {
    const CPublicPool pool;
    Plinth::CSemaphore later;
    std::atomic<int> calls{0};
    SSocketPair pairs[8];
    SSocketPair witness_pair;
    CScopedHandler witness;
    witness->on_input_timeout = [&](int) {
        later.post();
        return 0;
    };
    const auto count = [&calls](int) { return ++calls; };
    const int number = CNetThread::CreatePrivatePool(2, false);
    ASSERT_GT(number, 0);
    CScopedHandler former(number);
    const long former_id = former->GetID();
    for (SSocketPair& pair : pairs) former->RegisterSock(pair.server, EventMask::Read, 1000);
    former.close();
    EXPECT_EQ(0, CNetThread::DestroyPrivatePool(number));
    ASSERT_EQ(number, CNetThread::CreatePrivatePool(2, false));
    {
        CScopedHandler successor(number);
        EXPECT_EQ(former_id, successor->GetID());
        successor->on_input = successor->on_input_timeout = count;
        witness->RegisterSock(witness_pair.server, EventMask::Read, 600'000);
        for (SSocketPair& pair : pairs) sendByte(pair.client);
        EXPECT_TRUE(pend(later));
        witness->RemoveSock(witness_pair.server);
    }
    EXPECT_EQ(0, CNetThread::DestroyPrivatePool(number));
    EXPECT_EQ(0, calls.load());
}
