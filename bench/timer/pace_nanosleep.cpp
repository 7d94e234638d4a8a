// The lower bound: a loop that sleeps until the next moment of the grid and calls all receivers.
#include <ctime>

#include "common/Clock.h"
#include "timer/PaceSystem.h"

namespace Bench {

ReceiverTicks run_paced(std::size_t receivers, std::size_t count, std::int64_t period_us) {
    ReceiverTicks ticks(receivers);
    for (auto& own : ticks) own.reserve(count);
    std::int64_t next_ns = now_ns();
    for (std::size_t i = 0; i < count; ++i) {
        next_ns += period_us * 1000;
        const timespec until{next_ns / 1'000'000'000, next_ns % 1'000'000'000};
        while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) != 0) {
        }
        for (auto& own : ticks) own.push_back(now_ns());
    }
    return ticks;
}

const char* pace_system_name() {
    return "nanosleep";
}

}  // namespace Bench
