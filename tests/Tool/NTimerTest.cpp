// A clock and its events: ticks, reaping, and the ends of both.
#include <Ravelo/NTimer.h>

#include <Plinth/Mutex.h>
#include <Plinth/Semaphore.h>

#include <memory>
#include <vector>

#include "Core/NetTimer.h"
#include "Support/Gate.h"
#include "Support/Load.h"
#include "Support/LogCapture.h"
#include "Support/ScarceMemory.h"
#include "Tool/TimerEvents.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;

constexpr std::int64_t SHORT_US = 3'000;

/// What a handler timer may come early.
constexpr std::int64_t EARLY_US = CNetTimer::EARLY_US + CNetTimer::AHEAD_US;

std::int64_t nowUs() {
    return static_cast<std::int64_t>(Plinth::CTime::getCurrentMicroSecond());
}

/// Lets a clock of a period tick a number of times; when each tick came, since just before its creation.
std::vector<std::int64_t> ticksOf(std::int64_t period_us, std::size_t count) {
    Plinth::CSemaphore done;
    std::vector<std::int64_t> ticks_us;
    const std::int64_t start_us = nowUs();
    CTestClock clock(period_us);
    CTestEvent* event = clock.push();
    event->on_tick = [&] {
        if (ticks_us.size() < count) ticks_us.push_back(nowUs() - start_us);
        if (ticks_us.size() == count) done.post();
    };
    event->Start();
    EXPECT_TRUE(waitUntil([&] { return done.tryPend(); }));
    clock.close();
    return ticks_us;
}

TEST(NTimer, TicksNeverComeBeforeTheirPlaceOnTheGrid) {
    const CPublicPool pool;
    const auto ticks_us = ticksOf(10'000, 30);
    for (std::size_t i = 0; i < ticks_us.size(); ++i) {
        EXPECT_GE(ticks_us[i], 10'000 * static_cast<std::int64_t>(i + 1) - EARLY_US) << i;
    }
}

TEST(NTimer, APeriodOfAMillisecondTicksNoMoreOftenThanEveryTwo) {
    const CPublicPool pool;
    const auto ticks_us = ticksOf(1000, 50);
    EXPECT_GE(ticks_us.back() - ticks_us.front(), 49 * 2000);
}

TEST(NTimer, EventsAreCalledInTheOrderOfTheirPushes) {
    const CPublicPool pool;
    std::vector<int> order;
    CTestClock clock;
    for (int i = 0; i < 5; ++i) {
        clock.pushRunning()->on_tick = [&order, i] { order.push_back(i); };
    }
    clock.tick();
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4}), order);
}

TEST(NTimer, TicksWithoutEventsDoNothing) {
    const CPublicPool pool;
    CTestClock clock;
    EXPECT_GT(clock.tick(), 0);
    EXPECT_GT(clock.tick(), 0);
}

TEST(NTimer, ANullEventIsRefused) {
    const CPublicPool pool;
    CTestClock clock;
    EXPECT_EQ(-1, clock->PushTimerEvent(nullptr));
    EXPECT_GT(clock.tick(), 0);
}

TEST(NTimer, EveryPatternOfClosedEventsIsReapedByOneTick) {
    const CPublicPool pool;
    static constexpr unsigned COUNT = 5;
    for (unsigned closed = 0; closed < 1U << COUNT; ++closed) {
        std::vector<unsigned> called;
        CTestClock clock;
        std::vector<CTestEvent*> events;
        for (unsigned i = 0; i < COUNT; ++i) {
            events.push_back(clock.pushRunning());
            events.back()->on_tick = [&called, i] { called.push_back(i); };
        }
        std::vector<unsigned> expected;
        int expected_closed = 0;
        for (unsigned i = 0; i < COUNT; ++i) {
            if (closed >> i & 1U) {
                events[i]->Close();
                expected_closed += 1;
            } else {
                expected.push_back(i);
            }
        }
        clock.tick();
        EXPECT_EQ(expected, called) << closed;
        EXPECT_TRUE(clock.waitClosed(expected_closed)) << closed;
        // The list still ends where it should.
        clock.pushRunning()->on_tick = [&called] { called.push_back(COUNT); };
        called.clear();
        expected.push_back(COUNT);
        clock.tick();
        EXPECT_EQ(expected, called) << closed;
    }
}

TEST(NTimer, HousekeepingReapsWhileNoTickComes) {
    const CPublicPool pool;
    CTestClock clock;
    CTestEvent* left = clock.pushRunning();
    for (int i = 0; i < 3; ++i) clock.pushRunning()->Close();
    EXPECT_TRUE(clock.waitClosed(3));
    EXPECT_EQ(0, left->calls.load());
    // And goes on doing so.
    clock.push()->Close();
    EXPECT_TRUE(clock.waitClosed(4));
    EXPECT_EQ(0, left->calls.load());
}

TEST(NTimer, AnEventClosedInsideItsCallbackIsCalledNoMore) {
    const CPublicPool pool;
    std::atomic<int> calls{0};
    CTestClock clock;
    CTestEvent* event = clock.pushRunning();
    event->on_tick = [&calls, event] {
        calls += 1;
        event->Close();
    };
    clock.tick();
    EXPECT_EQ(0, clock.closed());
    clock.tick();
    EXPECT_TRUE(clock.waitClosed(1));
    EXPECT_EQ(1, calls.load());
}

TEST(NTimer, AnEventClosedInsideItsCallbackIsReapedByHousekeeping) {
    const CPublicPool pool;
    std::atomic<int> calls{0};
    CTestClock clock;
    CTestEvent* event = clock.pushRunning();
    event->on_tick = [&calls, event] {
        calls += 1;
        event->Close();
    };
    clock.tick();
    EXPECT_TRUE(clock.waitClosed(1));
    EXPECT_EQ(1, calls.load());
}

TEST(NTimer, AnEventMayStopAndStartItselfInsideItsCallback) {
    const CPublicPool pool;
    CTestClock clock;
    CTestEvent* event = clock.pushRunning();
    event->on_tick = [event] {
        event->Stop();
        if (event->calls == 1) event->Start();
    };
    for (int i = 0; i < 4; ++i) clock.tick();
    EXPECT_EQ(2, event->calls.load());
}

TEST(NTimer, AnEventMayCloseTheOthersInsideItsCallback) {
    const CPublicPool pool;
    std::atomic<int> calls{0};
    CTestClock clock;
    std::vector<CTestEvent*> events;
    for (int i = 0; i < 5; ++i) events.push_back(clock.pushRunning());
    for (CTestEvent* event : events) event->on_tick = [&calls] { calls += 1; };
    events[2]->on_tick = [&] {
        for (const int other : {0, 1, 3, 4}) events[static_cast<std::size_t>(other)]->Close();
        events[2]->on_tick = [&calls] { calls += 100; };
    };
    clock.tick();
    EXPECT_EQ(2, calls.load());
    clock.tick();
    EXPECT_EQ(102, calls.load());
    EXPECT_TRUE(clock.waitClosed(4));
}

TEST(NTimer, AnEventMayPushOntoTheClockFromItsLastCallback) {
    const CPublicPool pool;
    std::atomic<CTestEvent*> heir{nullptr};
    CTestClock clock;
    CTestEvent* event = clock.push();
    event->on_close = [&] { heir = clock.pushRunning(); };
    event->Close();
    clock.tick();
    ASSERT_TRUE(waitUntil([&] { return heir.load() != nullptr && clock.closed() == 1; }));
    clock.tick();
    EXPECT_EQ(1, heir.load()->calls.load());
}

TEST(NTimer, AClosedClockEndsItsEventsInEveryState) {
    const CPublicPool pool;
    CTestClock clock;
    clock.push();
    clock.pushRunning();
    clock.pushRunning()->Stop();
    clock.pushRunning()->Close();
    clock.close();
    EXPECT_EQ(5, clock.closed());
}

TEST(NTimer, AClockThatIsClosedWhileItTicksEndsRunningEvents) {
    const CPublicPool pool;
    for (int round = 0; round < 20; ++round) {
        CGate ticked;
        CTestClock clock(SHORT_US);
        for (int i = 0; i < 20; ++i) clock.push()->Start();
        clock.pushRunning();
        CTestEvent* last = clock.push();
        last->on_tick = [&ticked] { ticked.open(); };
        last->Start();
        EXPECT_TRUE(ticked.pass());
        clock.close();
        EXPECT_EQ(23, clock.closed());
    }
    EXPECT_TRUE(waitUntil([] { return CNetTimer::armed() == 0; }));
}

TEST(NTimer, AnEventMayCloseItsClockInsideItsCallback) {
    const CPublicPool pool;
    std::atomic<int> closed{0};
    CNTimer* clock = CNTimer::Create(SHORT_US);
    CTestEvent* closing = new CTestEvent(&closed);
    CTestEvent* behind = new CTestEvent(&closed);
    std::atomic<int> calls{0};
    closing->on_tick = [&calls, clock] {
        calls += 1;
        clock->Close();
    };
    for (CTestEvent* event : {closing, behind}) {
        EXPECT_EQ(0, clock->PushTimerEvent(event));
    }
    closing->Start();
    EXPECT_TRUE(waitUntil([&] { return closed.load() == 2; }));
    EXPECT_EQ(1, calls.load());
    EXPECT_TRUE(waitUntil([] { return CNetTimer::armed() == 0; }));
}

TEST(NTimer, AnEventThatIsHeldOutlivesItsClock) {
    const CPublicPool pool;
    std::atomic<int> closed{0};
    CNTimer* clock = CNTimer::Create(HOUR_US);
    auto* event = new CTestEvent(&closed);
    event->AddRef();
    EXPECT_EQ(0, clock->PushTimerEvent(event));
    event->Start();
    clock->Close();
    EXPECT_TRUE(waitUntil([] { return CNetTimer::armed() == 0; }));
    // Nothing of it is left to run or to be closed.
    event->Close();
    EXPECT_EQ(0, closed.load());
    {
        CLogCapture log;
        event->Stop();
        EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR, "Can't stop a timer event not in running state!\n"));
    }
    event->DecRef();
    EXPECT_TRUE(waitUntil([&] { return closed.load() == 1; }));
}

TEST(NTimer, TheTwoTimersOfAClockEndWithIt) {
    const CPublicPool pool;
    CTestClock clock;
    EXPECT_EQ(2U, CNetTimer::armed());
    clock.close();
    EXPECT_TRUE(waitUntil([] { return CNetTimer::armed() == 0; }));
}

TEST(NTimer, CreateWithoutMemoryGivesNull) {
    const CPublicPool pool;
    for (int allocations = 0; allocations < 2; ++allocations) {
        const CScarceMemory scarce(allocations);
        EXPECT_EQ(nullptr, CNTimer::Create(HOUR_US)) << allocations;
    }
    EXPECT_EQ(0U, CNetTimer::armed());
}

TEST(NTimer, AThousandEventsAreCalledOnceForEachTick) {
    constexpr int COUNT = 1000;
    const CPublicPool pool;
    CTestClock clock(10'000);
    CTestEvent* first = clock.push();
    CGate enough;
    std::vector<CTestEvent*> events;
    for (int i = 0; i < COUNT; ++i) events.push_back(clock.pushRunning());
    // The first event's calls are the number of ticks that all the others have seen the end of.
    std::vector<int> before;
    std::atomic<bool> is_even{true};
    first->on_tick = [&] {
        if (first->calls == 1) {
            for (CTestEvent* event : events) before.push_back(event->calls);
        } else if (first->calls == 11) {
            for (std::size_t i = 0; i < events.size(); ++i) {
                if (events[i]->calls != before[i] + 10) is_even = false;
            }
            enough.open();
        }
    };
    first->Start();
    EXPECT_TRUE(enough.pass());
    EXPECT_TRUE(is_even.load());
    for (int i = 0; i < COUNT; i += 2) events[static_cast<std::size_t>(i)]->Close();
    EXPECT_TRUE(clock.waitClosed(COUNT / 2));
}

TEST(NTimer, ManyThreadsPushStartStopAndCloseWhileTheClockTicks) {
    constexpr int THREADS = 4;
    const int rounds = static_cast<int>(scaledDown(400));
    const CPublicPool pool(3);
    std::atomic<int> closed{0};
    std::atomic<int> calls{0};
    CNTimer* clock = CNTimer::Create(SHORT_US);
    {
        std::vector<std::unique_ptr<CRunner>> threads;
        for (int t = 0; t < THREADS; ++t) {
            threads.push_back(std::make_unique<CRunner>([&, t] {
                for (int i = 0; i < rounds; ++i) {
                    auto* event = new CTestEvent(&closed);
                    // Every fourth closes itself, every other fourth goes with the clock.
                    if (i % 4 == 0) event->on_tick = [event] { event->Close(); };
                    if (i % 4 == 1) event->on_tick = [&calls] { calls += 1; };
                    EXPECT_EQ(0, clock->PushTimerEvent(event));
                    event->Start();
                    if (i % 4 == 2) event->Stop();
                    if (i % 4 >= 2) event->Close();
                    if (i % 16 == t) Plinth::yieldThread();
                }
            }));
        }
    }
    const int stay = THREADS * ((rounds + 2) / 4);
    EXPECT_TRUE(waitUntil([&] { return closed.load() == THREADS * rounds - stay; }));
    EXPECT_TRUE(waitUntil([&] { return calls.load() >= 2 * stay; }));
    clock->Close();
    EXPECT_TRUE(waitUntil([&] { return closed.load() == THREADS * rounds; }));
}

TEST(NTimer, TwoClocksDoNotShareTheirEvents) {
    const CPublicPool pool;
    CTestClock one;
    CTestClock other;
    CTestEvent* of_one = one.pushRunning();
    CTestEvent* of_other = other.pushRunning();
    one.tick();
    EXPECT_EQ(1, of_one->calls.load());
    EXPECT_EQ(0, of_other->calls.load());
    one.close();
    other.tick();
    EXPECT_EQ(1, of_other->calls.load());
}

TEST(NTimer, AnEventMayPushOntoAnotherClockInsideItsCallback) {
    const CPublicPool pool;
    CTestClock one;
    CTestClock other;
    CTestEvent* pushed = nullptr;
    one.pushRunning()->on_tick = [&] { pushed = other.pushRunning(); };
    one.tick();
    other.tick();
    ASSERT_NE(nullptr, pushed);
    EXPECT_EQ(1, pushed->calls.load());
}

TEST(NTimer, ClocksThatOutliveTheirPoolAreEndedByTheirOwner) {
    std::atomic<int> closed{0};
    CNTimer* clock = nullptr;
    std::vector<CTestEvent*> events;
    {
        const CPublicPool pool;
        clock = CNTimer::Create(SHORT_US);
        for (int i = 0; i < 10; ++i) {
            events.push_back(new CTestEvent(&closed));
            EXPECT_EQ(0, clock->PushTimerEvent(events.back()));
            events.back()->Start();
        }
        EXPECT_TRUE(waitUntil([&] { return events.back()->calls.load() > 0; }));
    }
    EXPECT_EQ(0U, CNetTimer::armed());
    EXPECT_EQ(0, closed.load());
    // As with every handler that its pool has left behind, the table's reference is the owner's to drop.
    clock->Close();
    clock->DecRef();
    for (CTestEvent* event : events) event->DecRef();
    EXPECT_EQ(10, closed.load());
}

TEST(NTimer, APoolThatIsMadeAnewHasNoTicksOfOldClocks) {
    std::atomic<int> closed{0};
    CNTimer* clock = nullptr;
    CTestEvent* event = nullptr;
    {
        const CPublicPool pool;
        clock = CNTimer::Create(SHORT_US);
        event = new CTestEvent(&closed);
        EXPECT_EQ(0, clock->PushTimerEvent(event));
        event->Start();
        EXPECT_TRUE(waitUntil([event] { return event->calls.load() > 0; }));
    }
    const int calls = event->calls.load();
    const CPublicPool pool;
    ticksOf(SHORT_US, 10);
    EXPECT_EQ(calls, event->calls.load());
    clock->Close();
    clock->DecRef();
    event->DecRef();
    EXPECT_EQ(1, closed.load());
}

}  // namespace
}  // namespace Veltro::Ravelo
