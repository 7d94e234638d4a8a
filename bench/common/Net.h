// The few socket calls that servers and load share.
#pragma once

#include <cstdint>

namespace Bench {

/// Raises the limit of open descriptors as far as the system lets this process.
void raise_descriptor_limit();

/// A non-blocking listening socket on 127.0.0.1 with a backlog of 1024; ends the process on failure.
/// @param port 0 lets the system choose.
/// @param shared several sockets may listen on the port, and the system spreads connections over them.
int listen_on(std::uint16_t port, bool shared);

/// The port a socket is bound to.
std::uint16_t local_port(int fd);

/// Sends small segments at once; every server sets this on every connection.
void set_no_delay(int fd);

/// Prints what failed with the system's reason and ends the process with 1.
[[noreturn]] void die(const char* what);

}  // namespace Bench
