#include "common/Placement.h"

#include <sched.h>

namespace Bench {

void pin_to(unsigned processor) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor, &set);
    sched_setaffinity(0, sizeof set, &set);
}

void unpin() {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(0, &set);
    CPU_SET(1, &set);
    sched_setaffinity(0, sizeof set, &set);
}

}  // namespace Bench
