// The private state of clocks and their events.
#pragma once

#include <Plinth/Mutex.h>
#include <Ravelo/NTimer.h>

#include <atomic>
#include <cstdint>

namespace Veltro::Ravelo {

enum : std::uint32_t {
    TIMER_EVENT_CLOSED = 0,   ///< the clock takes it off its list and closes it
    TIMER_EVENT_CREATED = 1,  ///< not on a clock
    TIMER_EVENT_READY = 2,    ///< on a clock, never started
    TIMER_EVENT_RUNNING = 3,
    TIMER_EVENT_STOPPED = 4,
    TIMER_EVENT_CLOSING = 5  ///< somebody is inside Close(); the clock must not end it yet
};

struct SNTimerEventRecord {
    Plinth::CMutex mutex;            ///< of those who change m_state
    CNTimerEvent* m_next = nullptr;  ///< in the clock's list, and guarded by the clock's lock
    /// The clock reads it without the event's lock.
    std::atomic<std::uint32_t> m_state{TIMER_EVENT_CREATED};

    /// An event's record; only of one whose record could be allocated.
    static SNTimerEventRecord& of(const CNTimerEvent& event) { return *event.m_internal; }
};

struct SNTimerRecord {
    static constexpr std::int64_t MIN_DELAY_US = 2'000;
    static constexpr std::int64_t REAP_PERIOD_US = 1'000'000;
    /// A clock that is off by more periods than this begins a new grid.
    static constexpr std::int64_t DRIFT_PERIODS = 20;

    // The base time, the count and the period belong to the callback of the period timer, which never runs
    // twice at once.
    std::uint64_t m_base_time;  ///< microseconds
    long m_period_timer PLINTH_GUARDED_BY(mutex) = 0;
    std::uint64_t m_ticks = 0;  ///< since m_base_time
    CNTimerEvent* m_head PLINTH_GUARDED_BY(mutex) = nullptr;
    CNTimerEvent* m_tail PLINTH_GUARDED_BY(mutex) = nullptr;
    Plinth::CMutex mutex;         ///< guards the list; taken before an event's lock
    const std::int64_t m_period;  ///< microseconds
    long m_reap_timer PLINTH_GUARDED_BY(mutex) = 0;

    SNTimerRecord(std::uint64_t now_us, std::int64_t period_us) : m_base_time(now_us), m_period(period_us) {}

    /// How long until the next tick of the grid, in microseconds; begins a new grid when that is too far off.
    std::int64_t nextDelay(std::uint64_t now_us);

    void append(CNTimerEvent* event) PLINTH_REQUIRES(mutex);
    /// Walks the list once, takes closed events off it and, at a tick, calls those that run.
    /// @return what was taken off, linked by m_next, for the caller to close without the lock.
    CNTimerEvent* walk(bool is_tick) PLINTH_REQUIRES(mutex);
};

}  // namespace Veltro::Ravelo
