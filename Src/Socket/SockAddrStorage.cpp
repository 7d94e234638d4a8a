#include <Ravelo/SockAddrStorage.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "Log.h"
#include "Socket/SockAddrResolve.h"
#include "Socket/SockAddrText.h"
#include "Socket/SocketApi.h"

namespace Veltro::Ravelo {

namespace {

constexpr std::size_t TEXT_BYTES = 128;

}  // namespace

/// Null in an object for which there was no memory: its setters fail, and it reads as all zero.
struct CSockAddrStorage::SInternal {
    unsigned int m_real_type = 0;
    unsigned int m_input_type = 0;
    char m_ip[TEXT_BYTES] = {};
    unsigned short m_port = 0;
    sockaddr_in6 m_addr6{};
    sockaddr_in m_addr4{};

    static const SInternal& of(const SInternal* internal) {
        static const SInternal zero{};
        return internal != nullptr ? *internal : zero;
    }

    void writePort() {
        if (m_real_type == SOCKADDR_TYPE_IPV4) m_addr4.sin_port = htons(m_port);
        if (m_real_type == SOCKADDR_TYPE_IPV6) m_addr6.sin6_port = htons(m_port);
    }
    bool resolveAsIPv4(const char* text);
    bool resolveAsIPv6(const char* text);
};

bool CSockAddrStorage::SInternal::resolveAsIPv4(const char* text) {
    sockaddr_in ipv4{};
    if (!resolveIPv4Text(text, &ipv4.sin_addr)) return false;
    ipv4.sin_family = AF_INET;
    ipv4.sin_port = htons(m_port);
    m_addr4 = ipv4;
    m_real_type = SOCKADDR_TYPE_IPV4;
    return true;
}

bool CSockAddrStorage::SInternal::resolveAsIPv6(const char* text) {
    sockaddr_in6 ipv6{};
    if (!resolveIPv6Text(text, &ipv6)) return false;
    ipv6.sin6_family = AF_INET6;
    ipv6.sin6_port = htons(m_port);
    m_addr6 = ipv6;
    m_real_type = SOCKADDR_TYPE_IPV6;
    return true;
}

CSockAddrStorage::CSockAddrStorage()
    : CSockAddr(SOCKADDR_TYPE_STORAGE), m_internal(new (std::nothrow) SInternal) {
    static_assert(sizeof(SInternal) == 184);
}

CSockAddrStorage::CSockAddrStorage(const char* ip, unsigned short port) : CSockAddrStorage() {
    SetAddr(ip, port);
}

CSockAddrStorage::CSockAddrStorage(const CSockAddrStorage& other)
    : CSockAddr(other), m_internal(new (std::nothrow) SInternal) {
    if (m_internal != nullptr) *m_internal = SInternal::of(other.m_internal);
}

CSockAddrStorage& CSockAddrStorage::operator=(const CSockAddrStorage& other) {
    if (this != &other && m_internal != nullptr) *m_internal = SInternal::of(other.m_internal);
    return *this;
}

CSockAddrStorage::~CSockAddrStorage() {
    delete m_internal;
}

int CSockAddrStorage::SetIp(const char* ip) {
    if (m_internal == nullptr || ip == nullptr) return -1;
    // The whole text is resolved, also where only its start can be kept.
    std::memset(m_internal->m_ip, 0, TEXT_BYTES);
    std::memcpy(m_internal->m_ip, ip, std::min(std::strlen(ip), TEXT_BYTES - 1));
    const bool has_colon = std::strchr(ip, ':') != nullptr;
    m_internal->m_input_type = has_colon ? SOCKADDR_TYPE_IPV6 : 0U;
    if (!has_colon && m_internal->resolveAsIPv4(ip)) {
        m_internal->m_input_type = SOCKADDR_TYPE_IPV4;
        return 0;
    }
    if (!m_internal->resolveAsIPv6(ip)) {
        m_internal->m_real_type = 0;
        return -1;
    }
    m_internal->m_input_type = SOCKADDR_TYPE_IPV6;
    // An IPv4-mapped literal stands for its IPv4 address.
    if (has_colon) m_internal->resolveAsIPv4(ip);
    return 0;
}

int CSockAddrStorage::SetAddr(const char* ip, unsigned short port) {
    if (SetIp(ip) != 0) return -1;
    return SetPort(port);
}

int CSockAddrStorage::SetAddr(const sockaddr_in* addr) {
    if (m_internal == nullptr || addr == nullptr) return -1;
    if (addr->sin_family != AF_INET && addr->sin_family != AF_INET6) return -1;
    const unsigned short port = ntohs(addr->sin_port);
    m_internal->m_port = port;
    char text[TEXT_BYTES];
    if (addr->sin_family == AF_INET) {
        if (formatAddress(AF_INET, &addr->sin_addr, text, sizeof(text)) == nullptr) {
            const int error = SocketApi::lastError();
            RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "inet_ntop_b error:%d, %s\n", error,
                            SocketApi::errorText(error).data());
            return -1;
        }
    } else {
        const auto* ipv6 = reinterpret_cast<const sockaddr_in6*>(addr);
        const int result = ::getnameinfo(reinterpret_cast<const sockaddr*>(addr), sizeof(*ipv6), text,
                                         sizeof(text), nullptr, 0, NI_NUMERICHOST);
        SocketApi::setLastError(result);
        if (result != 0) return -1;
        m_internal->m_addr6.sin6_scope_id = ipv6->sin6_scope_id;
    }
    if (SetIp(text) != 0) return -1;
    return SetPort(port);
}

int CSockAddrStorage::SetPort(unsigned short port) {
    if (m_internal == nullptr) return -1;
    m_internal->m_port = port;
    m_internal->writePort();
    return 0;
}

unsigned short CSockAddrStorage::GetPort() const {
    return IsValid() ? SInternal::of(m_internal).m_port : static_cast<unsigned short>(0);
}

unsigned int CSockAddrStorage::GetInputType() const {
    return IsValid() ? SInternal::of(m_internal).m_input_type : 0U;
}

unsigned int CSockAddrStorage::GetRealType() const {
    return SInternal::of(m_internal).m_real_type;
}

char* CSockAddrStorage::GetIpStr(char* buf, unsigned int len) const {
    const SInternal& internal = SInternal::of(m_internal);
    const std::size_t length = std::strlen(internal.m_ip);
    if (buf == nullptr || len <= length || internal.m_real_type == 0) return nullptr;
    // With one byte to spare the text ends without a terminator: callers know its length.
    std::memcpy(buf, internal.m_ip, std::min<std::size_t>(len - 1, length + 1));
    return buf;
}

bool CSockAddrStorage::GetRealSockAddr(CSockAddr*) {
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s : this interface is no support in windows system!\n",
                    __func__);
    return false;
}

sockaddr* CSockAddrStorage::GetAddr(sockaddr* addr) const {
    if (addr == nullptr) return nullptr;
    const SInternal& internal = SInternal::of(m_internal);
    if (internal.m_input_type == SOCKADDR_TYPE_IPV4) {
        std::memcpy(addr, &internal.m_addr4, sizeof(internal.m_addr4));
    } else if (internal.m_input_type == SOCKADDR_TYPE_IPV6) {
        std::memcpy(addr, &internal.m_addr6, sizeof(internal.m_addr6));
    } else {
        return nullptr;
    }
    return addr;
}

int CSockAddrStorage::GetAddrLen() const {
    switch (SInternal::of(m_internal).m_input_type) {
        case SOCKADDR_TYPE_IPV4:
            return sizeof(sockaddr_in);
        case SOCKADDR_TYPE_IPV6:
            return sizeof(sockaddr_in6);
        default:
            return 0;
    }
}

bool CSockAddrStorage::IsValid() const {
    const SInternal& internal = SInternal::of(m_internal);
    return (internal.m_input_type == SOCKADDR_TYPE_IPV4 || internal.m_input_type == SOCKADDR_TYPE_IPV6) &&
           internal.m_ip[0] != '\0';
}

bool CSockAddrStorage::operator==(const CSockAddrStorage& other) const {
    if (!IsValid() || !other.IsValid() || m_type != other.m_type) return false;
    const SInternal& mine = SInternal::of(m_internal);
    const SInternal& its = SInternal::of(other.m_internal);
    return mine.m_input_type == its.m_input_type && mine.m_port == its.m_port &&
           std::memcmp(mine.m_ip, its.m_ip, TEXT_BYTES) == 0;
}

}  // namespace Veltro::Ravelo
