// Latency percentiles in constant memory.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>

namespace Bench {

/// Counts durations in buckets whose width grows with the value: 128 to a power of two, so a percentile is
/// right within 0.8 %. One thread writes.
class CHistogram {
public:
    /// @param value_ns negative counts as 0.
    void Add(std::int64_t value_ns) {
        m_counts[index_of(static_cast<std::uint64_t>(std::max<std::int64_t>(value_ns, 0)))]++;
        m_total++;
    }

    std::uint64_t Total() const { return m_total; }

    /// The duration in microseconds that a share of all durations does not exceed; 0 when there are none.
    /// @param share 0 to 1.
    double PercentileUs(double share) const {
        const auto wanted = static_cast<std::uint64_t>(share * static_cast<double>(m_total) + 0.5);
        std::uint64_t seen = 0;
        for (std::size_t i = 0; i < m_counts.size(); ++i) {
            seen += m_counts[i];
            if (m_counts[i] != 0 && seen >= wanted) return static_cast<double>(middle_of(i)) / 1000.0;
        }
        return 0;
    }

private:
    static constexpr unsigned kSubBits = 7;
    static constexpr std::uint64_t kSub = 1U << kSubBits;

    /// Below 256 every value has its own bucket; above, the top eight bits choose it.
    static std::size_t index_of(std::uint64_t value) {
        const unsigned width = static_cast<unsigned>(std::bit_width(value));
        if (width <= kSubBits + 1) return value;
        const unsigned shift = width - kSubBits - 1;
        return (shift + 1) * kSub + ((value >> shift) - kSub);
    }

    static std::uint64_t middle_of(std::size_t index) {
        if (index < 2 * kSub) return index;
        const std::uint64_t shift = index / kSub - 1;
        return ((kSub + index % kSub) << shift) + (std::uint64_t{1} << shift) / 2;
    }

    std::array<std::uint64_t, (64 - kSubBits + 1) * kSub> m_counts{};
    std::uint64_t m_total = 0;
};

}  // namespace Bench
