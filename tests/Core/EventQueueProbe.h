// What tests see of a queue's inside.
#pragma once

#include "Core/EventQueue.h"

namespace Veltro::Ravelo {

struct SEventQueueProbe {
    static void postUnexpectedly(CEventQueue& queue) { queue.m_semaphore.post(); }
    static unsigned sleepers(CEventQueue& queue) {
        Plinth::CLockGuard guard(queue.m_mutex);
        return queue.m_sleepers;
    }
    static bool hasStandby(CEventQueue& queue) {
        Plinth::CLockGuard guard(queue.m_mutex);
        return queue.m_has_standby;
    }
    static unsigned grants(CEventQueue& queue) {
        Plinth::CLockGuard guard(queue.m_mutex);
        return queue.m_grants;
    }
};

}  // namespace Veltro::Ravelo
