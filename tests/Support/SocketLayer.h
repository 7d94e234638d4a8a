// Starts the socket layer for a test program, and says what this machine can do.
#pragma once

#include <gtest/gtest.h>

#include <iostream>

#include "Socket/SocketApi.h"

namespace Veltro::TestSupport {

class CSocketLayer : public ::testing::Environment {
public:
    void SetUp() override { ASSERT_EQ(0, Ravelo::SocketApi::startup()); }
    void TearDown() override { Ravelo::SocketApi::cleanup(); }
};

/// Including this file is enough: every test finds the socket layer started.
inline ::testing::Environment* const g_socket_layer = ::testing::AddGlobalTestEnvironment(new CSocketLayer);

/// Whether the platform's socket errors are those of Windows.
inline bool isWindows() {
    return Ravelo::SocketApi::resetError() == 10054;
}

/// Whether sockets can be bound to ::1.
inline bool hasIPv6() {
    const int fd = Ravelo::SocketApi::create(AF_INET6, SOCK_STREAM, 0);
    if (fd < 0) return false;
    sockaddr_in6 loopback{};
    loopback.sin6_family = AF_INET6;
    loopback.sin6_addr.s6_addr[15] = 1;
    const int result =
        Ravelo::SocketApi::bind(fd, reinterpret_cast<const sockaddr*>(&loopback), sizeof(loopback));
    Ravelo::SocketApi::close(fd);
    return result == 0;
}

/// Prints why a test does nothing here.
inline void printSkip(const char* reason) {
    std::cout << "[ NOT RUN  ] " << reason << std::endl;
}

}  // namespace Veltro::TestSupport
