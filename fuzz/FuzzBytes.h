// The fuzzer's input, taken from the front piece by piece; zeros and empty pieces once it is used up.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

namespace Veltro::Fuzz {

class CFuzzBytes {
public:
    CFuzzBytes(const std::uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}

    bool empty() const { return m_size == 0; }
    std::uint8_t byte() {
        if (m_size == 0) return 0;
        --m_size;
        return *m_data++;
    }
    /// Two bytes, the lower one first.
    unsigned word() {
        const unsigned low = byte();
        return low | static_cast<unsigned>(byte()) << 8;
    }
    std::string bytes(std::size_t wanted) {
        const std::size_t length = std::min(wanted, m_size);
        std::string piece(reinterpret_cast<const char*>(m_data), length);
        m_data += length;
        m_size -= length;
        return piece;
    }
    /// Up to 15 bytes without a NUL, as a C string holds them.
    std::string shortText() {
        const std::string piece = bytes(byte() % 16U);
        return piece.substr(0, piece.find('\0'));
    }

private:
    const std::uint8_t* m_data;
    std::size_t m_size;
};

/// Ends the run with a finding.
inline void require(bool holds) {
    if (!holds) __builtin_trap();
}

}  // namespace Veltro::Fuzz
