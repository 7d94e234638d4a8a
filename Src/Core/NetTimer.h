#pragma once

#include <cstdint>

#include "Core/TimerHeap.h"

namespace Veltro::Ravelo {

class CCurrentObject;
class CThreadPool;
struct SNetHandlerRecord;

/// The handler timers of the process: one heap, and "Timer_Thread", which hands what is due to the pools in
/// steps of 5 ms. Timers carry ids, never handlers, so one that outlives its handler is dropped quietly.
///
/// A timer is armed (in the heap), in flight (on its way to a pool or in its callback) or ended. Any thread
/// may arm or destroy. The service's mutex is never held while it calls into a pool.
class CNetTimer {
public:
    static constexpr std::int64_t MIN_PERIOD_US = 3'000;
    static constexpr std::int64_t MAX_PERIOD_US = 86'400'000'000;
    /// Every timer is scheduled so much early, to make up for the thread's step.
    static constexpr std::int64_t EARLY_US = 2'000;
    static constexpr std::int64_t STEP_US = 5'000;
    /// Timers due within this time are taken along.
    static constexpr std::int64_t AHEAD_US = 1'000;

    /// Starts the thread; 0, or -1 if the system has none to give, or no memory.
    static int start();
    static void stop();

    /// Arms a new timer; its id, or -1 when the handler's pool has gone or no memory is left.
    static long SetTimer(const SNetHandlerRecord& handler, std::int64_t period_us);
    /// Ends a timer that waits in the heap; nothing otherwise. A handler whose pool has gone does not reach
    /// the timers of the pool that has the number now.
    static void DestroyTimer(const SNetHandlerRecord& caller, long timer_id);

    /// Calls the handler back on a worker of its pool, then arms the timer again or ends it.
    static void dispatch(CThreadPool& pool, CCurrentObject& current, STimer* timer);

    /// Ends all waiting timers of a pool whose workers have gone. Their ids go with the pool.
    static void dropPool(int pool_number);
    /// Gives a timer's memory back.
    static void freeRecord(STimer* timer);
    /// How many timers wait, for tests.
    static std::size_t armed();
    /// When the first of them is due, in microseconds of the steady clock, for tests; 0 if none waits.
    static std::uint64_t firstDueUs();

private:
    static bool set_timer(STimer* timer);
    static void end(CThreadPool& pool, STimer* timer);
};

}  // namespace Veltro::Ravelo
