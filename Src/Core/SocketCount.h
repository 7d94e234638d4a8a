#pragma once

#include <atomic>
#include <cstdint>
#include <new>
#include <utility>

namespace Veltro::Ravelo {

/// A share in a handler's count of registered sockets. The count lives as long as the handler or one of its
/// sockets' records, whichever is longer. A share is used by one thread at a time, the count by any.
class CSocketCount {
public:
    /// No count: change() does nothing and value() is 0.
    CSocketCount() = default;
    /// A count of its own, starting at 0; none when no memory is left.
    static CSocketCount make() {
        CSocketCount count;
        count.m_shared = new (std::nothrow) SShared;
        return count;
    }
    CSocketCount(const CSocketCount& other) : m_shared(other.m_shared) {
        if (m_shared != nullptr) m_shared->holders.fetch_add(1, std::memory_order_relaxed);
    }
    CSocketCount& operator=(CSocketCount other) {
        std::swap(m_shared, other.m_shared);
        return *this;
    }
    ~CSocketCount() {
        if (m_shared != nullptr && m_shared->holders.fetch_sub(1) == 1) delete m_shared;
    }

    void change(std::int64_t by) const {
        if (m_shared != nullptr) m_shared->value.fetch_add(by);
    }
    std::int64_t value() const { return m_shared != nullptr ? m_shared->value.load() : 0; }

private:
    struct SShared {
        std::atomic<std::int64_t> value{0};
        std::atomic<std::int64_t> holders{1};
    };
    SShared* m_shared = nullptr;
};

}  // namespace Veltro::Ravelo
