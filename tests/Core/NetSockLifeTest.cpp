// The life of a registration: removal and re-registration inside and outside a dispatch, descriptors that
// are closed, reused or duplicated behind the registry's back.
#include "Core/NetSock.h"

#include "Core/EventPool.h"
#include "Support/Descriptors.h"
#include "Support/SockRegistry.h"

using namespace Veltro::Ravelo;
using namespace Veltro::TestSupport;
namespace Plinth = Veltro::Plinth;

TEST(NetSockLife, RemoveSockOutsideADispatchForgetsAtOnce) {
    const CPublicPool pool;
    std::atomic<int> inputs{0};
    CScopedHandler handler;
    SSocketPair pair;
    handler->on_input = [&](int) { return ++inputs; };
    const std::ptrdiff_t records = CEventPool::inUse();
    EXPECT_EQ(0, handler->RegisterSock(pair.server, EventMask::Read, 1'000'000));
    EXPECT_EQ(0, handler->RemoveSock(pair.server));
    EXPECT_FALSE(sockState(pair.server.GetHandle()).registered);
    EXPECT_LE(CEventPool::inUse(), records + 1);  // a heartbeat may be under way
    sendText(pair.client, pair.server, "x");
    handler.close();
    EXPECT_EQ(0, inputs.load());
}

TEST(NetSockLife, RemoveSockInsideHandleInputReturnsAtOnceAndNoOutputFollows) {
    const CPublicPool pool;
    Plinth::CSemaphore done;
    std::atomic<int> outputs{0};
    CScopedHandler handler;
    SSocketPair pair;
    const int fd = pair.server.GetHandle();
    handler->on_input = [&](int) {
        EXPECT_EQ(0, handler->RemoveSock(pair.server));
        EXPECT_EQ(0, sockCount(handler.get()));
        EXPECT_EQ(unsigned{VL_POLLDEL}, sockState(fd).revents);
        EXPECT_EQ(unsigned{EventMask::Delete}, sockState(fd).mask);
        EXPECT_EQ(0, handler->RemoveSock(pair.server));
        EXPECT_EQ(0, sockCount(handler.get()));
        done.post();
        return 0;
    };
    handler->on_output = [&](int) { return ++outputs; };
    sendText(pair.client, pair.server, "x");
    handler->RegisterSock(pair.server, EventMask::Read | EventMask::Write, 0);
    ASSERT_TRUE(pend(done));
    EXPECT_TRUE(waitUntil([fd] { return !sockState(fd).registered; }));
    handler.close();
    EXPECT_EQ(0, outputs.load());
}

TEST(NetSockLife, ASocketClosedInsideItsCallbackFreesItsNumberForTheNext) {
    const CPublicPool pool;
    for (int i = 0; i < 20; ++i) {
        Plinth::CSemaphore done;
        SSocketPair pair;
        CScopedHandler handler;
        handler->on_input = [&](int fd) {
            EXPECT_EQ(pair.server.GetHandle(), fd);
            EXPECT_EQ(1, drain(fd));
            handler->RemoveSock(pair.server);
            pair.server.Close();
            done.post();
            return 0;
        };
        sendText(pair.client, pair.server, "x");
        EXPECT_EQ(0, handler->RegisterSock(pair.server, EventMask::Read, 0));
        ASSERT_TRUE(pend(done));
        EXPECT_EQ(0, sockCount(handler.get()));
    }
}

TEST(NetSockLife, ACondemnedSocketIsTakenBackByRegisteringItAgain) {
    const CPublicPool pool;
    Plinth::CSemaphore done;
    std::atomic<int> outputs{0};
    CScopedHandler handler;
    SSocketPair pair;
    const int fd = pair.server.GetHandle();
    handler->on_input = [&](int input_fd) {
        EXPECT_EQ(1, drain(input_fd));
        EXPECT_EQ(0, handler->RemoveSock(pair.server));
        EXPECT_EQ(0, handler->RegisterSock(pair.server, EventMask::Read, 60'000'000));
        EXPECT_EQ(unsigned{EventMask::Read}, sockState(fd).mask);
        EXPECT_EQ(1, sockCount(handler.get()));
        done.post();
        return -1;  // without effect: the registration is newer
    };
    handler->on_output = [&](int) { return ++outputs; };
    sendText(pair.client, pair.server, "x");
    handler->RegisterSock(pair.server, EventMask::Read | EventMask::Write, 0);
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(pend(done));
        ASSERT_TRUE(waitUntil([fd] { return isIdle(fd); }));
        EXPECT_TRUE(sockState(fd).in_list);
        EXPECT_EQ(60'000, sockState(fd).set_time);
        if (i < 2) sendByte(pair.client);
    }
    EXPECT_EQ(0, outputs.load());
    handler->RemoveSock(pair.server);
}

TEST(NetSockLife, AnotherThreadMayRemoveASocketInFlight) {
    const CPublicPool pool(2);
    Plinth::CSemaphore entered;
    Plinth::CSemaphore go_on;
    std::atomic<int> outputs{0};
    CScopedHandler handler;
    SSocketPair pair;
    const int fd = pair.server.GetHandle();
    handler->on_input = [&](int) {
        entered.post();
        EXPECT_TRUE(pend(go_on));
        return 0;
    };
    handler->on_output = [&](int) { return ++outputs; };
    sendText(pair.client, pair.server, "x");
    handler->RegisterSock(pair.server, EventMask::Read | EventMask::Write, 0);
    ASSERT_TRUE(pend(entered));
    EXPECT_EQ(0, handler->RemoveSock(pair.server));
    EXPECT_EQ(0, sockCount(handler.get()));
    pair.server.Close();
    go_on.post();
    EXPECT_TRUE(waitUntil([fd] { return !sockState(fd).registered; }));
    handler.close();
    EXPECT_EQ(0, outputs.load());
}

TEST(NetSockLife, ADescriptorReusedInsideACallbackBelongsToTheNewConnection) {
    const CPublicPool pool(2);
    Plinth::CSemaphore served;
    CScopedHandler first;
    CScopedHandler second;
    SSocketPair old_pair;
    SSocketPair new_pair;
    const int fd = old_pair.server.GetHandle();
    CSockStream reused;
    first->on_input = [&](int) {
        EXPECT_EQ(0, first->RemoveSock(old_pair.server));
        old_pair.server.Close();
        moveTo(new_pair.server, fd, reused);
        EXPECT_EQ(0, second->RegisterSock(reused, EventMask::Read, 0));
        return 0;
    };
    second->on_input = [&](int input_fd) {
        EXPECT_EQ(reused.GetHandle(), input_fd);
        EXPECT_EQ(1, drain(input_fd));
        served.post();
        return 0;
    };
    sendText(old_pair.client, old_pair.server, "x");
    first->RegisterSock(old_pair.server, EventMask::Read, 0);
    for (int i = 0; i < 3; ++i) {
        sendByte(new_pair.client);
        ASSERT_TRUE(pend(served));
    }
    EXPECT_EQ(0, sockCount(first.get()));
    EXPECT_EQ(1, sockCount(second.get()));
    second->RemoveSock(reused);
}

TEST(NetSockLife, ADescriptorReusedWithoutRemovalServesItsNewOwner) {
    const CPublicPool pool(2);
    Plinth::CSemaphore served;
    std::atomic<int> first_inputs{0};
    CScopedHandler first;
    CScopedHandler second;
    SSocketPair old_pair;
    SSocketPair new_pair;
    const int fd = old_pair.server.GetHandle();
    CSockStream reused;
    first->on_input = [&](int) { return ++first_inputs; };
    second->on_input = [&](int input_fd) {
        EXPECT_EQ(1, drain(input_fd));
        served.post();
        return 0;
    };
    first->RegisterSock(old_pair.server, EventMask::Read, 0);
    old_pair.server.Close();
    moveTo(new_pair.server, fd, reused);
    EXPECT_EQ(0, second->RegisterSock(reused, EventMask::Read, 0));
    for (int i = 0; i < 3; ++i) {
        sendByte(new_pair.client);
        ASSERT_TRUE(pend(served));
    }
    EXPECT_EQ(0, first_inputs.load());
    second->RemoveSock(reused);
}

TEST(NetSockLife, ADescriptorClosedWithoutRemovalHarmsNobody) {
    const CPublicPool pool;
    Plinth::CSemaphore served;
    CScopedHandler careless;
    CScopedHandler handler;
    SSocketPair gone;
    SSocketPair alive;
    const int fd = gone.server.GetHandle();
    CLogCapture log;
    careless->RegisterSock(gone.server, EventMask::Read, 0);
    handler->on_input = [&](int input_fd) {
        EXPECT_EQ(1, drain(input_fd));
        served.post();
        return 0;
    };
    handler->RegisterSock(alive.server, EventMask::Read, 0);
    gone.server.Close();
    for (int i = 0; i < 10; ++i) {
        sendByte(alive.client);
        ASSERT_TRUE(pend(served));
    }
    // It costs one line at most, where the system complains about the descriptor at all.
    EXPECT_LE(log.count(Plinth::LOG_LEVEL_ERROR, "select failed!"), isWindows() ? 1 : 0);
    handler->RemoveSock(alive.server);
    CSockStream same_number;
    same_number.Attach(fd);
    EXPECT_EQ(0, careless->RemoveSock(same_number));
    same_number.Detach();
}

TEST(NetSockLife, ADuplicateOfAClosedDescriptorDoesNotKeepThePoolBusy) {
    if (isWindows()) return printSkip("descriptors cannot be duplicated by number here");
    const CPublicPool pool;
    Plinth::CSemaphore served;
    std::atomic<int> careless_inputs{0};
    CScopedHandler careless;
    CScopedHandler handler;
    SSocketPair gone;
    SSocketPair alive;
    careless->on_input = [&](int) { return ++careless_inputs; };
    handler->on_input = [&](int input_fd) {
        EXPECT_EQ(1, drain(input_fd));
        served.post();
        return 0;
    };
    handler->RegisterSock(alive.server, EventMask::Read, 0);
    careless->RegisterSock(gone.server, EventMask::Read, 0);
    const int fd = gone.server.GetHandle();
    const int duplicate = duplicateDescriptor(fd);
    gone.server.Close();
    CSockStream same_number;
    same_number.Attach(fd);
    careless->RemoveSock(same_number);  // too late for the system to take it out
    same_number.Detach();
    sendByte(gone.client);
    for (int i = 0; i < 10; ++i) {
        sendByte(alive.client);
        ASSERT_TRUE(pend(served));
    }
    // An idle pool uses no processor time; a spinning one would use all there is.
    const std::int64_t before_us = processorTimeUs();
    Plinth::sleepMilliSecond(300);
    EXPECT_LT(processorTimeUs() - before_us, 100'000);
    EXPECT_EQ(0, careless_inputs.load());
    sendByte(alive.client);
    EXPECT_TRUE(pend(served));
    handler->RemoveSock(alive.server);
    SocketApi::close(duplicate);
}

TEST(NetSockLife, OneSocketIsNeverServedByTwoWorkersAtOnce) {
    const CPublicPool pool(4);
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    std::atomic<int> received{0};
    CScopedHandler handler;
    SSocketPair pair;
    handler->on_input = [&](int fd) {
        if (inside.fetch_add(1) != 0) ++overlaps;
        char byte;
        if (SocketApi::recv(fd, &byte, 1) == 1) ++received;
        Plinth::yieldThread();
        inside.fetch_sub(1);
        return 0;
    };
    handler->RegisterSock(pair.server, EventMask::Read, 0);
    for (int i = 0; i < 2000; ++i) sendByte(pair.client);
    EXPECT_TRUE(waitUntil([&] { return received.load() == 2000; }));
    EXPECT_EQ(0, overlaps.load());
    handler->RemoveSock(pair.server);
}

TEST(NetSockLife, ABusySocketDoesNotStarveTheOthers) {
    const CPublicPool pool(2);
    Plinth::CSemaphore served;
    Plinth::CSemaphore go_on;
    Plinth::CSemaphore entered;
    CScopedHandler busy;
    CScopedHandler handler;
    SSocketPair busy_pair;
    SSocketPair pair;
    busy->on_input = [&](int fd) {
        entered.post();
        EXPECT_TRUE(pend(go_on));
        EXPECT_LT(0, drain(fd));
        return 0;
    };
    handler->on_input = [&](int fd) {
        EXPECT_EQ(1, drain(fd));
        served.post();
        return 0;
    };
    busy->RegisterSock(busy_pair.server, EventMask::Read, 0);
    handler->RegisterSock(pair.server, EventMask::Read, 0);
    sendByte(busy_pair.client);
    ASSERT_TRUE(pend(entered));
    for (int i = 0; i < 20; ++i) {
        sendByte(pair.client);
        ASSERT_TRUE(pend(served));
    }
    go_on.post();
    busy->RemoveSock(busy_pair.server);
    busy.close();
    handler->RemoveSock(pair.server);
}

TEST(NetSockLife, TheRecordOfDescriptorZeroGoesWithItsPool) PLINTH_NO_THREAD_SAFETY_ANALYSIS {
    const CPublicPool pool;
    CSockStream zero;
    zero.Attach(0);
    const int number = CNetThread::CreatePrivatePool(2, false);
    ASSERT_GT(number, 0);
    {
        CScopedHandler handler(number);
        EXPECT_EQ(0, handler->RegisterSock(zero, EventMask::None, 60'000'000));
    }
    SEvent* record = nullptr;
    {
        const CPoolPin pin(number);
        record = pin->sockets().findSock(0);
        ASSERT_NE(nullptr, record);
        record->mutex.unlock();
    }
    EXPECT_EQ(0, CNetThread::DestroyPrivatePool(number));
    {
        // Its memory stays a record; its time-out must not wait for the next pool of this number.
        Plinth::CLockGuard guard(record->mutex);
        EXPECT_FALSE(record->timer.linked);
    }
    zero.Detach();
}

TEST(NetSockLife, TheInternalMarkOfRemovalCannotBeSetOrClearedFromOutside) {
    const CPublicPool pool;
    Plinth::CSemaphore served;
    CScopedHandler handler;
    SSocketPair pair;
    const int fd = pair.server.GetHandle();
    bool remove = false;
    handler->on_input = [&](int input_fd) {
        EXPECT_EQ(1, drain(input_fd));
        if (remove) {
            handler->RemoveSock(pair.server);
            EXPECT_EQ(0, handler->UnregisterSock(pair.server, EventMask::Delete));
        }
        served.post();
        return 0;
    };
    EXPECT_EQ(0, handler->RegisterSock(pair.server, EventMask::Read | EventMask::Delete, 0));
    EXPECT_EQ(unsigned{EventMask::Read}, sockState(fd).mask);
    EXPECT_EQ(0, handler->RegisterSock(pair.server, EventMask::Delete, 0));
    for (int i = 0; i < 3; ++i) {
        sendByte(pair.client);
        ASSERT_TRUE(pend(served));
    }
    EXPECT_TRUE(waitUntil([fd] { return isIdle(fd); }));
    EXPECT_EQ(1, sockCount(handler.get()));
    remove = true;
    sendByte(pair.client);
    ASSERT_TRUE(pend(served));
    EXPECT_TRUE(waitUntil([fd] { return !sockState(fd).registered; }));
    EXPECT_EQ(0, sockCount(handler.get()));
}
