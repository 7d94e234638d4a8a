// Processor time of a process.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace Bench {

/// Nanoseconds of processor time that the living threads of a process have used, from the scheduler's own
/// account; a thread that runs at this moment may lag by one tick. -1 when there is no such process.
std::int64_t process_cpu_ns(pid_t pid);

/// As process_cpu_ns, of the calling process, exact and with ended threads.
std::int64_t own_cpu_ns();

}  // namespace Bench
