#include <Plinth/Error.h>
#include <Plinth/File.h>
#include <Plinth/Semaphore.h>
#include <Plinth/Thread.h>
#include <Plinth/Time.h>
#include <gtest/gtest.h>

#include <atomic>
#include <limits>
#include <memory>
#include <vector>

#include "FailingAllocator.h"

namespace Veltro::Plinth {
namespace {

TEST(Semaphore, InitialCountPassesThatManyWaits) {
    CSemaphore semaphore(2);
    EXPECT_TRUE(semaphore.tryPend());
    EXPECT_TRUE(semaphore.tryPend());
    EXPECT_FALSE(semaphore.tryPend());
}

TEST(Semaphore, APostBeforeTheWaitIsKept) {
    CSemaphore semaphore;
    semaphore.post();
    semaphore.pend();
    EXPECT_FALSE(semaphore.tryPend());
}

TEST(Semaphore, PendWaitsForAPostOfAnotherThread) {
    CSemaphore go;
    CSemaphore semaphore;
    int value = 0;
    CThreadLite poster(
        [&](CThreadLite&) {
            go.pend();
            value = 7;
            semaphore.post();
        },
        "poster");
    ASSERT_TRUE(poster.createThread());
    go.post();
    semaphore.pend();
    EXPECT_EQ(value, 7);
}

TEST(Semaphore, TimedPendSeesWhatWasWrittenBeforeThePost) {
    CSemaphore go;
    CSemaphore semaphore;
    int value = 0;
    CThreadLite poster(
        [&](CThreadLite&) {
            go.pend();
            sleepMilliSecond(5);
            value = 7;
            semaphore.post();
        },
        "poster");
    ASSERT_TRUE(poster.createThread());
    go.post();
    EXPECT_TRUE(semaphore.pend(60'000'000));
    EXPECT_EQ(value, 7);
}

TEST(Semaphore, TimedPendTakesWhatIsThereWithoutWaiting) {
    CSemaphore semaphore(3);
    EXPECT_TRUE(semaphore.pend(0));
    EXPECT_TRUE(semaphore.pend(-1));
    EXPECT_TRUE(semaphore.pend(60'000'000));
    EXPECT_FALSE(semaphore.pend(0));
    EXPECT_FALSE(semaphore.pend(-1));
    EXPECT_FALSE(semaphore.pend(std::numeric_limits<std::int64_t>::min()));
}

TEST(Semaphore, TimedPendNeverGivesUpEarly) {
    CSemaphore semaphore;
    for (const std::int64_t timeout_us : {1, 999, 1'000, 1'001, 2'500, 15'700, 30'000}) {
        const std::uint64_t start_us = CTime::getCurrentMicroSecond();
        EXPECT_FALSE(semaphore.pend(timeout_us));
        const auto gone_us = static_cast<std::int64_t>(CTime::getCurrentMicroSecond() - start_us);
        EXPECT_GE(gone_us + 1, timeout_us);
    }
}

TEST(Semaphore, TheLongestTimeOutWaitsForThePost) {
    CSemaphore semaphore;
    CThreadLite poster(
        [&](CThreadLite&) {
            sleepMilliSecond(20);
            semaphore.post();
        },
        "poster");
    ASSERT_TRUE(poster.createThread());
    EXPECT_TRUE(semaphore.pend(std::numeric_limits<std::int64_t>::max()));
}

TEST(Semaphore, AnInitialCountAboveTheHighestCountsAsTheHighest) {
    CSemaphore semaphore(CSemaphore::MAX_COUNT + 1U);
    EXPECT_TRUE(semaphore.tryPend());
    CSemaphore full(CSemaphore::MAX_COUNT);
    full.post();
    EXPECT_TRUE(full.tryPend());
}

TEST(Semaphore, EveryPostLetsExactlyOneWaitPass) {
    constexpr int THREADS = 3;
    constexpr int ROUNDS = 10'000;
    CSemaphore semaphore;
    std::atomic<int> passed{0};
    std::vector<std::unique_ptr<CThreadLite>> threads;
    const auto run = [&](CThreadLite::ThreadBody body) {
        threads.push_back(std::make_unique<CThreadLite>(std::move(body), "user"));
        ASSERT_TRUE(threads.back()->createThread());
    };
    for (int i = 0; i < THREADS; ++i) {
        run([&, i](CThreadLite&) {
            for (int round = 0; round < ROUNDS; ++round) {
                // Every kind of wait takes its share.
                if (i == 0)
                    semaphore.pend();
                else if (!semaphore.pend(60'000'000))
                    return;
                passed.fetch_add(1);
            }
        });
        run([&](CThreadLite&) {
            for (int round = 0; round < ROUNDS; ++round) semaphore.post();
        });
    }
    threads.clear();
    EXPECT_EQ(passed.load(), THREADS * ROUNDS);
    EXPECT_FALSE(semaphore.tryPend());
}

TEST(Semaphore, AWaiterMayDestroyItAtOnce) {
    for (int round = 0; round < 200; ++round) {
        auto semaphore = std::make_unique<CSemaphore>();
        CThreadLite poster([posted = semaphore.get()](CThreadLite&) { posted->post(); }, "poster");
        ASSERT_TRUE(poster.createThread());
        semaphore->pend();
        semaphore.reset();  // the poster may still be on its way out
    }
}

TEST(Semaphore, NoOperationChangesTheLastSystemError) {
    CSemaphore semaphore;
    ASSERT_EQ(CFile::access("no such file", 0), -1);
    const int before = getLastError();
    ASSERT_NE(before, 0);
    const bool taken = semaphore.tryPend() || semaphore.pend(1'000);
    semaphore.post();
    semaphore.pend();
    const int after = getLastError();
    EXPECT_FALSE(taken);
    EXPECT_EQ(after, before);
}

TEST(Semaphore, MakingAndUsingOneNeedsNoMemory) {
    const TestSupport::CFailingAllocator failing;
    CSemaphore semaphore(1);
    semaphore.post();
    semaphore.pend();
    EXPECT_TRUE(semaphore.tryPend());
}

}  // namespace
}  // namespace Veltro::Plinth
