#include <Ravelo/NetHandler.h>
#include <gtest/gtest.h>

#include "Core/NetHandlerRecord.h"
#include "Core/PoolTable.h"
#include "Core/StreamPair.h"
#include "Support/Gate.h"
#include "Support/LogCapture.h"
#include "Support/Reactor.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CGate;
using TestSupport::CLogCapture;
using TestSupport::closeAndWait;
using TestSupport::CPublicPool;
using TestSupport::CTestHandler;
using TestSupport::SStreamPair;
using TestSupport::waitUntil;

std::uint16_t magicOf(const CNetHandler& handler) {
    SNetHandlerRecord& record = SNetHandlerRecord::of(handler);
    Plinth::CLockGuard guard(record.mutex);
    return record.__m_magic;
}

std::int64_t referencesOf(const CNetHandler& handler) {
    return SNetHandlerRecord::of(handler).references.count();
}

/// A handler that keeps every default of the base class.
class CPlainHandler : public CNetHandler {
public:
    int handle_close(CNetHandler*) override {
        delete this;
        return 0;
    }
    int baseClose() { return CNetHandler::handle_close(this); }
};

TEST(NetHandler, EveryDefaultCallbackReturnsMinusOne) {
    const CPublicPool pool;
    auto* handler = new CPlainHandler;
    EXPECT_EQ(handler->handle_input(3), -1);
    EXPECT_EQ(handler->handle_output(3), -1);
    EXPECT_EQ(handler->handle_exception(3), -1);
    EXPECT_EQ(handler->handle_input_timeout(3), -1);
    EXPECT_EQ(handler->handle_output_timeout(3), -1);
    EXPECT_EQ(handler->handle_exception_timeout(3), -1);
    EXPECT_EQ(handler->handle_timeout(-200), -1);
    EXPECT_EQ(handler->handle_message(-200, 1, 2), -1);
    EXPECT_EQ(handler->baseClose(), -1);
    handler->Close();
}

TEST(NetHandler, IsOpenWithOneReferenceOfTheTableAfterConstruction) {
    const CPublicPool pool;
    auto* handler = new CTestHandler;
    const SNetHandlerRecord& record = SNetHandlerRecord::of(*handler);
    EXPECT_EQ(magicOf(*handler), MAGIC_OPEN);
    EXPECT_EQ(referencesOf(*handler), 1);
    EXPECT_EQ(record.sockets.load(), 0);
    EXPECT_EQ(record.default_receiver.load(), 0);
    EXPECT_EQ(record.entry.handler, handler);
    closeAndWait(handler);
}

TEST(NetHandler, FirstIdsOfThePublicPoolFollowTheScheme) {
    const CPublicPool pool;
    auto* first = new CTestHandler;
    auto* second = new CTestHandler;
    EXPECT_EQ(first->GetID(), -102400);
    EXPECT_EQ(second->GetID(), -103424);
    closeAndWait(first);
    closeAndWait(second);
}

TEST(NetHandler, IdsCarryTheNumberOfTheirPoolInBits4To9) {
    const CPublicPool pool;
    for (int number = 1; number <= 3; ++number) ASSERT_EQ(CNetThread::CreatePrivatePool(1, false), number);
    auto* of_pool_0 = new CTestHandler(0);
    auto* of_pool_3 = new CTestHandler(3);
    EXPECT_EQ((of_pool_0->GetID() >> 4) & 63, 0);
    EXPECT_EQ((of_pool_3->GetID() >> 4) & 63, 3);
    EXPECT_LT(of_pool_3->GetID(), 0);
    closeAndWait(of_pool_0);
    closeAndWait(of_pool_3);
    for (int number = 1; number <= 3; ++number) ASSERT_EQ(CNetThread::DestroyPrivatePool(number), 0);
}

TEST(NetHandlerDeathTest, ConstructionForAMissingPoolLogsAndFailsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const CPublicPool pool;
    EXPECT_DEATH(new CTestHandler(5), "Can't find the thread pool 5, create thread pool first!");
    EXPECT_DEATH(new CTestHandler(5), "Assertion failed: 0");
}

TEST(NetHandlerDeathTest, ConstructionOutsideThePoolNumbersFailsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const CPublicPool pool;
    EXPECT_DEATH(new CTestHandler(64), "Can't find the thread pool 64, create thread pool first!");
    EXPECT_DEATH(new CTestHandler(-1), "Can't find the thread pool -1, create thread pool first!");
}

TEST(NetHandlerDeathTest, ConstructionBeforeAnyPoolFailsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(new CTestHandler, "Can't find the thread pool 0, create thread pool first!");
}

TEST(NetHandlerDeathTest, DestructionWithoutCloseFailsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            CNetThread::CreateThreadPool(1, false);
            delete new CTestHandler;
        },
        "__m_magic == 0x0202");
}

TEST(NetHandler, DestructionWithSocketsLeftLogsALine) {
    const CPublicPool pool;
    SStreamPair pair;
    auto* handler = new CTestHandler;
    CLogCapture log;
    ASSERT_EQ(handler->RegisterSock(pair.near_end, EventMask::Read, 0), 0);
    char expected[160];
    std::snprintf(expected, sizeof expected,
                  "some sockets registered on obj %p has not been removed, please remove it before close the "
                  "obj!\n",
                  static_cast<const void*>(static_cast<CNetHandler*>(handler)));
    closeAndWait(handler);
    EXPECT_EQ(log.count(Plinth::LOG_LEVEL_ERROR, expected), 1);
    // The socket stays registered; closing it now would race with its dispatches.
    auto* heir = new CTestHandler;
    EXPECT_EQ(heir->RemoveSock(pair.near_end), 0);
    closeAndWait(heir);
}

TEST(NetHandler, CloseMakesTheMagicClosedAndASecondCloseIsHarmless) {
    const CPublicPool pool;
    auto* handler = new CTestHandler;
    std::atomic<int> closed{0};
    handler->closed = &closed;
    handler->AddRef();
    handler->Close();
    EXPECT_EQ(magicOf(*handler), MAGIC_CLOSED);
    EXPECT_TRUE(waitUntil([&] { return referencesOf(*handler) == 1; }));
    handler->Close();
    EXPECT_EQ(referencesOf(*handler), 1);
    EXPECT_EQ(closed.load(), 0);
    handler->DecRef();
    EXPECT_EQ(closed.load(), 1);
}

TEST(NetHandler, RegisterSockAndSetTimerFailAfterClose) {
    const CPublicPool pool;
    SStreamPair pair;
    auto* handler = new CTestHandler;
    handler->AddRef();
    handler->Close();
    EXPECT_EQ(handler->RegisterSock(pair.near_end, EventMask::Read, 0), -1);
    EXPECT_EQ(handler->SetTimer(5'000), -1);
    EXPECT_EQ(SNetHandlerRecord::of(*handler).sockets.load(), 0);
    EXPECT_TRUE(waitUntil([&] { return referencesOf(*handler) == 1; }));
    handler->DecRef();
}

TEST(NetHandler, LastDecRefCallsHandleCloseOnTheThreadThatDropsIt) {
    const CPublicPool pool;
    auto* handler = new CTestHandler;
    unsigned long closer = 0;
    handler->on_close = [&closer] { closer = Plinth::getCurrentThreadId(); };
    handler->AddRef();
    handler->Close();
    EXPECT_TRUE(waitUntil([&] { return referencesOf(*handler) == 1; }));
    handler->DecRef();
    EXPECT_EQ(closer, Plinth::getCurrentThreadId());
}

/// Counts its handle_close() calls and deletes nothing.
class CCountingHandler : public CNetHandler {
public:
    int handle_close(CNetHandler* self) override {
        EXPECT_EQ(self, this);
        closes.fetch_add(1);
        return -1;
    }
    std::atomic<int> closes{0};
};

TEST(NetHandler, DecRefReachingZeroTwiceCallsHandleCloseOnce) {
    const CPublicPool pool;
    CCountingHandler handler;
    handler.Close();
    EXPECT_TRUE(waitUntil([&] { return handler.closes.load() == 1 && referencesOf(handler) == 0; }));
    handler.AddRef();
    handler.DecRef();
    EXPECT_EQ(handler.closes.load(), 1);
}

TEST(NetHandler, AddSockAndDecSockCountSockets) {
    const CPublicPool pool;
    auto* handler = new CTestHandler;
    handler->AddSock();
    handler->AddSock();
    EXPECT_EQ(SNetHandlerRecord::of(*handler).sockets.load(), 2);
    handler->DecSock();
    handler->DecSock();
    EXPECT_EQ(SNetHandlerRecord::of(*handler).sockets.load(), 0);
    closeAndWait(handler);
}

TEST(NetHandler, CheckSockOfAnUnregisteredSocketDoesNothing) {
    const CPublicPool pool;
    SStreamPair pair;
    auto* handler = new CTestHandler;
    EXPECT_EQ(handler->CheckSock(pair.near_end), 0);
    closeAndWait(handler);
}

TEST(NetHandler, CheckSockRemovesASocketThatNobodyReadsFrom) {
    const CPublicPool pool;
    SStreamPair pair;
    auto* handler = new CTestHandler;
    ASSERT_EQ(handler->RegisterSock(pair.near_end, EventMask::Except, 0), 0);
    EXPECT_EQ(handler->CheckSock(pair.near_end), 0);
    EXPECT_EQ(SNetHandlerRecord::of(*handler).sockets.load(), 0);
    closeAndWait(handler);
}

TEST(NetHandler, CheckSockKeepsASocketThatIsReadFrom) {
    const CPublicPool pool;
    SStreamPair pair;
    auto* handler = new CTestHandler;
    std::atomic<int> inputs{0};
    handler->on_input = [&](int) {
        char byte;
        if (pair.near_end.Recv(&byte, 1) == 1) inputs.fetch_add(1);
        return 0;
    };
    ASSERT_EQ(handler->RegisterSock(pair.near_end, EventMask::Read, 0), 0);
    EXPECT_EQ(handler->CheckSock(pair.near_end), 0);
    EXPECT_EQ(SNetHandlerRecord::of(*handler).sockets.load(), 1);
    EXPECT_EQ(pair.far_end.Send("x", 1), 1);
    EXPECT_TRUE(waitUntil([&] { return inputs.load() == 1; }));
    handler->RemoveSock(pair.near_end);
    closeAndWait(handler);
}

TEST(NetHandler, MemoryOperationsGiveUsableBlocks) {
    const CPublicPool pool;
    auto* handler = new CTestHandler;
    void* of_thread = handler->TsMalloc(100);
    void* shared = handler->Malloc(100);
    ASSERT_NE(of_thread, nullptr);
    ASSERT_NE(shared, nullptr);
    std::fill_n(static_cast<char*>(of_thread), 100, 'a');
    std::fill_n(static_cast<char*>(shared), 100, 'b');
    handler->TsFree(of_thread);
    handler->Free(shared);
    closeAndWait(handler);
}

// A private pool that was destroyed and made anew gives the same ids again.
class NetHandlerOfAFormerPool : public testing::Test {
protected:
    void SetUp() override {
        number = CNetThread::CreatePrivatePool(1, false);
        former = new CTestHandler(number);
        ASSERT_EQ(CNetThread::DestroyPrivatePool(number), 0);
        ASSERT_EQ(CNetThread::CreatePrivatePool(1, false), number);
        heir = new CTestHandler(number);
        ASSERT_EQ(heir->GetID(), former->GetID());
        heir->on_message = [this](long, unsigned, long) {
            messages.fetch_add(1);
            return 0;
        };
        heir->closed = &closed;
    }
    void TearDown() override {
        delete former;
        EXPECT_EQ(closed.load(), 0);
        // A message comes through to the heir, so it is still in its table.
        heir->Notify(heir->GetID(), 1, 0);
        EXPECT_TRUE(waitUntil([this] { return messages.load() == 1; }));
        closeAndWait(heir);
        EXPECT_EQ(CNetThread::DestroyPrivatePool(number), 0);
    }
    const CPublicPool public_pool;
    int number = -1;
    CTestHandler* former = nullptr;
    CTestHandler* heir = nullptr;
    std::atomic<int> closed{0};
    std::atomic<int> messages{0};
};

TEST_F(NetHandlerOfAFormerPool, ClosesNobodyElse) {
    former->Close();
}

TEST_F(NetHandlerOfAFormerPool, SetsNoTimer) {
    EXPECT_EQ(former->SetTimer(3'000), -1);
    former->Close();
}

TEST_F(NetHandlerOfAFormerPool, RegistersAndTouchesNoSocket) {
    SStreamPair pair;
    ASSERT_EQ(heir->RegisterSock(pair.near_end, EventMask::Read, 0), 0);
    EXPECT_EQ(former->RegisterSock(pair.near_end, EventMask::Read, 0), -1);
    EXPECT_EQ(former->UnregisterSock(pair.near_end, EventMask::Read), -1);
    EXPECT_EQ(former->RemoveSock(pair.near_end), -1);
    EXPECT_EQ(former->CheckSock(pair.near_end), 0);
    EXPECT_EQ(SNetHandlerRecord::of(*heir).sockets.load(), 1);
    EXPECT_EQ(heir->RemoveSock(pair.near_end), 0);
    former->Close();
}

TEST_F(NetHandlerOfAFormerPool, DestroysNoTimerOfTheNewPool) {
    std::atomic<int> fired{0};
    heir->on_timeout = [&fired](long) {
        fired.fetch_add(1);
        return -1;
    };
    const long timer_id = heir->SetTimer(200'000);
    ASSERT_LT(timer_id, 0);
    former->DestroyTimer(timer_id);
    EXPECT_TRUE(waitUntil([&fired] { return fired.load() == 1; }));
    former->Close();
}

TEST(NetHandler, OfADestroyedPoolGetsNothingAndFailsQuietly) {
    const CPublicPool public_pool;
    SStreamPair pair;
    const int number = CNetThread::CreatePrivatePool(1, false);
    auto* handler = new CTestHandler(number);
    ASSERT_EQ(CNetThread::DestroyPrivatePool(number), 0);
    CLogCapture log(Plinth::LOG_LEVEL_WARNING);
    EXPECT_EQ(handler->RegisterSock(pair.near_end, EventMask::Read, 0), -1);
    EXPECT_EQ(handler->UnregisterSock(pair.near_end, EventMask::Read), -1);
    EXPECT_EQ(handler->RemoveSock(pair.near_end), -1);
    EXPECT_EQ(handler->SetTimer(3'000), -1);
    handler->Notify(handler->GetID(), 1, 0);
    handler->NotifySerial(handler->GetID(), 1, 0, 0);
    handler->NotifyIO(handler->GetID(), 1, 0);
    handler->Close();
    EXPECT_EQ(referencesOf(*handler), 1);
    EXPECT_TRUE(log.lines().empty());
    delete handler;
}

}  // namespace
}  // namespace Veltro::Ravelo
