// What the benchmark of ticks needs of a library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Bench {

/// When ticks came.
struct STicks {
    std::int64_t base_ns = 0;  ///< where the grid begins: read just before the clock is made
    std::vector<std::int64_t> at_ns;
};

/// Lets a library's periodic clock tick, and returns when it has ticked often enough. Defined by each
/// library's file.
STicks run_ticks(std::size_t count, std::int64_t period_us);

/// The name that the results carry. Defined by each library's file.
const char* tick_system_name();

}  // namespace Bench
