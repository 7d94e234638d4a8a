#include <Plinth/Thread.h>

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <limits>
#include <new>

#include "LastErrorKeeper.h"
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

/// 1..127 with 64 normal, to the steps 19..-20 around the process's own nice value.
int niceStepOf(int priority) {
    const int step = std::clamp<int>(priority, PRIORITY_LOWEST, PRIORITY_HIGHEST) - PRIORITY_NORMAL;
    return step < 0 ? -step * 19 / 63 : -step * 20 / 63;
}

/// A new thread inherits its creator's policy; the main thread's is the process's own.
void useProcessPolicy() {
    const int policy = sched_getscheduler(getpid());
    sched_param parameter{};
    if (policy < 0 || policy == sched_getscheduler(0)) return;
    if (sched_getparam(getpid(), &parameter) == 0) sched_setscheduler(0, policy, &parameter);
}

void useNiceStep(int step) {
    const auto self = static_cast<id_t>(getCurrentThreadId());
    const int wanted = std::clamp(getpriority(PRIO_PROCESS, static_cast<id_t>(getpid())) + step, -20, 19);
    if (wanted != getpriority(PRIO_PROCESS, self)) setpriority(PRIO_PROCESS, self, wanted);
}

cpu_set_t readProcessors() {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    // The main thread's, because the caller may have been pinned.
    if (sched_getaffinity(getpid(), sizeof allowed, &allowed) != 0) CPU_SET(0, &allowed);
    return allowed;
}

/// Read once, before a main thread that pins itself narrows the set.
const cpu_set_t& processors() {
    static const cpu_set_t allowed = readProcessors();
    return allowed;
}

thread_local unsigned long t_thread_id = 0;

/// The one thread of a forked process goes on with another id than it had.
void forgetThreadId() {
    t_thread_id = 0;
}

unsigned long readThreadId() {
    static const int registered = pthread_atfork(nullptr, nullptr, &forgetThreadId);
    static_cast<void>(registered);
    return static_cast<unsigned long>(syscall(SYS_gettid));
}
}  // namespace

SHandle* start(Entry entry, void* argument, std::size_t stack_bytes) {
    auto* handle = new (std::nothrow) SHandle;
    if (handle == nullptr) return nullptr;
    handle->entry = entry;
    handle->argument = argument;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    if (stack_bytes != 0) {
        pthread_attr_setstacksize(&attributes, std::max<std::size_t>(stack_bytes, PTHREAD_STACK_MIN));
    }
    const int result = pthread_create(&handle->thread, &attributes, &trampoline, handle);
    pthread_attr_destroy(&attributes);
    if (result == 0) return handle;
    delete handle;
    return nullptr;
}

void join(SHandle* handle) {
    pthread_join(handle->thread, nullptr);
    delete handle;
}

void setCurrentName(const char* name) {
    char shortened[16] = {};  // the kernel keeps 15 bytes
    std::size_t length = std::min(std::strlen(name), sizeof shortened - 1);
    // Not in the middle of a character: the bytes 10xxxxxx continue one.
    while (length > 0 && (static_cast<unsigned char>(name[length]) & 0xC0U) == 0x80U) --length;
    std::memcpy(shortened, name, length);
    pthread_setname_np(pthread_self(), shortened);
}

void setCurrentPriority(int priority, int policy) {
    if (policy == POLICY_REALTIME) {
        sched_param parameter{};
        parameter.sched_priority = std::clamp(priority, 1, 99);
        if (pthread_setschedparam(pthread_self(), SCHED_RR, &parameter) == 0) return;
    }
    useProcessPolicy();
    useNiceStep(niceStepOf(priority));
}

}  // namespace ThreadSystem

unsigned long getCurrentThreadId() {
    if (ThreadSystem::t_thread_id == 0) ThreadSystem::t_thread_id = ThreadSystem::readThreadId();
    return ThreadSystem::t_thread_id;
}

unsigned getProcessorCount() {
    return static_cast<unsigned>(std::max(CPU_COUNT(&ThreadSystem::processors()), 1));
}

bool pinCurrentThread(unsigned processor) {
    const cpu_set_t& allowed = ThreadSystem::processors();
    for (std::size_t i = 0; i < CPU_SETSIZE; ++i) {
        if (!CPU_ISSET(i, &allowed) || processor-- > 0) continue;
        cpu_set_t wanted;
        CPU_ZERO(&wanted);
        CPU_SET(i, &wanted);
        return pthread_setaffinity_np(pthread_self(), sizeof wanted, &wanted) == 0;
    }
    return false;
}

void yieldThread() {
    sched_yield();
}

void sleepMilliSecond(std::int64_t time_ms) {
    if (time_ms <= 0) return;
    const CLastErrorKeeper keeper;
    timespec left{time_ms / 1000, time_ms % 1000 * 1'000'000};
    while (clock_nanosleep(CLOCK_MONOTONIC, 0, &left, &left) == EINTR) {
    }
}

}  // namespace Veltro::Plinth
