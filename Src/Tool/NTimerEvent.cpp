#include <Ravelo/NTimer.h>

#include <new>

#include "Log.h"
#include "Tool/NTimerRecord.h"

namespace Veltro::Ravelo {

CNTimerEvent::CNTimerEvent() : m_internal(new (std::nothrow) SNTimerEventRecord) {}

CNTimerEvent::~CNTimerEvent() {
    delete m_internal;
}

int CNTimerEvent::handle_timer_event() {
    return 0;
}

int CNTimerEvent::set_event_ready() {
    if (m_internal == nullptr) return -1;
    Plinth::CLockGuard guard(m_internal->mutex);
    if (m_internal->m_state != TIMER_EVENT_CREATED) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : this timer event already started!\n",
                        "Veltro::Ravelo::CNTimerEvent::set_event_ready");
        RAVELO_ASSERT(0);
    }
    m_internal->m_state = TIMER_EVENT_READY;
    return 0;
}

void CNTimerEvent::Start() {
    if (m_internal == nullptr) return;
    Plinth::CLockGuard guard(m_internal->mutex);
    switch (m_internal->m_state) {
        case TIMER_EVENT_READY:
        case TIMER_EVENT_STOPPED:
            m_internal->m_state = TIMER_EVENT_RUNNING;
            break;
        case TIMER_EVENT_CREATED:
            RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : this timer event not ready for start!\n",
                            "Veltro::Ravelo::CNTimerEvent::Start");
            break;
        default:
            RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : this timer event already started!\n",
                            "Veltro::Ravelo::CNTimerEvent::Start");
            RAVELO_ASSERT(0);
    }
}

void CNTimerEvent::Stop() {
    if (m_internal == nullptr) return;
    Plinth::CLockGuard guard(m_internal->mutex);
    if (m_internal->m_state == TIMER_EVENT_RUNNING) {
        m_internal->m_state = TIMER_EVENT_STOPPED;
    } else {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : Can't stop a timer event not in running state!\n",
                        "Veltro::Ravelo::CNTimerEvent::Stop");
    }
}

void CNTimerEvent::Close() {
    bool on_a_clock = false;
    if (m_internal != nullptr) {
        Plinth::CLockGuard guard(m_internal->mutex);
        on_a_clock = m_internal->m_state != TIMER_EVENT_CREATED;
        // One that nobody pushed is closed here and now, so that nobody can push it any more.
        m_internal->m_state = on_a_clock ? TIMER_EVENT_CLOSING : TIMER_EVENT_CLOSED;
    }
    if (on_a_clock) {
        // Not under the lock: the clock may end the object as soon as it sees this.
        m_internal->m_state = TIMER_EVENT_CLOSED;
    } else {
        CNetHandler::Close();
    }
}

/// The clock's way to end an event that is on its list no more.
void CNTimerEvent::end() {
    {
        // The clock calls an event without its lock, so Start() may still be on its way out when a first tick
        // has led here already: it is waited for.
        Plinth::CLockGuard guard(m_internal->mutex);
        m_internal->m_state = TIMER_EVENT_CLOSED;
    }
    CNetHandler::Close();
}

}  // namespace Veltro::Ravelo
