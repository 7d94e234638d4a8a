// Numeric address texts: one strict parser and one printer for every platform.
#pragma once

#include "Socket/SocketApi_system.h"

namespace Veltro::Ravelo {

/// Parses "a.b.c.d": exactly four decimal octets of 0 to 255, nothing else. A leading zero is refused, since
/// some systems read it as octal. On failure nothing is changed.
/// @return whether the text was such a literal.
bool parseIPv4Literal(const char* text, in_addr* address);

/// Parses an IPv6 literal: up to eight groups of one to four hexadecimal digits, one "::" for one or more
/// zero groups, the last 32 bits possibly as an IPv4 literal, and possibly a scope: "%" and a decimal number
/// of 32 bits or the name of a network interface. No brackets, no port.
/// @param address on success family, address and scope are set and port and flow information are 0; on
/// failure nothing is changed.
bool parseIPv6Literal(const char* text, sockaddr_in6* address);

/// Prints an address without scope or port: IPv4 dotted; IPv6 lower-case with the longest run of zero groups
/// compressed and, for ::a.b.c.d and ::ffff:a.b.c.d, dotted low 32 bits.
/// @param family AF_INET with an in_addr, or AF_INET6 with an in6_addr.
/// @param length_bytes of the buffer, the terminator included.
/// @return the buffer, or null with the socket error set if the text does not fit.
char* formatAddress(int family, const void* address, char* buffer, unsigned length_bytes);

/// Whether the ten first bytes are 0 and the next two 0xFF.
bool isIPv4Mapped(const in6_addr& address);
/// The last four bytes, in network order.
in_addr lowIPv4(const in6_addr& address);
/// Writes bytes 10 to 15: 0xFF, 0xFF and the IPv4 address. Bytes 0 to 9 stay.
void storeIPv4Mapped(const in_addr& ipv4, in6_addr* address);

}  // namespace Veltro::Ravelo
