#include "Support/Affinity.h"

#include <sched.h>

namespace Veltro::TestSupport {

std::uint64_t allowedProcessors() {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    ::sched_getaffinity(0, sizeof allowed, &allowed);
    std::uint64_t mask = 0;
    for (unsigned i = 0; i < 64; ++i) mask |= std::uint64_t{CPU_ISSET(i, &allowed) ? 1U : 0U} << i;
    return mask;
}

}  // namespace Veltro::TestSupport
