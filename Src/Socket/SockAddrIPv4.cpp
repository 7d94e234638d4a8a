#include <Ravelo/SockAddrIPv4.h>

#include <cstring>
#include <new>

#include "Log.h"
#include "Socket/SockAddrResolve.h"
#include "Socket/SockAddrText.h"
#include "Socket/SocketApi.h"

namespace Veltro::Ravelo {

namespace {

constexpr unsigned SHORTEST_TEXT_BYTES = 7;

sockaddr_in makeAddress(unsigned int ip, unsigned short port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(ip);
    addr.sin_port = htons(port);
    return addr;
}

}  // namespace

/// Null in an object for which there was no memory: its setters fail, and it reads as all zero.
struct CSockAddrIPv4::SInternal {
    sockaddr_in m_addrin{};

    static const sockaddr_in& of(const SInternal* internal) {
        static const sockaddr_in zero{};
        return internal != nullptr ? internal->m_addrin : zero;
    }
};

CSockAddrIPv4::CSockAddrIPv4() : CSockAddr(SOCKADDR_TYPE_IPV4), m_internal(new (std::nothrow) SInternal) {}

CSockAddrIPv4::CSockAddrIPv4(const sockaddr_in& addr) : CSockAddrIPv4() {
    SetAddr(addr);
}

CSockAddrIPv4::CSockAddrIPv4(unsigned int ip, unsigned short port) : CSockAddrIPv4() {
    SetAddr(ip, port);
}

CSockAddrIPv4::CSockAddrIPv4(const char* ip, unsigned short port) : CSockAddrIPv4() {
    SetAddr(ip, port);
}

CSockAddrIPv4::CSockAddrIPv4(const CSockAddrIPv4& other)
    : CSockAddr(other), m_internal(new (std::nothrow) SInternal) {
    SetAddr(other.GetIp(), other.GetPort());
}

CSockAddrIPv4& CSockAddrIPv4::operator=(const CSockAddrIPv4& other) {
    if (this != &other) SetAddr(other.GetIp(), other.GetPort());
    return *this;
}

CSockAddrIPv4::~CSockAddrIPv4() {
    delete m_internal;
}

int CSockAddrIPv4::SetAddr(const sockaddr_in& addr) {
    if (m_internal == nullptr) return -1;
    m_internal->m_addrin = addr;
    return 0;
}

int CSockAddrIPv4::SetAddr(unsigned int ip, unsigned short port) {
    return SetAddr(makeAddress(ip, port));
}

int CSockAddrIPv4::SetAddr(const char* ip, unsigned short port) {
    if (SetIp(ip) != 0) return -1;
    return SetPort(port);
}

int CSockAddrIPv4::SetIp(unsigned int ip) {
    sockaddr_in addr = SInternal::of(m_internal);
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(ip);
    return SetAddr(addr);
}

int CSockAddrIPv4::SetIp(const char* ip) {
    in_addr address{};
    if (!resolveIPv4Text(ip, &address)) return -1;
    return SetIp(static_cast<unsigned int>(ntohl(address.s_addr)));
}

int CSockAddrIPv4::SetPort(unsigned short port) {
    if (m_internal == nullptr) return -1;
    m_internal->m_addrin.sin_port = htons(port);
    return 0;
}

unsigned int CSockAddrIPv4::GetIp() const {
    return static_cast<unsigned int>(ntohl(SInternal::of(m_internal).sin_addr.s_addr));
}

unsigned short CSockAddrIPv4::GetPort() const {
    return ntohs(SInternal::of(m_internal).sin_port);
}

char* CSockAddrIPv4::GetIpStr(char* buf, unsigned int len) const {
    if (buf == nullptr || len < SHORTEST_TEXT_BYTES) return nullptr;
    char* text = formatAddress(AF_INET, &SInternal::of(m_internal).sin_addr, buf, len);
    if (text == nullptr) {
        const int error = SocketApi::lastError();
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "inet_ntop_b error:%d, %s\n", error,
                        SocketApi::errorText(error).data());
    }
    return text;
}

sockaddr* CSockAddrIPv4::GetAddr(sockaddr* addr) const {
    if (addr != nullptr) std::memcpy(addr, &SInternal::of(m_internal), sizeof(sockaddr_in));
    return addr;
}

int CSockAddrIPv4::GetAddrLen() const {
    return sizeof(sockaddr_in);
}

bool CSockAddrIPv4::IsValid() const {
    if (GetIp() != 0xFFFFFFFFU || GetPort() != 0) return true;
    RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "%s :Invalid addr, m_addrin.sin_port:%u \n", __func__,
                    static_cast<unsigned>(GetPort()));
    return false;
}

bool CSockAddrIPv4::operator==(const CSockAddrIPv4& other) const {
    return IsValid() && other.IsValid() && m_type == other.m_type && GetIp() == other.GetIp() &&
           GetPort() == other.GetPort();
}

}  // namespace Veltro::Ravelo
