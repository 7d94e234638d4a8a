#include <Plinth/Thread.h>
#include <Ravelo/SockAcceptor.h>
#include <Ravelo/SockAddrIPv6.h>
#include <Ravelo/SockAddrStorage.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Support/LogCapture.h"
#include "Support/ProcessSettings.h"
#include "Support/RefusedCall.h"
#include "Support/SocketPair.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CLogCapture;
using TestSupport::SListener;
using TestSupport::waitReadable;

class CBareAddr : public CSockAddr {
public:
    sockaddr* GetAddr(sockaddr*) const override { return nullptr; }
    int GetAddrLen() const override { return 0; }
    bool IsValid() const override { return false; }
};

/// Listens on ::1 with one connection waiting.
struct SIPv6Listener {
    CSockAcceptor acceptor;
    CSockAddrIPv6 address;
    CSockStream client;

    SIPv6Listener() {
        EXPECT_EQ(0, acceptor.Open(CSockAddrIPv6("::1", 0)));
        EXPECT_EQ(0, acceptor.GetLocalAddr(&address));
        EXPECT_EQ(0, client.Connect(address));
        EXPECT_TRUE(waitReadable(acceptor));
    }
};

TEST(SockAcceptor, ANewAcceptorHasItsTypeAndNoSocket) {
    const CSockAcceptor acceptor;
    EXPECT_EQ(6U, acceptor.GetType());
    EXPECT_FALSE(acceptor.IsValid());
    EXPECT_FALSE(acceptor.GetBlockOpt());
}

TEST(SockAcceptor, AcceptGivesTheConnectionAndItsPeer) {
    SListener listener;
    CSockStream client;
    CSockStream server;
    CSockAddrIPv4 local;
    CSockAddrIPv4 peer;
    ASSERT_EQ(0, client.Connect(listener.address));
    ASSERT_EQ(0, listener.accept(server, &peer));
    ASSERT_EQ(0, client.GetLocalAddr(&local));
    EXPECT_TRUE(peer == local);
    ASSERT_TRUE(TestSupport::waitWritable(client));
    ASSERT_EQ(5, client.Send("hello", 5));
    EXPECT_EQ("hello", TestSupport::receive(server, 5));
}

TEST(SockAcceptor, AcceptIntoAStorageKeepsTheNumericText) {
    SListener listener;
    CSockStream client;
    CSockStream server;
    CSockAddrStorage peer;
    char text[64];
    ASSERT_EQ(0, client.Connect(listener.address));
    ASSERT_EQ(0, listener.accept(server, &peer));
    EXPECT_STREQ("127.0.0.1", peer.GetIpStr(text, sizeof(text)));
    EXPECT_NE(0, peer.GetPort());
}

TEST(SockAcceptor, AcceptWithoutAnAddressNeedsNone) {
    SListener listener;
    CSockStream client;
    CSockStream server;
    ASSERT_EQ(0, client.Connect(listener.address));
    EXPECT_EQ(0, listener.accept(server));
    EXPECT_TRUE(server.IsValid());
}

TEST(SockAcceptor, AcceptMakesAStreamForTheCaller) {
    SListener listener;
    CSockStream client;
    CSockAddrIPv4 peer;
    ASSERT_EQ(0, client.Connect(listener.address));
    ASSERT_TRUE(waitReadable(listener.acceptor));
    const std::unique_ptr<CSockStream> server(listener.acceptor.Accept(&peer));
    ASSERT_NE(nullptr, server);
    EXPECT_TRUE(server->IsValid());
    EXPECT_EQ(0x7F000001U, peer.GetIp());
}

TEST(SockAcceptor, AcceptWithNothingWaitingFailsWithALogLine) {
    SListener listener;
    CSockStream server;
    CLogCapture log;
    EXPECT_EQ(-1, listener.acceptor.Accept(server));
    EXPECT_EQ(nullptr, listener.acceptor.Accept());
    EXPECT_EQ(2, log.count(2, "Accept : accept failed! fd[" + std::to_string(listener.acceptor.GetHandle()) +
                                  "], error:"));
}

TEST(SockAcceptor, AcceptIntoABareAddressFailsBeforeItAccepts) {
    SListener listener;
    CSockStream client;
    CSockStream server;
    CBareAddr bare;
    ASSERT_EQ(0, client.Connect(listener.address));
    ASSERT_TRUE(waitReadable(listener.acceptor));
    CLogCapture log;
    EXPECT_EQ(-1, listener.acceptor.Accept(server, &bare));
    EXPECT_EQ(1, log.count(2, "Accept : invalid local address type[0]!\n"));
    EXPECT_EQ(0, listener.acceptor.Accept(server));
}

TEST(SockAcceptor, AcceptOfAnIPv6PeerIntoAnIPv4AddressSucceedsAndLeavesTheAddress) {
    if (!TestSupport::hasIPv6()) return TestSupport::printSkip("this machine has no IPv6 loopback");
    SIPv6Listener listener;
    CSockStream server;
    CSockAddrIPv4 peer("9.8.7.6", 5);
    CLogCapture log;
    EXPECT_EQ(0, listener.acceptor.Accept(server, &peer));
    EXPECT_TRUE(server.IsValid());
    EXPECT_TRUE(peer == CSockAddrIPv4("9.8.7.6", 5));
    EXPECT_EQ(1, log.count(2, ", a ipv6 address can't be put into CSockAddrIPv4!\n"));
}

TEST(SockAcceptor, AcceptOfAnIPv4PeerIntoAnIPv6AddressSucceedsSilently) {
    SListener listener;
    CSockStream client;
    CSockStream server;
    CSockAddrIPv6 peer("2001:db8::1", 5);
    ASSERT_EQ(0, client.Connect(listener.address));
    CLogCapture log;
    EXPECT_EQ(0, listener.accept(server, &peer));
    EXPECT_TRUE(peer == CSockAddrIPv6("2001:db8::1", 5));
    EXPECT_TRUE(log.lines().empty());
}

TEST(SockAcceptor, AcceptOfAnIPv6PeerFillsItsAddress) {
    if (!TestSupport::hasIPv6()) return TestSupport::printSkip("this machine has no IPv6 loopback");
    SIPv6Listener listener;
    CSockStream server;
    CSockAddrIPv6 peer;
    CSockAddrIPv6 local;
    ASSERT_EQ(0, listener.acceptor.Accept(server, &peer));
    ASSERT_EQ(0, listener.client.GetLocalAddr(&local));
    EXPECT_TRUE(peer == local);
}

TEST(SockAcceptor, AnAcceptedStreamDoesNotBlock) {
    SListener listener;
    CSockStream client;
    CSockStream server;
    char byte = 0;
    ASSERT_EQ(0, client.Connect(listener.address));
    ASSERT_EQ(0, listener.accept(server));
    EXPECT_EQ(0, server.Recv(&byte, 1));
}

TEST(SockAcceptor, AnAcceptedStreamBlocksIfItsOptionWasSetBefore) {
    SListener listener;
    CSockStream client;
    CSockStream server;
    server.SetBlockOpt(true);
    ASSERT_EQ(0, client.Connect(listener.address));
    ASSERT_EQ(0, listener.accept(server));
    ASSERT_TRUE(TestSupport::waitWritable(client));
    // Only a blocking send takes more than the buffers hold.
    const std::vector<char> block(64 * 1024 * 1024, 'b');
    int sent = 0;
    Plinth::CThreadLite sender(
        [&server, &block, &sent](Plinth::CThreadLite&) {
            sent = server.Send(block.data(), static_cast<unsigned>(block.size()));
        },
        "sender");
    ASSERT_TRUE(sender.createThread());
    EXPECT_EQ(block.size(), TestSupport::receive(client, block.size()).size());
    sender.destroyThread();
    EXPECT_EQ(static_cast<int>(block.size()), sent);
}

TEST(SockAcceptor, AcceptIntoAStreamThatHoldsASocketLosesTheConnection) {
    SListener listener;
    CSockStream client;
    CSockStream server;
    const int held = SocketApi::create(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(0, server.Attach(held));
    ASSERT_EQ(0, client.Connect(listener.address));
    EXPECT_EQ(0, listener.accept(server));
    EXPECT_EQ(held, server.GetHandle());
}

TEST(SockAcceptor, AcceptWithoutDescriptorsLeftFailsAndLaterSucceeds) {
    SListener listener;
    CSockStream client;
    CSockStream server;
    ASSERT_EQ(0, client.Connect(listener.address));
    ASSERT_TRUE(waitReadable(listener.acceptor));
    if (!TestSupport::setDescriptorLimit(0)) {
        return TestSupport::printSkip("this platform does not limit descriptors");
    }
    CLogCapture log;
    EXPECT_EQ(-1, listener.acceptor.Accept(server));
    EXPECT_TRUE(SocketApi::isOutOfDescriptors(SocketApi::lastError()));
    EXPECT_EQ(1, log.count(2, "Accept : accept failed! fd["));
    TestSupport::setDescriptorLimit(1024);
    EXPECT_EQ(0, listener.acceptor.Accept(server));
}

TEST(SockAcceptor, OpeningTwiceEndsWithAFreshListeningSocket) {
    SListener listener;
    CLogCapture log;
    const std::string line = "Open : socket fd[" + std::to_string(listener.acceptor.GetHandle()) +
                             "] has opened, close old first\n";
    EXPECT_EQ(0, listener.acceptor.Open(CSockAddrIPv4("127.0.0.1", 0)));
    EXPECT_EQ(1, log.count(2, line));
    CSockAddrIPv4 fresh;
    CSockStream client;
    CSockStream server;
    ASSERT_EQ(0, listener.acceptor.GetLocalAddr(&fresh));
    ASSERT_EQ(0, client.Connect(fresh));
    EXPECT_EQ(0, listener.accept(server));
}

TEST(SockAcceptor, OpenOfAMappedLiteralOpensAnIPv6Socket) {
    if (!TestSupport::hasIPv6()) return TestSupport::printSkip("this machine has no IPv6 loopback");
    CSockAcceptor acceptor;
    CSockAddrIPv6 address;
    EXPECT_EQ(0, acceptor.Open(CSockAddrStorage("::ffff:127.0.0.1", 0)));
    EXPECT_EQ(0, acceptor.GetLocalAddr(&address));
    char text[46];
    EXPECT_STREQ("::ffff:127.0.0.1", address.GetIpStr(text, sizeof(text)));
}

TEST(SockAcceptor, OpenOfAStorageWithoutATextFailsAfterClosingTheOldSocket) {
    SListener listener;
    CLogCapture log;
    EXPECT_EQ(-1, listener.acceptor.Open(CSockAddrStorage()));
    EXPECT_EQ(1, log.count(2, "] has opened, close old first\n"));
    EXPECT_EQ(1, log.count(2, "Open : invalid local addresst type[0]!\n"));
    EXPECT_FALSE(listener.acceptor.IsValid());
}

TEST(SockAcceptor, OpenOnAForeignAddressFailsAndKeepsTheSocket) {
    CSockAcceptor acceptor;
    CLogCapture log;
    EXPECT_EQ(-1, acceptor.Open(CSockAddrIPv4("192.0.2.1", 4711)));
    EXPECT_TRUE(acceptor.IsValid());
    EXPECT_EQ(1, log.count(2, "Open : bind failed! port[4711] fd[" + std::to_string(acceptor.GetHandle()) +
                                  "], error:"));
    EXPECT_EQ(0, acceptor.Open(CSockAddrIPv4("127.0.0.1", 0)));
    EXPECT_EQ(1, log.count(2, "] has opened, close old first\n"));
}

TEST(SockAcceptor, OpenWithoutDescriptorsLeftFails) {
    if (!TestSupport::setDescriptorLimit(0)) {
        return TestSupport::printSkip("this platform does not limit descriptors");
    }
    CSockAcceptor acceptor;
    CLogCapture log;
    EXPECT_EQ(-1, acceptor.Open(CSockAddrIPv4("127.0.0.1", 0)));
    TestSupport::setDescriptorLimit(1024);
    EXPECT_FALSE(acceptor.IsValid());
    EXPECT_EQ(1, log.count(2, "Open : socket failed, error:"));
}

/// What is left of an acceptor whose opening failed behind the creation of its socket, and one more line.
void expectKeptSocket(CSockAcceptor& acceptor, CLogCapture& log, const std::string& line) {
    ASSERT_TRUE(acceptor.IsValid());
    const int error = SocketApi::invalidArgumentError();
    EXPECT_EQ(1, log.count(2, "Open : " + line + " failed! fd[" + std::to_string(acceptor.GetHandle()) +
                                  "], error:" + std::to_string(error) + ","));
    EXPECT_EQ(1U, log.lines().size());
}

TEST(SockAcceptor, OpenWithoutReuseOfTheAddressFailsAndKeepsTheSocket) {
    CSockAcceptor acceptor;
    CLogCapture log;
    {
        const TestSupport::CRefusedCall refused(SOL_SOCKET, SO_REUSEADDR);
        EXPECT_EQ(-1, acceptor.Open(CSockAddrIPv4("127.0.0.1", 0)));
    }
    expectKeptSocket(acceptor, log, "set reuseaddr");
    EXPECT_EQ(0, acceptor.Open(CSockAddrIPv4("127.0.0.1", 0)));
}

TEST(SockAcceptor, OpenThatCannotListenFailsAndKeepsTheSocket) {
    CSockAcceptor acceptor;
    CLogCapture log;
    {
        const TestSupport::CRefusedCall refused(TestSupport::CRefusedCall::ECall::Listen);
        EXPECT_EQ(-1, acceptor.Open(CSockAddrIPv4("127.0.0.1", 0)));
    }
    expectKeptSocket(acceptor, log, "listen");
    CSockAddrIPv4 bound;
    EXPECT_EQ(0, acceptor.GetLocalAddr(&bound));
    EXPECT_NE(0, bound.GetPort()) << "it was bound before";
}

TEST(SockAcceptor, ConnectionsWaitUntilTheyAreAccepted) {
    SListener listener;
    std::vector<std::unique_ptr<CSockStream>> clients;
    for (int i = 0; i < 150; ++i) {
        clients.push_back(std::make_unique<CSockStream>());
        ASSERT_EQ(0, clients.back()->Connect(listener.address));
        ASSERT_TRUE(TestSupport::waitWritable(*clients.back()));
    }
    for (int i = 0; i < 150; ++i) {
        CSockStream server;
        ASSERT_EQ(0, listener.accept(server)) << i;
    }
}

TEST(SockAcceptor, APortCanBeOpenedAgainAtOnce) {
    SListener listener;
    {
        CSockStream client;
        CSockStream server;
        ASSERT_EQ(0, client.Connect(listener.address));
        ASSERT_EQ(0, listener.accept(server));
        server.Close();
    }
    listener.acceptor.Close();
    EXPECT_EQ(0, listener.acceptor.Open(listener.address));
}

}  // namespace
}  // namespace Veltro::Ravelo
