// The other ends of the connections: one thread that reads them all.
#pragma once

#include <pthread.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "common/Histogram.h"

namespace Bench {

inline constexpr std::size_t PACKET_BYTES = 1400;

/// Reads until it ends. Each packet begins with the time at which it was given to the system, in nanoseconds,
/// and a number; a connection that misses one, or gets them in another order, ends the process.
class CReceivers {
public:
    CReceivers();
    ~CReceivers();
    CReceivers(const CReceivers&) = delete;
    CReceivers& operator=(const CReceivers&) = delete;

    /// Takes a connected, non-blocking socket over. Before Start().
    void Add(int fd);
    void Start();
    /// Lets the thread end when no more comes.
    void Stop();

    std::uint64_t Packets() const { return m_packets.load(std::memory_order_relaxed); }
    /// Counts delays from now on.
    void Measure() { m_measuring = true; }
    /// After Stop().
    const CHistogram& Delays() const { return m_delays; }

private:
    struct SHead {
        std::int64_t sent_ns;
        std::uint64_t number;
    };
    struct SConnection {
        int fd;
        std::size_t at = 0;  ///< in the packet
        std::uint64_t next = 0;
        std::array<char, sizeof(SHead)> head{};
    };

    static void* run(void* self);
    void loop();
    bool read(SConnection& connection);
    void take(SConnection& connection, const char* data, std::size_t length, std::int64_t now);

    int m_epoll;
    std::vector<SConnection> m_connections;
    pthread_t m_thread{};
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_measuring{false};
    std::atomic<std::uint64_t> m_packets{0};
    CHistogram m_delays;
};

}  // namespace Bench
