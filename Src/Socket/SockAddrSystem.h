// What the socket classes ask of an address, whatever its class.
#pragma once

#include <Ravelo/SockAddr.h>

#include <cstdint>

#include "Socket/SocketApi_system.h"

namespace Veltro::Ravelo {

/// The size of the buffer for every address that the system returns.
constexpr int SYSTEM_ADDRESS_BYTES = sizeof(sockaddr_in6);
static_assert(SYSTEM_ADDRESS_BYTES == 28 && sizeof(sockaddr_in) == 16);

/// SOCKADDR_TYPE_IPV4, SOCKADDR_TYPE_IPV6 or another number that is no family: the type code, or what a
/// storage's text was written in.
unsigned int addressFamilyCode(const CSockAddr& addr);

/// AF_INET or AF_INET6 for their codes; -1 for any other code.
int systemFamily(unsigned int family_code);

/// Whether an address's type takes a system address of this family: IPv4 and IPv6 their own, a storage any.
bool acceptsSystemFamily(const CSockAddr& addr, int system_family);

/// Fills an address from one that the system returned. @return the setter's result; -1 for a bare address.
int setSystemAddress(CSockAddr& addr, const sockaddr_in6& system);

/// The port and the text of an IPv4 or IPv6 address or a storage, by its own getters.
/// @param text receives the text, empty if there is none or it does not fit. @param length_bytes of it.
unsigned short addressPort(const CSockAddr& addr);
void addressText(const CSockAddr& addr, char* text, unsigned int length_bytes);

/// Whether an IPv4 address (in host order) or an IPv6 address is a multicast group.
bool isMulticast(std::uint32_t ipv4);
bool isMulticast(const in6_addr& ipv6);

/// The same system address as an IPv4 one.
sockaddr_in asIPv4(const sockaddr_in6& system);

/// The port of a system address of either family.
unsigned short systemPort(const sockaddr_in6& system);

}  // namespace Veltro::Ravelo
