#include <Plinth/Semaphore.h>
#include <Plinth/Thread.h>
#include <Plinth/ThreadManager.h>
#include <Plinth/Time.h>
#include <gtest/gtest.h>

#include <atomic>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "AddressSpaceLimit.h"
#include "FailingAllocator.h"
#include "Support/LogCapture.h"

namespace Veltro::Plinth {
namespace {

/// Runs a body on a thread of these settings; returns whether it ran.
bool runs(int priority, int policy, int stack_bytes) {
    bool ran = false;
    CThreadLite thread([&](CThreadLite&) { ran = true; }, "settings", priority, policy, stack_bytes);
    if (!thread.createThread()) return false;
    thread.destroyThread();
    return ran;
}

void untilCancelled(CThreadLite& self) {
    while (self.looping()) yieldThread();
}

class CDerived : public CThread {
public:
    CDerived() : CThread("derived", PRIORITY_NORMAL, POLICY_NORMAL, 0) {}
    ~CDerived() override { destroyThread(); }
    unsigned long seen_id = 0;

protected:
    void threadProc() override { seen_id = getCurrentThreadId(); }
};

TEST(Thread, RunsItsBodyOnAThreadOfItsOwn) {
    CDerived thread;
    ASSERT_TRUE(thread.createThread());
    thread.destroyThread();
    EXPECT_NE(thread.seen_id, 0U);
    EXPECT_NE(thread.seen_id, getCurrentThreadId());
}

TEST(Thread, AThreadThatWasNeverStartedIsOverAndHarmless) {
    CThreadLite thread(untilCancelled, "idle");
    EXPECT_TRUE(thread.isThreadOver());
    EXPECT_EQ(thread.getThreadId(), 0U);
    EXPECT_STREQ(thread.getName(), "idle");
    thread.cancelThread();
    thread.destroyThread();
    thread.destroyThread();
    EXPECT_TRUE(thread.isThreadOver());
}

TEST(Thread, CancelEndsTheLoop) {
    CThreadLite thread(untilCancelled, "loop");
    EXPECT_TRUE(thread.looping());
    ASSERT_TRUE(thread.createThread());
    EXPECT_FALSE(thread.isThreadOver());
    thread.cancelThread();
    EXPECT_FALSE(thread.looping());
    thread.destroyThread();
    EXPECT_TRUE(thread.isThreadOver());
}

TEST(Thread, StartingTwiceIsRefusedWhileItRuns) {
    CThreadLite thread(untilCancelled, "once");
    ASSERT_TRUE(thread.createThread());
    EXPECT_FALSE(thread.createThread());
    thread.destroyThread();
}

TEST(Thread, MayBeStartedAgainOnceItIsOver) {
    int runs_not_cancelled = 0;
    CThreadLite thread([&](CThreadLite& self) { runs_not_cancelled += self.looping() ? 1 : 0; }, "again");
    for (const bool destroy_between : {true, false, true}) {
        ASSERT_TRUE(thread.createThread());
        while (!thread.isThreadOver()) yieldThread();
        if (destroy_between) thread.destroyThread();
    }
    thread.destroyThread();
    EXPECT_EQ(runs_not_cancelled, 3);
}

TEST(Thread, AStartDisarmsTheWatchdogOfTheFormerRun) {
    bool expired_inside = true;
    CThreadLite thread([&](CThreadLite& self) { expired_inside = self.isWatchdogExpired(); }, "again");
    thread.setWatchdog(0);
    EXPECT_TRUE(thread.isWatchdogExpired());
    ASSERT_TRUE(thread.createThread());
    thread.destroyThread();
    EXPECT_FALSE(expired_inside);
}

TEST(Thread, DestroyMayBeCalledTwiceAndBySeveralThreads) {
    CThreadLite thread(untilCancelled, "shared");
    ASSERT_TRUE(thread.createThread());
    {
        std::vector<std::unique_ptr<CThreadLite>> destroyers;
        for (int i = 0; i < 3; ++i) {
            destroyers.push_back(std::make_unique<CThreadLite>(
                [&](CThreadLite&) {
                    thread.destroyThread();
                    EXPECT_TRUE(thread.isThreadOver());
                },
                "destroyer"));
            ASSERT_TRUE(destroyers.back()->createThread());
        }
    }
    thread.destroyThread();
    EXPECT_TRUE(thread.isThreadOver());
}

TEST(Thread, DestroyFromItsOwnBodyOnlyCancels) {
    bool went_on = false;
    bool started = true;
    CThreadLite thread(
        [&](CThreadLite& self) {
            started = self.createThread();
            self.destroyThread();
            went_on = !self.looping() && !self.isThreadOver();
        },
        "own");
    ASSERT_TRUE(thread.createThread());
    while (!thread.isThreadOver()) yieldThread();
    thread.destroyThread();
    EXPECT_TRUE(went_on);
    EXPECT_FALSE(started);
}

TEST(Thread, TheObjectWaitsForItsThreadWhenItGoes) {
    std::atomic<bool> ended{false};
    {
        CThreadLite thread(
            [&](CThreadLite& self) {
                untilCancelled(self);
                ended.store(true);
            },
            "scope");
        ASSERT_TRUE(thread.createThread());
    }
    EXPECT_TRUE(ended.load());
}

TEST(Thread, HasTheSystemsIdWhileItRunsAndNoneAfterwards) {
    CSemaphore seen;
    unsigned long inside = 0;
    CThreadLite thread(
        [&](CThreadLite& self) {
            inside = getCurrentThreadId();
            seen.post();
            untilCancelled(self);
        },
        "id");
    ASSERT_TRUE(thread.createThread());
    seen.pend();
    EXPECT_EQ(thread.getThreadId(), inside);
    thread.destroyThread();
    EXPECT_EQ(thread.getThreadId(), 0U);
}

TEST(Thread, AnEmptyBodyEndsAtOnce) {
    CThreadLite thread({}, nullptr);
    EXPECT_STREQ(thread.getName(), "");
    ASSERT_TRUE(thread.createThread());
    thread.destroyThread();
    EXPECT_TRUE(thread.isThreadOver());
}

TEST(Thread, KeepsACopyOfItsWholeName) {
    std::string name = "a name much longer than any system shows \xc3\xa4";
    CThreadLite thread({}, name.c_str());
    const std::string kept = name;
    name.assign(name.size(), '-');
    EXPECT_EQ(thread.getName(), kept);
}

TEST(Thread, EveryPriorityRuns) {
    for (const int priority : {std::numeric_limits<int>::min(), -1, 0, 1, 2, 63, 64, 65, 126, 127, 128,
                               std::numeric_limits<int>::max()}) {
        EXPECT_TRUE(runs(priority, POLICY_NORMAL, 0)) << priority;
    }
}

TEST(Thread, TheRealtimePolicyRunsWithOrWithoutThePrivilege) {
    for (const int priority : {1, 64, 127, 1000, -1}) EXPECT_TRUE(runs(priority, POLICY_REALTIME, 0));
    EXPECT_TRUE(runs(PRIORITY_NORMAL, 77, 0));
}

TEST(Thread, StackSizesBelowTheLeastCountAsTheLeast) {
    for (const int bytes : {std::numeric_limits<int>::min(), -1, 0, 1, 4'097, 65'536, 1'000'001}) {
        EXPECT_TRUE(runs(PRIORITY_NORMAL, POLICY_NORMAL, bytes)) << bytes;
    }
}

TEST(Thread, TheLeastStackIsEnoughToLog) {
    TestSupport::CLogCapture log;
    CThreadLite thread([](CThreadLite&) { logInfo("%f %s", 1.5, std::string(3000, 'x').c_str()); }, "small",
                       PRIORITY_NORMAL, POLICY_NORMAL, 1);
    ASSERT_TRUE(thread.createThread());
    thread.destroyThread();
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST(Thread, AStackThatIsAskedForCanBeUsed) {
    bool used = false;
    CThreadLite thread(
        [&](CThreadLite&) {
            volatile char local[12 << 20];
            for (std::size_t i = 0; i < sizeof local; i += 4096) local[i] = 1;
            used = local[0] == 1;
        },
        "large", PRIORITY_NORMAL, POLICY_NORMAL, 64 << 20);
    ASSERT_TRUE(thread.createThread());
    thread.destroyThread();
    EXPECT_TRUE(used);
}

TEST(Thread, AStackThatTheSystemCannotGiveFailsTheStart) {
    const TestSupport::CAddressSpaceLimit limit;
    if (!limit.enforced()) return;
    CThreadLite thread(untilCancelled, "huge", PRIORITY_NORMAL, POLICY_NORMAL,
                       std::numeric_limits<int>::max());
    EXPECT_FALSE(thread.createThread());
    EXPECT_TRUE(thread.isThreadOver());
    EXPECT_EQ(thread.getThreadId(), 0U);
    EXPECT_FALSE(thread.createThread());
    thread.destroyThread();
}

TEST(Thread, AnExceptionEndsTheBodyAndIsLogged) {
    TestSupport::CLogCapture log;
    CThreadLite known([](CThreadLite&) { throw std::runtime_error("reason"); }, "known");
    CThreadLite unknown([](CThreadLite&) { throw 1; }, "unknown");
    ASSERT_TRUE(known.createThread());
    ASSERT_TRUE(unknown.createThread());
    known.destroyThread();
    unknown.destroyThread();
    EXPECT_TRUE(known.isThreadOver());
    EXPECT_EQ(log.count(LOG_LEVEL_FATAL, "thread known ended by an exception: reason\n"), 1);
    EXPECT_EQ(log.count(LOG_LEVEL_FATAL, "thread unknown ended by an exception\n"), 1);
}

TEST(Thread, AWatchdogThatIsNotArmedNeverExpires) {
    const CThreadLite thread({}, "dog");
    EXPECT_FALSE(thread.isWatchdogExpired());
}

TEST(Thread, TheWatchdogExpiresNotBeforeItsTime) {
    CThreadLite thread({}, "dog");
    const std::uint64_t start_us = CTime::getCurrentMicroSecond();
    thread.setWatchdog(20);
    while (!thread.isWatchdogExpired()) yieldThread();
    // The clock is read in whole milliseconds.
    EXPECT_GE(CTime::getCurrentMicroSecond() - start_us, 19'000U);
}

TEST(Thread, ArmingTheWatchdogAgainReplacesTheFormerTime) {
    CThreadLite thread({}, "dog");
    thread.setWatchdog(0);
    EXPECT_TRUE(thread.isWatchdogExpired());
    thread.setWatchdog(3'600'000);
    EXPECT_FALSE(thread.isWatchdogExpired());
    thread.setWatchdog(std::numeric_limits<std::int64_t>::max());
    EXPECT_FALSE(thread.isWatchdogExpired());
    thread.setWatchdog(std::numeric_limits<std::int64_t>::min());
    EXPECT_TRUE(thread.isWatchdogExpired());
}

TEST(Thread, WithoutMemoryTheObjectIsSafeAndTheStartFails) {
    if (!TestSupport::libraryUsesThisAllocator()) return;
    const TestSupport::CFailingAllocator failing;
    CThreadLite thread({}, "no memory");
    EXPECT_FALSE(thread.createThread());
    EXPECT_TRUE(thread.isThreadOver());
    EXPECT_FALSE(thread.looping());
    EXPECT_STREQ(thread.getName(), "");
    thread.setWatchdog(0);
    EXPECT_FALSE(thread.isWatchdogExpired());
    thread.destroyThread();
}

TEST(Thread, WithoutMemoryForTheHandleTheStartFailsAndMayBeTriedAgain) {
    if (!TestSupport::libraryUsesThisAllocator()) return;
    CThreadLite thread({}, "later");
    {
        const TestSupport::CFailingAllocator failing;
        EXPECT_FALSE(thread.createThread());
    }
    EXPECT_TRUE(thread.createThread());
    thread.destroyThread();
}

TEST(Thread, EveryProcessorOfTheProcessCanBePinned) {
    const unsigned count = getProcessorCount();
    ASSERT_GE(count, 1U);
    CThreadLite thread(
        [&](CThreadLite&) {
            for (unsigned i = 0; i < count; ++i) EXPECT_TRUE(pinCurrentThread(i)) << i;
            EXPECT_EQ(getProcessorCount(), count);
            EXPECT_FALSE(pinCurrentThread(count));
            EXPECT_FALSE(pinCurrentThread(std::numeric_limits<unsigned>::max()));
        },
        "pinned");
    ASSERT_TRUE(thread.createThread());
}

}  // namespace
}  // namespace Veltro::Plinth
