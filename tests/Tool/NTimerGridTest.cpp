// When a clock ticks next, in a time that the tests move.
#include <cstdint>
#include <limits>

#include "Support/LogCapture.h"
#include "Tool/NTimerRecord.h"
#include "Tool/TimerEvents.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;

constexpr std::int64_t PERIOD_US = 10'000;

/// A clock's time-keeping alone, one tick after the start of its grid.
struct SGrid {
    static constexpr std::uint64_t START_US = 5'000'000;
    SNTimerRecord record;
    explicit SGrid(std::int64_t period_us = PERIOD_US) : record(START_US, period_us) { record.m_ticks = 1; }
    /// The delay at a moment after the start.
    std::int64_t delayAt(std::int64_t since_us) {
        return record.nextDelay(START_US + static_cast<std::uint64_t>(since_us));
    }
    bool isNew() const { return record.m_ticks == 0; }
};

TEST(NTimerGrid, TheNextTickLiesOnTheGridWheneverThisOneCame) {
    for (const std::int64_t late_us : {-3000, -1, 0, 1, 4000, 8000}) {
        SGrid grid;
        EXPECT_EQ(PERIOD_US - late_us, grid.delayAt(PERIOD_US + late_us));
        EXPECT_FALSE(grid.isNew());
    }
}

TEST(NTimerGrid, TheNextTickIsAtLeastTwoMillisecondsAway) {
    for (const std::int64_t late_us : {8000, 8001, 9999, 10'000, 15'000, 100'000}) {
        SGrid grid;
        EXPECT_EQ(2000, grid.delayAt(PERIOD_US + late_us)) << late_us;
        EXPECT_FALSE(grid.isNew());
    }
}

TEST(NTimerGrid, TwentyPeriodsOffIsNotTooFar) {
    SGrid late;
    EXPECT_EQ(2000, late.delayAt(22 * PERIOD_US));
    EXPECT_FALSE(late.isNew());
    SGrid early;
    EXPECT_EQ(20 * PERIOD_US, early.delayAt(-18 * PERIOD_US));
    EXPECT_FALSE(early.isNew());
}

TEST(NTimerGrid, BeyondTwentyPeriodsANewGridBegins) {
    for (const std::int64_t since_us : {22 * PERIOD_US + 1, 10'000 * PERIOD_US, -18 * PERIOD_US - 1}) {
        SGrid grid;
        EXPECT_EQ(PERIOD_US, grid.delayAt(since_us));
        EXPECT_TRUE(grid.isNew());
        EXPECT_EQ(SGrid::START_US + static_cast<std::uint64_t>(since_us), grid.record.m_base_time);
        // The tick after it, on time.
        grid.record.m_ticks += 1;
        EXPECT_EQ(PERIOD_US, grid.delayAt(since_us + PERIOD_US));
    }
}

TEST(NTimerGrid, ANewGridOfAShortPeriodBeginsTwoMillisecondsLater) {
    SGrid grid(1000);
    EXPECT_EQ(2000, grid.delayAt(22'001));
    EXPECT_TRUE(grid.isNew());
}

TEST(NTimerGrid, AShortPeriodIsStretchedToTwoMilliseconds) {
    SGrid grid(1000);
    EXPECT_EQ(2000, grid.delayAt(1000));
    EXPECT_FALSE(grid.isNew());
}

TEST(NTimerGrid, APeriodOfNothingTicksEveryTwoMilliseconds) {
    for (const std::int64_t period_us : {std::int64_t{0}, std::int64_t{-1}, std::int64_t{-PERIOD_US},
                                         std::numeric_limits<std::int64_t>::min()}) {
        SGrid grid(period_us);
        for (std::int64_t since_us = 0; since_us < 10'000; since_us += 2000) {
            EXPECT_EQ(2000, grid.delayAt(since_us)) << period_us;
            grid.record.m_ticks += 1;
        }
    }
}

TEST(NTimerGrid, APeriodBeyondAllReasonIsHarmless) {
    constexpr std::int64_t LONGEST = std::numeric_limits<std::int64_t>::max();
    SGrid first(LONGEST);
    first.record.m_ticks = 0;
    EXPECT_EQ(LONGEST, first.delayAt(0));
    SGrid wrapped(LONGEST);
    EXPECT_GE(wrapped.delayAt(1), 2000);
}

TEST(NTimerGrid, ATickCountsAndReturnsTheDelayToTheNext) {
    const CPublicPool pool;
    CStandingTime time;
    CTestClock clock;
    time.move(HOUR_US + 700);
    EXPECT_EQ(HOUR_US - 700, clock.tick());
    time.move(HOUR_US - 1000);
    EXPECT_EQ(HOUR_US + 300, clock.tick());
}

TEST(NTimerGrid, AfterASuspensionTheNextTickComesOnePeriodLater) {
    const CPublicPool pool;
    CStandingTime time;
    CTestClock clock;
    CTestEvent* event = clock.pushRunning();
    time.move(30 * HOUR_US);
    EXPECT_EQ(HOUR_US, clock.tick());
    // One call for all the ticks that were missed, and the grid begins where it was noticed.
    EXPECT_EQ(1, event->calls.load());
    time.move(HOUR_US + 5000);
    EXPECT_EQ(HOUR_US - 5000, clock.tick());
}

TEST(NTimerGrid, MissedTicksWithinTwentyPeriodsAreCaughtUp) {
    const CPublicPool pool;
    CStandingTime time;
    CTestClock clock;
    CTestEvent* event = clock.pushRunning();
    time.move(4 * HOUR_US);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(2000, clock.tick());
    EXPECT_EQ(HOUR_US, clock.tick());
    EXPECT_EQ(4, event->calls.load());
}

TEST(NTimerGridDeathTest, AListWithoutATailMustBeEmpty) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            CNetThread::CreateThreadPool(1, false);
            SNTimerRecord record(0, PERIOD_US);
            Plinth::CLockGuard guard(record.mutex);
            record.m_head = new CTestEvent;
            record.append(new CTestEvent);
        },
        "Assertion failed: m_head == NULL");
}

}  // namespace
}  // namespace Veltro::Ravelo
