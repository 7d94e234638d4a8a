// The clock by which the bandwidth-limited streams count their periods.
#pragma once

#include <cstdint>

namespace Veltro::Ravelo {

/// Lets all bandwidth-limited streams count by another clock, in milliseconds; null goes back to the steady
/// one. Any thread.
void setSimulatorClock(std::uint64_t (*clock)());

}  // namespace Veltro::Ravelo
