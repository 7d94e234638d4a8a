#include "Socket/SockAddrText.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "Socket/SocketApi.h"

namespace Veltro::Ravelo {

namespace {

constexpr int GROUPS = 8;

/// Reads one octet at *text and moves past it.
bool readOctet(const char** text, unsigned char* octet) {
    unsigned value = 0;
    int digits = 0;
    for (; **text >= '0' && **text <= '9'; ++*text, ++digits) {
        if (digits > 0 && value == 0) return false;
        value = value * 10 + static_cast<unsigned>(**text - '0');
        if (value > 255) return false;
    }
    *octet = static_cast<unsigned char>(value);
    return digits > 0;
}

/// Reads "a.b.c.d" at text; null, or the position behind it.
const char* readDotted(const char* text, unsigned char octets[4]) {
    for (int i = 0; i < 4; ++i) {
        if (i > 0 && *text++ != '.') return nullptr;
        if (!readOctet(&text, &octets[i])) return nullptr;
    }
    return text;
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

/// Reads one to four hexadecimal digits at *text and moves past them.
bool readGroup(const char** text, unsigned char group[2]) {
    unsigned value = 0;
    int digits = 0;
    for (; hexDigit(**text) >= 0; ++*text, ++digits) {
        if (digits == 4) return false;
        value = value * 16 + static_cast<unsigned>(hexDigit(**text));
    }
    group[0] = static_cast<unsigned char>(value >> 8);
    group[1] = static_cast<unsigned char>(value & 0xFF);
    return digits > 0;
}

/// An IPv6 address while it is read.
struct SGroups {
    std::array<unsigned char, 16> bytes{};
    int count = 0;      ///< groups read
    int zeros_at = -1;  ///< how many groups came before "::"
};

/// Reads groups up to the end or the scope; null, or the position behind them.
const char* readGroups(const char* text, SGroups* groups) {
    if (text[0] == ':' && text[1] != ':') return nullptr;
    if (text[0] == ':') ++text;
    while (*text != '\0' && *text != '%') {
        if (*text == ':') {
            ++text;
            if (*text == ':') return nullptr;
            if (groups->zeros_at >= 0) return nullptr;
            groups->zeros_at = groups->count;
            continue;
        }
        if (groups->count == GROUPS) return nullptr;
        unsigned char* place = &groups->bytes[static_cast<std::size_t>(groups->count) * 2];
        const char* behind = groups->count <= GROUPS - 2 ? readDotted(text, place) : nullptr;
        if (behind != nullptr) {
            groups->count += 2;
            return *behind == '\0' || *behind == '%' ? behind : nullptr;
        }
        if (!readGroup(&text, place)) return nullptr;
        ++groups->count;
        if (*text == '\0' || *text == '%') break;
        // One colon separates; a second one is the compression's.
        if (*text != ':' || text[1] == '\0' || text[1] == '%') return nullptr;
        ++text;
    }
    return text;
}

/// Moves the groups behind "::" to the end.
bool expandZeros(SGroups* groups) {
    if (groups->zeros_at < 0) return groups->count == GROUPS;
    if (groups->count == GROUPS) return false;
    const auto head = static_cast<std::size_t>(groups->zeros_at) * 2;
    const auto tail = static_cast<std::size_t>(groups->count) * 2 - head;
    std::array<unsigned char, 16> whole{};
    std::memcpy(whole.data(), groups->bytes.data(), head);
    std::memcpy(whole.data() + whole.size() - tail, groups->bytes.data() + head, tail);
    groups->bytes = whole;
    return true;
}

/// Reads what follows "%": a number of 32 bits, or an interface's name.
bool readScope(const char* text, std::uint32_t* scope) {
    if (*text == '\0') return false;
    std::uint64_t number = 0;
    const char* digit = text;
    for (; *digit >= '0' && *digit <= '9'; ++digit) {
        number = number * 10 + static_cast<std::uint64_t>(*digit - '0');
        if (number > UINT32_MAX) return false;
    }
    if (*digit != '\0') number = SocketApi::interfaceIndex(text);
    *scope = static_cast<std::uint32_t>(number);
    return *digit == '\0' || number != 0;
}

/// The longest run of two or more zero groups; of equal ones the first.
struct SZeroRun {
    int start = -1;
    int length = 0;
};

SZeroRun longestZeroRun(const unsigned char* bytes) {
    SZeroRun longest;
    SZeroRun run;
    for (int group = 0; group < GROUPS; ++group) {
        if (bytes[group * 2] != 0 || bytes[group * 2 + 1] != 0) {
            run.length = 0;
            continue;
        }
        if (run.length++ == 0) run.start = group;
        if (run.length > longest.length) longest = run;
    }
    return longest.length >= 2 ? longest : SZeroRun{};
}

/// Prints into a text of 46 bytes; returns its length.
int printIPv6(const unsigned char* bytes, char* text) {
    const SZeroRun zeros = longestZeroRun(bytes);
    const bool mapped = zeros.length == 5 && bytes[10] == 0xFF && bytes[11] == 0xFF;
    const int groups = zeros.start == 0 && (zeros.length == 6 || mapped) ? GROUPS - 2 : GROUPS;
    constexpr std::size_t size = INET6_ADDRSTRLEN;
    int length = 0;
    for (int group = 0; group < groups; ++group) {
        if (group == zeros.start) {
            text[length++] = ':';
            if (group == 0) text[length++] = ':';
            group += zeros.length - 1;
            continue;
        }
        const unsigned value = static_cast<unsigned>(bytes[group * 2] << 8 | bytes[group * 2 + 1]);
        length += std::snprintf(text + length, size - static_cast<std::size_t>(length), "%x%s", value,
                                group + 1 < GROUPS ? ":" : "");
    }
    if (groups != GROUPS) {
        length += std::snprintf(text + length, size - static_cast<std::size_t>(length), "%u.%u.%u.%u",
                                bytes[12], bytes[13], bytes[14], bytes[15]);
    }
    text[length] = '\0';
    return length;
}

}  // namespace

bool parseIPv4Literal(const char* text, in_addr* address) {
    unsigned char octets[4];
    const char* behind = readDotted(text, octets);
    if (behind == nullptr || *behind != '\0') return false;
    std::memcpy(address, octets, sizeof(octets));
    return true;
}

bool parseIPv6Literal(const char* text, sockaddr_in6* address) {
    SGroups groups;
    std::uint32_t scope = 0;
    const char* behind = readGroups(text, &groups);
    if (behind == nullptr || !expandZeros(&groups)) return false;
    if (*behind == '%' && !readScope(behind + 1, &scope)) return false;
    *address = sockaddr_in6{};
    address->sin6_family = AF_INET6;
    std::memcpy(&address->sin6_addr, groups.bytes.data(), groups.bytes.size());
    address->sin6_scope_id = scope;
    return true;
}

char* formatAddress(int family, const void* address, char* buffer, unsigned length_bytes) {
    const auto* bytes = static_cast<const unsigned char*>(address);
    char text[INET6_ADDRSTRLEN + 1];
    const int length = family == AF_INET6 ? printIPv6(bytes, text)
                                          : std::snprintf(text, sizeof(text), "%u.%u.%u.%u", bytes[0],
                                                          bytes[1], bytes[2], bytes[3]);
    if (static_cast<unsigned>(length) >= length_bytes) {
        SocketApi::setLastError(SocketApi::bufferTooSmallError());
        return nullptr;
    }
    std::memcpy(buffer, text, static_cast<std::size_t>(length) + 1);
    return buffer;
}

bool isIPv4Mapped(const in6_addr& address) {
    constexpr unsigned char prefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
    return std::memcmp(&address, prefix, sizeof(prefix)) == 0;
}

in_addr lowIPv4(const in6_addr& address) {
    in_addr ipv4;
    std::memcpy(&ipv4, address.s6_addr + 12, sizeof(ipv4));
    return ipv4;
}

void storeIPv4Mapped(const in_addr& ipv4, in6_addr* address) {
    address->s6_addr[10] = 0xFF;
    address->s6_addr[11] = 0xFF;
    std::memcpy(address->s6_addr + 12, &ipv4, sizeof(ipv4));
}

}  // namespace Veltro::Ravelo
