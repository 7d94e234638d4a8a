#include <Ravelo/NTimer.h>

#include <algorithm>
#include <cstddef>
#include <limits>
#include <memory>
#include <new>

#include "Log.h"
#include "Tool/NTimerRecord.h"
#include "Tool/ToolClock.h"

namespace Veltro::Ravelo {

namespace {

std::uint32_t stateOf(const CNTimerEvent* event) {
    return SNTimerEventRecord::of(*event).m_state;
}

CNTimerEvent*& nextOf(const CNTimerEvent* event) {
    return SNTimerEventRecord::of(*event).m_next;
}

}  // namespace

std::int64_t SNTimerRecord::nextDelay(std::uint64_t now_us) {
    // Unsigned, so that a period beyond all reason wraps around and is not undefined.
    const std::uint64_t due_us = m_base_time + (m_ticks + 1) * static_cast<std::uint64_t>(m_period);
    const auto delay_us = static_cast<std::int64_t>(due_us - now_us);
    // With a negative period nothing is within the limits.
    constexpr std::int64_t LONGEST = std::numeric_limits<std::int64_t>::max() / DRIFT_PERIODS;
    const std::int64_t limit_us = DRIFT_PERIODS * std::clamp<std::int64_t>(m_period, -1, LONGEST);
    if (-limit_us <= delay_us && delay_us <= limit_us) return std::max(delay_us, MIN_DELAY_US);
    m_base_time = now_us;
    m_ticks = 0;
    return std::max(m_period, MIN_DELAY_US);
}

void SNTimerRecord::append(CNTimerEvent* event) {
    nextOf(event) = nullptr;
    if (m_tail == nullptr) {
        RAVELO_ASSERT(m_head == NULL);
        m_head = event;
    } else {
        nextOf(m_tail) = event;
    }
    m_tail = event;
}

CNTimerEvent* SNTimerRecord::walk(bool is_tick) {
    CNTimerEvent* closed = nullptr;
    CNTimerEvent** closed_end = &closed;
    const auto take_off = [&closed_end](CNTimerEvent*& link) {
        CNTimerEvent* event = link;
        link = nextOf(event);
        nextOf(event) = nullptr;
        *closed_end = event;
        closed_end = &nextOf(event);
    };
    while (m_head != nullptr && stateOf(m_head) == TIMER_EVENT_CLOSED) take_off(m_head);
    if (m_head == nullptr) m_tail = nullptr;
    for (CNTimerEvent* event = m_head; event != nullptr; event = nextOf(event)) {
        if (is_tick && stateOf(event) == TIMER_EVENT_RUNNING) event->handle_timer_event();
        // An event that has just closed itself is still this walk's place in the list: it goes in the next.
        CNTimerEvent*& next = nextOf(event);
        while (next != nullptr && stateOf(next) == TIMER_EVENT_CLOSED) take_off(next);
        if (next == nullptr) m_tail = event;
    }
    return closed;
}

CNTimer* CNTimer::Create(std::int64_t period) {
    std::unique_ptr<SNTimerRecord> record(new (std::nothrow) SNTimerRecord(toolNowUs(), period));
    if (!record) return nullptr;
    CNTimer* clock = nullptr;
    try {
        clock = new (std::nothrow) CNTimer(record.get());
    } catch (...) {
        // Only lack of memory leads here. If it were named, a DLL would export the type of that exception.
        return nullptr;
    }
    if (clock == nullptr) return nullptr;
    record.release();
    if (clock->set_timers()) return clock;
    clock->Close();
    return nullptr;
}

CNTimer::CNTimer(SNTimerRecord* record) : m_internal(record) {}

CNTimer::~CNTimer() {
    CNTimerEvent* list;
    {
        Plinth::CLockGuard guard(m_internal->mutex);
        list = m_internal->m_head;
    }
    close_events(list);
    if (m_internal->m_period_timer != 0) DestroyTimer(m_internal->m_period_timer);
    DestroyTimer(m_internal->m_reap_timer);
    delete m_internal;
}

/// The first tick may come before the second timer is armed: the lock makes it wait until both ids are known.
bool CNTimer::set_timers() {
    Plinth::CLockGuard guard(m_internal->mutex);
    m_internal->m_period_timer = SetTimer(m_internal->m_period);
    m_internal->m_reap_timer = SetTimer(SNTimerRecord::REAP_PERIOD_US);
    return m_internal->m_period_timer != -1 && m_internal->m_reap_timer != -1;
}

/// Not under the clock's lock: the end of an event may be a callback, which may push the next event. And not
/// through CNTimerEvent::Close(), which only asks the clock to do this.
void CNTimer::close_events(CNTimerEvent* list) {
    while (list != nullptr) {
        CNTimerEvent* event = list;
        list = nextOf(event);
        event->end();
    }
}

int CNTimer::PushTimerEvent(CNTimerEvent* ev) {
    if (ev == nullptr) return -1;
    Plinth::CLockGuard guard(m_internal->mutex);
    if (ev->set_event_ready() != 0) return -1;
    m_internal->append(ev);
    return 0;
}

void CNTimer::Close() {
    CNetHandler::Close();
}

std::int64_t CNTimer::handle_timeout(long timer_id) {
    bool is_tick = false;
    CNTimerEvent* closed = nullptr;
    {
        Plinth::CLockGuard guard(m_internal->mutex);
        is_tick = timer_id != m_internal->m_reap_timer;
        if (is_tick) m_internal->m_ticks += 1;
        closed = m_internal->walk(is_tick);
    }
    close_events(closed);
    return is_tick ? m_internal->nextDelay(toolNowUs()) : 0;
}

int CNTimer::handle_close(CNetHandler*) {
    delete this;
    return 0;
}

}  // namespace Veltro::Ravelo
