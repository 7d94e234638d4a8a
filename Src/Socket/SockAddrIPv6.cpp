#include <Ravelo/SockAddrIPv6.h>

#include <cstring>
#include <new>

#include "Log.h"
#include "Socket/SockAddrResolve.h"
#include "Socket/SockAddrText.h"
#include "Socket/SocketApi.h"

namespace Veltro::Ravelo {

namespace {

constexpr unsigned SHORTEST_TEXT_BYTES = 17;

bool isSameAddress(const in6_addr& one, const in6_addr& other) {
    return std::memcmp(&one, &other, sizeof(one)) == 0;
}

}  // namespace

/// Null in an object for which there was no memory: its setters fail, and it reads as all zero.
struct CSockAddrIPv6::SInternal {
    sockaddr_in6 m_addr{};

    static const sockaddr_in6& of(const SInternal* internal) {
        static const sockaddr_in6 zero{};
        return internal != nullptr ? internal->m_addr : zero;
    }
};

CSockAddrIPv6::CSockAddrIPv6() : CSockAddr(SOCKADDR_TYPE_IPV6), m_internal(new (std::nothrow) SInternal) {}

CSockAddrIPv6::CSockAddrIPv6(const sockaddr_in6* addr) : CSockAddrIPv6() {
    SetAddr(addr);
}

CSockAddrIPv6::CSockAddrIPv6(const char* ip, unsigned short port) : CSockAddrIPv6() {
    SetAddr(ip, port);
}

CSockAddrIPv6::CSockAddrIPv6(const char* ip, unsigned short port, unsigned int scope_id) : CSockAddrIPv6() {
    SetAddr(ip, port, scope_id);
}

CSockAddrIPv6::CSockAddrIPv6(const CSockAddrIPv6& other)
    : CSockAddr(other), m_internal(new (std::nothrow) SInternal) {
    if (m_internal != nullptr) m_internal->m_addr = SInternal::of(other.m_internal);
}

CSockAddrIPv6& CSockAddrIPv6::operator=(const CSockAddrIPv6& other) {
    if (this != &other && m_internal != nullptr) m_internal->m_addr = SInternal::of(other.m_internal);
    return *this;
}

CSockAddrIPv6::~CSockAddrIPv6() {
    delete m_internal;
}

int CSockAddrIPv6::SetAddr(const sockaddr_in6* addr) {
    if (m_internal == nullptr || addr == nullptr || addr->sin6_family != AF_INET6) return -1;
    m_internal->m_addr = *addr;
    return 0;
}

int CSockAddrIPv6::SetAddr(const char* ip, unsigned short port) {
    if (m_internal == nullptr) return -1;
    m_internal->m_addr = sockaddr_in6{};
    if (SetIp(ip) != 0) return -1;
    return SetPort(port);
}

int CSockAddrIPv6::SetAddr(const char* ip, unsigned short port, unsigned int scope_id) {
    if (SetAddr(ip, port) != 0) return -1;
    return SetScopeID(scope_id);
}

int CSockAddrIPv6::SetIp(const char* ip) {
    if (m_internal == nullptr) return -1;
    return resolveIPv6Text(ip, &m_internal->m_addr) ? 0 : -1;
}

int CSockAddrIPv6::SetPort(unsigned short port) {
    if (m_internal == nullptr) return -1;
    m_internal->m_addr.sin6_family = AF_INET6;
    m_internal->m_addr.sin6_port = htons(port);
    return 0;
}

int CSockAddrIPv6::SetScopeID(unsigned int scope_id) {
    if (m_internal == nullptr) return -1;
    m_internal->m_addr.sin6_scope_id = scope_id;
    return 0;
}

unsigned short CSockAddrIPv6::GetPort() const {
    return ntohs(SInternal::of(m_internal).sin6_port);
}

unsigned int CSockAddrIPv6::GetScopeID() const {
    return static_cast<unsigned int>(SInternal::of(m_internal).sin6_scope_id);
}

char* CSockAddrIPv6::GetIpStr(char* buf, unsigned int len) const {
    if (buf == nullptr || len < SHORTEST_TEXT_BYTES) return nullptr;
    char* text = formatAddress(AF_INET6, &SInternal::of(m_internal).sin6_addr, buf, len);
    if (text == nullptr) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "inet_ntop_b error:%d, %s\n", error,
                        SocketApi::errorText(error).data());
    }
    return text;
}

sockaddr* CSockAddrIPv6::GetAddr(sockaddr* addr) const {
    if (addr != nullptr) std::memcpy(addr, &SInternal::of(m_internal), sizeof(sockaddr_in6));
    return addr;
}

int CSockAddrIPv6::GetAddrLen() const {
    return sizeof(sockaddr_in6);
}

bool CSockAddrIPv6::IsValid() const {
    if (GetPort() != 0 && !isSameAddress(SInternal::of(m_internal).sin6_addr, in6_addr{})) return true;
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s :Invalid addr: m_addr.sin6_port:%u \n", __func__,
                    static_cast<unsigned>(GetPort()));
    return false;
}

bool CSockAddrIPv6::operator==(const CSockAddrIPv6& other) const {
    if (!IsValid() || !other.IsValid() || m_type != other.m_type) return false;
    const sockaddr_in6& mine = SInternal::of(m_internal);
    const sockaddr_in6& its = SInternal::of(other.m_internal);
    return mine.sin6_family == its.sin6_family && mine.sin6_port == its.sin6_port &&
           isSameAddress(mine.sin6_addr, its.sin6_addr);
}

}  // namespace Veltro::Ravelo
