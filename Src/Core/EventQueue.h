#pragma once

#include <Plinth/Mutex.h>
#include <Plinth/Semaphore.h>

#include <atomic>
#include <cstdint>

#include "Core/Event.h"

namespace Veltro::Ravelo {

/// A first-in first-out queue of records that worker threads share. Any thread may call.
///
/// Being woken costs more than anything else the queue does, so a push wakes at most one thread, and none
/// when a running one is sure to come by: the pushing worker itself, or the multiplexer's waiter while it
/// looks again before it sleeps. What such a thread leaves lying because it stays long in a callback, the
/// standby takes: one of the sleeping threads, which looks every STANDBY_TICK_US while records move.
class CEventQueue {
public:
    /// Who pushes: it decides who has to be woken.
    enum class EPusher {
        Outside,  ///< a thread that will not serve the queue
        Worker    ///< a worker of the queue, which comes back to it after the current callback
    };

    CEventQueue() = default;
    /// Requires that no thread is left inside. Gives queued messages and tokens back to CEventPool; socket
    /// records belong to the socket table and timers to the timer service: take those out first with
    /// popNoWait().
    ~CEventQueue();
    CEventQueue(const CEventQueue&) = delete;
    CEventQueue& operator=(const CEventQueue&) = delete;

    /// Names the waiter that a push wakes when no thread sleeps in Pop(), and how many threads serve the
    /// queue, the waiter included. Before the first push.
    /// @param waiter its wake() makes its wait return soon; called from any thread, without the queue's lock.
    template <typename Waiter>
    void setWaiter(Waiter* waiter, unsigned workers) {
        m_waiter = waiter;
        m_wake_waiter = [](void* object) { static_cast<Waiter*>(object)->wake(); };
        m_workers = workers;
    }

    /// Appends a chain of records linked by next.
    void push(SQueueRecord* chain, EPusher pusher = EPusher::Outside);
    /// Appends a chain and takes the head, in one step; for the worker that ends a pass.
    SQueueRecord* pushAndPop(SQueueRecord* chain);
    /// Puts one record before all others.
    void pushFront(SQueueRecord* record, EPusher pusher = EPusher::Outside);
    /// Appends a chain and wakes nobody.
    void pushWithoutSignal(SQueueRecord* chain);

    /// Takes the head, waiting for one without limit; null after stop(), or when the semaphore was passed
    /// without a grant.
    SQueueRecord* Pop();
    /// Takes the head, or null.
    SQueueRecord* popNoWait();

    /// How many records are queued; a glance without the lock.
    unsigned size() const { return m_size.load(std::memory_order_relaxed); }

    /// @name The waiter's side: the thread in the multiplexer tells when it looks and when it sleeps.
    /// @{
    enum class EWait {
        Serve,     ///< records are queued: end the pass
        Tick,      ///< wait for at most STANDBY_TICK_US, then ask waitTick()
        Unlimited  ///< wait until woken
    };
    /// Until beginWait() or setLooking(false), pushes rely on the waiter's coming by.
    void setLooking(bool looking) { m_looking.store(looking, std::memory_order_relaxed); }
    EWait beginWait();
    EWait waitTick();
    void endWait();
    /// @}

    /// From now on nobody sleeps: Pop() gives what is queued, then null. Wakes every sleeper and the waiter.
    void stop();

    /// How often the standby looks, in microseconds: twice within the millisecond that a record may lie.
    static constexpr std::int64_t STANDBY_TICK_US = 400;
    /// So many queued records a worker leaves to itself; beyond, it wakes another one to help.
    static constexpr unsigned WORKER_SHARE = 32;

private:
    friend struct SEventQueueProbe;  // tests

    enum class EWake { Nobody, Sleeper, Waiter };
    /// What the standby saw at its last tick.
    struct SStandby {
        unsigned idle_ticks = 0;
        std::uint64_t pops = 0;
    };

    void setSize(unsigned size) PLINTH_REQUIRES(m_mutex) { m_size.store(size, std::memory_order_relaxed); }
    void append(SQueueRecord* chain) PLINTH_REQUIRES(m_mutex);
    SQueueRecord* take_head() PLINTH_REQUIRES(m_mutex);
    EWake choose_wake(EPusher pusher) PLINTH_REQUIRES(m_mutex);
    void grant_sleeper() PLINTH_REQUIRES(m_mutex);
    void wake(EWake whom);
    bool become_standby() PLINTH_REQUIRES(m_mutex);
    EWait look_at_tick() PLINTH_REQUIRES(m_mutex);
    SQueueRecord* sleep(bool standby);
    bool woken(bool& standby, SQueueRecord*& record);
    bool ticked(bool& standby, SQueueRecord*& record);

    SQueueRecord* m_head PLINTH_GUARDED_BY(m_mutex) = nullptr;
    SQueueRecord* m_tail PLINTH_GUARDED_BY(m_mutex) = nullptr;
    std::atomic<unsigned> m_size{0};                        // written under m_mutex
    unsigned m_sleepers PLINTH_GUARDED_BY(m_mutex) = 0;     // threads in Pop() that nobody has granted a wake
    unsigned m_grants PLINTH_GUARDED_BY(m_mutex) = 0;       // wakes posted and not yet taken
    bool m_has_standby PLINTH_GUARDED_BY(m_mutex) = false;  // one thread looks at every tick
    bool m_waiter_is_standby PLINTH_GUARDED_BY(m_mutex) = false;
    SStandby m_standby PLINTH_GUARDED_BY(m_mutex);
    bool m_stopped PLINTH_GUARDED_BY(m_mutex) = false;
    bool m_waiting PLINTH_GUARDED_BY(m_mutex) = false;    // the waiter sleeps and wants to be woken
    std::uint64_t m_pops PLINTH_GUARDED_BY(m_mutex) = 0;  // records taken so far
    Plinth::CMutex m_mutex;                               // guards the list and who sleeps
    Plinth::CSemaphore m_semaphore;
    std::atomic<bool> m_looking{false};  // the waiter looks again before it sleeps
    void* m_waiter = nullptr;
    void (*m_wake_waiter)(void* waiter) = nullptr;
    unsigned m_workers = 1;
};

}  // namespace Veltro::Ravelo
