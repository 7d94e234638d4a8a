#pragma once

#include <cstdint>

#include "Core/Event.h"

namespace Veltro::Ravelo {

/// The time-outs of all registered sockets of the process: a coarse clock that "Sock_Timer_Thread" advances
/// every 500 ms, scanning all armed sockets. A time-out of t ms comes between t and t + 1000 ms after it was
/// set.
///
/// Add, Delete, Reset and disarm need the record's mutex; the list's own mutex is taken inside it. The thread
/// takes them the other way round and only tries the record: one that is held is looked at again 500 ms
/// later.
class CSockTimer {
public:
    static constexpr std::int64_t TICK_MS = 500;

    /// Starts the thread; 0, or -1 if the system has none to give, or no memory.
    static int start();
    /// Ends the thread and waits for it. Records still in the list stay there until Delete().
    static void stop();

    /// Arms a time-out of t ms; the record is not in the list.
    static void Add(SEvent& record, std::int32_t t);
    /// Takes the record out of the list and clears its time-out.
    static void Delete(SEvent& record);
    /// Sets a new time-out; the record keeps its place in the list.
    static void Reset(SEvent& record, std::int32_t t);
    static bool isInList(const SEvent& record) { return record.timer.linked; }

private:
    friend struct SSockTimerProbe;  // tests

    static void scan();
};

}  // namespace Veltro::Ravelo
