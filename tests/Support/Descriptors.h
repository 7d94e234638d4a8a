// Descriptors behind the socket objects' backs.
#pragma once

#include <Ravelo/SockStream.h>

#include <cstdint>

namespace Veltro::TestSupport {

/// Gives a connection the number fd, which is closed, as the system does when it uses a number again; where
/// numbers cannot be chosen it keeps its own.
/// @param target takes the connection over; from is left without.
void moveTo(Ravelo::CSockStream& from, int fd, Ravelo::CSockStream& target);

/// A second descriptor of the same socket; -1 where there is no such thing.
int duplicateDescriptor(int fd);

/// Processor time that the process has used.
std::int64_t processorTimeUs();

}  // namespace Veltro::TestSupport
