#include "Socket/SockAddrSystem.h"

#include <Ravelo/SockAddrIPv4.h>
#include <Ravelo/SockAddrIPv6.h>
#include <Ravelo/SockAddrStorage.h>

#include <cstddef>
#include <cstring>

namespace Veltro::Ravelo {

// Both families keep the port at the same place.
static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port));

namespace {

sockaddr_in asIPv4(const sockaddr_in6& system) {
    sockaddr_in ipv4;
    std::memcpy(&ipv4, &system, sizeof(ipv4));
    return ipv4;
}

}  // namespace

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

unsigned short systemPort(const sockaddr_in6& system) {
    return ntohs(system.sin6_port);
}

}  // namespace Veltro::Ravelo
