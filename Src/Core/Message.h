#pragma once

#include <Ravelo/Defs.h>

#include <cstdint>

#include "Core/Event.h"

namespace Veltro::Ravelo {

class CCurrentObject;
class CThreadPool;
struct SNetHandlerRecord;

/// Messages between handlers. Any thread may post; a message whose receiver or pool has gone is freed
/// quietly.
class CMessage {
public:
    /// Posts an ordinary message or, with is_io, one for the file threads.
    static void Notify(std::int64_t sender, long receiver, std::uint32_t type, long info, bool is_io);
    /// Posts a serial message. @param flag is only shown when the receiver is invalid.
    static void NotifySerial(std::int64_t sender, long receiver, std::uint32_t type, long info,
                             unsigned flag);
    /// Posts a handler's close message, ahead of all others.
    static void NotifyClose(const SNetHandlerRecord& handler);

    /// Delivers a message on a worker of the receiver's pool and frees its record.
    static void dispatch(CThreadPool& pool, CCurrentObject& current, SEvent* record);
    /// Delivers the oldest message of the I/O queue on a file thread; nothing when there is none.
    static void dispatchIo(CCurrentObject& current);

    /// Drops the I/O messages that wait for receivers of a pool, or of all pools when it is negative.
    static void dropIo(int pool_number);
    /// How many I/O messages wait.
    static unsigned waitingIo();
};

}  // namespace Veltro::Ravelo
