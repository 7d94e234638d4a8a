// The bytes that requests carry.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace Bench {

/// Random bytes of which each request sends another stretch, so that an answer that belongs to another
/// request, or another connection, does not pass for this one's.
class CPayload {
public:
    explicit CPayload(std::size_t size_bytes) : m_size(size_bytes), m_bytes(size_bytes + kStretches) {
        std::minstd_rand random(1);
        for (char& byte : m_bytes) byte = static_cast<char>(random() >> 8);
    }

    std::size_t Size() const { return m_size; }

    /// The bytes of one request; valid as long as this object.
    const char* Stretch(std::uint64_t number) const { return m_bytes.data() + number % kStretches; }

private:
    static constexpr std::size_t kStretches = 4093;
    std::size_t m_size;
    std::vector<char> m_bytes;
};

}  // namespace Bench
