// The pacing threads: their grids, who goes to which, and how long they live.
#include "Tool/PacingGroup.h"

#include <Plinth/Time.h>

#include <set>

#include "Support/Affinity.h"
#include "Tool/PacedReceivers.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;
using Times = std::vector<std::int64_t>;
using Numbers = std::vector<unsigned>;

constexpr auto STREAM = CMediaStreamReceiver::RECEIVE_MODE_STREAM;
constexpr auto PASSIVE = CMediaStreamReceiver::RECEIVE_MODE_PASSIVE;
constexpr auto WRITE = CMediaStreamReceiver::RECEIVE_MODE_WRITE;

SPacingGrid gridAt(std::uint64_t now_us, unsigned index, unsigned count, std::int64_t period_us = PERIOD_US) {
    SPacingGrid grid;
    grid.period_us = period_us;
    grid.tick = 77;
    grid.begin(now_us, index, count);
    return grid;
}

TEST(PacingGrid, BeginsAtAWholeTenthOfASecond) {
    EXPECT_EQ(1'000'000'000U, gridAt(1'000'000'000, 0, 1).base_us);
    EXPECT_EQ(1'000'000'000U, gridAt(1'000'099'999, 0, 1).base_us);
    EXPECT_EQ(1'000'100'000U, gridAt(1'000'100'000, 0, 1).base_us);
    EXPECT_EQ(0U, gridAt(5, 0, 1).base_us);
    EXPECT_EQ(0U, gridAt(1'000'000'000, 0, 1).tick);
}

TEST(PacingGrid, EachGroupIsAShareOfThePeriodBehindTheOneBefore) {
    EXPECT_EQ(1'000'005'000U, gridAt(1'000'012'345, 1, 4).base_us);
    EXPECT_EQ(1'000'015'000U, gridAt(1'000'012'345, 3, 4).base_us);
    EXPECT_EQ(1'000'030'000U, gridAt(1'000'012'345, 3, 4, FAST_PERIOD_US).base_us);
    EXPECT_EQ(1'000'006'666U, gridAt(1'000'012'345, 1, 3).base_us);
}

TEST(PacingGrid, TheNextTickLiesOnTheGridWheneverThisOneCame) {
    SPacingGrid grid = gridAt(1'000'000'000, 0, 1);
    grid.tick = 3;
    EXPECT_EQ(80'000, grid.delay(1'000'000'000));
    EXPECT_EQ(20'000, grid.delay(1'000'060'000));
    EXPECT_EQ(0, grid.delay(1'000'080'000));
    EXPECT_EQ(-15'000, grid.delay(1'000'095'000));
}

TEST(PacingGrid, TwentyPeriodsOffIsNotTooFar) {
    SPacingGrid grid = gridAt(1'000'000'000, 0, 1);
    const std::uint64_t due_us = 1'000'000'000 + PERIOD_US;
    EXPECT_FALSE(grid.isOff(due_us + 20 * PERIOD_US));
    EXPECT_TRUE(grid.isOff(due_us + 20 * PERIOD_US + 1));
    EXPECT_FALSE(grid.isOff(due_us - 20 * PERIOD_US));
    EXPECT_TRUE(grid.isOff(due_us - 20 * PERIOD_US - 1));
}

TEST(PacingGroup, AReceiverJoinsTheGroupWithTheFewest) {
    CPacedPool pool(4);
    EXPECT_EQ((Numbers{0, 0, 0, 0}), RecvThreads::numbers(STREAM));
    pool.start();
    EXPECT_EQ((Numbers{1, 0, 0, 0}), RecvThreads::numbers(STREAM));
    CTestReceiver* second = pool.start();
    EXPECT_EQ((Numbers{1, 1, 0, 0}), RecvThreads::numbers(STREAM));
    for (int i = 0; i < 8; ++i) pool.start();
    EXPECT_EQ((Numbers{3, 3, 2, 2}), RecvThreads::numbers(STREAM));
    second->Close();
    pool.time.run(3 * PERIOD_US);
    EXPECT_EQ((Numbers{3, 2, 2, 2}), RecvThreads::numbers(STREAM));
    pool.start();
    EXPECT_EQ((Numbers{3, 3, 2, 2}), RecvThreads::numbers(STREAM));
}

TEST(PacingGroup, WritersHaveASetOfTheirOwn) {
    CPacedPool pool(2);
    pool.start(STREAM);
    pool.start(PASSIVE);
    pool.start(STREAM);
    EXPECT_EQ((Numbers{2, 1}), RecvThreads::numbers(STREAM));
    EXPECT_EQ((Numbers{2, 1}), RecvThreads::numbers(PASSIVE));
    EXPECT_EQ((Numbers{0, 0}), RecvThreads::numbers(WRITE));
    pool.start(WRITE);
    EXPECT_EQ((Numbers{2, 1}), RecvThreads::numbers(STREAM));
    EXPECT_EQ((Numbers{1, 0}), RecvThreads::numbers(WRITE));
}

TEST(PacingGroup, ThereAreAsManyGroupsInASetAsProcessors) {
    const CPublicPool pool;
    EXPECT_EQ(Plinth::getProcessorCount(), RecvThreads::numbers(STREAM).size());
    EXPECT_EQ(Plinth::getProcessorCount(), RecvThreads::numbers(WRITE).size());
}

TEST(PacingGroup, GroupsTickOneBehindTheOther) {
    CPacedPool pool(4);
    std::vector<CTestReceiver*> receivers;
    for (int i = 0; i < 4; ++i) receivers.push_back(pool.start());
    pool.time.run(60'000);
    EXPECT_EQ((Times{0, 40'000, 60'000}), receivers[0]->at_us[STREAM]);
    EXPECT_EQ((Times{0, 45'000}), receivers[1]->at_us[STREAM]);
    EXPECT_EQ((Times{0, 50'000}), receivers[2]->at_us[STREAM]);
    EXPECT_EQ((Times{0, 55'000}), receivers[3]->at_us[STREAM]);
    CTestReceiver* writers[] = {pool.start(WRITE), pool.start(WRITE)};
    pool.time.run(140'000);
    EXPECT_EQ((Times{60'000, 80'000, 120'000, 160'000, 200'000}), writers[0]->at_us[WRITE]);
    EXPECT_EQ((Times{60'000, 90'000, 130'000, 170'000}), writers[1]->at_us[WRITE]);
}

TEST(PacingGroup, TheReceiversOfAGroupAreCalledInTheOrderTheyJoined) {
    CPacedPool pool(1);
    std::vector<int> order;
    for (int i = 0; i < 5; ++i) {
        CTestReceiver* receiver = pool.make();
        receiver->on_call = [&order, i] {
            order.push_back(i);
            return 0;
        };
        receiver->StartReceive(0, 1.0F);
    }
    pool.time.rest();
    order.clear();
    pool.time.run(2 * PERIOD_US);
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4}), order);
}

TEST(PacingGroup, AStartGoesThroughTheTicksThatItsGridHasBehindIt) {
    CPacedPool pool(1);
    pool.time.move(70'000);
    const CTestReceiver* receiver = pool.start();
    EXPECT_EQ((Times{70'000, 70'000, 70'000}), receiver->at_us[STREAM]);
    pool.time.run(50'000);
    EXPECT_EQ((Times{70'000, 70'000, 70'000, 80'000, 100'000, 120'000}), receiver->at_us[STREAM]);
}

TEST(PacingGroup, WholeMillisecondsAreSlept) {
    CPacedPool pool(1);
    pool.time.move(1'300);
    pool.start();
    pool.time.run(60'000);
    // Until 40 ms, 60 ms and 80 ms, each a part of a millisecond early.
    EXPECT_EQ((Times{38, 20, 20}), pool.time.slept());
}

TEST(PacingGroup, LessThanAMillisecondIsNotSlept) {
    CPacedPool pool(1);
    pool.time.move(39'001);
    const CTestReceiver* receiver = pool.start();
    EXPECT_EQ((Times{39'001, 39'001}), receiver->at_us[STREAM]);
    EXPECT_EQ((Times{20}), pool.time.slept());
}

TEST(PacingGroup, ALateGroupMakesUpForIt) {
    CPacedPool pool(1);
    const CTestReceiver* receiver = pool.start();
    pool.time.run(2 * PERIOD_US);
    ASSERT_EQ(2U, receiver->calls());
    pool.time.jump(20 * PERIOD_US);
    // The ticks 3 to 22, all at once.
    EXPECT_EQ(22U, receiver->calls());
    EXPECT_EQ(22 * PERIOD_US, receiver->at_us[STREAM].back());
    pool.time.run(PERIOD_US);
    EXPECT_EQ(23U, receiver->calls());
    EXPECT_EQ(23 * PERIOD_US, receiver->at_us[STREAM].back());
}

TEST(PacingGroup, ANormalGroupThatIsTooLateBeginsANewGridAPeriodLater) {
    CPacedPool pool(1);
    const CTestReceiver* receiver = pool.start();
    pool.time.run(2 * PERIOD_US);
    ASSERT_EQ(2U, receiver->calls());
    // The tick after the one at 40 ms would have been at 60 ms, and the next at 80 ms.
    pool.time.jump(100 * PERIOD_US + 7'000);
    EXPECT_EQ((Times{0, 40'000, 2'047'000}), receiver->at_us[STREAM]);
    pool.time.run(60'000);
    // The new grid begins at 2000 ms; the tick a period later is its first, so the one at 2080 ms its fourth.
    EXPECT_EQ((Times{0, 40'000, 2'047'000, 2'067'000, 2'067'000, 2'067'000, 2'080'000, 2'100'000}),
              receiver->at_us[STREAM]);
}

TEST(PacingGroup, AFastGroupThatIsTooLateGoesRoundAtOnce) {
    CPacedPool pool(1);
    const CTestReceiver* receiver = pool.start(WRITE);
    pool.time.run(2 * FAST_PERIOD_US);
    ASSERT_EQ(2U, receiver->calls());
    pool.time.jump(100 * FAST_PERIOD_US + 7'000);
    // Late, then the second tick of a grid that begins at 4000 ms; its third is at 4120 ms.
    EXPECT_EQ((Times{0, 80'000, 4'087'000, 4'087'000}), receiver->at_us[WRITE]);
    pool.time.run(80'000);
    EXPECT_EQ((Times{0, 80'000, 4'087'000, 4'087'000, 4'120'000, 4'160'000}), receiver->at_us[WRITE]);
}

TEST(PacingGroup, AThreadEndsWithItsLastReceiverAndStartsWithTheNext) {
    CPacedPool pool(1);
    std::vector<unsigned long> threads;
    for (int i = 0; i < 3; ++i) {
        CTestReceiver* receiver = pool.make();
        receiver->on_call = [&threads] {
            threads.push_back(Plinth::getCurrentThreadId());
            return 0;
        };
        receiver->StartReceive(0, 1.0F);
        pool.time.rest();
        receiver->Close();
        pool.time.run(7 * PERIOD_US);
        EXPECT_EQ((Numbers{0}), RecvThreads::numbers(STREAM));
        EXPECT_TRUE(pool.waitClosed(i + 1));
    }
    // A system may give a number to several threads in turn, so nothing is said of their difference.
    EXPECT_LE(3U, threads.size());
    const CTestReceiver* last = pool.start();
    const std::size_t calls = last->calls();
    pool.time.run(10 * PERIOD_US);
    EXPECT_LE(calls + 9, last->calls());
}

TEST(PacingGroup, EveryPatternOfClosedReceiversIsReapedByOneTick) {
    static constexpr unsigned COUNT = 4;
    for (unsigned closed = 0; closed < 1U << COUNT; ++closed) {
        CPacedPool pool(1);
        std::vector<unsigned> called;
        std::vector<CTestReceiver*> receivers;
        const auto add = [&](unsigned number) {
            receivers.push_back(pool.make());
            receivers.back()->on_call = [&called, number] {
                called.push_back(number);
                return 0;
            };
            receivers.back()->StartReceive(0, 1.0F);
        };
        for (unsigned i = 0; i < COUNT; ++i) add(i);
        pool.time.rest();
        std::vector<unsigned> expected;
        int expected_closed = 0;
        for (unsigned i = 0; i < COUNT; ++i) {
            if (closed >> i & 1U) {
                receivers[i]->Close();
                expected_closed += 1;
            } else {
                expected.push_back(i);
            }
        }
        called.clear();
        pool.time.run(2 * PERIOD_US);
        EXPECT_EQ(expected, called) << closed;
        EXPECT_TRUE(pool.waitClosed(expected_closed)) << closed;
        EXPECT_EQ((Numbers{static_cast<unsigned>(expected.size())}), RecvThreads::numbers(STREAM));
        // The list still ends where it should.
        add(COUNT);
        pool.time.rest();
        called.clear();
        expected.push_back(COUNT);
        pool.time.run(PERIOD_US);
        EXPECT_EQ(expected, called) << closed;
    }
}

TEST(PacingGroup, AThreadIsPinnedToTheProcessorOfItsGroup) {
    const unsigned count = Plinth::getProcessorCount();
    const std::uint64_t all = allowedProcessors();
    CPacedPool pool;
    std::set<std::uint64_t> seen;
    for (const auto mode : {STREAM, WRITE}) {
        for (unsigned i = 0; i < count; ++i) {
            std::uint64_t allowed = 0;
            CTestReceiver* receiver = pool.make(mode);
            receiver->on_call = [&allowed] {
                allowed = allowedProcessors();
                return 0;
            };
            receiver->StartReceive(0, 1.0F);
            pool.time.rest();
            receiver->StopReceive();
            EXPECT_NE(0U, allowed);
            EXPECT_EQ(0U, allowed & (allowed - 1)) << "more than one";
            EXPECT_EQ(allowed, allowed & all);
            seen.insert(allowed);
        }
    }
    EXPECT_EQ(count, seen.size());
}

TEST(PacingGroup, ThePaceIsSetByLevelForThreadsToCome) {
    constexpr std::pair<int, std::int64_t> PACES[] = {{0, 10'000}, {1, 20'000},  {2, 25'000},
                                                      {3, 30'000}, {-1, 20'000}, {4, 20'000}};
    for (const auto& [level, period_us] : PACES) {
        CPacedPool pool(1);
        CNetThread::SetRcvPriority(level);
        const CTestReceiver* receiver = pool.start();
        const CTestReceiver* writer = pool.start(WRITE);
        pool.time.run(120'000);
        ASSERT_LE(4U, receiver->calls());
        EXPECT_EQ((Times{0, 2 * period_us, 3 * period_us, 4 * period_us}),
                  Times(receiver->at_us[STREAM].begin(), receiver->at_us[STREAM].begin() + 4));
        EXPECT_EQ((Times{0, 80'000, 120'000}), writer->at_us[WRITE]);
    }
    CNetThread::SetRcvPriority(1);
}

TEST(PacingGroup, AThreadThatRunsKeepsItsPace) {
    CPacedPool pool(1);
    const CTestReceiver* receiver = pool.start();
    CNetThread::SetRcvPriority(0);
    pool.time.run(4 * PERIOD_US);
    EXPECT_EQ((Times{0, 40'000, 60'000, 80'000}), receiver->at_us[STREAM]);
    CNetThread::SetRcvPriority(1);
}

TEST(PacingGroup, PassiveReceiversCountTicksOfTheSetPace) {
    CPacedPool pool(1);
    CNetThread::SetRcvPriority(0);
    CTestReceiver* receiver = pool.make(PASSIVE);
    receiver->on_call = [receiver] { return static_cast<std::int64_t>(receiver->calls()) * 30'000; };
    receiver->StartReceive(0, 1.0F);
    pool.time.run(120'000);
    // The tick behind the first is two periods later; from then on every third.
    EXPECT_EQ((Times{0, 20'000, 40'000, 70'000, 100'000}), receiver->at_us[PASSIVE]);
    CNetThread::SetRcvPriority(1);
}

TEST(PacingGroup, RealTicksKeepToTheGrid) {
    const CPublicPool pool;
    constexpr std::size_t TICKS = 40;
    Plinth::CSemaphore done;
    std::vector<std::int64_t> at_us;
    std::atomic<int> closed{0};
    auto* receiver = new CTestReceiver(&closed);
    receiver->on_call = [&] {
        if (at_us.size() < TICKS) {
            at_us.push_back(static_cast<std::int64_t>(Plinth::CTime::getCurrentMicroSecond()));
            if (at_us.size() == TICKS) done.post();
        }
        return 0;
    };
    const auto start_us = static_cast<std::int64_t>(Plinth::CTime::getCurrentMicroSecond());
    receiver->StartReceive(0, 1.0F);
    EXPECT_TRUE(waitUntil([&done] { return done.tryPend(); }));
    receiver->Close();
    EXPECT_TRUE(waitUntil([&closed] { return closed.load() == 1; }));
    // The first comes at once, the others late at will, but never a millisecond before their place.
    const std::int64_t base_us = start_us / 100'000 * 100'000;
    for (std::size_t i = 1; i < TICKS; ++i) {
        EXPECT_GE(at_us[i], base_us + static_cast<std::int64_t>(i + 1) * PERIOD_US - 1000) << i;
    }
}

}  // namespace
}  // namespace Veltro::Ravelo
