#include <Plinth/Thread.h>
#include <Plinth/Time.h>
#include <gtest/gtest.h>

namespace Veltro::Plinth {
namespace {

TEST(Time, MicroSecondsAndMilliSecondsShareOneSteadyClock) {
    const auto before_ms = CTime::getCurrentMilliSecond();
    const auto now_us = CTime::getCurrentMicroSecond();
    const auto after_ms = CTime::getCurrentMilliSecond();

    EXPECT_LE(before_ms, now_us / 1000);
    EXPECT_GE(after_ms, now_us / 1000);
}

}  // namespace
}  // namespace Veltro::Plinth
