// What the fan-out benchmark needs of a library.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace Bench {

/// Sends one stream of packets to many connections. All calls come from one thread.
class CFanoutSystem {
public:
    virtual ~CFanoutSystem() = default;
    /// Takes a connected, non-blocking socket over.
    virtual void Add(int fd) = 0;
    /// Sends a packet to all; what a socket does not take is sent with the next one. The bytes are copied
    /// once.
    virtual void Send(const char* packet, std::size_t length) = 0;
};

/// Defined by each library's file.
std::unique_ptr<CFanoutSystem> make_fanout_system();

/// The name that the results carry. Defined by each library's file.
const char* fanout_system_name();

}  // namespace Bench
