// Datagram sockets over loopback, and what tests do with them.
#pragma once

#include <Ravelo/SockAddrIPv4.h>
#include <Ravelo/SockAddrIPv6.h>
#include <Ravelo/SockDgram.h>
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <string>
#include <vector>

#include "Support/LogCapture.h"
#include "Support/SocketPair.h"

namespace Veltro::TestSupport {

/// An address of a class that the library does not know.
class CForeignAddr : public Ravelo::CSockAddr {
public:
    sockaddr* GetAddr(sockaddr* addr) const override { return addr; }
    int GetAddrLen() const override { return 16; }
    bool IsValid() const override { return true; }
};

/// A socket on a port of 127.0.0.1; 0 is a free one.
struct SReceiver {
    Ravelo::CSockDgram socket;
    Ravelo::CSockAddrIPv4 address;

    explicit SReceiver(unsigned short port = 0) : address("127.0.0.1", port) {
        EXPECT_EQ(0, socket.Open(&address));
        EXPECT_EQ(0, socket.GetLocalAddr(&address));
    }
};

/// The same on ::1.
struct SReceiver6 {
    Ravelo::CSockDgram socket;
    Ravelo::CSockAddrIPv6 address;

    explicit SReceiver6(unsigned short port = 0) : address("::1", port) {
        EXPECT_EQ(0, socket.Open(&address));
        EXPECT_EQ(0, socket.GetLocalAddr(&address));
    }
};

/// Waits for a datagram and takes it; empty if none comes.
inline std::string receiveDatagram(Ravelo::CSockDgram& socket, Ravelo::CSockAddr* sender = nullptr) {
    std::vector<char> buffer(65'536);
    if (!waitReadable(socket)) return {};
    const int length = socket.Recv(buffer.data(), static_cast<unsigned>(buffer.size()), sender);
    return {buffer.data(), static_cast<std::size_t>(length > 0 ? length : 0)};
}

inline int sendText(Ravelo::CSockDgram& socket, const std::string& text,
                    const Ravelo::CSockAddr* remote = nullptr) {
    return socket.Send(text.data(), static_cast<unsigned>(text.size()), remote);
}

/// A socket option that is an int, as the system has it; -1 if it has none.
inline int readOption(const Ravelo::CSock& socket, int level, int name) {
    int value = -1;
    return Ravelo::SocketApi::getOption(socket.GetHandle(), level, name, &value) == 0 ? value : -1;
}

/// A port that no datagram socket was bound to a moment ago; 0 if there is none.
inline unsigned short freeDatagramPort() {
    // Below the ports that the system chooses from, or another program's socket gets it before ours does.
    constexpr unsigned FIRST = 10'000;
    constexpr unsigned COUNT = 20'000;
    static std::atomic<unsigned> s_next{std::random_device{}()};
    for (unsigned tries = 0; tries < COUNT; ++tries) {
        const Ravelo::CSockAddrIPv4 address("127.0.0.1",
                                            static_cast<unsigned short>(FIRST + s_next++ % COUNT));
        Ravelo::CSockDgram socket;
        if (socket.Open(&address) == 0) return address.GetPort();
    }
    return 0;
}

inline const char* const GROUP4 = "239.255.77.1";
inline const char* const OTHER_GROUP4 = "239.255.77.2";
inline const char* const GROUP6 = "ff15::77:1";

/// Whether a group can be joined on the default interface.
inline bool canJoin(const Ravelo::CSockAddr& group) {
    const CLogCapture unheard;
    Ravelo::CSockDgram socket;
    return socket.Open(&group) == 0;
}
inline bool canJoinIPv4() {
    return canJoin(Ravelo::CSockAddrIPv4(GROUP4, 0));
}
inline bool canJoinIPv6() {
    return hasIPv6() && canJoin(Ravelo::CSockAddrIPv6(GROUP6, 0));
}

inline std::string failureOf(const std::string& text, const Ravelo::CSock& socket) {
    return text + " fd[" + std::to_string(socket.GetHandle()) + "], error:";
}

}  // namespace Veltro::TestSupport

/// Says why a test does nothing on this machine.
#define SKIP_UNLESS(condition, reason) \
    if (!(condition)) GTEST_SKIP() << (reason)

#define SKIP_WITHOUT_GROUPS4() \
    SKIP_UNLESS(TestSupport::canJoinIPv4(), "no interface of this machine takes IPv4 groups by default")
#define SKIP_WITHOUT_GROUPS6() \
    SKIP_UNLESS(TestSupport::canJoinIPv6(), "no interface of this machine takes IPv6 groups by default")
