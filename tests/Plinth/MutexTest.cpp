#include <Plinth/Mutex.h>
#include <Plinth/Semaphore.h>
#include <Plinth/Thread.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <vector>

#include "FailingAllocator.h"

namespace Veltro::Plinth {
namespace {

bool isFree(CMutex& mutex) {
    if (!mutex.tryLock()) return false;
    mutex.unlock();
    return true;
}

/// What another thread sees.
bool isFreeForAnother(CMutex& mutex) {
    bool is_free = false;
    CThreadLite other([&](CThreadLite&) { is_free = isFree(mutex); }, "other");
    EXPECT_TRUE(other.createThread());
    other.destroyThread();
    return is_free;
}

TEST(Mutex, TryLockTakesAFreeLock) {
    CMutex mutex;
    EXPECT_TRUE(isFree(mutex));
    EXPECT_TRUE(isFree(mutex));
}

TEST(Mutex, TryLockFailsWhileAnotherThreadHoldsIt) {
    CMutex mutex;
    CLockGuard guard(mutex);
    EXPECT_FALSE(isFreeForAnother(mutex));
}

TEST(Mutex, GuardGivesTheLockBackAtTheEndOfItsScope) {
    CMutex mutex;
    { CLockGuard guard(mutex); }
    EXPECT_TRUE(isFreeForAnother(mutex));
}

TEST(Mutex, LockWaitsForAHolderThatStaysLongerThanTheSpin) {
    CMutex mutex;
    CSemaphore about_to_lock;
    std::atomic<bool> locked{false};
    CThreadLite waiter(
        [&](CThreadLite&) {
            about_to_lock.post();
            CLockGuard guard(mutex);
            locked.store(true);
        },
        "waiter");
    {
        CLockGuard guard(mutex);
        ASSERT_TRUE(waiter.createThread());
        about_to_lock.pend();
        sleepMilliSecond(20);
        EXPECT_FALSE(locked.load());
    }
    waiter.destroyThread();
    EXPECT_TRUE(locked.load());
}

TEST(Mutex, EveryHolderIsAloneUnderContention) {
    constexpr int THREADS = 4;
    constexpr int ROUNDS = 20'000;
    CMutex mutex;
    int counter = 0;  // not atomic: two holders at once would lose counts
    std::vector<std::unique_ptr<CThreadLite>> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.push_back(std::make_unique<CThreadLite>(
            [&](CThreadLite&) {
                for (int round = 0; round < ROUNDS; ++round) {
                    CLockGuard guard(mutex);
                    ++counter;
                }
            },
            "counter"));
        ASSERT_TRUE(threads.back()->createThread());
    }
    threads.clear();
    EXPECT_EQ(counter, THREADS * ROUNDS);
}

TEST(Mutex, MakingAndTakingOneNeedsNoMemory) {
    const TestSupport::CFailingAllocator failing;
    CMutex mutex;
    const bool is_free = isFree(mutex);
    CLockGuard guard(mutex);
    EXPECT_TRUE(is_free);
}

}  // namespace
}  // namespace Veltro::Plinth
