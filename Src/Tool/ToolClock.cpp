#include "Tool/ToolClock.h"

#include <Plinth/Thread.h>
#include <Plinth/Time.h>

#include <atomic>

namespace Veltro::Ravelo {

namespace {
std::atomic<std::uint64_t (*)()> s_now_us{&Plinth::CTime::getCurrentMicroSecond};
std::atomic<void (*)(std::int64_t)> s_sleep_ms{&Plinth::sleepMilliSecond};
}  // namespace

void setToolClock(const SToolClock& clock) {
    s_now_us = clock.now_us != nullptr ? clock.now_us : &Plinth::CTime::getCurrentMicroSecond;
    s_sleep_ms = clock.sleep_ms != nullptr ? clock.sleep_ms : &Plinth::sleepMilliSecond;
}

std::uint64_t toolNowUs() {
    return s_now_us.load(std::memory_order_relaxed)();
}

void toolSleepMs(std::int64_t time_ms) {
    s_sleep_ms.load(std::memory_order_relaxed)(time_ms);
}

}  // namespace Veltro::Ravelo
