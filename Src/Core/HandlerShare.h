#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

namespace Veltro::Ravelo {

class CNetHandler;
struct SNetHandlerRecord;

/// Bytes of a line of the processor's cache.
inline constexpr std::size_t CACHE_LINE = 64;

/// A share in a handler's private record, for those who know the handler and may outlive it, as the records
/// of its sockets do. A share is used by one thread at a time, the handler's record by any.
class CHandlerShare {
public:
    /// No handler: takeHandler() gives null, changeSockets() does nothing.
    CHandlerShare() = default;
    explicit CHandlerShare(SNetHandlerRecord& record);
    CHandlerShare(const CHandlerShare&) = delete;
    CHandlerShare& operator=(CHandlerShare&& other) noexcept {
        std::swap(m_record, other.m_record);
        std::swap(m_handler, other.m_handler);
        return *this;
    }
    ~CHandlerShare();

    /// Has the processor fetch what takeHandler() and the handler's callback will read first.
    void prefetch() const {
        __builtin_prefetch(m_record, 1);
        __builtin_prefetch(m_handler);
        // A number, since nothing may be added to a null pointer.
        __builtin_prefetch(
            reinterpret_cast<const void*>(reinterpret_cast<std::uintptr_t>(m_handler) + CACHE_LINE));
    }

    /// The handler with a reference taken; null once it has left its pool's table. Instead of a lookup by id:
    /// it takes no lock and searches no tree.
    CNetHandler* takeHandler() const;
    /// Counts sockets that were registered for the handler, or removed.
    void changeSockets(std::int64_t by) const;

private:
    SNetHandlerRecord* m_record = nullptr;
    CNetHandler* m_handler = nullptr;  // may be gone: fit for use only with a reference
};

}  // namespace Veltro::Ravelo
