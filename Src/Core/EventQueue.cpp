#include "Core/EventQueue.h"

#include "Core/EventPool.h"
#include "Log.h"

namespace Veltro::Ravelo {

namespace {
/// Ticks without any record moving after which the standby sleeps without limit.
constexpr unsigned STANDBY_IDLE_TICKS = 3;
}  // namespace

CEventQueue::~CEventQueue() {
    while (SQueueRecord* record = popNoWait()) CEventPool::put(static_cast<SEvent*>(record));
}

void CEventQueue::append(SQueueRecord* chain) {
    SQueueRecord* last = chain;
    unsigned count = 1;
    for (; last->next != nullptr; last = last->next) ++count;
    if (m_tail != nullptr) {
        m_tail->next = chain;
    } else {
        m_head = chain;
    }
    m_tail = last;
    setSize(size() + count);
}

SQueueRecord* CEventQueue::take_head() {
    SQueueRecord* record = m_head;
    if (record == nullptr) return nullptr;
    m_head = record->next;
    if (m_head == nullptr) m_tail = nullptr;
    record->next = nullptr;
    setSize(size() - 1);
    ++m_pops;
    return record;
}

CEventQueue::EWake CEventQueue::choose_wake(EPusher pusher) {
    const bool comes_by = pusher == EPusher::Worker || m_looking.load(std::memory_order_relaxed);
    const bool few = m_size.load(std::memory_order_relaxed) <= WORKER_SHARE;
    // Without a standby nobody would look after a record that a busy worker leaves lying.
    if (comes_by && few && m_has_standby) return EWake::Nobody;
    if (m_sleepers > 0) {
        grant_sleeper();
        return EWake::Sleeper;
    }
    if (m_waiting) {
        m_waiting = false;
        return EWake::Waiter;
    }
    return EWake::Nobody;
}

void CEventQueue::grant_sleeper() {
    --m_sleepers;
    ++m_grants;
}

void CEventQueue::wake(EWake whom) {
    if (whom == EWake::Sleeper) m_semaphore.post();
    if (whom == EWake::Waiter) m_wake_waiter(m_waiter);
}

void CEventQueue::push(SQueueRecord* chain, EPusher pusher) {
    EWake whom;
    {
        Plinth::CLockGuard guard(m_mutex);
        append(chain);
        whom = choose_wake(pusher);
    }
    wake(whom);
}

SQueueRecord* CEventQueue::pushAndPop(SQueueRecord* chain) {
    EWake whom;
    SQueueRecord* record;
    {
        Plinth::CLockGuard guard(m_mutex);
        append(chain);
        record = take_head();
        whom = choose_wake(EPusher::Worker);
    }
    wake(whom);
    return record;
}

void CEventQueue::pushFront(SQueueRecord* record, EPusher pusher) {
    EWake whom;
    {
        Plinth::CLockGuard guard(m_mutex);
        record->next = m_head;
        m_head = record;
        if (m_tail == nullptr) m_tail = record;
        setSize(size() + 1);
        whom = choose_wake(pusher);
    }
    wake(whom);
}

void CEventQueue::pushWithoutSignal(SQueueRecord* chain) {
    Plinth::CLockGuard guard(m_mutex);
    append(chain);
}

SQueueRecord* CEventQueue::popNoWait() {
    Plinth::CLockGuard guard(m_mutex);
    return take_head();
}

SQueueRecord* CEventQueue::Pop() {
    bool standby;
    {
        Plinth::CLockGuard guard(m_mutex);
        SQueueRecord* record = take_head();
        if (record != nullptr || m_stopped) return record;
        ++m_sleepers;
        standby = become_standby();
    }
    return sleep(standby);
}

SQueueRecord* CEventQueue::sleep(bool standby) {
    SQueueRecord* record = nullptr;
    for (;;) {
        if (!standby) {
            m_semaphore.pend();
            if (woken(standby, record)) return record;
        } else if (m_semaphore.pend(STANDBY_TICK_US)) {
            if (woken(standby, record)) return record;
        } else if (ticked(standby, record)) {
            return record;
        }
    }
}

bool CEventQueue::become_standby() {
    if (m_has_standby || m_workers < 2) return false;
    m_has_standby = true;
    m_standby = SStandby{0, m_pops};
    return true;
}

CEventQueue::EWait CEventQueue::look_at_tick() {
    const bool moved = m_pops != m_standby.pops;
    const bool queued = m_head != nullptr;
    m_standby.pops = m_pops;
    m_standby.idle_ticks = moved || queued ? 0 : m_standby.idle_ticks + 1;
    if (queued && !moved) return EWait::Serve;
    return m_standby.idle_ticks < STANDBY_IDLE_TICKS ? EWait::Tick : EWait::Unlimited;
}

/// After a post: takes the head, or sleeps again when another thread was faster. Returns whether Pop() ends.
bool CEventQueue::woken(bool& standby, SQueueRecord*& record) {
    {
        Plinth::CLockGuard guard(m_mutex);
        if (standby) m_has_standby = false;
        if (m_grants > 0) {
            --m_grants;
            record = take_head();
            if (record != nullptr || m_stopped) return true;
            ++m_sleepers;
            standby = become_standby();
            return false;
        }
        --m_sleepers;
    }
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "sem_wait error unexpected!!\n");
    return true;
}

/// At a tick of the standby: takes the head if nothing has moved since the last. Returns whether Pop() ends.
bool CEventQueue::ticked(bool& standby, SQueueRecord*& record) {
    Plinth::CLockGuard guard(m_mutex);
    const EWait next = look_at_tick();
    // With every sleeper granted, a post is under way to this thread too: that one is waited for.
    const bool serve = next == EWait::Serve && m_sleepers > 0;
    standby = !serve && next != EWait::Unlimited;
    if (!standby) m_has_standby = false;
    if (!serve) return false;
    --m_sleepers;
    record = take_head();
    return true;
}

CEventQueue::EWait CEventQueue::beginWait() {
    setLooking(false);
    Plinth::CLockGuard guard(m_mutex);
    if (m_head != nullptr || m_stopped) return EWait::Serve;
    m_waiting = true;
    m_waiter_is_standby = become_standby();
    return m_waiter_is_standby ? EWait::Tick : EWait::Unlimited;
}

CEventQueue::EWait CEventQueue::waitTick() {
    Plinth::CLockGuard guard(m_mutex);
    const EWait next = look_at_tick();
    if (next == EWait::Unlimited) {
        m_waiter_is_standby = false;
        m_has_standby = false;
    }
    return next;
}

void CEventQueue::endWait() {
    Plinth::CLockGuard guard(m_mutex);
    m_waiting = false;
    if (!m_waiter_is_standby) return;
    m_waiter_is_standby = false;
    m_has_standby = false;
}

void CEventQueue::stop() {
    unsigned sleepers = 0;
    {
        Plinth::CLockGuard guard(m_mutex);
        for (; m_sleepers > 0; ++sleepers) grant_sleeper();
        m_waiting = false;
        m_stopped = true;
    }
    for (; sleepers > 0; --sleepers) m_semaphore.post();
    if (m_waiter != nullptr) m_wake_waiter(m_waiter);
}

}  // namespace Veltro::Ravelo
