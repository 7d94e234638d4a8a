#include "Tool/Tally.h"

#include <gtest/gtest.h>

#include "Support/Gate.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CRunner;

TEST(Tally, CountsUpAndDown) {
    CTally tally;
    EXPECT_EQ(0U, tally);
    tally += 7;
    tally -= 2;
    EXPECT_EQ(5U, tally);
    tally = 3;
    EXPECT_EQ(3U, tally);
    EXPECT_EQ(-1, TTally<int>(-1));
}

TEST(StallTime, IsTheSumOfAllStallsAndOfThePresentOne) {
    CStallTime stall;
    EXPECT_EQ(0U, stall.times(100).all_us);
    stall.begin(100);
    EXPECT_TRUE(stall.isStalled());
    EXPECT_EQ(100U, stall.since());
    EXPECT_EQ(50U, stall.times(150).all_us);
    EXPECT_EQ(50U, stall.times(150).now_us);
    stall.end(160);
    EXPECT_FALSE(stall.isStalled());
    EXPECT_EQ(60U, stall.times(500).all_us);
    EXPECT_EQ(0U, stall.times(500).now_us);
    stall.begin(1000);
    EXPECT_EQ(65U, stall.times(1005).all_us);
    EXPECT_EQ(5U, stall.times(1005).now_us);
}

TEST(StallTime, AClockThatStandsBehindIsNoStall) {
    CStallTime stall;
    stall.begin(100);
    EXPECT_EQ(0U, stall.times(90).all_us);
    stall.end(90);
    EXPECT_EQ(0U, stall.times(90).all_us);
}

TEST(StallTime, AStallMayBeginWithTheClock) {
    CStallTime stall;
    stall.begin(0);
    EXPECT_TRUE(stall.isStalled());
    stall.end(10);
    EXPECT_EQ(10U, stall.times(10).all_us);
}

TEST(StallTime, NobodyFindsAStallTwice) {
    CStallTime stall;
    std::atomic<std::uint64_t> now_us{10};
    std::atomic<bool> over{false};
    CRunner writer([&] {
        for (int i = 0; i < 200'000; ++i) {
            stall.begin(now_us);
            now_us += 1;
            stall.end(now_us);
        }
        over = true;
    });
    int wrong = 0;
    while (!over) {
        const CStallTime::STimes times = stall.times(now_us);
        const std::uint64_t later_us = now_us;
        wrong += times.all_us > later_us || times.now_us > later_us;
    }
    writer.join();
    EXPECT_EQ(200'000U, stall.times(now_us).all_us);
    EXPECT_EQ(0, wrong);
}

}  // namespace
}  // namespace Veltro::Ravelo
