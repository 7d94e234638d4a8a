#include "Core/NetTimer.h"

#include <Plinth/Mutex.h>
#include <Plinth/Semaphore.h>
#include <Plinth/Thread.h>
#include <Plinth/Time.h>
#include <Ravelo/NetHandler.h>
#include <Ravelo/TsMemory.h>

#include <algorithm>
#include <memory>
#include <new>

#include "Core/CurrentObject.h"
#include "Core/NetHandlerRecord.h"
#include "Core/ThreadPool.h"
#include "Log.h"
#include "R3/R3Trace.h"

namespace Veltro::Ravelo {

namespace {

struct SState {
    Plinth::CMutex mutex;  // guards the heap and what the thread sleeps for
    CTimerHeap heap PLINTH_GUARDED_BY(mutex);
    /// When the thread looks at the heap next, on the steady clock; the greatest value while it sleeps
    /// without limit.
    std::uint64_t next_look_us PLINTH_GUARDED_BY(mutex) = UINT64_MAX;
    Plinth::CSemaphore wake;
    std::unique_ptr<Plinth::CThreadLite> thread;
};

/// Never destroyed: timers may be destroyed while the process's statics go.
SState& s_state = *new SState;

/// What is due, by pool; used by the timer thread only.
struct SDueLists {
    STimer* heads[POOL_COUNT] = {};
    int pools[POOL_COUNT] = {};
    int pool_count = 0;

    void add(STimer* timer) {
        const int number = poolOfId(timer->handler_id);
        if (heads[number] == nullptr) pools[pool_count++] = number;
        timer->next = heads[number];
        heads[number] = timer;
    }
};

void takeDue(SDueLists& due, std::uint64_t now_us) PLINTH_REQUIRES(s_state.mutex) {
    for (STimer* root = s_state.heap.root();
         root != nullptr && root->due_us <= now_us + static_cast<std::uint64_t>(CNetTimer::AHEAD_US);
         root = s_state.heap.root()) {
        due.add(s_state.heap.popRoot());
    }
}

/// Frees the timers of a list that were not made for the pool; returns the others, in their order.
STimer* keepOwn(STimer* list, const CThreadPool* pool) {
    SQueueRecord* kept = nullptr;
    SQueueRecord** tail = &kept;
    while (list != nullptr) {
        STimer* timer = list;
        list = static_cast<STimer*>(timer->next);
        timer->next = nullptr;
        if (pool == nullptr || timer->pool_birth != pool->birth()) {
            CNetTimer::freeRecord(timer);
        } else {
            *tail = timer;
            tail = &timer->next;
        }
    }
    return static_cast<STimer*>(kept);
}

void handOver(SDueLists& due) {
    for (int i = 0; i < due.pool_count; ++i) {
        const int number = due.pools[i];
        const CPoolPin pool(number);
        STimer* list = keepOwn(due.heads[number], pool.get());
        if (list != nullptr) pool->queue().push(list);
        due.heads[number] = nullptr;
    }
    due.pool_count = 0;
}

/// One look at the heap. Returns how long to sleep until the next, in microseconds; negative for no limit.
std::int64_t look(SDueLists& due) {
    const std::uint64_t now_us = Plinth::CTime::getCurrentMicroSecond();
    Plinth::CLockGuard guard(s_state.mutex);
    const STimer* root = s_state.heap.root();
    if (root != nullptr && root->due_us <= now_us) takeDue(due, now_us);
    root = s_state.heap.root();
    if (root == nullptr) {
        s_state.next_look_us = UINT64_MAX;
        return -1;
    }
    const auto until_due_us = root->due_us > now_us ? static_cast<std::int64_t>(root->due_us - now_us) : 0;
    const std::int64_t sleep_us = std::max(until_due_us, CNetTimer::STEP_US);
    s_state.next_look_us = now_us + static_cast<std::uint64_t>(sleep_us);
    return sleep_us;
}

void threadProc(Plinth::CThreadLite& self) {
    SDueLists due;
    while (self.looping()) {
        const std::int64_t sleep_us = look(due);
        handOver(due);
        if (sleep_us < 0) {
            s_state.wake.pend();
        } else {
            s_state.wake.pend(sleep_us);
        }
    }
}

std::int64_t clampPeriod(std::int64_t period_us) {
    // Compared as unsigned: a negative period counts as too big.
    const auto period = static_cast<std::uint64_t>(period_us);
    if (period < static_cast<std::uint64_t>(CNetTimer::MIN_PERIOD_US)) return CNetTimer::MIN_PERIOD_US;
    if (period <= static_cast<std::uint64_t>(CNetTimer::MAX_PERIOD_US)) return period_us;
    RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "Set timer's value is too big,it will be reduce to 24h.\n");
    return CNetTimer::MAX_PERIOD_US;
}

STimer* newTimer() {
    void* block = CTsMemory::TsMalloc(sizeof(STimer));
    return block != nullptr ? new (block) STimer : nullptr;
}

}  // namespace

int CNetTimer::start() {
    s_state.thread.reset(new (std::nothrow) Plinth::CThreadLite(
        &threadProc, "Timer_Thread", Plinth::PRIORITY_NORMAL, Plinth::POLICY_NORMAL, 0));
    if (s_state.thread && s_state.thread->createThread()) return 0;
    s_state.thread.reset();
    return -1;
}

void CNetTimer::stop() {
    if (!s_state.thread) return;
    s_state.thread->cancelThread();
    s_state.wake.post();
    s_state.thread->destroyThread();
    s_state.thread.reset();
    while (s_state.wake.tryPend()) {
    }
}

/// Puts a timer into the heap, a new one or one that is armed again.
bool CNetTimer::set_timer(STimer* timer) {
    const std::uint64_t now_us = Plinth::CTime::getCurrentMicroSecond();
    timer->period_us = clampPeriod(timer->period_us);
    timer->due_us = now_us + static_cast<std::uint64_t>(timer->period_us - EARLY_US);
    timer->next = nullptr;
    bool must_wake = false;
    {
        Plinth::CLockGuard guard(s_state.mutex);
        if (!s_state.heap.insert(timer)) return false;
        // A thread that looks within the next step sees the timer in time.
        must_wake = timer->due_us + static_cast<std::uint64_t>(STEP_US) < s_state.next_look_us;
        if (must_wake) s_state.next_look_us = now_us;
    }
    if (must_wake) s_state.wake.post();
    return true;
}

long CNetTimer::SetTimer(const SNetHandlerRecord& handler, std::int64_t period_us) {
    const CPoolPin pool(poolOfId(handler.id()));
    if (!pool || pool->birth() != handler.pool_birth) return -1;
    STimer* timer = newTimer();
    if (timer == nullptr) return -1;
    const std::int64_t timer_id = pool->ids().GetId();
    timer->key = timer_id;
    timer->handler_id = handler.id();
    timer->pool_birth = handler.pool_birth;
    timer->period_us = period_us;
    if (set_timer(timer)) return static_cast<long>(timer_id);
    end(*pool.get(), timer);
    return -1;
}

void CNetTimer::DestroyTimer(const SNetHandlerRecord& caller, long timer_id) {
    const int number = poolOfId(timer_id);
    const CPoolPin pool(number);
    // Ids start again in a pool that is made anew: the id may name a timer that the caller never set.
    const bool own_number = poolOfId(caller.id()) == number;
    if (own_number && (!pool || pool->birth() != caller.pool_birth)) return;
    STimer* timer;
    {
        Plinth::CLockGuard guard(s_state.mutex);
        timer = s_state.heap.remove(timer_id);
    }
    if (timer == nullptr) return;
    if (pool && pool->birth() == timer->pool_birth) {
        end(*pool.get(), timer);
    } else {
        freeRecord(timer);
    }
}

void CNetTimer::dispatch(CThreadPool& pool, CCurrentObject& current, STimer* timer) {
    CNetHandler* handler = pool.findHandler(timer->handler_id);
    if (handler == nullptr) {
        end(pool, timer);
        return;
    }
    R3Trace::timerBegin(*handler);
    current.set(*handler, timer->handler_id);
    const std::int64_t result = handler->handle_timeout(static_cast<long>(timer->key));
    current.clear();
    R3Trace::timerEnd(*handler);
    handler->DecRef();
    if (result > 0) timer->period_us = result;
    if (result < 0 || !set_timer(timer)) end(pool, timer);
}

void CNetTimer::end(CThreadPool& pool, STimer* timer) {
    pool.ids().PutId(timer->key);
    freeRecord(timer);
}

void CNetTimer::dropPool(int pool_number) {
    STimer* list;
    {
        Plinth::CLockGuard guard(s_state.mutex);
        list = s_state.heap.removePool(pool_number);
    }
    while (list != nullptr) {
        STimer* timer = list;
        list = static_cast<STimer*>(timer->next);
        freeRecord(timer);
    }
}

void CNetTimer::freeRecord(STimer* timer) {
    timer->~STimer();
    CTsMemory::TsFree(timer);
}

std::size_t CNetTimer::armed() {
    Plinth::CLockGuard guard(s_state.mutex);
    return s_state.heap.size();
}

std::uint64_t CNetTimer::firstDueUs() {
    Plinth::CLockGuard guard(s_state.mutex);
    return s_state.heap.empty() ? 0 : s_state.heap.root()->due_us;
}

}  // namespace Veltro::Ravelo
