#include <Plinth/Thread.h>
#include <Plinth/Time.h>
#include <gtest/gtest.h>

#include <atomic>
#include <limits>

namespace Veltro::Plinth {
namespace {

TEST(Time, MicroSecondsAndMilliSecondsShareOneSteadyClock) {
    const auto before_ms = CTime::getCurrentMilliSecond();
    const auto now_us = CTime::getCurrentMicroSecond();
    const auto after_ms = CTime::getCurrentMilliSecond();

    EXPECT_LE(before_ms, now_us / 1000);
    EXPECT_GE(after_ms, now_us / 1000);
}

TEST(Time, NeverRunsBackwards) {
    std::uint64_t last_us = CTime::getCurrentMicroSecond();
    for (int i = 0; i < 100'000; ++i) {
        const std::uint64_t now_us = CTime::getCurrentMicroSecond();
        ASSERT_GE(now_us, last_us);
        last_us = now_us;
    }
}

TEST(Time, IsTheSameOnEveryThread) {
    const std::uint64_t before_us = CTime::getCurrentMicroSecond();
    std::uint64_t there_us = 0;
    CThreadLite other([&](CThreadLite&) { there_us = CTime::getCurrentMicroSecond(); }, "other");
    ASSERT_TRUE(other.createThread());
    other.destroyThread();
    EXPECT_GE(there_us, before_us);
    EXPECT_LE(there_us, CTime::getCurrentMicroSecond());
}

TEST(Time, ResolvesLessThanAMilliSecond) {
    std::uint64_t smallest_us = std::numeric_limits<std::uint64_t>::max();
    for (int i = 0; i < 100; ++i) {
        const std::uint64_t start_us = CTime::getCurrentMicroSecond();
        std::uint64_t now_us = start_us;
        while (now_us == start_us) now_us = CTime::getCurrentMicroSecond();
        smallest_us = std::min(smallest_us, now_us - start_us);
    }
    EXPECT_LT(smallest_us, 1000U);
}

TEST(Time, SleepIsNeverShort) {
    for (const std::int64_t time_ms : {1, 7, 16, 25}) {
        const std::uint64_t start_us = CTime::getCurrentMicroSecond();
        sleepMilliSecond(time_ms);
        const auto gone_us = static_cast<std::int64_t>(CTime::getCurrentMicroSecond() - start_us);
        EXPECT_GE(gone_us + 1, time_ms * 1000);
    }
}

TEST(Time, SleepOfNothingOrLessReturns) {
    sleepMilliSecond(0);
    sleepMilliSecond(-1);
    sleepMilliSecond(std::numeric_limits<std::int64_t>::min());
}

}  // namespace
}  // namespace Veltro::Plinth
