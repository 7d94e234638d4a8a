// What the benchmark of paced receivers needs of a system.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Bench {

/// When the ticks of each receiver came, in nanoseconds.
using ReceiverTicks = std::vector<std::vector<std::int64_t>>;

/// Lets a system call a number of receivers periodically, and returns when each was called often enough.
/// Defined by each system's file.
ReceiverTicks run_paced(std::size_t receivers, std::size_t count, std::int64_t period_us);

/// The name that the results carry. Defined by each system's file.
const char* pace_system_name();

}  // namespace Bench
