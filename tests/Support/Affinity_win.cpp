#include "Support/Affinity.h"

#include <windows.h>

namespace Veltro::TestSupport {

std::uint64_t allowedProcessors() {
    DWORD_PTR process = 0;
    DWORD_PTR system = 0;
    ::GetProcessAffinityMask(::GetCurrentProcess(), &process, &system);
    // The system tells a thread's processors only when they are set.
    const DWORD_PTR before = ::SetThreadAffinityMask(::GetCurrentThread(), process);
    ::SetThreadAffinityMask(::GetCurrentThread(), before);
    return before;
}

}  // namespace Veltro::TestSupport
