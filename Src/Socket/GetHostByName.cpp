#include "Socket/GetHostByName.h"

#include <cstring>
#include <new>
#include <string_view>

#include "Log.h"
#include "Socket/SockAddrText.h"
#include "Socket/SocketApi.h"

namespace Veltro::Ravelo {

namespace {

constexpr std::size_t MAX_NAME_LENGTH = 255;

bool isNumber(std::string_view label) {
    constexpr std::string_view decimal = "0123456789";
    constexpr std::string_view hexadecimal = "0123456789abcdefABCDEF";
    if (label.starts_with("0x") || label.starts_with("0X")) {
        return label.find_first_not_of(hexadecimal, 2) == std::string_view::npos;
    }
    return label.find_first_not_of(decimal) == std::string_view::npos;
}

/// Whether a text can be the name of a host. One whose last label is a number is none: resolvers would read
/// it as an address in one of the forms that our literals exclude.
bool isHostName(std::string_view name) {
    if (name.ends_with('.')) name.remove_suffix(1);
    if (name.empty() || name.size() > MAX_NAME_LENGTH) return false;
    if (name.find_first_of(":%[]/ \t\r\n") != std::string_view::npos) return false;
    const std::size_t dot = name.rfind('.');
    return !isNumber(dot == std::string_view::npos ? name : name.substr(dot + 1));
}

/// Asks the system for a name's first address of a family.
/// @return 0 or the resolver's error. *out stays as it is when no address came of that family.
int lookUp(const char* name, int family, sockaddr* out, std::size_t length_bytes) {
    if (!isHostName(name)) return EAI_NONAME;
    addrinfo hints{};
    hints.ai_family = family;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    const int result = ::getaddrinfo(name, nullptr, &hints, &list);
    if (result != 0) return result;
    for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
        if (entry->ai_family != family || entry->ai_addr == nullptr) continue;
        std::memcpy(out, entry->ai_addr, length_bytes);
        break;
    }
    ::freeaddrinfo(list);
    return 0;
}

/// A literal or a name that has an IPv4 address.
bool findIPv4(const char* name, in_addr* address) {
    if (parseIPv4Literal(name, address)) return true;
    sockaddr_in found{};
    const int result = lookUp(name, AF_INET, reinterpret_cast<sockaddr*>(&found), sizeof(found));
    if (result != 0 || found.sin_family != AF_INET) return false;
    *address = found.sin_addr;
    return true;
}

}  // namespace

Plinth::CMutex CGetHostByName::sm_mutex;
CGetHostByName* CGetHostByName::sm_instance = nullptr;
int CGetHostByName::sm_use_count = 0;

CGetHostByName* CGetHostByName::Acquire() {
    Plinth::CLockGuard guard(sm_mutex);
    if (sm_instance == nullptr) sm_instance = new (std::nothrow) CGetHostByName;
    if (sm_instance != nullptr) ++sm_use_count;
    return sm_instance;
}

void CGetHostByName::Release() {
    Plinth::CLockGuard guard(sm_mutex);
    if (sm_use_count == 0 || --sm_use_count > 0) return;
    delete sm_instance;
    sm_instance = nullptr;
}

int CGetHostByName::GetUseCount() {
    Plinth::CLockGuard guard(sm_mutex);
    return sm_use_count;
}

bool CGetHostByName::GetAddressInfo(const char* name, int family, sockaddr* out, int out_len, int) {
    if (name == nullptr) name = "";
    if (out == nullptr) return false;
    if (family == AF_INET && out_len >= static_cast<int>(sizeof(sockaddr_in))) {
        auto* ipv4 = reinterpret_cast<sockaddr_in*>(out);
        if (!findIPv4(name, &ipv4->sin_addr)) return false;
        ipv4->sin_family = AF_INET;
        return true;
    }
    if (family == AF_INET6 && out_len >= static_cast<int>(sizeof(sockaddr_in6))) {
        return get_ipv6(name, reinterpret_cast<sockaddr_in6*>(out));
    }
    return false;
}

bool CGetHostByName::get_ipv6(const char* name, sockaddr_in6* out) {
    out->sin6_family = AF_INET6;
    sockaddr_in6 found{};
    const int result = lookUp(name, AF_INET6, reinterpret_cast<sockaddr*>(&found), sizeof(found));
    SocketApi::setLastError(result);
    if (result == 0 || parseIPv6Literal(name, &found)) {
        if (found.sin6_family != AF_INET6) return true;
        out->sin6_addr = found.sin6_addr;
        out->sin6_flowinfo = found.sin6_flowinfo;
        out->sin6_scope_id = found.sin6_scope_id;
        return true;
    }
    in_addr ipv4{};
    if (findIPv4(name, &ipv4)) {
        out->sin6_addr = in6_addr{};
        storeIPv4Mapped(ipv4, &out->sin6_addr);
        return true;
    }
    SocketApi::setLastError(result);
    RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "getaddrinfo error:%s, errno:%d, %s\n",
               SocketApi::resolverErrorText(result).data(), SocketApi::lastError(),
               SocketApi::errorText(SocketApi::lastError()).data());
    return false;
}

}  // namespace Veltro::Ravelo
