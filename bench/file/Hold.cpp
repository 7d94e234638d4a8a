#include "file/Hold.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>

#include "common/Clock.h"

namespace Bench {

namespace {

/// How long the calling thread has waited for a processor, as the scheduler accounts it.
std::int64_t read_waiting_ns() {
    thread_local const int account = open("/proc/thread-self/schedstat", O_RDONLY | O_CLOEXEC);
    std::array<char, 64> text{};
    if (account < 0 || pread(account, text.data(), text.size() - 1, 0) <= 0) return 0;
    char* end = nullptr;
    std::strtoll(text.data(), &end, 10);  // the time it ran, as of the last tick
    return std::strtoll(end, nullptr, 10);
}

}  // namespace

SThreadTimes SThreadTimes::now() {
    SThreadTimes times;
    timespec cpu{};
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    times.page_faults = usage.ru_minflt;
    // Who loses the processor between two of these would seem to have been blocked.
    do {
        times.waiting_ns = read_waiting_ns();
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpu);
        times.clock_ns = now_ns();
    } while (read_waiting_ns() != times.waiting_ns);
    times.cpu_ns = static_cast<std::int64_t>(cpu.tv_sec) * 1'000'000'000 + cpu.tv_nsec;
    return times;
}

std::int64_t stolen_ms() {
    std::ifstream account("/proc/stat");
    std::string name;
    std::int64_t ticks = 0;
    account >> name;
    for (int column = 0; column < 8; ++column)
        account >> ticks;  // user nice system idle iowait irq softirq steal
    return account ? ticks * 1000 / sysconf(_SC_CLK_TCK) : 0;
}

std::int64_t SThreadTimes::blocked_ns() const {
    return std::max<std::int64_t>(clock_ns - cpu_ns - waiting_ns, 0);
}

SThreadTimes SThreadTimes::since(const SThreadTimes& start) const {
    return {clock_ns - start.clock_ns, cpu_ns - start.cpu_ns, waiting_ns - start.waiting_ns,
            page_faults - start.page_faults};
}

void CHold::add(const SThreadTimes& callback) {
    const std::lock_guard guard(m_mutex);
    m_callbacks += 1;
    m_above += callback.clock_ns > LIMIT_NS ? 1 : 0;
    m_above_own += callback.own_ns() > LIMIT_NS ? 1 : 0;
    m_longest.clock_ns = std::max(m_longest.clock_ns, callback.clock_ns);
    m_longest.cpu_ns = std::max(m_longest.cpu_ns, callback.cpu_ns);
    m_longest.waiting_ns = std::max(m_longest.waiting_ns, callback.waiting_ns);
    m_longest_blocked_ns = std::max(m_longest_blocked_ns, callback.blocked_ns());
    if (callback.own_ns() <= m_longest_own_ns) return;
    m_longest_own_ns = callback.own_ns();
    m_worst = callback;
}

void CHold::print() const {
    const auto us = [](std::int64_t ns) { return static_cast<double>(ns) / 1e3; };
    std::printf("\"hold_us\":%.1f,\"hold_cpu_us\":%.1f,\"hold_waiting_us\":%.1f,\"hold_blocked_us\":%.1f,",
                us(m_longest.clock_ns), us(m_longest.cpu_ns), us(m_longest.waiting_ns),
                us(m_longest_blocked_ns));
    std::printf("\"hold_own_us\":%.1f,\"worst_cpu_us\":%.1f,\"worst_page_faults\":%ld,", us(m_longest_own_ns),
                us(m_worst.cpu_ns), m_worst.page_faults);
    std::printf("\"callbacks\":%lld,\"above\":%lld,\"above_own\":%lld", static_cast<long long>(m_callbacks),
                static_cast<long long>(m_above), static_cast<long long>(m_above_own));
}

}  // namespace Bench
