// The time by which timer events keep their grid.
#pragma once

#include <cstdint>

namespace Veltro::Ravelo {

/// Lets all clocks of timer events tell the time by another clock, in microseconds; null goes back to the
/// steady one. Handler timers, which wake them, stay with the steady one. Any thread.
void setNTimerClock(std::uint64_t (*clock)());

}  // namespace Veltro::Ravelo
