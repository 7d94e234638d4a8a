// The clock of all benchmarks.
#pragma once

#include <ctime>

#include <cstdint>

namespace Bench {

/// Nanoseconds of the steady clock.
inline std::int64_t now_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

}  // namespace Bench
