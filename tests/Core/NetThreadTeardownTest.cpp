// The end of pools: from their own workers, under load, and beside callbacks that call CNetThread.
#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "Core/EventPool.h"
#include "Core/NetTimer.h"
#include "Core/PoolTable.h"
#include "Core/StreamPair.h"
#include "Core/ThreadPool.h"
#include "Support/Gate.h"
#include "Support/LogCapture.h"
#include "Support/Reactor.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CGate;
using TestSupport::CLogCapture;
using TestSupport::closeAndWait;
using TestSupport::CPublicPool;
using TestSupport::CRunner;
using TestSupport::CTestHandler;
using TestSupport::SStreamPair;
using TestSupport::waitUntil;

constexpr int ERROR_LEVEL = Plinth::LOG_LEVEL_ERROR;
constexpr int TRACE_LEVEL = Plinth::LOG_LEVEL_TRACE;

/// Runs a body on a worker of a pool and waits for it.
void onWorker(int pool, const std::function<void()>& body) {
    auto* handler = new CTestHandler(pool);
    CGate done;
    handler->on_message = [&](long, unsigned, long) {
        body();
        done.open();
        return 0;
    };
    handler->Notify(handler->GetID(), 1, 0);
    EXPECT_TRUE(done.pass());
    closeAndWait(handler);
}

TEST(NetThreadTeardown, APrivatePoolCannotBeDestroyedByItsOwnWorker) {
    const CPublicPool pool;
    const int number = CNetThread::CreatePrivatePool(1, false);
    CLogCapture log;
    onWorker(number, [number] { EXPECT_EQ(CNetThread::DestroyPrivatePool(number), -1); });
    EXPECT_EQ(log.count(ERROR_LEVEL, "refused: thread pool 1 can't be destroyed by one of its own threads\n"),
              1);
    EXPECT_EQ(log.count(TRACE_LEVEL, "Destroy Ravelo privatepool! ret:-1\n"), 1);
    onWorker(number, [] {});
    EXPECT_EQ(CNetThread::DestroyPrivatePool(number), 0);
}

TEST(NetThreadTeardown, ThePublicPoolCannotBeDestroyedByItsOwnWorker) {
    CLogCapture log;
    {
        const CPublicPool pool;
        onWorker(0, [] { EXPECT_EQ(CNetThread::DestroyThreadPool(), -1); });
        EXPECT_EQ(
            log.count(ERROR_LEVEL, "refused: thread pool 0 can't be destroyed by one of its own threads\n"),
            1);
        EXPECT_EQ(log.count(TRACE_LEVEL, "Destroy Ravelo thread pool! ret:-1\n"), 1);
        onWorker(0, [] {});
    }
    EXPECT_FALSE(CPoolPin(0));
}

TEST(NetThreadTeardown, AWorkerMayReleaseAPublicReferenceThatIsNotTheLast) {
    const CPublicPool pool;
    ASSERT_EQ(CNetThread::CreateThreadPool(1, false), 0);
    onWorker(0, [] { EXPECT_EQ(CNetThread::DestroyThreadPool(), 0); });
    EXPECT_TRUE(CPoolPin(0));
}

TEST(NetThreadTeardown, TheLastPrivatePoolOfAnUnusedLibraryCannotBeDestroyedByAPublicWorker) {
    ASSERT_EQ(CNetThread::CreatePrivatePool(1, false), 1);
    CLogCapture log;
    onWorker(0, [] { EXPECT_EQ(CNetThread::DestroyPrivatePool(1), -1); });
    EXPECT_EQ(log.count(ERROR_LEVEL, "refused: thread pool 0 can't be destroyed by one of its own threads\n"),
              1);
    EXPECT_TRUE(CPoolPin(1));
    EXPECT_EQ(CNetThread::DestroyPrivatePool(1), 0);
    EXPECT_FALSE(CPoolPin(0));
}

TEST(NetThreadTeardown, AWorkerMayCreateAndDestroyOtherPools) {
    const CPublicPool pool;
    onWorker(0, [] {
        const int number = CNetThread::CreatePrivatePool(1, false);
        EXPECT_EQ(number, 1);
        EXPECT_EQ(CNetThread::DestroyPrivatePool(number), 0);
    });
}

TEST(NetThreadTeardown, WaitsForACallbackInProgress) {
    const CPublicPool pool;
    const int number = CNetThread::CreatePrivatePool(1, false);
    auto* handler = new CTestHandler(number);
    CGate entered;
    std::atomic<bool> returned{false};
    handler->on_message = [&](long, unsigned, long) {
        entered.open();
        // The pool has left the table, and its destroyer waits.
        EXPECT_TRUE(waitUntil([number] { return CPoolTable::peek(number) == nullptr; }));
        returned.store(true);
        return 0;
    };
    handler->Notify(handler->GetID(), 1, 0);
    ASSERT_TRUE(entered.pass());
    EXPECT_EQ(CNetThread::DestroyPrivatePool(number), 0);
    EXPECT_TRUE(returned.load());
    handler->Close();
    delete handler;
}

// Every function that takes the creation mutex, called by a worker whose pool another thread is destroying.
TEST(NetThreadTeardown, ACallbackThatCallsTheFacadeMeanwhileIsRefusedAndDoesNotBlock) {
    const CPublicPool pool;
    const int number = CNetThread::CreatePrivatePool(1, false);
    auto* handler = new CTestHandler(number);
    CGate entered;
    CLogCapture log;
    handler->on_message = [&](long, unsigned, long) {
        entered.open();
        EXPECT_TRUE(waitUntil([number] { return CPoolTable::peek(number) == nullptr; }));
        EXPECT_EQ(CNetThread::CreateThreadPool(1, false), -1);
        EXPECT_EQ(CNetThread::CreatePrivatePool(1, false), -1);
        EXPECT_EQ(CNetThread::DestroyThreadPool(), -1);
        EXPECT_EQ(CNetThread::DestroyPrivatePool(number), -1);
        EXPECT_EQ(CNetThread::SetThreadPriority(64, 0, 0), -1);
        EXPECT_EQ(CNetThread::SetRecvThreadPriority(64, 0, 0), -1);
        EXPECT_EQ(CNetThread::SetSocketCapacity(4096), -1);
        CNetThread::SetRcvPriority(1);
        EXPECT_EQ(CNetThread::TraversalSock(), 0);
        CNetThread::DumpSockEvent(0);
        CNetThread::DumpNethandlerEvent(0);
        return 0;
    };
    handler->Notify(handler->GetID(), 1, 0);
    ASSERT_TRUE(entered.pass());
    EXPECT_EQ(CNetThread::DestroyPrivatePool(number), 0);
    EXPECT_EQ(log.count(ERROR_LEVEL, ", refused: the calling thread's own pool is being destroyed\n"), 7);
    handler->Close();
    delete handler;
}

TEST(NetThreadTeardown, ACallbackThatServesItsOwnPoolMeanwhileDoesNotBlock) {
    const CPublicPool pool;
    const int number = CNetThread::CreatePrivatePool(1, false);
    SStreamPair pair;
    auto* handler = new CTestHandler(number);
    CGate entered;
    std::atomic<int> closed{0};
    handler->closed = &closed;
    handler->on_message = [&](long, unsigned, long) {
        entered.open();
        EXPECT_TRUE(waitUntil([number] { return CPoolTable::peek(number) == nullptr; }));
        for (int i = 0; i < 100; ++i) {
            handler->Notify(handler->GetID(), 2, i);
            handler->NotifySerial(handler->GetID(), 2, i, 0);
            handler->NotifyIO(handler->GetID(), 2, i);
        }
        handler->SetTimer(3'000);
        handler->RegisterSock(pair.near_end, EventMask::Read, 1'000);
        handler->RemoveSock(pair.near_end);
        handler->Close();
        return 0;
    };
    handler->Notify(handler->GetID(), 1, 0);
    ASSERT_TRUE(entered.pass());
    EXPECT_EQ(CNetThread::DestroyPrivatePool(number), 0);
    EXPECT_EQ(CNetTimer::armed(), 0U);
    // Another worker may have served the close message before it ended.
    if (closed.load() == 0) delete handler;
}

TEST(NetThreadTeardown, TwoPoolsWhoseWorkersDestroyEachOtherDoNotBlock) {
    const CPublicPool pool;
    ASSERT_EQ(CNetThread::CreatePrivatePool(1, false), 1);
    ASSERT_EQ(CNetThread::CreatePrivatePool(1, false), 2);
    CLogCapture quiet;
    std::array<CTestHandler*, 2> handlers{new CTestHandler(1), new CTestHandler(2)};
    std::atomic<int> entered{0};
    std::atomic<int> returned{0};
    std::atomic<int> destroyed{0};
    for (int i = 0; i < 2; ++i) {
        handlers[static_cast<std::size_t>(i)]->on_message = [&, i](long, unsigned, long) {
            entered.fetch_add(1);
            EXPECT_TRUE(waitUntil([&entered] { return entered.load() == 2; }));
            if (CNetThread::DestroyPrivatePool(2 - i) == 0) destroyed.fetch_add(1);
            returned.fetch_add(1);
            return 0;
        };
    }
    for (auto* handler : handlers) handler->Notify(handler->GetID(), 1, 0);
    EXPECT_TRUE(waitUntil([&returned] { return returned.load() == 2; }));
    EXPECT_EQ(destroyed.load(), 1);
    const int left = CPoolPin(1) ? 1 : 2;
    EXPECT_EQ(CNetThread::DestroyPrivatePool(left), 0);
    for (auto* handler : handlers) {
        handler->Close();
        delete handler;
    }
}

TEST(NetThreadTeardown, QueuedMessagesGoWithThePool) {
    const CPublicPool pool;
    const int number = CNetThread::CreatePrivatePool(1, false);
    auto* handler = new CTestHandler(number);
    CGate entered;
    std::atomic<int> delivered{0};
    handler->on_message = [&](long, unsigned type, long) {
        if (type == 1) {
            entered.open();
            EXPECT_TRUE(waitUntil([number] { return CPoolTable::peek(number) == nullptr; }));
        }
        delivered.fetch_add(1);
        return 0;
    };
    const auto in_use = CEventPool::inUse();
    const int workers = static_cast<int>(CPoolTable::peek(number)->threadCount());
    for (int i = 0; i < workers; ++i) handler->Notify(handler->GetID(), 1, 0);
    ASSERT_TRUE(entered.pass());
    for (int i = 0; i < 1'000; ++i) {
        handler->Notify(handler->GetID(), 2, i);
        handler->NotifySerial(handler->GetID(), 2, i, 0);
        handler->NotifyIO(handler->GetID(), 2, i);
    }
    EXPECT_EQ(CNetThread::DestroyPrivatePool(number), 0);
    EXPECT_LE(CEventPool::inUse(), in_use);
    handler->Close();
    delete handler;
}

TEST(NetThreadTeardown, NothingIsLeftInUseAfterTheLastPool) {
    {
        const CPublicPool pool;
        SStreamPair pair;
        CLogCapture quiet;
        auto* handler = new CTestHandler;
        ASSERT_EQ(handler->RegisterSock(pair.near_end, EventMask::Read, 50'000'000), 0);
        EXPECT_LT(handler->SetTimer(86'400'000'000), 0);
        handler->NotifyIO(handler->GetID(), 1, 0);
        closeAndWait(handler);
    }
    EXPECT_EQ(CEventPool::inUse(), 0);
    EXPECT_EQ(CNetTimer::armed(), 0U);
}

TEST(NetThreadTeardown, ThreadsThatPostMeanwhileLoseOnlyTheirMessages) {
    const CPublicPool pool;
    std::atomic<bool> done{false};
    std::atomic<long> receiver{0};
    {
        auto post = [&](int kind) {
            auto* sender = new CTestHandler;
            while (!done.load()) {
                const long id = receiver.load();
                if (id == 0) continue;
                if (kind == 0) sender->Notify(id, 1, 0);
                if (kind == 1) sender->NotifySerial(id, 1, 0, 0);
                if (kind == 2) sender->NotifyIO(id, 1, 0);
            }
            closeAndWait(sender);
        };
        CRunner ordinary([&] { post(0); });
        CRunner serial([&] { post(1); });
        CRunner io([&] { post(2); });
        for (int round = 0; round < 30; ++round) {
            const int number = CNetThread::CreatePrivatePool(1, false);
            // Each round has an id of its own: a late post must not meet a handler under construction.
            for (int i = 0; i < round; ++i) CPoolTable::peek(number)->ids().GetId();
            auto* handler = new CTestHandler(number);
            std::atomic<int> delivered{0};
            handler->on_message = [&delivered](long, unsigned, long) { return delivered.fetch_add(1); };
            receiver.store(handler->GetID());
            EXPECT_TRUE(waitUntil([&delivered] { return delivered.load() > 10; }));
            ASSERT_EQ(CNetThread::DestroyPrivatePool(number), 0);
            const int at_the_end = delivered.load();
            handler->Close();
            EXPECT_EQ(delivered.load(), at_the_end);
            delete handler;
        }
        done.store(true);
    }
}

TEST(NetThreadTeardown, NoRecordLeaksWhenThreadsPostMeanwhile) {
    ASSERT_EQ(CNetThread::CreateThreadPool(1, false), 0);
    auto* handler = new CTestHandler;
    const long id = handler->GetID();
    std::atomic<bool> done{false};
    std::atomic<int> posted{0};
    {
        CRunner poster([&] {
            while (!done.load()) {
                handler->Notify(id, 1, 0);
                handler->NotifySerial(id, 1, 0, 0);
                posted.fetch_add(1);
            }
        });
        EXPECT_TRUE(waitUntil([&posted] { return posted.load() > 100; }));
        EXPECT_EQ(CNetThread::DestroyThreadPool(), 0);
        const int so_far = posted.load();
        EXPECT_TRUE(waitUntil([&] { return posted.load() > so_far + 100; }));
        done.store(true);
    }
    EXPECT_EQ(CEventPool::inUse(), 0);
    CEventPool::destroy();
    handler->Close();
    delete handler;
}

// The workers of a pool that goes down with the library may still use their sockets and wait for them.
TEST(NetThreadTeardown, TheSocketLayerStaysUpUntilTheLastWorkerHasGone) {
    ASSERT_EQ(CNetThread::CreateThreadPool(1, false), 0);
    CLogCapture log(Plinth::LOG_LEVEL_WARNING);
    auto* handler = new CTestHandler;
    CGate entered;
    handler->on_message = [&entered](long, unsigned, long) {
        entered.open();
        EXPECT_TRUE(waitUntil([] { return CPoolTable::peek(0) == nullptr; }));
        SStreamPair pair;
        EXPECT_EQ(pair.near_end.Send("x", 1), 1);
        return 0;
    };
    handler->Notify(handler->GetID(), 1, 0);
    ASSERT_TRUE(entered.pass());
    EXPECT_EQ(CNetThread::DestroyThreadPool(), 0);
    EXPECT_EQ(log.count(ERROR_LEVEL, "select failed"), 0);
    handler->Close();
    delete handler;
}

}  // namespace
}  // namespace Veltro::Ravelo
