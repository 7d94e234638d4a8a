#include "Socket/SslDgramBio.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

#include "Socket/BioKind.h"
#include "Socket/SockAddrSystem.h"

namespace Veltro::Ravelo::SslDgramBio {

namespace {

struct SState {
    int fd = -1;
    int family = AF_INET;
    sockaddr_in6 peer{};
    int peer_length = 0;  ///< 0: no peer yet
    bool is_connected = false;
    SSL* timer = nullptr;  ///< whose timer the reads follow
    std::int64_t silence_us = 0;
    int error = 0;
};

/// What a datagram may hold where nothing is known of the path; every path must carry as much.
constexpr int IPV4_FALLBACK_BYTES = 576;
constexpr int IPV6_FALLBACK_BYTES = 1280;
/// Ethernet's. Longer handshake datagrams gain nothing, and OpenSSL cuts those above 4096 bytes in the middle
/// of a record.
constexpr int MOST_BYTES = 1500;

/// What OpenSSL forgets when it fills a datagram: nonce and tag of an encrypted record.
constexpr int SEAL_BYTES = 24;

/// How long one wait for a first peer takes. Under wine a select() that has begun to wait is not told of what
/// comes to a socket whose last peer's port was closed once, but the next one is.
constexpr std::int64_t ONE_WAIT_US = 500'000;

SState& stateOf(const BIO* bio) {
    return bioState<SState>(bio);
}

/// What the headers of IP and UDP take of a datagram.
int overheadBytes(int family) {
    return family == AF_INET6 ? 48 : 28;
}

int fallbackMtu(int family) {
    const int path_bytes = family == AF_INET6 ? IPV6_FALLBACK_BYTES : IPV4_FALLBACK_BYTES;
    return path_bytes - overheadBytes(family) - SEAL_BYTES;
}

int currentMtu(const SState& state) {
    const int path_bytes = SocketApi::pathMtu(state.fd, state.family);
    if (path_bytes <= 0) return fallbackMtu(state.family);
    return std::min(path_bytes, MOST_BYTES) - overheadBytes(state.family) - SEAL_BYTES;
}

bool isSameEndpoint(const sockaddr_in6& one, const sockaddr_in6& other) {
    if (one.sin6_family != other.sin6_family || systemPort(one) != systemPort(other)) return false;
    if (one.sin6_family == AF_INET) return asIPv4(one).sin_addr.s_addr == asIPv4(other).sin_addr.s_addr;
    return std::memcmp(&one.sin6_addr, &other.sin6_addr, sizeof(one.sin6_addr)) == 0;
}

/// Whether a datagram begins with a handshake record, before any encryption, whose message is a ClientHello.
bool isClientHello(const unsigned char* bytes, int length) {
    constexpr int HEADERS_BYTES = 13 + 12;
    return length >= HEADERS_BYTES && bytes[0] == SSL3_RT_HANDSHAKE && bytes[1] == DTLS1_VERSION_MAJOR &&
           bytes[3] == 0 && bytes[4] == 0 && bytes[13] == SSL3_MT_CLIENT_HELLO;
}

/// Whether a datagram is the peer's; whoever says hello first becomes the peer if there is none yet.
bool isFromPeer(SState& state, const sockaddr_in6& from, int from_length, const char* bytes, int length) {
    if (state.peer_length != 0) return isSameEndpoint(from, state.peer);
    if (!isClientHello(reinterpret_cast<const unsigned char*>(bytes), length)) return false;
    state.peer = from;
    state.peer_length = from_length;
    // The system then keeps others' datagrams for other sockets of this port, and tells of a closed one.
    const auto* address = reinterpret_cast<const sockaddr*>(&from);
    state.is_connected = SocketApi::connect(state.fd, address, from_length) == 0;
    return true;
}

enum class EWait { READY, REPEAT, SILENCE };

/// Waits for a datagram during a handshake, or until it is time to repeat what was sent.
EWait waitInTime(const SState& state) {
    while (state.timer != nullptr) {
        timeval left{};
        const bool has_timer = DTLSv1_get_timeout(state.timer, &left) == 1;
        std::int64_t left_us = state.peer_length != 0 ? state.silence_us : ONE_WAIT_US;
        if (has_timer) left_us = std::int64_t{left.tv_sec} * 1'000'000 + left.tv_usec;
        if (left_us <= 0) return EWait::REPEAT;
        unsigned ready = 0;
        const int waited = SocketApi::waitOne(state.fd, SocketApi::WAIT_READ, left_us, &ready);
        if (waited == 0 && !has_timer && state.peer_length != 0) return EWait::SILENCE;
        // An error shows when the socket is read.
        if (waited > 0 || (waited < 0 && !SocketApi::isInterrupted(SocketApi::lastError())))
            return EWait::READY;
    }
    return EWait::READY;
}

int read(BIO* bio, char* buffer, int length) {
    SState& state = stateOf(bio);
    BIO_clear_retry_flags(bio);
    for (;;) {
        state.error = 0;
        const EWait waited = waitInTime(state);
        if (waited == EWait::REPEAT) BIO_set_retry_read(bio);
        if (waited == EWait::SILENCE) state.error = SocketApi::timedOutError();
        if (waited != EWait::READY) return -1;
        sockaddr_in6 from{};
        int from_length = SYSTEM_ADDRESS_BYTES;
        auto* address = reinterpret_cast<sockaddr*>(&from);
        const int received =
            SocketApi::recvFrom(state.fd, buffer, static_cast<unsigned>(length), address, &from_length);
        // An empty datagram says nothing, and would pass for the stream's end.
        if (received > 0 && isFromPeer(state, from, from_length, buffer, received)) return received;
        if (received >= 0) continue;
        state.error = SocketApi::lastError();
        // A datagram that does not fit is no DTLS. On Linux it is one of ours that did not fit the path.
        if (SocketApi::isInterrupted(state.error) || SocketApi::isTooLong(state.error)) continue;
        if (SocketApi::isTryAgain(state.error)) BIO_set_retry_read(bio);
        return -1;
    }
}

int sendOnce(SState& state, const char* data, unsigned length) {
    if (state.is_connected) return SocketApi::send(state.fd, data, length);
    const auto* address = reinterpret_cast<const sockaddr*>(&state.peer);
    return SocketApi::sendTo(state.fd, data, length, address, state.peer_length);
}

int write(BIO* bio, const char* data, int length) {
    SState& state = stateOf(bio);
    BIO_clear_retry_flags(bio);
    for (;;) {
        const int sent = sendOnce(state, data, static_cast<unsigned>(length));
        state.error = sent < 0 ? SocketApi::lastError() : 0;
        if (sent >= 0) return sent;
        if (SocketApi::isInterrupted(state.error)) continue;
        // OpenSSL tries shorter ones when it has repeated a few times in vain.
        if (state.timer != nullptr && SocketApi::isTooLong(state.error)) return length;
        if (SocketApi::isTryAgain(state.error)) BIO_set_retry_write(bio);
        return sent;
    }
}

long control(BIO* bio, int command, long, void* pointer) {
    const SState& state = stateOf(bio);
    switch (command) {
        case BIO_CTRL_FLUSH:
        case BIO_CTRL_DUP:
            return 1;
        case BIO_C_GET_FD:
            if (pointer != nullptr) *static_cast<int*>(pointer) = state.fd;
            return state.fd;
        case BIO_CTRL_DGRAM_QUERY_MTU:
            return currentMtu(state);
        case BIO_CTRL_DGRAM_GET_FALLBACK_MTU:
            return fallbackMtu(state.family);
        case BIO_CTRL_DGRAM_GET_MTU_OVERHEAD:
            return overheadBytes(state.family);
        default:
            return 0;
    }
}

SBioKind s_kind{"datagrams", write, read, control, destroyBioState<SState>};

}  // namespace

BIO* create(int fd, int family, const sockaddr_in6& peer, int peer_length) {
    sockaddr_in6 connected{};
    int length = SYSTEM_ADDRESS_BYTES;
    // A destination that looks like a broadcast address is not connected.
    const bool is_connected =
        peer_length != 0 && SocketApi::getPeerName(fd, reinterpret_cast<sockaddr*>(&connected), &length) == 0;
    return createBio(&s_kind, std::unique_ptr<SState>(
                                  new (std::nothrow) SState{fd, family, peer, peer_length, is_connected}));
}

void followTimer(BIO* bio, SSL* ssl, std::int64_t silence_us) {
    stateOf(bio).timer = ssl;
    stateOf(bio).silence_us = silence_us;
}

void prepare(BIO* bio, int fd) {
    SState& state = stateOf(bio);
    state.fd = fd;
    state.error = 0;
}

int lastError(const BIO* bio) {
    return stateOf(bio).error;
}

}  // namespace Veltro::Ravelo::SslDgramBio
