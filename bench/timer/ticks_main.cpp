// Lets a periodic clock tick: `ticks_<library> <count> <period us>`; one line of JSON.
//
// A tick's deviation is how far it came from its place on the grid, the clock's beginning plus n periods.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "common/Placement.h"
#include "timer/TickSystem.h"

namespace {

using namespace Bench;

/// In microseconds, in the order of the ticks; negative when early.
std::vector<double> deviations(const STicks& ticks, std::int64_t period_us) {
    std::vector<double> result;
    std::int64_t place_ns = ticks.base_ns;
    for (const std::int64_t at_ns : ticks.at_ns) {
        place_ns += period_us * 1000;
        result.push_back(static_cast<double>(at_ns - place_ns) / 1000.0);
    }
    return result;
}

/// The value that a share of all does not exceed; sorts.
double percentile(std::vector<double>& values, double share) {
    std::sort(values.begin(), values.end());
    const auto rank = static_cast<std::size_t>(std::ceil(share * static_cast<double>(values.size())));
    return values[std::clamp<std::size_t>(rank, 1, values.size()) - 1];
}

}  // namespace

int main(int argc, char** argv) {
    const std::size_t count = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 0;
    const std::int64_t period_us = argc > 2 ? std::strtoll(argv[2], nullptr, 10) : 0;
    if (count == 0 || period_us <= 0) {
        std::fprintf(stderr, "usage: %s COUNT PERIOD_US\n", argv[0]);
        return 2;
    }
    unpin();
    std::vector<double> values = deviations(run_ticks(count, period_us), period_us);
    const auto [earliest, latest] = std::minmax_element(values.begin(), values.end());
    const double earliest_us = *earliest;
    const double latest_us = *latest;
    for (double& value : values) value = std::abs(value);
    std::printf(
        "{\"library\":\"%s\",\"count\":%zu,\"period_us\":%lld,\"median_us\":%.1f,\"p99_us\":%.1f,"
        "\"max_us\":%.1f,\"earliest_us\":%.1f,\"latest_us\":%.1f}\n",
        tick_system_name(), count, static_cast<long long>(period_us), percentile(values, 0.5),
        percentile(values, 0.99), percentile(values, 1), earliest_us, latest_us);
    return 0;
}
