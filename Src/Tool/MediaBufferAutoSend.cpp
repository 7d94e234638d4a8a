// The timer that lets media buffers send again what connections did not take.
#include <algorithm>
#include <cstdint>
#include <limits>
#include <new>

#include "Core/NetHandlerRecord.h"
#include "Core/PoolTable.h"
#include "Core/ThreadPool.h"
#include "Log.h"
#include "R3/R3MediaTrace.h"
#include "Tool/MediaBufferRecord.h"

namespace Veltro::Ravelo {

namespace {

/// The timer's handler. It knows nothing but the registry.
class CAutoSendTimer : public CNetHandler {
public:
    /// @return the timer's id, or -1.
    long start(std::uint64_t interval_ms) {
        constexpr std::uint64_t LONGEST_MS = std::numeric_limits<std::int64_t>::max() / 1000;
        return SetTimer(static_cast<std::int64_t>(std::min(interval_ms, LONGEST_MS)) * 1000);
    }

private:
    std::int64_t handle_timeout(long timer_id) override;
    int handle_close(CNetHandler*) override {
        delete this;
        return 0;
    }
};

/// The buffers that ask for the timer, linked through themselves.
class CSenderList {
public:
    bool empty() const { return m_head == nullptr; }
    SMediaBufferRecord* head() const { return m_head; }
    void push(SMediaBufferRecord& record) {
        record.m_auto_next = m_head;
        m_head = &record;
    }
    void remove(SMediaBufferRecord& record) {
        SMediaBufferRecord** link = &m_head;
        while (*link != nullptr && *link != &record) link = &(*link)->m_auto_next;
        if (*link != nullptr) *link = record.m_auto_next;
    }

private:
    SMediaBufferRecord* m_head = nullptr;
};

struct SRegistry {
    Plinth::CMutex mutex;  ///< taken before a buffer's
    CSenderList m_sender_list PLINTH_GUARDED_BY(mutex);
    bool m_running PLINTH_GUARDED_BY(mutex) = false;
    CAutoSendTimer* m_timer PLINTH_GUARDED_BY(mutex) = nullptr;
    long m_timer_id PLINTH_GUARDED_BY(mutex) = 0;

    void start(std::uint64_t interval_ms) PLINTH_REQUIRES(mutex) {
        m_running = false;
        try {
            m_timer = new (std::nothrow) CAutoSendTimer;
        } catch (...) {
            m_timer = nullptr;  // only lack of memory leads here
        }
        if (m_timer == nullptr) return;
        m_timer_id = m_timer->start(interval_ms);
        m_running = m_timer_id != -1;
        if (!m_running) m_timer->Close();
    }
    void start_if_none(std::uint64_t interval_ms) PLINTH_REQUIRES(mutex) {
        if (!m_running) {
            RAVELO_ASSERT(m_sender_list.empty());
            start(interval_ms);
        } else if (is_orphan()) {
            // Those who had enabled it before its pool was destroyed are served again.
            m_timer->Close();
            m_timer->DecRef();  // the table's reference, which the pool has left behind
            start(interval_ms);
        }
    }
    /// Whether the timer never ticks again, because its pool was destroyed.
    bool is_orphan() PLINTH_REQUIRES(mutex) {
        const CPoolPin pool(0);
        return !pool || pool->birth() != SNetHandlerRecord::of(*m_timer).pool_birth;
    }
};

SRegistry s_registry;

std::int64_t CAutoSendTimer::handle_timeout(long timer_id) {
    Plinth::CLockGuard guard(s_registry.mutex);
    // An earlier timer may come late.
    if (!s_registry.m_running || timer_id != s_registry.m_timer_id) return -1;
    for (SMediaBufferRecord* record = s_registry.m_sender_list.head(); record != nullptr;
         record = record->m_auto_next) {
        R3MediaTrace::autoSend(record->m_owner);
        record->m_owner.do_send();
    }
    if (!s_registry.m_sender_list.empty()) return 0;
    s_registry.m_running = false;
    Close();
    return -1;
}

}  // namespace

void MediaAutoSend::enable(SMediaBufferRecord& record, std::uint64_t interval_ms) {
    Plinth::CLockGuard guard(s_registry.mutex);
    if (record.m_auto_send) return;
    s_registry.start_if_none(interval_ms);
    if (!s_registry.m_running) return;
    record.m_auto_send = true;
    s_registry.m_sender_list.push(record);
}

bool MediaAutoSend::isRunning() {
    Plinth::CLockGuard guard(s_registry.mutex);
    return s_registry.m_running;
}

void MediaAutoSend::disable(SMediaBufferRecord& record) {
    Plinth::CLockGuard guard(s_registry.mutex);
    if (!record.m_auto_send) return;
    record.m_auto_send = false;
    s_registry.m_sender_list.remove(record);
}

}  // namespace Veltro::Ravelo
