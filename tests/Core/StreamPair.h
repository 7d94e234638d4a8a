// Connected loopback streams and refused connects for reactor tests.
#pragma once

#include <Ravelo/SockAcceptor.h>
#include <Ravelo/SockAddrIPv4.h>
#include <Ravelo/SockStream.h>
#include <gtest/gtest.h>

#include "Support/Reactor.h"

namespace Veltro::TestSupport {

/// The loopback address with a port of an acceptor that the system chose.
inline Ravelo::CSockAddrIPv4 endpointOf(Ravelo::CSockAcceptor& acceptor) {
    Ravelo::CSockAddrIPv4 address;
    EXPECT_EQ(acceptor.GetLocalAddr(&address), 0);
    return address;
}

/// Two ends of one connection. The pool must exist: it starts the socket layer.
struct SStreamPair {
    SStreamPair() {
        Ravelo::CSockAcceptor acceptor;
        EXPECT_EQ(acceptor.Open(Ravelo::CSockAddrIPv4("127.0.0.1", 0)), 0);
        acceptor.SetBlockOpt(true);
        EXPECT_EQ(near_end.Connect(endpointOf(acceptor)), 0);
        EXPECT_EQ(acceptor.Accept(far_end), 0);
    }
    Ravelo::CSockStream near_end;
    Ravelo::CSockStream far_end;
};

/// Starts a connect that will be refused.
inline void connectToNobody(Ravelo::CSockStream& stream) {
    Ravelo::CSockAcceptor acceptor;
    EXPECT_EQ(acceptor.Open(Ravelo::CSockAddrIPv4("127.0.0.1", 0)), 0);
    const Ravelo::CSockAddrIPv4 address = endpointOf(acceptor);
    acceptor.Close();
    EXPECT_EQ(stream.Connect(address), 0);
}

}  // namespace Veltro::TestSupport
