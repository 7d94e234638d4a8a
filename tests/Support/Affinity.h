// Where threads may run.
#pragma once

#include <cstdint>

namespace Veltro::TestSupport {

/// The processors on which the calling thread may run, one bit for each of the first 64.
std::uint64_t allowedProcessors();

}  // namespace Veltro::TestSupport
