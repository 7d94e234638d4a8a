#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "Socket/ReadWatch.h"
#include "Socket/SocketApi.h"

namespace Veltro::Ravelo::SocketApi {

namespace {

socklen_t toLength(int length) {
    return length < 0 ? 0 : static_cast<socklen_t>(length);
}

/// A blocking connect that a signal interrupted goes on by itself: waits for its end.
int finishConnect(int fd) {
    unsigned ready = 0;
    int waited = 0;
    do {
        waited = waitOne(fd, WAIT_WRITE, INT64_C(3'600'000'000), &ready);
    } while (waited == 0 || (waited < 0 && errno == EINTR));
    int error = 0;
    if (waited < 0 || getOption(fd, SOL_SOCKET, SO_ERROR, &error) != 0) return -1;
    if (error == 0) return 0;
    errno = error;
    return -1;
}

timeval toTimeval(int timeout_ms) {
    const int wait_ms = std::max(timeout_ms, 0);
    return {wait_ms / 1000, wait_ms % 1000 * 1000};
}

std::array<char, 512> copyText(const char* text, int number) {
    std::array<char, 512> copy{};
    if (text != nullptr) {
        std::snprintf(copy.data(), copy.size(), "%s", text);
    } else {
        std::snprintf(copy.data(), copy.size(), "%d", number);
    }
    return copy;
}

}  // namespace

int startup() {
    return 0;
}

void cleanup() {}

int create(int family, int type, int protocol) {
    return ::socket(family, type | SOCK_CLOEXEC, protocol);
}

int createDatagram(int family) {
    const int fd = create(family, SOCK_DGRAM, 0);
    if (fd < 0) return fd;
    // Otherwise a wildcard address receives what any process of the machine has joined at this port. An IPv6
    // socket receives IPv4 groups, too.
    setOption(fd, IPPROTO_IP, IP_MULTICAST_ALL, 0);
#if defined(IPV6_MULTICAST_ALL)
    if (family == AF_INET6) setOption(fd, IPPROTO_IPV6, IPV6_MULTICAST_ALL, 0);
#endif
    return fd;
}

int close(int fd) {
    // The descriptor is gone even when a signal interrupted the call.
    return ::close(fd) == 0 || errno == EINTR ? 0 : -1;
}

int setNonBlocking(int fd, bool non_blocking) {
    int value = non_blocking ? 1 : 0;
    return ::ioctl(fd, FIONBIO, &value);
}

int bind(int fd, const sockaddr* addr, int length) {
    return ::bind(fd, addr, toLength(length));
}

int listen(int fd, int backlog) {
    return ::listen(fd, backlog);
}

int connect(int fd, const sockaddr* addr, int length) {
    // An address without a family would end a connection, with success.
    if (addr != nullptr && addr->sa_family == AF_UNSPEC) {
        errno = EAFNOSUPPORT;
        return -1;
    }
    const int result = ::connect(fd, addr, toLength(length));
    return result < 0 && errno == EINTR ? finishConnect(fd) : result;
}

int disconnect(int fd, int) {
    sockaddr_in6 before{};
    int length = sizeof(before);
    sockaddr none{};
    none.sa_family = AF_UNSPEC;
    if (getSockName(fd, reinterpret_cast<sockaddr*>(&before), &length) != 0 ||
        ::connect(fd, &none, sizeof(none)) != 0) {
        return -1;
    }
    // A port that the system chose goes with the connection, and is taken again. Both families keep the port
    // at the same place.
    sockaddr_in6 after{};
    if (getSockName(fd, reinterpret_cast<sockaddr*>(&after), &length) != 0) return -1;
    if (after.sin6_port == before.sin6_port) return 0;
    after.sin6_port = before.sin6_port;
    if (after.sin6_family == AF_INET6) after.sin6_scope_id = before.sin6_scope_id;
    return bind(fd, reinterpret_cast<const sockaddr*>(&after), length);
}

int accept(int fd, sockaddr* addr, int* length, bool non_blocking) {
    socklen_t size = addr != nullptr && length != nullptr ? toLength(*length) : 0;
    const int flags = SOCK_CLOEXEC | (non_blocking ? SOCK_NONBLOCK : 0);
    const int accepted = ::accept4(fd, addr, addr != nullptr ? &size : nullptr, flags);
    if (accepted >= 0 && length != nullptr) *length = static_cast<int>(size);
    return accepted;
}

int getSockName(int fd, sockaddr* addr, int* length) {
    socklen_t size = toLength(*length);
    const int result = ::getsockname(fd, addr, &size);
    if (result == 0) *length = static_cast<int>(size);
    return result;
}

int getPeerName(int fd, sockaddr* addr, int* length) {
    socklen_t size = toLength(*length);
    const int result = ::getpeername(fd, addr, &size);
    if (result == 0) *length = static_cast<int>(size);
    return result;
}

int send(int fd, const char* data, unsigned length) {
    return static_cast<int>(::send(fd, data, std::min<unsigned>(length, INT_MAX), MSG_NOSIGNAL));
}

int sendV(int fd, const iovec* elements, int count) {
    if (count < 0) {
        errno = EINVAL;
        return -1;
    }
    if (count > MAX_ELEMENTS) {
        int type = 0;
        if (getOption(fd, SOL_SOCKET, SO_TYPE, &type) != 0) return -1;
        if (type != SOCK_STREAM) {
            errno = EMSGSIZE;
            return -1;
        }
    }
    // Left unset on purpose: only what is used is touched.
    std::array<::iovec, MAX_ELEMENTS> system_elements;
    std::size_t used = 0;
    for (int i = 0; i < count && used < system_elements.size(); ++i) {
        if (elements[i].iov_len == 0) continue;
        system_elements[used].iov_base = elements[i].iov_base;
        system_elements[used].iov_len = elements[i].iov_len;
        ++used;
    }
    msghdr message{};
    message.msg_iov = system_elements.data();
    message.msg_iovlen = used;
    return static_cast<int>(::sendmsg(fd, &message, MSG_NOSIGNAL));
}

int recv(int fd, char* buffer, unsigned length) {
    const ssize_t room = std::min<unsigned>(length, INT_MAX);
    const ssize_t received = ::recv(fd, buffer, static_cast<std::size_t>(room), 0);
    const bool drained = received > 0 ? received < room : received < 0 && errno == EAGAIN;
    CReadWatch::note(fd, drained ? CReadWatch::ELeft::Nothing : CReadWatch::ELeft::Unknown);
    return static_cast<int>(received);
}

int sendTo(int fd, const char* data, unsigned length, const sockaddr* addr, int addr_length) {
    // The system would take an address without a family for one of the loopback.
    if (addr->sa_family == AF_UNSPEC) {
        errno = EAFNOSUPPORT;
        return -1;
    }
    return static_cast<int>(
        ::sendto(fd, data, std::min<unsigned>(length, INT_MAX), MSG_NOSIGNAL, addr, toLength(addr_length)));
}

int recvFrom(int fd, char* buffer, unsigned length, sockaddr* addr, int* addr_length) {
    socklen_t size = toLength(*addr_length);
    const auto received = ::recvfrom(fd, buffer, std::min<unsigned>(length, INT_MAX), 0, addr, &size);
    if (received >= 0) *addr_length = static_cast<int>(size);
    return static_cast<int>(received);
}

int setOption(int fd, int level, int name, int value) {
    return setOption(fd, level, name, &value, sizeof(value));
}

int setOption(int fd, int level, int name, const void* value, int length) {
    return ::setsockopt(fd, level, name, value, toLength(length));
}

int getOption(int fd, int level, int name, int* value) {
    socklen_t size = sizeof(*value);
    return ::getsockopt(fd, level, name, value, &size);
}

int setReceiveTimeout(int fd, int timeout_ms) {
    const timeval timeout = toTimeval(timeout_ms);
    return setOption(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
}

int setSendTimeout(int fd, int timeout_ms) {
    const timeval timeout = toTimeval(timeout_ms);
    return setOption(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
}

int discoverPathMtu(int fd, int family) {
    if (family == AF_INET6) return setOption(fd, IPPROTO_IPV6, IPV6_MTU_DISCOVER, IPV6_PMTUDISC_DO);
    return setOption(fd, IPPROTO_IP, IP_MTU_DISCOVER, IP_PMTUDISC_DO);
}

int pathMtu(int fd, int family) {
    int bytes = 0;
    const int result = family == AF_INET6 ? getOption(fd, IPPROTO_IPV6, IPV6_MTU, &bytes)
                                          : getOption(fd, IPPROTO_IP, IP_MTU, &bytes);
    return result == 0 ? bytes : -1;
}

int lastError() {
    return errno;
}

void setLastError(int error) {
    errno = error;
}

bool isTryAgain(int error) {
    return error == EWOULDBLOCK || error == EINTR || error == 11;
}

bool isInterrupted(int error) {
    return error == EINTR;
}

bool isConnecting(int error) {
    return error == EINPROGRESS || error == EWOULDBLOCK;
}

bool isReset(int error) {
    return error == ECONNRESET;
}

bool isTooLong(int error) {
    return error == EMSGSIZE;
}

bool isOutOfDescriptors(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

int resetError() {
    return ECONNRESET;
}

int invalidArgumentError() {
    return EINVAL;
}

int noBufferError() {
    return ENOBUFS;
}

int timedOutError() {
    return ETIMEDOUT;
}

std::array<char, 512> errorText(int error) {
    return copyText(::strerrordesc_np(error), error);
}

std::array<char, 512> resolverErrorText(int result) {
    return copyText(::gai_strerror(result), result);
}

int bufferTooSmallError() {
    return ENOSPC;
}

unsigned interfaceIndex(const char* name) {
    const int error = errno;
    const unsigned index = ::if_nametoindex(name);
    errno = error;
    return index;
}

int waitOne(int fd, unsigned wanted, std::int64_t timeout_us, unsigned* ready) {
    *ready = 0;
    pollfd entry{fd, 0, 0};
    if ((wanted & WAIT_READ) != 0) entry.events |= POLLIN;
    if ((wanted & WAIT_WRITE) != 0) entry.events |= POLLOUT;
    if ((wanted & WAIT_EXCEPT) != 0) entry.events |= POLLPRI;
    const std::int64_t wait_us = std::max<std::int64_t>(timeout_us, 0);
    timespec wait{};
    wait.tv_sec = static_cast<time_t>(wait_us / 1'000'000);
    wait.tv_nsec = static_cast<long>(wait_us % 1'000'000 * 1'000);
    // poll() ignores negative descriptors, and does not know the numbers' limit that select() has.
    const int result = fd < 0 ? 1 : ::ppoll(&entry, 1, &wait, nullptr);
    if (result <= 0) return result;
    if (fd < 0 || (entry.revents & POLLNVAL) != 0) {
        errno = EBADF;
        return -1;
    }
    if ((entry.revents & (POLLIN | POLLERR | POLLHUP)) != 0) *ready |= wanted & WAIT_READ;
    if ((entry.revents & (POLLOUT | POLLERR | POLLHUP)) != 0) *ready |= wanted & WAIT_WRITE;
    if ((entry.revents & POLLPRI) != 0) *ready |= wanted & WAIT_EXCEPT;
    return 1;
}

}  // namespace Veltro::Ravelo::SocketApi
