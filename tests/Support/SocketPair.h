// Connected TCP streams over loopback, and what tests do with them.
#pragma once

#include <Ravelo/SockAcceptor.h>
#include <Ravelo/SockAddrIPv4.h>
#include <Ravelo/SockStream.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Support/SocketLayer.h"

namespace Veltro::TestSupport {

/// Waits up to 10 s for a socket; whether it became ready.
inline bool waitFor(const Ravelo::CSock& socket, unsigned wanted) {
    unsigned ready = 0;
    return Ravelo::SocketApi::waitOne(socket.GetHandle(), wanted, 10'000'000, &ready) == 1;
}
inline bool waitReadable(const Ravelo::CSock& socket) {
    return waitFor(socket, Ravelo::SocketApi::WAIT_READ);
}
inline bool waitWritable(const Ravelo::CSock& socket) {
    return waitFor(socket, Ravelo::SocketApi::WAIT_WRITE);
}

/// Listens on a free port of 127.0.0.1.
struct SListener {
    Ravelo::CSockAcceptor acceptor;
    Ravelo::CSockAddrIPv4 address;

    SListener() {
        EXPECT_EQ(0, acceptor.Open(Ravelo::CSockAddrIPv4("127.0.0.1", 0)));
        EXPECT_EQ(0, acceptor.GetLocalAddr(&address));
    }
    /// Waits for the next connection and accepts it.
    int accept(Ravelo::CSockStream& stream, Ravelo::CSockAddr* remote = nullptr) {
        EXPECT_TRUE(waitReadable(acceptor));
        return acceptor.Accept(stream, remote);
    }
};

/// A port of 127.0.0.1 that nobody listened on a moment ago.
inline unsigned short freePort() {
    SListener listener;
    return listener.address.GetPort();
}

/// Two connected, non-blocking streams.
struct SSocketPair {
    Ravelo::CSockStream client;
    Ravelo::CSockStream server;

    SSocketPair() {
        SListener listener;
        EXPECT_EQ(0, client.Connect(listener.address));
        EXPECT_EQ(0, listener.accept(server));
        EXPECT_TRUE(waitWritable(client));
        EXPECT_EQ(0, client.GetConnectStatus());
    }
};

/// Sends until the system takes no more; returns the bytes sent.
inline std::size_t fill(Ravelo::CSockStream& stream) {
    const std::vector<char> block(256 * 1024, 'f');
    std::size_t total = 0;
    // What the peer's system takes over late makes room again: the socket is full when a pause made none.
    for (bool is_full = false; !is_full;) {
        unsigned ready = 0;
        Ravelo::SocketApi::waitOne(stream.GetHandle(), Ravelo::SocketApi::WAIT_WRITE, 100'000, &ready);
        is_full = true;
        int sent = 0;
        while ((sent = stream.Send(block.data(), static_cast<unsigned>(block.size()))) > 0) {
            total += static_cast<std::size_t>(sent);
            is_full = false;
        }
        EXPECT_EQ(0, sent);
    }
    return total;
}

/// Receives exactly a number of bytes; fewer if the peer closes or 10 s pass without any.
inline std::string receive(Ravelo::CSockStream& stream, std::size_t length_bytes) {
    std::string text;
    std::vector<char> block(64 * 1024);
    while (text.size() < length_bytes && waitReadable(stream)) {
        const std::size_t rest = length_bytes - text.size();
        const int received =
            stream.Recv(block.data(), static_cast<unsigned>(rest < block.size() ? rest : block.size()));
        if (received < 0) break;
        text.append(block.data(), static_cast<std::size_t>(received));
    }
    return text;
}

/// Closes a stream so that the peer gets a reset instead of an end.
inline void reset(Ravelo::CSockStream& stream) {
    const linger at_once{1, 0};
    ::setsockopt(stream.GetHandle(), SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&at_once),
                 sizeof(at_once));
    stream.Close();
}

}  // namespace Veltro::TestSupport
