// The message benchmarks, the same for every library.
#pragma once

#include <cstdint>

namespace Bench {

/// What one run measured.
struct SMessageResult {
    std::uint64_t messages = 0;
    std::int64_t wall_ns = 0;
    std::int64_t cpu_ns = 0;
    double p50_us = 0;  ///< round trips only
    double p99_us = 0;
};

/// One thread posts to one handler: poster on processor 0, the one worker on processor 1.
SMessageResult run_post(std::uint64_t messages);
/// A handler posts to itself; one worker, on processor 1.
SMessageResult run_chain(std::uint64_t messages);
/// Two threads post to one handler each, two workers; nothing is pinned.
SMessageResult run_pairs(std::uint64_t messages);
/// A message goes to and fro between two handlers of one pool of two workers.
SMessageResult run_roundtrip(std::uint64_t messages);
/// A message goes to and fro between handlers of two pools: one on processor 0, one on processor 1.
SMessageResult run_crosstrip(std::uint64_t messages);

}  // namespace Bench
