#pragma once

#include <Plinth/Mutex.h>
#include <Ravelo/NetHandler.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "Core/Event.h"
#include "Core/SocketCount.h"

namespace Veltro::Ravelo {

inline constexpr std::uint16_t MAGIC_OPEN = 0x0101;
inline constexpr std::uint16_t MAGIC_CLOSED = 0x0202;

/// The type of the message that a closing handler sends to itself.
inline constexpr unsigned MESSAGE_TYPE_CLOSE = 12;

/// The private state of a CNetHandler.
struct SNetHandlerRecord {
    std::uint16_t __m_magic PLINTH_GUARDED_BY(mutex) = MAGIC_OPEN;
    std::uint8_t closing PLINTH_GUARDED_BY(mutex) = 0;  ///< set once, before handle_close()
    SObjectEntry entry;                                 ///< in the pool's object table; its key is the id
    std::uint64_t pool_birth = 0;                       ///< which of the pools that had the number in turn
    Plinth::CMutex mutex;                               ///< guards __m_magic and closing
    std::atomic<std::int64_t> references{0};
    /// Shared with the records of the handler's sockets, which may outlive it.
    CSocketCount sockets = CSocketCount::make();
    std::atomic<std::int64_t> default_receiver{0};

    std::int64_t id() const { return entry.key; }

    /// A handler's record.
    static SNetHandlerRecord& of(const CNetHandler& handler) { return *handler.m_internal; }
    /// A handler's run-time class name, readable on every compiler.
    static std::string className(const CNetHandler* handler);
};

}  // namespace Veltro::Ravelo
