// The time by which the tools of this folder keep their pace.
#pragma once

#include <cstdint>

namespace Veltro::Ravelo {

/// What tells the time and what sleeps by it; a null member stands for the steady clock.
struct SToolClock {
    std::uint64_t (*now_us)() = nullptr;               ///< microseconds
    void (*sleep_ms)(std::int64_t time_ms) = nullptr;  ///< at least so many milliseconds
};

/// Lets the clocks of timer events and the pacing threads go by another time; {} goes back to the steady
/// clock. Handler timers, which wake the clocks, stay with the steady one. Any thread.
void setToolClock(const SToolClock& clock);

std::uint64_t toolNowUs();
void toolSleepMs(std::int64_t time_ms);

}  // namespace Veltro::Ravelo
