#pragma once

#include <Ravelo/NetHandler.h>

namespace Veltro::Ravelo {

struct SNTimerEventRecord;
struct SNTimerRecord;

/// Something that is done at every tick of a CNTimer: derive from it and override handle_timer_event().
///
/// Made with new; a handler of the public pool. It is pushed onto one clock, once, and then started and
/// stopped at will. Its life ends through Close(), or with its clock; a derived class deletes itself in
/// handle_close(), which is called once. After its clock's Close() an event may go at any time: hold a
/// reference to use it still.
///
/// Every operation may be called from any thread, also from inside handle_timer_event(). None waits for a
/// callback.
class RAVELO_API CNTimerEvent : public CNetHandler {
public:
    /// Belongs to no clock yet; Start() is refused until it does. The public pool must exist.
    CNTimerEvent();
    ~CNTimerEvent() override;
    CNTimerEvent(const CNTimerEvent&) = delete;
    CNTimerEvent& operator=(const CNTimerEvent&) = delete;

    /// Ends the event: handle_timer_event() is not called again, except a call in progress on another thread,
    /// and within one second the clock lets handle_close() follow. An event that was never pushed is closed
    /// at once. The object may be gone when this returns. An override must call it.
    void Close() override;

    /// A tick of the clock, while the event runs: on a thread of the public pool, one at a time for all
    /// events of a clock and in the order they were pushed. It holds up the clock and its other events, so it
    /// should be short. The clock is locked meanwhile: PushTimerEvent() on the same clock never returns from
    /// here.
    /// @return not used. Default: does nothing, 0.
    virtual int handle_timer_event();

    /// Lets the event run from the next tick on. An event that was not pushed yet is left alone, and one line
    /// is logged; one that runs already or is closed fails an assertion.
    void Start();
    /// Lets it rest until Start(). A call in progress on another thread goes on. An event that does not run
    /// is left alone, and one line is logged.
    void Stop();

private:
    friend class CNTimer;
    friend struct SNTimerEventRecord;

    int set_event_ready();
    void end();

    SNTimerEventRecord* m_internal;
};

/// A periodic clock that many small timer events share. A handler of the public pool.
///
/// Its ticks stay on a fixed grid, the moment of creation plus n periods, so that lateness does not add up. A
/// clock that finds itself more than twenty periods off, as after the process was suspended, does not catch
/// up: it begins a new grid at that moment. A single tick is early or late by what handler timers are, a few
/// milliseconds.
///
/// Every operation may be called from any thread. None but PushTimerEvent() waits for a callback.
class RAVELO_API CNTimer : public CNetHandler {
public:
    /// Makes a clock that ticks from now on. The public pool must exist.
    /// @param period microseconds between ticks; at most 24 hours, since no tick is further away. Ticks are
    /// never closer than 2000 on the average.
    /// @return the clock, which ends through Close(); null when there was no memory.
    static CNTimer* Create(std::int64_t period);

    /// Takes an event that belongs to no clock; it rests until its Start(). Waits while a tick is under way.
    /// @param ev from now on the clock's to close. One that was pushed before, or is closed, is logged and
    /// fails an assertion.
    /// @return 0; -1 for null, or for an event that had no memory for itself.
    int PushTimerEvent(CNTimerEvent* ev);

    /// Ends the clock and, with it, all events that it has still: each gets its handle_close(). Both follow
    /// after this has returned, or earlier; the objects may be gone already.
    void Close() override;

    /// @name The clock's own callbacks
    /// @{
    std::int64_t handle_timeout(long timer_id) override;
    int handle_close(CNetHandler* self) override;
    /// @}

private:
    explicit CNTimer(SNTimerRecord* record);
    ~CNTimer() override;
    CNTimer(const CNTimer&) = delete;
    CNTimer& operator=(const CNTimer&) = delete;

    bool set_timers();
    static void close_events(CNTimerEvent* list);

    SNTimerRecord* m_internal;
};

}  // namespace Veltro::Ravelo
