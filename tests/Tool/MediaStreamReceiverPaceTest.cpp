// When a passive receiver is called: its media times against the real one.
#include <cstdint>
#include <limits>

#include "Support/LogCapture.h"
#include "Tool/PacedReceivers.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;
using Times = std::vector<std::int64_t>;

constexpr auto PASSIVE = CMediaStreamReceiver::RECEIVE_MODE_PASSIVE;
constexpr std::int64_t GREATEST = std::numeric_limits<std::int64_t>::max();

/// How many ticks to wait after a first frame at media time 1000 and real time 5 s, and a later one.
struct SPace {
    static constexpr std::uint64_t START_US = 5'000'000;
    std::int64_t offset_us = 0;
    float rate = 1.0F;

    std::int32_t after(std::int64_t media_us, std::int64_t real_us) const {
        SMediaStreamReceiverRecord record;
        Plinth::CLockGuard guard(record.mutex);
        record.restart(offset_us, rate);
        record.pace(1000, START_US, PERIOD_US);
        return record.pace(media_us, START_US + static_cast<std::uint64_t>(real_us), PERIOD_US);
    }
};

TEST(MediaStreamReceiverPace, TheFirstFrameIsFollowedByOneTick) {
    SMediaStreamReceiverRecord record;
    Plinth::CLockGuard guard(record.mutex);
    record.restart(0, 1.0F);
    EXPECT_EQ(1, record.pace(123'456'789, SPace::START_US, PERIOD_US));
    EXPECT_EQ(123'456'789, record.m_media_base);
    EXPECT_EQ(SPace::START_US, record.m_real_base);
}

TEST(MediaStreamReceiverPace, TheWaitIsWhatTheMediaIsAheadInWholeTicks) {
    const SPace pace;
    EXPECT_EQ(1, pace.after(1000, 0));
    EXPECT_EQ(1, pace.after(1000 + 19'999, 0));
    EXPECT_EQ(2, pace.after(1000 + 20'000, 0));
    EXPECT_EQ(1, pace.after(1000 + 20'000, 20'000));
    EXPECT_EQ(1, pace.after(1000 + 20'000, 19'999));
    EXPECT_EQ(0, pace.after(1000 + 20'000, 20'001));
    EXPECT_EQ(51, pace.after(1000 + 1'000'000, 0));
    EXPECT_EQ(0, pace.after(1000, 39'999));
    EXPECT_EQ(-1, pace.after(1000, 40'000));
    EXPECT_EQ(-49, pace.after(1000, 1'000'000));
}

TEST(MediaStreamReceiverPace, TheOffsetHastensThePlay) {
    const SPace pace{60'000, 1.0F};
    EXPECT_EQ(-2, pace.after(1000, 0));
    EXPECT_EQ(1, pace.after(1000 + 60'000, 0));
    EXPECT_EQ(1, pace.after(1000 + 80'000, 20'000));
    EXPECT_EQ(4, (SPace{-60'000, 1.0F}).after(1000, 0));
}

TEST(MediaStreamReceiverPace, TheRateDividesTheMediaTime) {
    EXPECT_EQ(2, (SPace{0, 2.0F}).after(1000 + 40'000, 0));
    EXPECT_EQ(3, (SPace{0, 0.5F}).after(1000 + 20'000, 0));
    // What a float could not hold.
    EXPECT_EQ(2, (SPace{0, 1.0F}).after(1000 + 20'000, 0));
    SMediaStreamReceiverRecord record;
    Plinth::CLockGuard guard(record.mutex);
    record.restart(0, 1.0F);
    record.pace(3'600'000'000'001, SPace::START_US, PERIOD_US);
    EXPECT_EQ(3'600'000'000'001, record.m_media_base);
}

TEST(MediaStreamReceiverPace, NoTimeAndNoRateIsBeyondReckoning) {
    constexpr float NOTHING = 0.0F;
    for (const float rate :
         {NOTHING, -1.0F, std::numeric_limits<float>::infinity(), std::numeric_limits<float>::quiet_NaN(),
          std::numeric_limits<float>::min(), std::numeric_limits<float>::max(), 1.0F}) {
        for (const std::int64_t media_us : {std::int64_t{1}, std::int64_t{20'000}, GREATEST}) {
            for (const std::int64_t offset_us :
                 {std::int64_t{0}, GREATEST, std::numeric_limits<std::int64_t>::min()}) {
                (SPace{offset_us, rate}).after(media_us, 20'000);
            }
        }
    }
    EXPECT_EQ(std::numeric_limits<std::int32_t>::max(), (SPace{}).after(GREATEST, 0));
    EXPECT_EQ(1, (SPace{0, NOTHING}).after(GREATEST, 0));
}

/// A passive receiver whose media time goes on by so much with every call.
CTestReceiver* startFrames(CPacedPool& pool, std::int64_t frame_us, std::int64_t offset_us = 0,
                           float rate = 1.0F) {
    CTestReceiver* receiver = pool.make(PASSIVE);
    receiver->on_call = [receiver, frame_us] {
        return static_cast<std::int64_t>(receiver->calls()) * frame_us;
    };
    receiver->StartReceive(offset_us, rate);
    pool.time.rest();
    return receiver;
}

TEST(MediaStreamReceiverPace, FramesOfOneTickComeOneForEachTick) {
    CPacedPool pool;
    const CTestReceiver* receiver = startFrames(pool, PERIOD_US);
    pool.time.run(6 * PERIOD_US);
    // The second tick of the grid is two periods behind the first.
    EXPECT_EQ((Times{0, 40'000, 40'000, 60'000, 80'000, 100'000, 120'000}), receiver->at_us[PASSIVE]);
}

TEST(MediaStreamReceiverPace, AReceiverAheadOfRealTimeIsSkippedUntilThatCatchesUp) {
    CPacedPool pool;
    const CTestReceiver* receiver = startFrames(pool, 5 * PERIOD_US);
    pool.time.run(20 * PERIOD_US);
    EXPECT_EQ((Times{0, 40'000, 120'000, 220'000, 320'000}), receiver->at_us[PASSIVE]);
}

TEST(MediaStreamReceiverPace, AReceiverAheadOfRealTimeIsNeverCalledTwiceInATick) {
    CPacedPool pool;
    const CTestReceiver* receiver = startFrames(pool, 2 * PERIOD_US);
    pool.time.run(50 * PERIOD_US);
    const Times& at_us = receiver->at_us[PASSIVE];
    EXPECT_LE(24U, at_us.size());
    for (std::size_t i = 1; i < at_us.size(); ++i) EXPECT_LT(at_us[i - 1], at_us[i]);
}

TEST(MediaStreamReceiverPace, AReceiverThatLagsIsCalledEightTimesATick) {
    CPacedPool pool;
    const CTestReceiver* receiver = startFrames(pool, 1);
    EXPECT_EQ(1U, receiver->calls());
    for (unsigned tick = 1; tick <= 5; ++tick) {
        pool.time.run(tick == 1 ? 2 * PERIOD_US : PERIOD_US);
        EXPECT_EQ(1 + 8 * tick, receiver->calls());
    }
}

TEST(MediaStreamReceiverPace, ALagIsMadeUpAndNoMore) {
    CPacedPool pool;
    CTestReceiver* receiver = startFrames(pool, PERIOD_US);
    pool.time.run(10 * PERIOD_US);
    const std::size_t before = receiver->calls();
    const auto frames = receiver->on_call;
    receiver->on_call = [] { return 0; };
    pool.time.run(15 * PERIOD_US);
    const std::size_t silent = receiver->calls() - before;
    EXPECT_EQ(15U, silent);
    receiver->on_call = [frames, silent] { return frames() - static_cast<std::int64_t>(silent) * PERIOD_US; };
    pool.time.run(PERIOD_US);
    EXPECT_EQ(before + silent + 8, receiver->calls());
    pool.time.run(PERIOD_US);
    EXPECT_EQ(before + silent + 16, receiver->calls());
    pool.time.run(PERIOD_US);
    EXPECT_EQ(before + silent + 18, receiver->calls());
    pool.time.run(PERIOD_US);
    EXPECT_EQ(before + silent + 19, receiver->calls());
}

TEST(MediaStreamReceiverPace, AtTwiceTheRateFramesComeTwiceAsFast) {
    CPacedPool pool;
    const CTestReceiver* receiver = startFrames(pool, 4 * PERIOD_US, 0, 2.0F);
    pool.time.run(40 * PERIOD_US);
    EXPECT_NEAR(20.0, static_cast<double>(receiver->calls()), 1.0);
}

TEST(MediaStreamReceiverPace, AtHalfTheRateFramesComeHalfAsFast) {
    CPacedPool pool;
    const CTestReceiver* receiver = startFrames(pool, PERIOD_US, 0, 0.5F);
    pool.time.run(40 * PERIOD_US);
    EXPECT_NEAR(20.0, static_cast<double>(receiver->calls()), 1.0);
}

TEST(MediaStreamReceiverPace, AnOffsetIsDeliveredAtTheStart) {
    CPacedPool pool;
    const CTestReceiver* receiver = startFrames(pool, PERIOD_US, 3 * PERIOD_US);
    EXPECT_EQ((Times{0, 0, 0, 0}), receiver->at_us[PASSIVE]);
    pool.time.run(10 * PERIOD_US);
    EXPECT_EQ(4U + 10U, receiver->calls());
}

TEST(MediaStreamReceiverPace, AtAnotherRateThereIsNoOffset) {
    CPacedPool pool;
    const CTestReceiver* receiver = startFrames(pool, 2 * PERIOD_US, 5'000'000, 2.0F);
    EXPECT_EQ((Times{0}), receiver->at_us[PASSIVE]);
}

TEST(MediaStreamReceiverPace, AReceiverThatHasNothingIsAskedAgainAtTheNextTick) {
    CPacedPool pool;
    CTestReceiver* receiver = pool.start(PASSIVE);
    pool.time.run(4 * PERIOD_US);
    EXPECT_EQ((Times{0, 40'000, 60'000, 80'000}), receiver->at_us[PASSIVE]);
}

TEST(MediaStreamReceiverPace, AFailureEndsTheCallsOfATick) {
    CPacedPool pool;
    const CListener listener;
    CLogCapture log;
    CTestReceiver* receiver = pool.make(PASSIVE);
    receiver->WaitException(listener.id());
    receiver->on_call = [receiver] { return receiver->calls() % 4 == 0 ? -7 : 1; };
    receiver->StartReceive(0, 1.0F);
    pool.time.rest();
    for (unsigned tick = 1; tick <= 3; ++tick) {
        pool.time.run(tick == 1 ? 2 * PERIOD_US : PERIOD_US);
        EXPECT_EQ(4 * tick, receiver->calls());
        EXPECT_TRUE(listener.waitFor(tick));
        EXPECT_EQ(tick, listener.messages().size());
    }
}

TEST(MediaStreamReceiverPace, AStopInsideTheCallbackEndsTheCallsOfATick) {
    CPacedPool pool;
    CTestReceiver* receiver = startFrames(pool, 1);
    receiver->on_call = [receiver] {
        if (receiver->calls() == 4) receiver->StopReceive();
        return 1;
    };
    pool.time.run(10 * PERIOD_US);
    EXPECT_EQ(4U, receiver->calls());
    receiver->StartReceive(0, 1.0F);
    pool.time.run(PERIOD_US);
    EXPECT_EQ(5U, receiver->calls());
}

TEST(MediaStreamReceiverPace, ACloseInsideTheCallbackEndsTheCallsOfATick) {
    CPacedPool pool;
    std::size_t calls = 0;
    CTestReceiver* receiver = startFrames(pool, 1);
    receiver->on_call = [receiver, &calls] {
        calls += 1;
        if (calls == 3) receiver->Close();
        return 1;
    };
    pool.time.run(10 * PERIOD_US);
    EXPECT_TRUE(pool.waitClosed(1));
    EXPECT_EQ(3U, calls);
}

TEST(MediaStreamReceiverPace, AResumeBeginsTheMediaTimeAnew) {
    CPacedPool pool;
    CTestReceiver* receiver = startFrames(pool, PERIOD_US);
    pool.time.run(20 * PERIOD_US);
    receiver->StopReceive();
    pool.time.run(100 * PERIOD_US);
    const std::size_t before = receiver->calls();
    // Neither the pause nor a jump back to the beginning counts as a lag.
    receiver->on_call = [receiver, before] {
        return static_cast<std::int64_t>(receiver->calls() - before) * PERIOD_US;
    };
    receiver->StartReceive(0, 1.0F);
    pool.time.run(10 * PERIOD_US);
    EXPECT_EQ(before + 10, receiver->calls());
}

}  // namespace
}  // namespace Veltro::Ravelo
