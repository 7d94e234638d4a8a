// How much a load test does on a machine that is busy or a build that is slow.
#pragma once

#include <Plinth/Mutex.h>
#include <Plinth/Time.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <map>

namespace Veltro::TestSupport {

/// How many times slower than an optimised build on bare metal this program runs, 1 to 50: what a fixed piece
/// of work with locks and a tree takes. A sanitizer or an emulation layer shows here by itself.
inline std::size_t slowness() {
    static const std::size_t measured = [] {
        constexpr int OPERATIONS = 100'000;
        constexpr std::uint64_t USUAL_US = 12'000;
        Plinth::CMutex mutex;
        std::uint64_t best_us = UINT64_MAX;
        for (int attempt = 0; attempt < 3; ++attempt) {
            const std::uint64_t start_us = Plinth::CTime::getCurrentMicroSecond();
            std::map<int, int> tree;
            for (int i = 0; i < OPERATIONS; ++i) {
                Plinth::CLockGuard guard(mutex);
                tree[i * 7919 % 4096] += i;
            }
            best_us = std::min(best_us, Plinth::CTime::getCurrentMicroSecond() - start_us);
        }
        return std::clamp<std::size_t>(static_cast<std::size_t>(best_us / USUAL_US), 1, 50);
    }();
    return measured;
}

/// A count for a load test, less where the program runs slower, but at least a fiftieth.
inline std::size_t scaledDown(std::size_t count) {
    const std::size_t scaled = count / slowness();
    if (scaled < count) std::printf("load: %zu instead of %zu\n", scaled, count);
    return scaled;
}

}  // namespace Veltro::TestSupport
