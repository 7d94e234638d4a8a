#include "Socket/SockAddrSystem.h"

#include <Ravelo/SockAddrIPv4.h>
#include <Ravelo/SockAddrIPv6.h>
#include <Ravelo/SockAddrStorage.h>

#include <cstddef>
#include <cstring>

namespace Veltro::Ravelo {

// Both families keep the port at the same place.
static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port));

unsigned int addressFamilyCode(const CSockAddr& addr) {
    if (addr.GetType() != SOCKADDR_TYPE_STORAGE) return addr.GetType();
    return static_cast<const CSockAddrStorage&>(addr).GetInputType();
}

int systemFamily(unsigned int family_code) {
    if (family_code == SOCKADDR_TYPE_IPV4) return AF_INET;
    return family_code == SOCKADDR_TYPE_IPV6 ? AF_INET6 : -1;
}

bool acceptsSystemFamily(const CSockAddr& addr, int system_family) {
    if (addr.GetType() == SOCKADDR_TYPE_STORAGE) return true;
    return systemFamily(addr.GetType()) == system_family;
}

int setSystemAddress(CSockAddr& addr, const sockaddr_in6& system) {
    switch (addr.GetType()) {
        case SOCKADDR_TYPE_IPV4:
            return static_cast<CSockAddrIPv4&>(addr).SetAddr(asIPv4(system));
        case SOCKADDR_TYPE_IPV6:
            return static_cast<CSockAddrIPv6&>(addr).SetAddr(&system);
        case SOCKADDR_TYPE_STORAGE:
            return static_cast<CSockAddrStorage&>(addr).SetAddr(
                reinterpret_cast<const sockaddr_in*>(&system));
        default:
            return -1;
    }
}

unsigned short addressPort(const CSockAddr& addr) {
    switch (addr.GetType()) {
        case SOCKADDR_TYPE_IPV4:
            return static_cast<const CSockAddrIPv4&>(addr).GetPort();
        case SOCKADDR_TYPE_IPV6:
            return static_cast<const CSockAddrIPv6&>(addr).GetPort();
        case SOCKADDR_TYPE_STORAGE:
            return static_cast<const CSockAddrStorage&>(addr).GetPort();
        default:
            return 0;
    }
}

void addressText(const CSockAddr& addr, char* text, unsigned int length_bytes) {
    // A storage may leave its text unterminated.
    std::memset(text, 0, length_bytes);
    switch (addr.GetType()) {
        case SOCKADDR_TYPE_IPV4:
            static_cast<const CSockAddrIPv4&>(addr).GetIpStr(text, length_bytes);
            break;
        case SOCKADDR_TYPE_IPV6:
            static_cast<const CSockAddrIPv6&>(addr).GetIpStr(text, length_bytes);
            break;
        case SOCKADDR_TYPE_STORAGE:
            static_cast<const CSockAddrStorage&>(addr).GetIpStr(text, length_bytes);
            break;
        default:
            break;
    }
}

bool isMulticast(std::uint32_t ipv4) {
    return ipv4 + 0x20000000U <= 0x0FFFFFFFU;
}

bool isMulticast(const in6_addr& ipv6) {
    return ipv6.s6_addr[0] == 0xFF;
}

sockaddr_in asIPv4(const sockaddr_in6& system) {
    sockaddr_in ipv4;
    std::memcpy(&ipv4, &system, sizeof(ipv4));
    return ipv4;
}

unsigned short systemPort(const sockaddr_in6& system) {
    return ntohs(system.sin6_port);
}

}  // namespace Veltro::Ravelo
