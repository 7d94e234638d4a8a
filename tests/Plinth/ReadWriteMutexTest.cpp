#include <Plinth/ReadWriteMutex.h>
#include <Plinth/Semaphore.h>
#include <Plinth/Thread.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <vector>

#include "FailingAllocator.h"

namespace Veltro::Plinth {
namespace {

using Threads = std::vector<std::unique_ptr<CThreadLite>>;

void startThread(Threads& threads, CThreadLite::ThreadBody body) {
    threads.push_back(std::make_unique<CThreadLite>(std::move(body), "user"));
    ASSERT_TRUE(threads.back()->createThread());
}

TEST(ReadWriteMutex, ReadersShareIt) {
    CReadWriteMutex mutex;
    CSemaphore entered;
    CReadGuard guard(mutex);
    Threads threads;
    startThread(threads, [&](CThreadLite&) {
        CReadGuard other_guard(mutex);
        entered.post();
    });
    EXPECT_TRUE(entered.pend(10'000'000));
}

TEST(ReadWriteMutex, AReaderWaitsForTheWriter) {
    CReadWriteMutex mutex;
    CSemaphore about_to_enter;
    std::atomic<bool> entered{false};
    Threads threads;
    {
        CWriteGuard guard(mutex);
        startThread(threads, [&](CThreadLite&) {
            about_to_enter.post();
            CReadGuard reader(mutex);
            entered.store(true);
        });
        about_to_enter.pend();
        sleepMilliSecond(10);
        EXPECT_FALSE(entered.load());
    }
    threads.clear();
    EXPECT_TRUE(entered.load());
}

TEST(ReadWriteMutex, AWriterWaitsForTheReader) {
    CReadWriteMutex mutex;
    CSemaphore about_to_enter;
    std::atomic<bool> entered{false};
    Threads threads;
    {
        CReadGuard guard(mutex);
        startThread(threads, [&](CThreadLite&) {
            about_to_enter.post();
            CWriteGuard writer(mutex);
            entered.store(true);
        });
        about_to_enter.pend();
        sleepMilliSecond(10);
        EXPECT_FALSE(entered.load());
    }
    threads.clear();
    EXPECT_TRUE(entered.load());
}

TEST(ReadWriteMutex, EveryWriterIsAloneAndReadersSeeWholeWrites) {
    constexpr int ROUNDS = 5'000;
    CReadWriteMutex mutex;
    int first = 0;
    int second = 0;
    std::atomic<int> torn{0};
    Threads threads;
    for (int i = 0; i < 2; ++i) {
        startThread(threads, [&](CThreadLite&) {
            for (int round = 0; round < ROUNDS; ++round) {
                CWriteGuard guard(mutex);
                ++first;
                ++second;
            }
        });
        startThread(threads, [&](CThreadLite&) {
            for (int round = 0; round < ROUNDS; ++round) {
                CReadGuard guard(mutex);
                if (first != second) torn.fetch_add(1);
            }
        });
    }
    threads.clear();
    EXPECT_EQ(first, 2 * ROUNDS);
    EXPECT_EQ(torn.load(), 0);
}

TEST(ReadWriteMutex, AWriterGetsInWhileReadersKeepComing) {
    CReadWriteMutex mutex;
    CSemaphore reading;
    std::atomic<bool> written{false};
    Threads threads;
    for (int i = 0; i < 4; ++i) {
        startThread(threads, [&](CThreadLite&) {
            reading.post();
            while (!written.load()) {
                CReadGuard guard(mutex);
                yieldThread();  // so that another reader is always inside
            }
        });
    }
    for (int i = 0; i < 4; ++i) reading.pend();
    {
        CWriteGuard guard(mutex);
        written.store(true);
    }
    threads.clear();
    SUCCEED() << "a writer that starves runs into the test's time limit";
}

TEST(ReadWriteMutex, MakingAndTakingOneNeedsNoMemory) {
    const TestSupport::CFailingAllocator failing;
    CReadWriteMutex mutex;
    const unsigned long before = TestSupport::allocationCount();
    { CReadGuard reader(mutex); }
    { CWriteGuard writer(mutex); }
    EXPECT_EQ(TestSupport::allocationCount(), before);
}

}  // namespace
}  // namespace Veltro::Plinth
