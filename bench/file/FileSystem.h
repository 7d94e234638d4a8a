// What the benchmark of files needs of a system.
#pragma once

#include <ctime>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "common/Clock.h"

namespace Bench {

/// Bytes of one request: a buffer of this library.
inline constexpr std::size_t PIECE = 131'072;
/// Requests that a file of an event loop may have under way.
inline constexpr std::size_t DEPTH = 4;

/// What is to be done with files.
struct SFileTask {
    bool write = false;  ///< else read
    std::vector<std::string> paths;
    std::size_t pieces = 0;  ///< of each file
};

/// How long callbacks held their threads.
class CHold {
public:
    /// Around one callback.
    class CScope {
    public:
        explicit CScope(CHold& hold) : m_hold(hold), m_start_ns(now_ns()), m_cpu_start_ns(cpu_ns()) {}
        ~CScope() {
            raise(m_hold.m_longest_ns, now_ns() - m_start_ns);
            raise(m_hold.m_longest_cpu_ns, cpu_ns() - m_cpu_start_ns);
        }
        CScope(const CScope&) = delete;
        CScope& operator=(const CScope&) = delete;

    private:
        CHold& m_hold;
        std::int64_t m_start_ns;
        std::int64_t m_cpu_start_ns;
    };

    std::int64_t longest_ns() const { return m_longest_ns; }
    /// In which the thread ran: what the machine gave to others is not in it.
    std::int64_t longest_cpu_ns() const { return m_longest_cpu_ns; }

private:
    static std::int64_t cpu_ns() {
        timespec now{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
    }

    static void raise(std::atomic<std::int64_t>& longest, std::int64_t value) {
        std::int64_t seen = longest.load();
        while (seen < value && !longest.compare_exchange_weak(seen, value)) {
        }
    }

    std::atomic<std::int64_t> m_longest_ns{0};
    std::atomic<std::int64_t> m_longest_cpu_ns{0};
};

/// Writes or reads all files from start to end, all at once, and closes them. Ends the process when anything
/// fails. Defined by each system's file.
/// @param piece PIECE bytes to write.
/// @param hold is told of each callback of the loop's threads.
void run_files(const SFileTask& task, const std::string& piece, CHold& hold);

/// Whether the system works here; else it prints why. Defined by each system's file.
bool file_system_works();

/// The name that the results carry. Defined by each system's file.
const char* file_system_name();

}  // namespace Bench
