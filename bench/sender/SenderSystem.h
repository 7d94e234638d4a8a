// What a contestant of the sender benchmark gives.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Bench {

/// What every contestant may keep for a socket that is full, and how much of it must be free before one that
/// was full goes on.
constexpr std::size_t kKeptBytes = 256 * 1024;
constexpr std::size_t kFreeBytes = kKeptBytes / 2;

/// Blocks of one size for one connection, as fast as it takes them.
struct SLoad {
    int fd = -1;  ///< connected and non-blocking
    const char* block = nullptr;
    std::size_t size = 0;
    std::atomic<bool> stop{false};
    std::atomic<std::uint64_t> bytes{0};  ///< handed over so far, counted by the contestant

    /// Counts a block that was handed over.
    void count() { bytes.store(bytes.load(std::memory_order_relaxed) + size, std::memory_order_relaxed); }
    bool is_over() const { return stop.load(std::memory_order_relaxed); }
};

const char* sender_name();
/// Hands blocks over until it is told to stop, and returns once all of them have been sent. It runs on a
/// thread of its own.
void run_sender(SLoad& load);

}  // namespace Bench
