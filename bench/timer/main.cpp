// Arms many timers and cancels them: `timer_<library> <count> <order> [seconds]`; one line of JSON.
//
// The periods are spread over an hour, beginning in an hour. Cancelling stops when its time is up, so that a
// library whose cancelling slows down with the number of timers still gives a figure.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <random>
#include <string_view>
#include <vector>

#include "common/Clock.h"
#include "common/Placement.h"
#include "timer/TimerSystem.h"

namespace {

using namespace Bench;

constexpr std::int64_t kHourUs = 3'600'000'000;
constexpr double kDefaultSeconds = 10;
constexpr std::size_t kClockEvery = 64;

std::vector<std::size_t> make_order(std::string_view name, std::size_t count) {
    std::vector<std::size_t> order(count);
    std::iota(order.begin(), order.end(), std::size_t{0});
    if (name == "reverse") std::reverse(order.begin(), order.end());
    if (name == "random") std::shuffle(order.begin(), order.end(), std::mt19937_64(2));
    return order;
}

std::vector<std::int64_t> make_periods(std::size_t count) {
    std::mt19937_64 random(1);
    std::uniform_int_distribution<std::int64_t> period(kHourUs, 2 * kHourUs);
    std::vector<std::int64_t> periods(count);
    std::generate(periods.begin(), periods.end(), [&random, &period] { return period(random); });
    return periods;
}

/// @return how many were cancelled before the time was up.
std::size_t cancel_all(CTimerSystem& system, const std::vector<std::size_t>& order, std::int64_t until_ns) {
    std::size_t cancelled = 0;
    for (const std::size_t index : order) {
        if (cancelled % kClockEvery == 0 && now_ns() > until_ns) break;
        system.Cancel(index);
        cancelled++;
    }
    system.Settle();
    return cancelled;
}

bool is_order(std::string_view name) {
    return name == "armed" || name == "reverse" || name == "random";
}

}  // namespace

int main(int argc, char** argv) {
    const std::size_t count = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 0;
    const std::string_view name = argc > 2 ? argv[2] : "";
    const double seconds = argc > 3 ? std::atof(argv[3]) : kDefaultSeconds;
    if (count == 0 || !is_order(name)) {
        std::fprintf(stderr, "usage: %s COUNT armed|reverse|random [SECONDS]\n", argv[0]);
        return 2;
    }
    const std::vector<std::size_t> order = make_order(name, count);
    const std::vector<std::int64_t> periods = make_periods(count);
    unpin();
    const auto system = make_timer_system(count);

    const std::int64_t start_ns = now_ns();
    for (std::size_t i = 0; i < count; ++i) system->Arm(i, periods[i]);
    const std::int64_t armed_ns = now_ns();
    const std::size_t cancelled =
        cancel_all(*system, order, armed_ns + static_cast<std::int64_t>(seconds * 1e9));
    const std::int64_t cancelled_ns = now_ns();

    std::printf(
        "{\"library\":\"%s\",\"count\":%zu,\"order\":\"%s\",\"arm_ns\":%.1f,\"cancel_ns\":%.1f,"
        "\"cancelled\":%zu}\n",
        timer_system_name(), count, name.data(),
        static_cast<double>(armed_ns - start_ns) / static_cast<double>(count),
        static_cast<double>(cancelled_ns - armed_ns) / static_cast<double>(cancelled), cancelled);
    return 0;
}
