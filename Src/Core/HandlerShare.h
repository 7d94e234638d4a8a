#pragma once

#include <cstdint>
#include <utility>

namespace Veltro::Ravelo {

class CNetHandler;
struct SNetHandlerRecord;

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
        return *this;
    }
    ~CHandlerShare();

    /// The handler with a reference taken; null once it has left its pool's table. Instead of a lookup by id:
    /// it takes no lock and searches no tree.
    CNetHandler* takeHandler() const;
    /// Counts sockets that were registered for the handler, or removed.
    void changeSockets(std::int64_t by) const;

private:
    SNetHandlerRecord* m_record = nullptr;
};

}  // namespace Veltro::Ravelo
