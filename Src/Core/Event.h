// The records that travel through the reactor's queues and stand in its tables.
#pragma once

#include <Plinth/Mutex.h>
#include <Ravelo/Defs.h>

#include <atomic>
#include <cstdint>

#include "Core/HandlerShare.h"

namespace Veltro::Ravelo {

class CNetHandler;

/// Keys of queued records that are neither a descriptor (0 or more) nor a timer (below
/// EVENT_KEY_TIMER_LIMIT).
enum : std::int64_t {
    EVENT_KEY_MESSAGE = -50,
    EVENT_KEY_SERIAL_MESSAGE = -51,
    EVENT_KEY_REACTOR_TOKEN = -75,
    EVENT_KEY_SERIAL_TOKEN = -76,
    EVENT_KEY_HEARTBEAT = -80,
    EVENT_KEY_TIMER_LIMIT = -101
};

/// What every table entry begins with.
struct SKeyedEntry {
    std::int64_t key = 0;
};

/// What every queued record begins with.
struct SQueueRecord : SKeyedEntry {
    SQueueRecord* next = nullptr;  ///< queue, chain or free-list link
};

/// An entry of a pool's object table.
struct SObjectEntry : SKeyedEntry {
    CNetHandler* handler = nullptr;
};

struct SEvent;

/// The time-out of a registered socket. The record's mutex guards all but the links, which the list's guards.
struct SSockTimeout {
    std::int32_t m_set_time = 0;  ///< the interval asked for, ms
    std::int64_t m_time_out = 0;  ///< expiry on the time-out clock, ms; 0 while disarmed
    bool linked = false;          ///< whether it stands in the time-out list
    SEvent* record = nullptr;     ///< the record this is part of
    SSockTimeout* prev = nullptr;
    SSockTimeout* next = nullptr;
};

/// One record for all queued work: a registered socket (key = its descriptor), a message, a token, a
/// heartbeat. Comes from CEventPool and goes back to it; its memory stays a record while the library runs.
/// What a message uses is one line of the processor's cache.
struct alignas(CACHE_LINE) SEvent : SQueueRecord {
    // Messages.
    std::int64_t sender = 0;
    std::int64_t receiver = 0;
    std::int64_t info = 0;
    std::uint32_t type = 0;

    Plinth::CMutex mutex;  ///< guards a socket record's fields; unused by the other kinds

    // Sockets. The two atomics m_revents and obj_id are written under the mutex and read without it by the
    // dispatch in progress. What every event uses comes first, in the second line of the processor's cache.
    std::atomic<std::uint32_t> m_revents{0};  ///< 16 bits; 0 while idle, else what is being dispatched
    std::uint32_t m_event_mask = 0;
    CHandlerShare owner;      ///< whom obj_id names
    std::uint32_t armed = 0;  ///< the multiplexer's own bits: what it waits for at present
    /// The multiplexer's own: changes with every arming and removal and is never set back, so that what was
    /// received for an earlier arming does not match. Written under the mutex.
    std::atomic<std::uint32_t> generation{0};
    std::uint32_t drained_in_a_row = 0;  ///< the multiplexer's own: dispatches that left nothing to read
    std::uint32_t armed_during = 0;  ///< the multiplexer's own: during which of its waits it was armed last
    SSockTimeout timer;
    std::atomic<std::int64_t> obj_id{0};  ///< the owner
};

}  // namespace Veltro::Ravelo
