#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace Veltro::Ravelo {

/// Watches for events without a record. One is late at most once; if it comes again, it is of a file that the
/// application closed here but that lives on under another descriptor, and it would come for ever: only the
/// descriptor that is gone could take it out of the epoll set.
class COrphanWatch {
public:
    void note(std::uint64_t tag) {
        for (std::size_t i = 0; i < m_former_count; ++i) m_again = m_again || m_former[i] == tag;
        if (m_count < m_tags.size()) m_tags[m_count++] = tag;
    }
    /// Whether a tag of this pass was noted in the former one, too.
    bool endPass() {
        if (m_count == 0 && m_former_count == 0) return false;
        m_former = m_tags;
        m_former_count = m_count;
        m_count = 0;
        return std::exchange(m_again, false);
    }

private:
    std::array<std::uint64_t, 16> m_tags{};
    std::array<std::uint64_t, 16> m_former{};
    std::size_t m_count = 0;
    std::size_t m_former_count = 0;
    bool m_again = false;
};

}  // namespace Veltro::Ravelo
