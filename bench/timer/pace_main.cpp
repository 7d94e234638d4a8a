// Calls many receivers periodically: `pace_<system> <receivers> <count> <period us>`; one line of JSON.
//
// A tick's lateness is how far it came behind its place on the grid of its receiver, which goes through the
// earliest of its ticks. The first ticks do not count: a system may begin as it likes.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "common/Placement.h"
#include "timer/PaceSystem.h"

namespace {

using namespace Bench;

constexpr std::size_t kFirst = 10;

/// In microseconds, of all receivers.
std::vector<double> lateness(const ReceiverTicks& receivers, std::int64_t period_us) {
    std::vector<double> result;
    for (const auto& ticks : receivers) {
        std::vector<std::int64_t> phases_ns;
        for (std::size_t i = kFirst; i < ticks.size(); ++i) {
            phases_ns.push_back(ticks[i] - static_cast<std::int64_t>(i) * period_us * 1000);
        }
        const std::int64_t grid_ns = *std::min_element(phases_ns.begin(), phases_ns.end());
        for (const std::int64_t phase_ns : phases_ns) {
            result.push_back(static_cast<double>(phase_ns - grid_ns) / 1000.0);
        }
    }
    return result;
}

/// The value that a share of all does not exceed; of sorted ones.
double percentile(const std::vector<double>& values, double share) {
    const auto rank = static_cast<std::size_t>(std::ceil(share * static_cast<double>(values.size())));
    return values[std::clamp<std::size_t>(rank, 1, values.size()) - 1];
}

}  // namespace

int main(int argc, char** argv) {
    const std::size_t receivers = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 0;
    const std::size_t count = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 0;
    const std::int64_t period_us = argc > 3 ? std::strtoll(argv[3], nullptr, 10) : 0;
    if (receivers == 0 || count == 0 || period_us <= 0) {
        std::fprintf(stderr, "usage: %s RECEIVERS COUNT PERIOD_US\n", argv[0]);
        return 2;
    }
    unpin();
    std::vector<double> values = lateness(run_paced(receivers, kFirst + count, period_us), period_us);
    std::sort(values.begin(), values.end());
    std::printf(
        "{\"library\":\"%s\",\"receivers\":%zu,\"count\":%zu,\"period_us\":%lld,\"median_us\":%.1f,"
        "\"p99_us\":%.1f,\"max_us\":%.1f}\n",
        pace_system_name(), receivers, count, static_cast<long long>(period_us), percentile(values, 0.5),
        percentile(values, 0.99), percentile(values, 1));
    return 0;
}
