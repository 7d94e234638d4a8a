#include "Socket/SockAddrResolve.h"

#include "Socket/GetHostByName.h"
#include "Socket/SockAddrText.h"

namespace Veltro::Ravelo {

namespace {

constexpr int RESOLVE_TIMEOUT_MS = 2000;

/// Holds a use of the resolver.
class CResolverUse {
public:
    CResolverUse() : m_resolver(CGetHostByName::Acquire()) {}
    ~CResolverUse() {
        if (m_resolver != nullptr) CGetHostByName::Release();
    }
    CResolverUse(const CResolverUse&) = delete;
    CResolverUse& operator=(const CResolverUse&) = delete;

    template <typename SystemAddress>
    bool find(const char* name, int family, SystemAddress* address) {
        return m_resolver != nullptr &&
               m_resolver->GetAddressInfo(name, family, reinterpret_cast<sockaddr*>(address),
                                          static_cast<int>(sizeof(*address)), RESOLVE_TIMEOUT_MS);
    }

private:
    CGetHostByName* m_resolver;
};

}  // namespace

bool resolveIPv4Text(const char* text, in_addr* address) {
    if (text == nullptr || *text == '\0') {
        *address = in_addr{};
        return true;
    }
    sockaddr_in6 ipv6{};
    if (parseIPv6Literal(text, &ipv6)) {
        if (!isIPv4Mapped(ipv6.sin6_addr)) return false;
        *address = lowIPv4(ipv6.sin6_addr);
        return true;
    }
    if (parseIPv4Literal(text, address)) return true;
    CResolverUse resolver;
    sockaddr_in found{};
    if (!resolver.find(text, AF_INET, &found)) return false;
    *address = found.sin_addr;
    return true;
}

bool resolveIPv6Text(const char* text, sockaddr_in6* address) {
    if (text == nullptr) text = "";
    if (parseIPv6Literal(text, address)) return true;
    CResolverUse resolver;
    sockaddr_in6 found = *address;
    if (!resolver.find(text, AF_INET6, &found)) {
        sockaddr_in ipv4{};
        found = *address;
        if (!resolver.find(text, AF_INET, &ipv4)) return false;
        storeIPv4Mapped(ipv4.sin_addr, &found.sin6_addr);
    }
    found.sin6_family = AF_INET6;
    found.sin6_port = address->sin6_port;
    *address = found;
    return true;
}

}  // namespace Veltro::Ravelo
