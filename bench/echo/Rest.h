// What a connection could not send at once.
#pragma once

#include <cstddef>
#include <vector>

namespace Bench {

/// Bytes that wait for room in the socket's send buffer. Empty, and without memory, in the ordinary case.
class CRest {
public:
    bool Empty() const { return m_bytes.empty(); }
    const char* Data() const { return m_bytes.data() + m_sent; }
    std::size_t Size() const { return m_bytes.size() - m_sent; }

    /// Keeps a copy; only while empty.
    void Keep(const char* bytes, std::size_t length) { m_bytes.assign(bytes, bytes + length); }

    /// Drops what has been sent meanwhile.
    void Drop(std::size_t length) {
        m_sent += length;
        if (m_sent < m_bytes.size()) return;
        m_bytes.clear();
        m_sent = 0;
    }

private:
    std::vector<char> m_bytes;
    std::size_t m_sent = 0;
};

}  // namespace Bench
