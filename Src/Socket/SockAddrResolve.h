// From any text to an address: literals first, then the resolver.
#pragma once

#include "Socket/SocketApi_system.h"

namespace Veltro::Ravelo {

/// The rule of CSockAddrIPv4::SetIp(const char*). @return whether *address was set; it is unchanged
/// otherwise.
bool resolveIPv4Text(const char* text, in_addr* address);

/// The rule of CSockAddrIPv6::SetIp(const char*): a literal sets the whole record, a name only the address
/// and its scope. @return whether *address was set; it is unchanged otherwise.
bool resolveIPv6Text(const char* text, sockaddr_in6* address);

}  // namespace Veltro::Ravelo
