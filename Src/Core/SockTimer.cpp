#include "Core/SockTimer.h"

#include <Plinth/Thread.h>
#include <Plinth/Time.h>

#include <memory>
#include <new>

#include "Core/PoolTable.h"
#include "Core/SockTrace.h"
#include "Core/ThreadPool.h"
#include "Debug/StallWatch.h"

namespace Veltro::Ravelo {

namespace {

struct SState {
    Plinth::CMutex mutex;  // guards the list
    SSockTimeout* head PLINTH_GUARDED_BY(mutex) = nullptr;
    std::atomic<std::int64_t> clock_ms{0};
    Plinth::CSemaphore stop;
    std::unique_ptr<Plinth::CThreadLite> thread;
};

/// Never destroyed: records may be unlinked while the process's statics go.
SState& s_state = *new SState;

std::int64_t expiryOf(std::int32_t t) {
    // One step more, so that no time-out comes early on the coarse clock.
    return s_state.clock_ms.load(std::memory_order_relaxed) + t + CSockTimer::TICK_MS;
}

void unlink(SSockTimeout& timeout) PLINTH_REQUIRES(s_state.mutex) {
    if (timeout.prev != nullptr) timeout.prev->next = timeout.next;
    if (timeout.next != nullptr) timeout.next->prev = timeout.prev;
    if (s_state.head == &timeout) s_state.head = timeout.next;
    timeout.prev = nullptr;
    timeout.next = nullptr;
    timeout.linked = false;
}

void clear(SSockTimeout& timeout) {
    timeout.m_set_time = 0;
    timeout.m_time_out = 0;
}

/// What a record's time-out means to its owner; 0 when the owner waits for neither reading nor writing.
unsigned timeoutEvent(const SEvent& record) {
    if (record.m_event_mask & EventMask::Read) return VL_POLLIN_TIMEOUT;
    if (record.m_event_mask & EventMask::Write) return VL_POLLOUT_TIMEOUT;
    return VL_NOPOLL;
}

/// Ends an expired time-out. Returns whether the record is in flight now, to be queued to its pool.
bool expire(SEvent& record, CThreadPool* pool) PLINTH_REQUIRES(record.mutex, s_state.mutex) {
    unlink(record.timer);
    clear(record.timer);
    const unsigned event = timeoutEvent(record);
    // A pool that is being destroyed frees the record with its socket table. A record that gets no callback
    // is not queued, so it stays idle and may be removed at any time.
    if (pool == nullptr || event == VL_NOPOLL) return false;
    pool->multiplexer().remove(record);
    record.m_revents.store(event, std::memory_order_relaxed);
    return true;
}

}  // namespace

int CSockTimer::start() {
    s_state.clock_ms.store(0);
    const auto body = [](Plinth::CThreadLite& self) {
        CStallWatch stalls;
        while (self.looping()) {
            if (s_state.stop.pend(TICK_MS * 1000)) continue;
            scan();
            stalls.look(Plinth::CTime::getCurrentMilliSecond());
        }
    };
    s_state.thread.reset(new (std::nothrow) Plinth::CThreadLite(
        body, "Sock_Timer_Thread", Plinth::PRIORITY_NORMAL, Plinth::POLICY_NORMAL, 0));
    if (s_state.thread && s_state.thread->createThread()) return 0;
    s_state.thread.reset();
    return -1;
}

void CSockTimer::stop() {
    if (!s_state.thread) return;
    s_state.thread->cancelThread();
    s_state.stop.post();
    s_state.thread->destroyThread();
    s_state.thread.reset();
    s_state.stop.tryPend();
    s_state.clock_ms.store(0);
}

void CSockTimer::Add(SEvent& record, std::int32_t t) {
    record.timer.m_set_time = t;
    record.timer.m_time_out = expiryOf(t);
    {
        Plinth::CLockGuard guard(s_state.mutex);
        record.timer.prev = nullptr;
        record.timer.next = s_state.head;
        if (s_state.head != nullptr) s_state.head->prev = &record.timer;
        s_state.head = &record.timer;
        record.timer.linked = true;
    }
    SockTrace::timer("Add", record, &s_state);
}

void CSockTimer::Delete(SEvent& record) {
    {
        Plinth::CLockGuard guard(s_state.mutex);
        unlink(record.timer);
    }
    clear(record.timer);
    SockTrace::timer("Delete", record, &s_state);
}

void CSockTimer::Reset(SEvent& record, std::int32_t t) {
    record.timer.m_set_time = t;
    record.timer.m_time_out = expiryOf(t);
    SockTrace::timer("Reset", record, &s_state);
}

void CSockTimer::scan() {
    const std::int64_t now_ms = s_state.clock_ms.fetch_add(TICK_MS) + TICK_MS;
    Plinth::CLockGuard guard(s_state.mutex);
    SSockTimeout* next = nullptr;
    for (SSockTimeout* timeout = s_state.head; timeout != nullptr; timeout = next) {
        next = timeout->next;
        SEvent& record = *timeout->record;
        // The opposite of the usual order of the two locks: it must not wait.
        if (!record.mutex.tryLock()) continue;
        if (timeout->m_time_out <= 0 || timeout->m_time_out > now_ms) {
            record.mutex.unlock();
            continue;
        }
        const CPoolPin pool(poolOfId(record.obj_id.load(std::memory_order_relaxed)));
        const bool in_flight = expire(record, pool.get());
        record.mutex.unlock();
        if (in_flight) pool->queue().push(&record);
    }
}

}  // namespace Veltro::Ravelo
