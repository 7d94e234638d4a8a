#include "Tool/PacingGroup.h"

#include <new>

#include "Log.h"
#include "Tool/MediaStreamReceiverRecord.h"
#include "Tool/ToolClock.h"

namespace Veltro::Ravelo {

namespace {

constexpr std::int64_t SHORTEST_SLEEP_US = 1000;

thread_local bool t_is_pacing = false;

std::uint32_t stateOf(const CMediaStreamReceiver* receiver) {
    return SMediaStreamReceiverRecord::of(*receiver).m_state;
}

CMediaStreamReceiver*& nextOf(const CMediaStreamReceiver* receiver) {
    return SMediaStreamReceiverRecord::of(*receiver).m_next;
}

}  // namespace

void SPacingGrid::begin(std::uint64_t now_us, unsigned index, unsigned count) {
    base_us = now_us / ALIGNMENT_US * ALIGNMENT_US + index * static_cast<std::uint64_t>(period_us) / count;
    tick = 0;
}

std::int64_t SPacingGrid::delay(std::uint64_t now_us) const {
    return static_cast<std::int64_t>(base_us + (tick + 1) * static_cast<std::uint64_t>(period_us) - now_us);
}

bool SPacingGrid::isOff(std::uint64_t now_us) const {
    const std::int64_t limit_us = DRIFT_PERIODS * period_us;
    const std::int64_t delay_us = delay(now_us);
    return delay_us < -limit_us || delay_us > limit_us;
}

CPacingGroup::CPacingGroup(unsigned index, EMode mode, unsigned count, const SThreadSettings& settings)
    : m_index(index), m_mode(mode), m_count(count), m_settings(settings) {}

int CPacingGroup::join(CMediaStreamReceiver& receiver, std::int64_t pace_us) {
    {
        Plinth::CLockGuard guard(m_mutex);
        append(receiver);
        m_number += 1;
        if (m_running) return 0;
        m_running = true;
    }
    // Nobody else knows of the receiver until the thread runs: others wait to join.
    if (start_thread(pace_us)) return 0;
    Plinth::CLockGuard guard(m_mutex);
    m_running = false;
    m_head = nullptr;
    m_tail = nullptr;
    m_number -= 1;
    return -1;
}

unsigned CPacingGroup::number() {
    Plinth::CLockGuard guard(m_mutex);
    return m_number;
}

void CPacingGroup::append(CMediaStreamReceiver& receiver) {
    nextOf(&receiver) = nullptr;
    (m_tail == nullptr ? m_head : nextOf(m_tail)) = &receiver;
    m_tail = &receiver;
}

bool CPacingGroup::start_thread(std::int64_t pace_us) {
    if (!m_thread) {
        m_thread.reset(new (std::nothrow) Plinth::CThreadLite(
            [this](const Plinth::CThreadLite& self) { run(self); }, "stream_receiver_thread",
            m_settings.priority, m_settings.policy, m_settings.param));
    }
    if (!m_thread) return false;
    // A former run has found its list empty and calls nobody any more.
    m_thread->destroyThread();
    m_pace_us = pace_us;
    m_grid.period_us = m_mode == Fast ? FAST_PERIOD_US : pace_us;
    m_grid.begin(toolNowUs(), m_index, m_count);
    return m_thread->createThread();
}

void CPacingGroup::cancel() {
    if (m_thread) m_thread->cancelThread();
}

bool CPacingGroup::stop() {
    if (!m_thread) return false;
    m_thread->destroyThread();
    CMediaStreamReceiver* left = take(true);
    {
        Plinth::CLockGuard guard(m_mutex);
        RAVELO_ASSERT(m_number == 0);
    }
    end_receivers(left);
    return true;
}

bool CPacingGroup::isCurrent() {
    return t_is_pacing;
}

void CPacingGroup::run(const Plinth::CThreadLite& self) {
    t_is_pacing = true;
    // For as long as the thread lives, so that nothing is to be undone.
    Plinth::pinCurrentThread(m_index % m_count);
    {
        Plinth::CLockGuard guard(m_mutex);
        RAVELO_ASSERT(m_number >= 1);
    }
    while (self.looping() && round()) wait_for_tick();
}

/// One tick. @return false when no receivers are left: the thread ends.
bool CPacingGroup::round() {
    m_grid.tick += 1;
    end_receivers(take(false));
    CMediaStreamReceiver* first = nullptr;
    const CMediaStreamReceiver* last = nullptr;
    {
        // Looked at only now: the end of a receiver may be a callback on this thread, which may let another
        // one join.
        Plinth::CLockGuard guard(m_mutex);
        first = m_head;
        last = m_tail;
        m_running = first != nullptr;
    }
    if (first == nullptr) return false;
    call_receivers(first, last);
    return true;
}

/// Without the group's mutex: up to the receiver that was the last one nobody changes the list meanwhile.
void CPacingGroup::call_receivers(CMediaStreamReceiver* first, const CMediaStreamReceiver* last) {
    for (CMediaStreamReceiver* receiver = first;; receiver = nextOf(receiver)) {
        if (stateOf(receiver) == RECEIVER_RUNNING) receiver->do_receive(m_pace_us);
        if (receiver == last) return;
    }
}

void CPacingGroup::wait_for_tick() {
    const std::uint64_t now_us = toolNowUs();
    std::int64_t delay_us = m_grid.delay(now_us);
    if (m_grid.isOff(now_us)) {
        m_grid.begin(now_us, m_index, m_count);
        m_grid.tick = m_mode == Fast ? 1 : 0;
        delay_us = m_mode == Fast ? 0 : m_grid.period_us;
    }
    if (delay_us >= SHORTEST_SLEEP_US) toolSleepMs(delay_us / 1000);
}

/// Takes the closed receivers off the list, or all of them.
CMediaStreamReceiver* CPacingGroup::take(bool all) {
    CMediaStreamReceiver* taken = nullptr;
    CMediaStreamReceiver** taken_end = &taken;
    Plinth::CLockGuard guard(m_mutex);
    CMediaStreamReceiver** link = &m_head;
    m_tail = nullptr;
    while (CMediaStreamReceiver* receiver = *link) {
        CMediaStreamReceiver*& next = nextOf(receiver);
        if (!all && stateOf(receiver) != RECEIVER_CLOSED) {
            m_tail = receiver;
            link = &next;
            continue;
        }
        RAVELO_ASSERT(m_number > 0);
        m_number -= 1;
        *taken_end = receiver;
        taken_end = &next;
        *link = next;
        next = nullptr;
    }
    return taken;
}

/// Not under the group's mutex: the end of a receiver may be a callback.
void CPacingGroup::end_receivers(CMediaStreamReceiver* list) {
    while (list != nullptr) {
        CMediaStreamReceiver* receiver = list;
        list = nextOf(receiver);
        receiver->end();
    }
}

}  // namespace Veltro::Ravelo
