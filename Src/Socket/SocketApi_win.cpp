#include "Socket/SocketApi.h"

#include <iphlpapi.h>
#include <mswsock.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdio>

namespace Veltro::Ravelo::SocketApi {

// Arrays of our gather elements go to the system as they are.
static_assert(sizeof(iovec) == sizeof(WSABUF));
static_assert(offsetof(iovec, iov_len) == offsetof(WSABUF, len));
static_assert(offsetof(iovec, iov_base) == offsetof(WSABUF, buf));

namespace {

/// The system's handle; its numbers fit 32 bits.
SOCKET toSocket(int fd) {
    return fd < 0 ? INVALID_SOCKET : static_cast<SOCKET>(fd);
}

int fromSocket(SOCKET socket) {
    return socket == INVALID_SOCKET ? -1 : static_cast<int>(socket);
}

void removeLineEnd(std::array<char, 512>* text, std::size_t length) {
    while (length > 0 && static_cast<unsigned char>((*text)[length - 1]) <= ' ') --length;
    (*text)[length] = '\0';
}

}  // namespace

int startup() {
    WSADATA data{};
    const int error = WSAStartup(MAKEWORD(2, 2), &data);
    if (error != 0) {
        std::fprintf(stderr, "WSAStartup failed! ERR:[%d],%s\n", error, errorText(error).data());
        return -1;
    }
    if (data.wVersion != MAKEWORD(2, 2)) {
        std::fprintf(stderr, "check Berkeley Sockets version failed! ERR:[%d],%s\n", lastError(),
                     errorText(lastError()).data());
        WSACleanup();
        return -1;
    }
    return 0;
}

void cleanup() {
    WSACleanup();
}

int create(int family, int type, int protocol) {
    const int fd = fromSocket(
        WSASocketW(family, type, protocol, nullptr, 0, WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT));
    // IPv4-mapped addresses work on IPv6 sockets, as on other platforms.
    if (fd >= 0 && family == AF_INET6) setOption(fd, IPPROTO_IPV6, IPV6_V6ONLY, 0);
    return fd;
}

int createDatagram(int family) {
    const int fd = create(family, SOCK_DGRAM, 0);
    if (fd < 0) return fd;
    // Otherwise a datagram that found a closed port makes the next receiving fail.
    BOOL reports_resets = FALSE;
    DWORD returned = 0;
    WSAIoctl(toSocket(fd), SIO_UDP_CONNRESET, &reports_resets, sizeof(reports_resets), nullptr, 0, &returned,
             nullptr, nullptr);
    return fd;
}

int close(int fd) {
    return ::closesocket(toSocket(fd));
}

int setNonBlocking(int fd, bool non_blocking) {
    u_long value = non_blocking ? 1 : 0;
    return ::ioctlsocket(toSocket(fd), static_cast<long>(FIONBIO), &value);
}

int bind(int fd, const sockaddr* addr, int length) {
    return ::bind(toSocket(fd), addr, length);
}

int listen(int fd, int backlog) {
    return ::listen(toSocket(fd), backlog);
}

int connect(int fd, const sockaddr* addr, int length) {
    if (addr != nullptr && addr->sa_family == AF_UNSPEC) {
        WSASetLastError(WSAEAFNOSUPPORT);
        return -1;
    }
    return ::connect(toSocket(fd), addr, length);
}

int disconnect(int fd, int family) {
    sockaddr_in6 none{};
    const int length = family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    if (::connect(toSocket(fd), reinterpret_cast<const sockaddr*>(&none), length) == 0) return 0;
    // Some versions want the socket's family with the empty address.
    none.sin6_family = static_cast<decltype(none.sin6_family)>(family);
    return ::connect(toSocket(fd), reinterpret_cast<const sockaddr*>(&none), length);
}

int accept(int fd, sockaddr* addr, int* length, bool non_blocking) {
    const SOCKET accepted = ::accept(toSocket(fd), addr, addr != nullptr ? length : nullptr);
    if (accepted != INVALID_SOCKET) {
        SetHandleInformation(reinterpret_cast<HANDLE>(accepted), HANDLE_FLAG_INHERIT, 0);
        // It has the listening socket's mode so far.
        setNonBlocking(fromSocket(accepted), non_blocking);
    }
    return fromSocket(accepted);
}

int getSockName(int fd, sockaddr* addr, int* length) {
    return ::getsockname(toSocket(fd), addr, length);
}

int getPeerName(int fd, sockaddr* addr, int* length) {
    return ::getpeername(toSocket(fd), addr, length);
}

int send(int fd, const char* data, unsigned length) {
    return ::send(toSocket(fd), data, static_cast<int>(std::min<unsigned>(length, INT_MAX)), 0);
}

int sendV(int fd, const iovec* elements, int count) {
    if (count < 0) {
        WSASetLastError(WSAEINVAL);
        return -1;
    }
    if (count > MAX_ELEMENTS) {
        int type = 0;
        if (getOption(fd, SOL_SOCKET, SO_TYPE, &type) != 0) return -1;
        // A stream sends the first ones that hold something; a datagram is whole or fails.
        for (; type == SOCK_STREAM && count > MAX_ELEMENTS && elements->iov_len == 0; --count) ++elements;
        if (type == SOCK_STREAM) count = std::min(count, MAX_ELEMENTS);
    }
    auto* buffers = reinterpret_cast<WSABUF*>(const_cast<iovec*>(elements));
    DWORD sent = 0;
    const int result = WSASend(toSocket(fd), buffers, static_cast<DWORD>(count), &sent, 0, nullptr, nullptr);
    return result == 0 ? static_cast<int>(sent) : -1;
}

int recv(int fd, char* buffer, unsigned length) {
    return ::recv(toSocket(fd), buffer, static_cast<int>(std::min<unsigned>(length, INT_MAX)), 0);
}

int sendTo(int fd, const char* data, unsigned length, const sockaddr* addr, int addr_length) {
    if (addr->sa_family == AF_UNSPEC) {
        WSASetLastError(WSAEAFNOSUPPORT);
        return -1;
    }
    return ::sendto(toSocket(fd), data, static_cast<int>(std::min<unsigned>(length, INT_MAX)), 0, addr,
                    addr_length);
}

int recvFrom(int fd, char* buffer, unsigned length, sockaddr* addr, int* addr_length) {
    return ::recvfrom(toSocket(fd), buffer, static_cast<int>(std::min<unsigned>(length, INT_MAX)), 0, addr,
                      addr_length);
}

int setOption(int fd, int level, int name, int value) {
    return setOption(fd, level, name, &value, sizeof(value));
}

int setOption(int fd, int level, int name, const void* value, int length) {
    return ::setsockopt(toSocket(fd), level, name, static_cast<const char*>(value), length);
}

int getOption(int fd, int level, int name, int* value) {
    int size = sizeof(*value);
    // Some options fill fewer bytes.
    *value = 0;
    return ::getsockopt(toSocket(fd), level, name, reinterpret_cast<char*>(value), &size);
}

int setReceiveTimeout(int fd, int timeout_ms) {
    return setOption(fd, SOL_SOCKET, SO_RCVTIMEO, std::max(timeout_ms, 0));
}

int setSendTimeout(int fd, int timeout_ms) {
    return setOption(fd, SOL_SOCKET, SO_SNDTIMEO, std::max(timeout_ms, 0));
}

int discoverPathMtu(int fd, int family) {
    if (family == AF_INET6) return setOption(fd, IPPROTO_IPV6, IPV6_DONTFRAG, 1);
    return setOption(fd, IPPROTO_IP, IP_DONTFRAGMENT, 1);
}

int pathMtu(int fd, int family) {
    int bytes = 0;
    const int result = family == AF_INET6 ? getOption(fd, IPPROTO_IPV6, IPV6_MTU, &bytes)
                                          : getOption(fd, IPPROTO_IP, IP_MTU, &bytes);
    return result == 0 && bytes > 0 ? bytes : -1;
}

int lastError() {
    return WSAGetLastError();
}

void setLastError(int error) {
    WSASetLastError(error);
}

bool isTryAgain(int error) {
    return error == WSAEWOULDBLOCK || error == WSAEINTR || error == 11;
}

bool isInterrupted(int error) {
    return error == WSAEINTR;
}

bool isConnecting(int error) {
    return error == WSAEINPROGRESS || error == WSAEWOULDBLOCK;
}

bool isReset(int error) {
    return error == WSAECONNRESET;
}

bool isTooLong(int error) {
    return error == WSAEMSGSIZE;
}

bool isOutOfDescriptors(int error) {
    return error == WSAEMFILE || error == WSAENOBUFS;
}

int resetError() {
    return WSAECONNRESET;
}

int invalidArgumentError() {
    return WSAEINVAL;
}

int noBufferError() {
    return WSAENOBUFS;
}

int timedOutError() {
    return WSAETIMEDOUT;
}

std::array<char, 512> errorText(int error) {
    const DWORD kept_error = GetLastError();
    std::array<char, 512> text{};
    const DWORD length =
        FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                       static_cast<DWORD>(error), 0, text.data(), static_cast<DWORD>(text.size()), nullptr);
    removeLineEnd(&text, length);
    if (text[0] == '\0') std::snprintf(text.data(), text.size(), "%d", error);
    SetLastError(kept_error);
    return text;
}

std::array<char, 512> resolverErrorText(int result) {
    return errorText(result);
}

int bufferTooSmallError() {
    return WSAEFAULT;
}

unsigned interfaceIndex(const char* name) {
    const DWORD kept_error = GetLastError();
    const unsigned index = static_cast<unsigned>(::if_nametoindex(name));
    SetLastError(kept_error);
    return index;
}

int waitOne(int fd, unsigned wanted, std::int64_t timeout_us, unsigned* ready) {
    *ready = 0;
    const SOCKET socket = toSocket(fd);
    fd_set read;
    fd_set write;
    fd_set except;
    read.fd_count = (wanted & WAIT_READ) != 0 ? 1 : 0;
    write.fd_count = (wanted & WAIT_WRITE) != 0 ? 1 : 0;
    except.fd_count = (wanted & WAIT_EXCEPT) != 0 ? 1 : 0;
    read.fd_array[0] = write.fd_array[0] = except.fd_array[0] = socket;
    const std::int64_t wait_us = std::max<std::int64_t>(timeout_us, 0);
    timeval wait{};
    wait.tv_sec = static_cast<long>(std::min<std::int64_t>(wait_us / 1'000'000, LONG_MAX));
    wait.tv_usec = static_cast<long>(wait_us % 1'000'000);
    const int result = ::select(0, &read, &write, &except, &wait);
    if (result <= 0) return result;
    if (read.fd_count != 0) *ready |= WAIT_READ;
    if (write.fd_count != 0) *ready |= WAIT_WRITE;
    if (except.fd_count != 0) *ready |= WAIT_EXCEPT;
    return 1;
}

}  // namespace Veltro::Ravelo::SocketApi
