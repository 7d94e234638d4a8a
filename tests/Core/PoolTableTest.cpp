#include "Core/PoolTable.h"

#include <gtest/gtest.h>

#include "Core/ThreadPool.h"
#include "Support/Gate.h"
#include "Support/Reactor.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CGate;
using TestSupport::closeAndWait;
using TestSupport::CPublicPool;
using TestSupport::CRunner;
using TestSupport::CTestHandler;

TEST(PoolTable, FindsThePoolOfAnIdInBits4To9) {
    EXPECT_EQ(poolOfId(-102400), 0);
    EXPECT_EQ(poolOfId((-100 * 64 + 3) * 16), 3);
    EXPECT_EQ(poolOfId((-100 * 64 + 63) * 16 + 15), 63);
    EXPECT_EQ(poolOfId((std::int64_t{-3'000'000'000} * 64 + 7) * 16), 7);
}

TEST(PoolTable, PinsNothingOutsideThePoolNumbers) {
    EXPECT_FALSE(CPoolPin(-1));
    EXPECT_FALSE(CPoolPin(64));
    EXPECT_FALSE(CPoolPin(0));
    EXPECT_EQ(CPoolPin(63).get(), nullptr);
}

TEST(PoolTable, PinGivesTheLivePoolUntilItIsReleased) {
    const CPublicPool pool;
    CPoolPin pin(0);
    ASSERT_TRUE(pin);
    EXPECT_EQ(pin->number(), 0);
    EXPECT_EQ(pin.get(), CPoolTable::peek(0));
    pin.release();
    EXPECT_FALSE(pin);
}

TEST(PoolTable, KnowsThePoolOfAWorkerAndOfNobodyElse) {
    const CPublicPool pool;
    EXPECT_EQ(CPoolTable::current(), nullptr);
    auto* handler = new CTestHandler;
    CGate seen;
    std::atomic<CThreadPool*> current{nullptr};
    handler->on_message = [&](long, unsigned, long) {
        current.store(CPoolTable::current());
        seen.open();
        return 0;
    };
    handler->Notify(handler->GetID(), 1, 0);
    EXPECT_TRUE(seen.pass());
    EXPECT_EQ(current.load(), CPoolTable::peek(0));
    closeAndWait(handler);
}

TEST(PoolTable, RemovalWaitsForPinsOfOtherThreads) {
    const CPublicPool pool;
    const int number = CNetThread::CreatePrivatePool(1, false);
    std::atomic<bool> destroyed{false};
    CPoolPin pin(number);
    ASSERT_TRUE(pin);
    CRunner destroyer([&] {
        EXPECT_EQ(CNetThread::DestroyPrivatePool(number), 0);
        destroyed.store(true);
    });
    // The slot is empty as soon as removal has begun; from then on the pin is all that holds the pool.
    EXPECT_TRUE(TestSupport::waitUntil([number] { return !CPoolPin(number); }));
    EXPECT_EQ(pin->number(), number);
    EXPECT_FALSE(destroyed.load());
    pin.release();
    destroyer.join();
    EXPECT_TRUE(destroyed.load());
}

}  // namespace
}  // namespace Veltro::Ravelo
