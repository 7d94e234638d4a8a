// A clock of this library with one event.
#include <Plinth/Log.h>
#include <Ravelo/NTimer.h>
#include <Ravelo/NetThread.h>

#include <cstdlib>
#include <semaphore>

#include "common/Clock.h"
#include "timer/TickSystem.h"

namespace {

using namespace Bench;
using namespace Veltro::Ravelo;

/// Notes when it is called, and closes itself once it has been called often enough.
class CTickEvent : public CNTimerEvent {
public:
    CTickEvent(STicks& ticks, std::size_t count, std::binary_semaphore& closed)
        : m_ticks(ticks), m_count(count), m_closed(closed) {}

    int handle_timer_event() override {
        m_ticks.at_ns.push_back(now_ns());
        if (m_ticks.at_ns.size() == m_count) Close();
        return 0;
    }

    int handle_close(CNetHandler*) override {
        std::binary_semaphore& closed = m_closed;
        delete this;
        closed.release();
        return 0;
    }

private:
    STicks& m_ticks;
    std::size_t m_count;
    std::binary_semaphore& m_closed;
};

}  // namespace

namespace Bench {

STicks run_ticks(std::size_t count, std::int64_t period_us) {
    Veltro::Plinth::setLogLevel(Veltro::Plinth::LOG_LEVEL_FATAL);
    if (CNetThread::CreateThreadPool(1, false) != 0) std::abort();
    STicks ticks;
    ticks.at_ns.reserve(count);
    std::binary_semaphore closed{0};
    auto* event = new CTickEvent(ticks, count, closed);
    ticks.base_ns = now_ns();
    CNTimer* clock = CNTimer::Create(period_us);
    if (clock == nullptr || clock->PushTimerEvent(event) != 0) std::abort();
    event->Start();
    closed.acquire();
    clock->Close();
    CNetThread::DestroyThreadPool();
    return ticks;
}

const char* tick_system_name() {
    return "ravelo";
}

}  // namespace Bench
