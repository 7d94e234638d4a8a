#include "Debug/CallbackTimes.h"

#include <Plinth/Mutex.h>
#include <Plinth/Time.h>
#include <Plinth/TypeName.h>

#include <algorithm>
#include <array>
#include <bit>
#include <map>
#include <new>

namespace Veltro::Ravelo::CallbackTimes {

std::atomic<bool> sm_on{false};

namespace {

/// Eight buckets for each power of two.
constexpr int FINE_BITS = 3;
constexpr std::size_t BUCKETS = (64 - FINE_BITS + 1) << FINE_BITS;

std::size_t bucketOf(std::uint64_t us) {
    constexpr std::uint64_t EXACT = 1 << FINE_BITS;
    if (us < EXACT) return us;
    const int shift = static_cast<int>(std::bit_width(us)) - 1 - FINE_BITS;
    return (static_cast<std::size_t>(shift) << FINE_BITS) + static_cast<std::size_t>(us >> shift);
}

/// The greatest time that falls into a bucket.
std::uint64_t topOf(std::size_t bucket) {
    constexpr std::size_t EXACT = 1 << FINE_BITS;
    if (bucket < EXACT) return bucket;
    const std::size_t shift = (bucket >> FINE_BITS) - 1;
    const std::uint64_t mantissa = bucket - (shift << FINE_BITS);
    return ((mantissa + 1) << shift) - 1;
}

struct SHistogram {
    std::array<std::uint32_t, BUCKETS> counts{};
    std::uint64_t callbacks = 0;
    std::uint64_t longest_us = 0;

    void add(std::uint64_t us) {
        ++counts[bucketOf(us)];
        ++callbacks;
        longest_us = std::max(longest_us, us);
    }
    std::uint64_t p99() const {
        const std::uint64_t wanted = callbacks - callbacks / 100;
        std::uint64_t seen = 0;
        for (std::size_t bucket = 0; bucket < BUCKETS; ++bucket) {
            seen += counts[bucket];
            if (seen >= wanted) return std::min(topOf(bucket), longest_us);
        }
        return longest_us;
    }
};

struct STable {
    Plinth::CMutex mutex;
    std::map<const std::type_info*, SHistogram> classes PLINTH_GUARDED_BY(mutex);
};

/// Never destroyed: workers may end late.
STable& s_table = *new STable;

}  // namespace

void switchOn(bool on) {
    Plinth::CLockGuard guard(s_table.mutex);
    if (on) s_table.classes.clear();
    sm_on.store(on, std::memory_order_relaxed);
}

std::uint64_t now() {
    return std::max<std::uint64_t>(Plinth::CTime::getCurrentMicroSecond(), 1);
}

void note(const std::type_info& type, std::uint64_t began_us) {
    const std::uint64_t us = now() - began_us;
    try {
        Plinth::CLockGuard guard(s_table.mutex);
        s_table.classes[&type].add(us);
    } catch (const std::bad_alloc&) {
        // One time less.
    }
}

std::vector<STimes> list() {
    std::vector<STimes> times;
    {
        Plinth::CLockGuard guard(s_table.mutex);
        for (const auto& [type, histogram] : s_table.classes) {
            times.push_back({Plinth::readableTypeName(*type), histogram.callbacks, histogram.longest_us,
                             histogram.p99()});
        }
    }
    std::sort(times.begin(), times.end(),
              [](const STimes& left, const STimes& right) { return left.type < right.type; });
    return times;
}

}  // namespace Veltro::Ravelo::CallbackTimes
