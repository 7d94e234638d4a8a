#pragma once

#include <immintrin.h>

namespace Veltro::Plinth {

/// Tells the processor that this is a spin loop.
inline void cpuRelax() {
    _mm_pause();
}

}  // namespace Veltro::Plinth
