// A persistent timer of libevent, which schedules itself by its last due time.
#include <event2/event.h>

#include "common/Clock.h"
#include "timer/TickSystem.h"

namespace {

struct SRun {
    Bench::STicks ticks;
    std::size_t count;
    event_base* base;
};

void on_tick(evutil_socket_t, short, void* context) {
    SRun& run = *static_cast<SRun*>(context);
    run.ticks.at_ns.push_back(Bench::now_ns());
    if (run.ticks.at_ns.size() == run.count) event_base_loopbreak(run.base);
}

/// By default libevent uses a clock that is only as fine as the system's tick.
event_base* make_base() {
    event_config* config = event_config_new();
    event_config_set_flag(config, EVENT_BASE_FLAG_PRECISE_TIMER);
    event_base* base = event_base_new_with_config(config);
    event_config_free(config);
    return base;
}

}  // namespace

namespace Bench {

STicks run_ticks(std::size_t count, std::int64_t period_us) {
    SRun run{{}, count, make_base()};
    run.ticks.at_ns.reserve(count);
    event* timer = event_new(run.base, -1, EV_PERSIST, &on_tick, &run);
    const timeval period{period_us / 1'000'000, period_us % 1'000'000};
    run.ticks.base_ns = now_ns();
    event_add(timer, &period);
    event_base_dispatch(run.base);
    event_free(timer);
    event_base_free(run.base);
    return run.ticks;
}

const char* tick_system_name() {
    return "libevent";
}

}  // namespace Bench
