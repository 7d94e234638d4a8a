// Sending through a socket by its type code.
#include "Tool/SockWrite.h"

#include <Ravelo/SimulatorStream.h>
#include <Ravelo/SockDgram.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Support/LogCapture.h"
#include "Support/SocketPair.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;

/// Three elements, "one ", "two " and "three".
struct SElements {
    std::string text = "one two three";
    std::vector<iovec> list{{4, text.data()}, {4, text.data() + 4}, {5, text.data() + 8}};
};

TEST(SockWrite, AStreamSendsOnceAndGathered) {
    SSocketPair pair;
    SElements elements;
    CSock& sock = pair.client;
    EXPECT_EQ(5, SockWrite::send(sock, "zero ", 5));
    EXPECT_EQ(13, SockWrite::writeV(sock, elements.list.data(), 3));
    EXPECT_EQ("zero one two three", receive(pair.server, 18));
}

TEST(SockWrite, ALimitedStreamSendsUpToItsBandwidth) {
    SSocketPair pair;
    SElements elements;
    CSimulatorStream limited;
    limited.SetRealSocket(&pair.client);
    CSock& sock = limited;
    EXPECT_EQ(0, SockWrite::send(sock, "zero ", 5));
    EXPECT_EQ(0, SockWrite::writeV(sock, elements.list.data(), 3));
    limited.SetBandWidth(1);
    EXPECT_EQ(5, SockWrite::send(sock, "zero ", 5));
    EXPECT_EQ(13, SockWrite::writeV(sock, elements.list.data(), 3));
    EXPECT_EQ("zero one two three", receive(pair.server, 18));
}

TEST(SockWrite, ADatagramSocketSendsDatagramsToItsDestination) {
    CSockDgram receiver;
    CSockDgram sender;
    CSockAddrIPv4 where("127.0.0.1", 0);
    ASSERT_EQ(0, receiver.Open(&where));
    ASSERT_EQ(0, receiver.GetLocalAddr(&where));
    ASSERT_EQ(0, sender.Open(nullptr));
    ASSERT_EQ(0, sender.SetRemote(&where));
    SElements elements;
    CSock& sock = sender;
    EXPECT_EQ(4, SockWrite::send(sock, "zero", 4));
    EXPECT_EQ(13, SockWrite::writeV(sock, elements.list.data(), 3));
    for (const std::string expected : {"zero", "one two three"}) {
        char text[100];
        ASSERT_TRUE(waitReadable(receiver));
        const int length = receiver.Recv(text, sizeof text);
        ASSERT_GT(length, 0);
        EXPECT_EQ(expected, std::string(text, static_cast<std::size_t>(length)));
    }
}

TEST(SockWrite, AFailureIsTheClassesOwn) {
    CSockStream closed;
    SElements elements;
    CLogCapture log;
    EXPECT_EQ(-1, SockWrite::send(closed, "x", 1));
    EXPECT_EQ(-1, SockWrite::writeV(closed, elements.list.data(), 3));
    EXPECT_EQ(1, log.count(2, "Send : send failed! buf["));
    EXPECT_EQ(1, log.count(2, "WriteV : send failed! iovec["));
}

TEST(SockWrite, StreamsAreThoseWithoutMessageBoundaries) {
    for (unsigned type = 0; type < 10; ++type) {
        const bool is_stream =
            type == SOCK_TYPE_STREAM || type == SOCK_TYPE_SSL_STREAM || type == SOCK_TYPE_SIMULATOR;
        EXPECT_EQ(is_stream, SockWrite::isStream(type)) << type;
    }
}

TEST(SockWriteDeathTest, AnAcceptorAndAnUnknownSocketFailAnAssertion) {
    CSockAcceptor acceptor;
    CSock unknown;
    SElements elements;
    EXPECT_DEATH(SockWrite::send(acceptor, "x", 1), "Assertion failed: 0");
    EXPECT_DEATH(SockWrite::writeV(acceptor, elements.list.data(), 3), "Assertion failed: 0");
    EXPECT_DEATH(SockWrite::send(unknown, "x", 1), "Assertion failed: 0");
}

}  // namespace
}  // namespace Veltro::Ravelo
