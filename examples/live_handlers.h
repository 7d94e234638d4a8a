// The list of the handlers that an example has made.
#pragma once

#include <Plinth/Plinth.h>

#include <set>

/// What a handler of the list is told to end by.
inline constexpr unsigned MESSAGE_STOP = 100;

/// The ids of the handlers that are alive: a handler is known to others by its id, never by a pointer.
class CLiveHandlers {
public:
    void Add(long id) {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        m_ids.insert(id);
    }
    void Remove(long id) {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        m_ids.erase(id);
    }
    std::set<long> GetIds() {
        Veltro::Plinth::CLockGuard guard(m_mutex);
        return m_ids;
    }
    void WaitForNone() {
        while (!GetIds().empty()) Veltro::Plinth::sleepMilliSecond(1);
    }

private:
    Veltro::Plinth::CMutex m_mutex;
    std::set<long> m_ids PLINTH_GUARDED_BY(m_mutex);
};
