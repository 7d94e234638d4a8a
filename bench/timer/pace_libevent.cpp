// A persistent timer of libevent for each receiver, all in one loop.
#include <event2/event.h>

#include "common/Clock.h"
#include "timer/PaceSystem.h"

namespace {

struct SRun {
    std::size_t count;
    std::size_t left;  ///< receivers that were not called often enough yet
    event_base* base;
};

struct SReceiver {
    std::vector<std::int64_t>* ticks;
    SRun* run;
    event* timer;
};

void on_tick(evutil_socket_t, short, void* context) {
    SReceiver& receiver = *static_cast<SReceiver*>(context);
    receiver.ticks->push_back(Bench::now_ns());
    if (receiver.ticks->size() < receiver.run->count) return;
    event_del(receiver.timer);
    if (--receiver.run->left == 0) event_base_loopbreak(receiver.run->base);
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

ReceiverTicks run_paced(std::size_t receivers, std::size_t count, std::int64_t period_us) {
    ReceiverTicks ticks(receivers);
    SRun run{count, receivers, make_base()};
    std::vector<SReceiver> all(receivers);
    const timeval period{period_us / 1'000'000, period_us % 1'000'000};
    for (std::size_t i = 0; i < receivers; ++i) {
        ticks[i].reserve(count);
        all[i] = {&ticks[i], &run, event_new(run.base, -1, EV_PERSIST, &on_tick, &all[i])};
        event_add(all[i].timer, &period);
    }
    event_base_dispatch(run.base);
    for (const SReceiver& receiver : all) event_free(receiver.timer);
    event_base_free(run.base);
    return ticks;
}

const char* pace_system_name() {
    return "libevent";
}

}  // namespace Bench
