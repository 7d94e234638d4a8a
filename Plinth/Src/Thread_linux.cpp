#include <Plinth/Thread.h>

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>
#include <memory>

#include "ThreadSystem.h"

namespace Veltro::Plinth {

namespace ThreadSystem {

struct SHandle {
    pthread_t thread{};
    Entry entry = nullptr;
    void* argument = nullptr;
};

namespace {
void* trampoline(void* opaque) {
    const auto* handle = static_cast<const SHandle*>(opaque);
    handle->entry(handle->argument);
    return nullptr;
}

/// 1..127 with 64 normal, to the system's 19..-20 with 0 normal.
int niceOf(int priority) {
    const int step = std::clamp(priority, 1, 127) - PRIORITY_NORMAL;
    return step < 0 ? -step * 19 / 63 : -step * 20 / 63;
}
}  // namespace

SHandle* start(Entry entry, void* argument, std::size_t stack_bytes) {
    auto handle = std::make_unique<SHandle>();
    handle->entry = entry;
    handle->argument = argument;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    if (stack_bytes != 0) {
        pthread_attr_setstacksize(&attributes, std::max<std::size_t>(stack_bytes, PTHREAD_STACK_MIN));
    }
    const int result = pthread_create(&handle->thread, &attributes, &trampoline, handle.get());
    pthread_attr_destroy(&attributes);
    return result == 0 ? handle.release() : nullptr;
}

void join(SHandle* handle) {
    pthread_join(handle->thread, nullptr);
    delete handle;
}

void setCurrentName(const char* name) {
    char shortened[16] = {};  // the kernel keeps 15 characters
    for (std::size_t i = 0; i + 1 < sizeof shortened && name[i] != '\0'; ++i) shortened[i] = name[i];
    pthread_setname_np(pthread_self(), shortened);
}

void setCurrentPriority(int priority, int policy) {
    if (policy == POLICY_REALTIME) {
        sched_param parameter{};
        parameter.sched_priority = std::clamp(priority, 1, 99);
        pthread_setschedparam(pthread_self(), SCHED_RR, &parameter);
    } else if (priority != PRIORITY_NORMAL) {
        setpriority(PRIO_PROCESS, static_cast<id_t>(getCurrentThreadId()), niceOf(priority));
    }
}

}  // namespace ThreadSystem

unsigned long getCurrentThreadId() {
    static thread_local const auto thread_id = static_cast<unsigned long>(syscall(SYS_gettid));
    return thread_id;
}

unsigned getProcessorCount() {
    cpu_set_t allowed;
    if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) return 1;
    return static_cast<unsigned>(std::max(CPU_COUNT(&allowed), 1));
}

bool pinCurrentThread(unsigned processor) {
    if (processor >= CPU_SETSIZE) return false;
    cpu_set_t wanted;
    CPU_ZERO(&wanted);
    CPU_SET(processor, &wanted);
    return pthread_setaffinity_np(pthread_self(), sizeof wanted, &wanted) == 0;
}

void yieldThread() {
    sched_yield();
}

void sleepMilliSecond(std::int64_t time_ms) {
    timespec left{time_ms / 1000, time_ms % 1000 * 1'000'000};
    while (clock_nanosleep(CLOCK_MONOTONIC, 0, &left, &left) == EINTR) {
    }
}

}  // namespace Veltro::Plinth
