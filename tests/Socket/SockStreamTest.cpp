#include <Ravelo/SockAddrIPv6.h>
#include <Ravelo/SockAddrStorage.h>
#include <Ravelo/SockStream.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Support/LogCapture.h"
#include "Support/ProcessSettings.h"
#include "Support/SocketPair.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CLogCapture;
using TestSupport::receive;
using TestSupport::SListener;
using TestSupport::SSocketPair;
using TestSupport::waitReadable;

/// Waits until a connect has ended.
void waitConnect(const CSockStream& stream) {
    EXPECT_TRUE(TestSupport::waitFor(stream, SocketApi::WAIT_WRITE | SocketApi::WAIT_EXCEPT));
}

TEST(SockStream, ANewStreamHasItsTypeAndNoSocket) {
    const CSockStream stream;
    EXPECT_EQ(1U, stream.GetType());
    EXPECT_FALSE(stream.IsValid());
}

TEST(SockStream, ConnectReturnsBeforeTheConnectionIsEstablished) {
    // Where nobody accepts, connections are established until the queue is full; the next one waits.
    CSockAcceptor acceptor;
    CSockAddrIPv4 address("127.0.0.1", 0);
    sockaddr_in system{};
    address.GetAddr(reinterpret_cast<sockaddr*>(&system));
    ASSERT_EQ(0, acceptor.Attach(SocketApi::create(AF_INET, SOCK_STREAM, 0)));
    ASSERT_EQ(0, SocketApi::bind(acceptor.GetHandle(), reinterpret_cast<sockaddr*>(&system), sizeof system));
    ASSERT_EQ(0, SocketApi::listen(acceptor.GetHandle(), 0));
    ASSERT_EQ(0, acceptor.GetLocalAddr(&address));
    std::vector<std::unique_ptr<CSockStream>> streams;
    unsigned ready = 1;
    while (ready != 0 && streams.size() < 20) {
        streams.push_back(std::make_unique<CSockStream>());
        ASSERT_EQ(0, streams.back()->Connect(address));
        SocketApi::waitOne(streams.back()->GetHandle(), SocketApi::WAIT_WRITE | SocketApi::WAIT_EXCEPT,
                           200'000, &ready);
    }
    ASSERT_EQ(0U, ready) << "this one is under way";
    CSockStream& stream = *streams.back();
    EXPECT_EQ(0, stream.GetConnectStatus()) << "it has not failed";
    {
        const CLogCapture unheard;
        EXPECT_EQ(-1, stream.GetRemoteAddr(&address)) << "nor is it connected";
    }
    std::vector<std::unique_ptr<CSockStream>> accepted;
    for (std::size_t i = 1; i < streams.size(); ++i) accepted.emplace_back(acceptor.Accept());
    waitConnect(stream);
    EXPECT_EQ(0, stream.GetConnectStatus());
}

TEST(SockStream, ABlockingConnectIsEstablishedWhenItReturns) {
    SListener listener;
    CSockStream stream;
    CSockStream server;
    stream.SetBlockOpt(true);
    ASSERT_EQ(0, stream.Connect(listener.address));
    EXPECT_EQ(1, stream.Send("x", 1));
    EXPECT_EQ(0, listener.accept(server));
}

TEST(SockStream, ConnectBindsToTheLocalAddress) {
    SListener listener;
    CSockStream stream;
    CSockStream server;
    const unsigned short port = TestSupport::freePort();
    CSockAddrIPv4 local("127.0.0.1", port);
    CSockAddrIPv4 peer;
    ASSERT_EQ(0, stream.Connect(listener.address, &local));
    ASSERT_EQ(0, listener.accept(server, &peer));
    EXPECT_EQ(port, peer.GetPort());
}

TEST(SockStream, ConnectTakesAStorageByItsInputType) {
    SListener listener;
    CSockStream stream;
    CSockAddrIPv4 local("127.0.0.1", 0);
    EXPECT_EQ(0, stream.Connect(CSockAddrStorage("127.0.0.1", listener.address.GetPort()), &local));
    waitConnect(stream);
    EXPECT_EQ(0, stream.GetConnectStatus());
}

TEST(SockStream, ConnectWorksOverIPv6) {
    if (!TestSupport::hasIPv6()) return TestSupport::printSkip("this machine has no IPv6 loopback");
    CSockAcceptor acceptor;
    CSockAddrIPv6 address;
    CSockStream stream;
    ASSERT_EQ(0, acceptor.Open(CSockAddrIPv6("::1", 0)));
    ASSERT_EQ(0, acceptor.GetLocalAddr(&address));
    ASSERT_EQ(0, stream.Connect(address));
    waitConnect(stream);
    EXPECT_EQ(0, stream.GetConnectStatus());
    CSockAddrIPv6 peer;
    EXPECT_EQ(0, stream.GetRemoteAddr(&peer));
    EXPECT_TRUE(peer == address);
}

TEST(SockStream, ConnectToAnAddressOfNoFamilyFails) {
    CLogCapture log;
    CSockStream stream;
    EXPECT_EQ(-1, stream.Connect(CSockAddrStorage()));
    EXPECT_EQ(1, log.count(2, "Connect : SockAddr remote type[0] error\n"));
    EXPECT_FALSE(stream.IsValid());
}

TEST(SockStream, ConnectWithLocalOfAnotherFamilyFailsBeforeASocketIsCreated) {
    CLogCapture log;
    CSockStream stream;
    CSockAddrIPv6 local("::1", 0);
    EXPECT_EQ(-1, stream.Connect(CSockAddrIPv4("127.0.0.1", 80), &local));
    EXPECT_EQ(1, log.count(2, "Connect : SockAddr local type[2] error\n"));
    EXPECT_FALSE(stream.IsValid());
}

TEST(SockStream, ConnectClosesAHeldSocketFirst) {
    SListener listener;
    CSockStream stream;
    CSockStream first;
    ASSERT_EQ(0, stream.Connect(listener.address));
    ASSERT_EQ(0, listener.accept(first));
    CLogCapture log;
    const std::string line =
        "Connect : socket fd[" + std::to_string(stream.GetHandle()) + "] has opened, close old first\n";
    EXPECT_EQ(0, stream.Connect(listener.address));
    EXPECT_EQ(1, log.count(2, line));
    char byte = 0;
    ASSERT_TRUE(waitReadable(first));
    EXPECT_EQ(-1, first.Recv(&byte, 1));
}

TEST(SockStream, ConnectFromAForeignAddressFailsAndKeepsTheSocket) {
    CLogCapture log;
    CSockStream stream;
    CSockAddrIPv4 local("192.0.2.1", 4711);
    EXPECT_EQ(-1, stream.Connect(CSockAddrIPv4("127.0.0.1", 80), &local));
    EXPECT_TRUE(stream.IsValid());
    EXPECT_EQ(1, log.count(2, "Connect : bind failed! port[4711], fd[" + std::to_string(stream.GetHandle()) +
                                  "], error:"));
}

TEST(SockStream, ABlockingConnectThatIsRefusedFailsAndLeavesNoSocket) {
    CLogCapture log;
    CSockStream stream;
    stream.SetBlockOpt(true);
    EXPECT_EQ(-1, stream.Connect(CSockAddrIPv4("127.0.0.1", TestSupport::freePort())));
    EXPECT_FALSE(stream.IsValid());
    EXPECT_EQ(1, log.count(2, "Connect : connect faield! fd["));
}

TEST(SockStream, ConnectToAnAddressThatWasNeverSetFails) {
    CLogCapture log;
    CSockStream stream;
    EXPECT_EQ(-1, stream.Connect(CSockAddrIPv4()));
    EXPECT_FALSE(stream.IsValid());
    EXPECT_EQ(1, log.count(2, "Connect : connect faield! fd["));
}

TEST(SockStream, ConnectWithoutDescriptorsLeftFails) {
    CSockStream stream;
    if (!TestSupport::setDescriptorLimit(0)) {
        return TestSupport::printSkip("this platform does not limit descriptors");
    }
    CLogCapture log;
    EXPECT_EQ(-1, stream.Connect(CSockAddrIPv4("127.0.0.1", 80)));
    TestSupport::setDescriptorLimit(1024);
    EXPECT_FALSE(stream.IsValid());
    EXPECT_EQ(1, log.count(2, "Connect : create socket failed! error:"));
}

TEST(SockStream, GetConnectStatusTellsARefusedConnect) {
    CSockStream stream;
    ASSERT_EQ(0, stream.Connect(CSockAddrIPv4("127.0.0.1", TestSupport::freePort())));
    waitConnect(stream);
    CLogCapture log;
    EXPECT_EQ(-2, stream.GetConnectStatus());
    EXPECT_EQ(1, log.count(2, TestSupport::isWindows() ? "GetConnectStatus : error: 10061\n"
                                                       : "GetConnectStatus : error: 111\n"));
}

TEST(SockStream, GetConnectStatusWithoutASocketFails) {
    CLogCapture log;
    CSockStream stream;
    EXPECT_EQ(-2, stream.GetConnectStatus());
    EXPECT_EQ(1, log.count(2, "GetConnectStatus : getsockopt error, fd[-1], error:"));
}

TEST(SockStream, SendReturnsTheBytesSent) {
    SSocketPair pair;
    EXPECT_EQ(5, pair.client.Send("hello", 5));
    EXPECT_EQ("hello", receive(pair.server, 5));
}

TEST(SockStream, SendOnAFullSocketReturnsZero) {
    SSocketPair pair;
    CLogCapture log;
    EXPECT_GT(TestSupport::fill(pair.client), 0U);
    EXPECT_EQ(0, pair.client.Send("x", 1));
    EXPECT_TRUE(log.lines().empty());
}

TEST(SockStream, SendOfNothingFails) {
    SSocketPair pair;
    CLogCapture log;
    const std::string fd = std::to_string(pair.client.GetHandle());
    EXPECT_EQ(-1, pair.client.Send(nullptr, 5));
    EXPECT_EQ(1, log.count(2, "], len[5], fd[" + fd + "]\n"));
    EXPECT_EQ(-1, pair.client.Send("x", 0));
    EXPECT_EQ(1, log.count(2, "], len[0], fd[" + fd + "]\n"));
    EXPECT_EQ(2, log.count(2, "Send : send failed! buf["));
}

TEST(SockStream, SendWithoutASocketFails) {
    CLogCapture log;
    CSockStream stream;
    EXPECT_EQ(-1, stream.Send("x", 1));
    EXPECT_EQ(1, log.count(2, "Send : send failed! buf["));
    EXPECT_EQ(1, log.count(2, "], len[1], fd[-1], error:"));
}

TEST(SockStream, SendAfterAResetFailsAndRaisesNoSignal) {
    SSocketPair pair;
    TestSupport::watchPipeSignal();
    TestSupport::reset(pair.server);
    ASSERT_TRUE(waitReadable(pair.client));
    CLogCapture log;
    EXPECT_EQ(-1, pair.client.Send("x", 1));
    // The first failure may have reported the reset; from now on the pipe is broken.
    EXPECT_EQ(-1, pair.client.Send("x", 1));
    char byte = 'x';
    const iovec element{1, &byte};
    EXPECT_EQ(-1, pair.client.WriteV(&element, 1));
    EXPECT_EQ(2, log.count(2, "Send : send failed! buf["));
    EXPECT_EQ(1, log.count(2, "WriteV : send failed! iovec["));
    EXPECT_EQ(0, TestSupport::pipeSignalCount());
}

TEST(SockStream, WriteVSendsOneElement) {
    SSocketPair pair;
    std::string text = "hello";
    const iovec element{5, text.data()};
    EXPECT_EQ(5, pair.client.WriteV(&element, 1));
    EXPECT_EQ("hello", receive(pair.server, 5));
}

TEST(SockStream, WriteVSendsManyElementsInOrderAndSkipsEmptyOnes) {
    SSocketPair pair;
    std::string text = "abcdefghij";
    const std::vector<iovec> elements{
        {3, text.data()}, {0, nullptr}, {1, text.data() + 3}, {6, text.data() + 4}, {0, text.data()}};
    EXPECT_EQ(10, pair.client.WriteV(elements.data(), 5));
    EXPECT_EQ(text, receive(pair.server, 10));
}

TEST(SockStream, WriteVSends1024ElementsAtOnce) {
    SSocketPair pair;
    std::string text(1024, '.');
    for (std::size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>('a' + i % 26);
    std::vector<iovec> elements;
    for (char& c : text) elements.push_back({1, &c});
    EXPECT_EQ(1024, pair.client.WriteV(elements.data(), 1024));
    EXPECT_EQ(text, receive(pair.server, 1024));
}

TEST(SockStream, WriteVOfMoreThan1024ElementsSendsAtLeastTheFirstOnes) {
    SSocketPair pair;
    std::string text(3000, '.');
    for (std::size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>('a' + i % 26);
    std::vector<iovec> elements;
    for (char& c : text) elements.push_back({1, &c});
    const int sent = pair.client.WriteV(elements.data(), 3000);
    ASSERT_GE(sent, 1024);
    EXPECT_EQ(text.substr(0, static_cast<std::size_t>(sent)),
              receive(pair.server, static_cast<std::size_t>(sent)));
}

TEST(SockStream, WriteVOnAFullSocketReturnsZeroAfterAPartialCount) {
    SSocketPair pair;
    std::vector<char> block(1024 * 1024, 'w');
    const std::vector<iovec> elements(64, iovec{1024 * 1024, block.data()});
    CLogCapture log;
    const int first = pair.client.WriteV(elements.data(), 64);
    EXPECT_GT(first, 0);
    EXPECT_LE(first, 64 * 1024 * 1024);
    TestSupport::fill(pair.client);
    EXPECT_EQ(0, pair.client.WriteV(elements.data(), 64));
    EXPECT_TRUE(log.lines().empty());
}

TEST(SockStream, WriteVOfNothingFails) {
    SSocketPair pair;
    CLogCapture log;
    const iovec element{1, nullptr};
    const std::string fd = std::to_string(pair.client.GetHandle());
    EXPECT_EQ(-1, pair.client.WriteV(nullptr, 1));
    EXPECT_EQ(1, log.count(2, "], count[1], fd[" + fd + "]\n"));
    EXPECT_EQ(-1, pair.client.WriteV(&element, 0));
    EXPECT_EQ(-1, pair.client.WriteV(&element, -1));
    EXPECT_EQ(1, log.count(2, "], count[-1], fd[" + fd + "]\n"));
    EXPECT_EQ(3, log.count(2, "WriteV : writev failed! iovec["));
}

TEST(SockStream, WriteVWithoutASocketFails) {
    CLogCapture log;
    CSockStream stream;
    char byte = 'x';
    const iovec element{1, &byte};
    EXPECT_EQ(-1, stream.WriteV(&element, 1));
    EXPECT_EQ(1, log.count(2, "WriteV : send failed! iovec["));
    EXPECT_EQ(1, log.count(2, "], count:1, fd[-1], error:"));
}

TEST(SockStream, RecvWithNothingToReadReturnsZero) {
    SSocketPair pair;
    CLogCapture log;
    char byte = 0;
    EXPECT_EQ(0, pair.client.Recv(&byte, 1));
    EXPECT_TRUE(log.lines().empty());
}

TEST(SockStream, RecvReturnsMinusOneWithResetAfterPeerCloses) {
    SSocketPair pair;
    CLogCapture log;
    char byte = 0;
    pair.server.Close();
    ASSERT_TRUE(waitReadable(pair.client));
    SocketApi::setLastError(0);
    EXPECT_EQ(-1, pair.client.Recv(&byte, 1));
    EXPECT_EQ(SocketApi::resetError(), SocketApi::lastError());
    EXPECT_TRUE(log.lines().empty());
}

TEST(SockStream, RecvReturnsMinusOneAfterAResetWithoutALogLine) {
    SSocketPair pair;
    CLogCapture log;
    char byte = 0;
    TestSupport::reset(pair.server);
    ASSERT_TRUE(waitReadable(pair.client));
    EXPECT_EQ(-1, pair.client.Recv(&byte, 1));
    EXPECT_EQ(SocketApi::resetError(), SocketApi::lastError());
    EXPECT_TRUE(log.lines().empty());
}

TEST(SockStream, RecvGivesWhatWasSentBeforeTheEnd) {
    SSocketPair pair;
    ASSERT_EQ(3, pair.server.Send("bye", 3));
    pair.server.Close();
    EXPECT_EQ("bye", receive(pair.client, 100));
}

TEST(SockStream, RecvIntoNothingFails) {
    SSocketPair pair;
    CLogCapture log;
    char byte = 0;
    const std::string fd = std::to_string(pair.client.GetHandle());
    EXPECT_EQ(-1, pair.client.Recv(nullptr, 5));
    EXPECT_EQ(1, log.count(2, "], len[5], fd[" + fd + "]\n"));
    EXPECT_EQ(-1, pair.client.Recv(&byte, 0));
    EXPECT_EQ(2, log.count(2, "Recv : recv failed! buf["));
}

TEST(SockStream, RecvWithoutASocketFails) {
    CLogCapture log;
    CSockStream stream;
    char byte = 0;
    EXPECT_EQ(-1, stream.Recv(&byte, 1));
    EXPECT_EQ(1, log.count(2, "Recv : recv failed, buf["));
    EXPECT_EQ(1, log.count(2, "], len[1], fd[-1], error:"));
}

TEST(SockStream, BufferSizesAreSetAndRead) {
    SSocketPair pair;
    EXPECT_EQ(0, pair.client.SetSockRecvBuf(65536));
    EXPECT_EQ(0, pair.client.SetSockSendBuf(65536));
    EXPECT_GE(pair.client.GetSockRecvBuf(), 65536);
    EXPECT_GE(pair.client.GetSockSendBuf(), 65536);
}

TEST(SockStream, KeepAliveAndNoDelayAreSwitchedOnAndOff) {
    SSocketPair pair;
    int value = 0;
    const int fd = pair.client.GetHandle();
    EXPECT_EQ(0, pair.client.SetSockKeepAlive(true));
    EXPECT_EQ(0, SocketApi::getOption(fd, SOL_SOCKET, SO_KEEPALIVE, &value));
    EXPECT_NE(0, value);
    EXPECT_EQ(0, pair.client.SetSockKeepAlive(false));
    EXPECT_EQ(0, SocketApi::getOption(fd, SOL_SOCKET, SO_KEEPALIVE, &value));
    EXPECT_EQ(0, value);
    EXPECT_EQ(0, pair.client.SetSockNoDelay(true));
    EXPECT_EQ(0, SocketApi::getOption(fd, IPPROTO_TCP, TCP_NODELAY, &value));
    EXPECT_NE(0, value);
    EXPECT_EQ(0, pair.client.SetSockNoDelay(false));
    EXPECT_EQ(0, SocketApi::getOption(fd, IPPROTO_TCP, TCP_NODELAY, &value));
    EXPECT_EQ(0, value);
}

TEST(SockStream, EveryOptionWithoutASocketFailsWithItsName) {
    CLogCapture log;
    CSockStream stream;
    EXPECT_EQ(-1, stream.SetSockRecvBuf(1));
    EXPECT_EQ(-1, stream.SetSockSendBuf(1));
    EXPECT_EQ(-1, stream.SetSockKeepAlive(true));
    EXPECT_EQ(-1, stream.SetSockNoDelay(true));
    EXPECT_EQ(-1, stream.GetSockRecvBuf());
    EXPECT_EQ(-1, stream.GetSockSendBuf());
    for (const char* name : {"SetSockRecvBuf", "SetSockSendBuf", "SetSockKeepAlive", "SetSockNoDelay"}) {
        EXPECT_EQ(1, log.count(2, std::string(name) + " : setsockopt failed! fd[-1], error:")) << name;
    }
    for (const char* name : {"GetSockRecvBuf", "GetSockSendBuf"}) {
        EXPECT_EQ(1, log.count(2, std::string(name) + " : getsockopt failed! fd[-1], error:")) << name;
    }
}

TEST(SockStream, AFailureLineEndsWithTheSystemsText) {
    CLogCapture log;
    CSockStream stream;
    EXPECT_EQ(-1, stream.SetSockRecvBuf(1));
    const int error = SocketApi::lastError();
    EXPECT_EQ(
        1, log.count(2, "error:" + std::to_string(error) + ", " + SocketApi::errorText(error).data() + "\n"));
}

TEST(SockStream, AFailureLineNamesItsSourceAndFunction) {
    CLogCapture log;
    CSockStream stream;
    EXPECT_EQ(-1, stream.Send(nullptr, 1));
    EXPECT_EQ("CSockStream::Send", log.lines().at(0).function);
    EXPECT_EQ(".\\Src\\Socket\\SockStream.cpp", log.lines().at(0).file);
}

}  // namespace
}  // namespace Veltro::Ravelo
