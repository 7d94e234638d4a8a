#pragma once

#include <Plinth/Defs.h>

#include <cstdint>

namespace Veltro::Plinth {

/// The steady clock: never set back, the same on every thread, not related to the time of day. Any thread may
/// call; nothing blocks.
class PLINTH_API CTime {
public:
    /// Microseconds since a fixed moment in the past.
    static std::uint64_t getCurrentMicroSecond();
    /// Milliseconds since the same moment.
    static std::uint64_t getCurrentMilliSecond();
};

}  // namespace Veltro::Plinth
