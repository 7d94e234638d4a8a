// Timers of libevent, in memory of ours as its experts do.
#include <event2/event.h>
#include <event2/event_struct.h>

#include <vector>

#include "timer/TimerSystem.h"

namespace {

using namespace Bench;

class CLibeventTimers : public CTimerSystem {
public:
    explicit CLibeventTimers(std::size_t count) : m_base(event_base_new()), m_events(count) {}

    ~CLibeventTimers() override {
        for (event& timer : m_events) event_del(&timer);
        event_base_free(m_base);
    }

    CLibeventTimers(const CLibeventTimers&) = delete;
    CLibeventTimers& operator=(const CLibeventTimers&) = delete;

    void Arm(std::size_t index, std::int64_t period_us) override {
        const timeval period{period_us / 1'000'000, period_us % 1'000'000};
        evtimer_assign(
            &m_events[index], m_base, [](evutil_socket_t, short, void*) {}, nullptr);
        evtimer_add(&m_events[index], &period);
    }

    void Cancel(std::size_t index) override { evtimer_del(&m_events[index]); }

private:
    event_base* m_base;
    std::vector<event> m_events;
};

}  // namespace

namespace Bench {

std::unique_ptr<CTimerSystem> make_timer_system(std::size_t count) {
    return std::make_unique<CLibeventTimers>(count);
}

const char* timer_system_name() {
    return "libevent";
}

}  // namespace Bench
