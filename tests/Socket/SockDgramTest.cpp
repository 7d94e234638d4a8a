// Sending and receiving datagrams.
#include <Ravelo/SockAddrStorage.h>
#include <Ravelo/SockDgram.h>

#include <string>
#include <vector>

#include "Support/Datagrams.h"
#include "Support/ScarceMemory.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CLogCapture;
using TestSupport::failureOf;
using TestSupport::receiveDatagram;
using TestSupport::sendText;
using TestSupport::SReceiver;
using TestSupport::SReceiver6;
using TestSupport::waitReadable;

/// A socket that sends to a receiver, connected.
struct SSender {
    CSockDgram socket;

    explicit SSender(const SReceiver& receiver) {
        EXPECT_EQ(0, socket.Open(nullptr));
        EXPECT_EQ(0, socket.SetRemote(&receiver.address));
    }
};

std::string pattern(std::size_t length_bytes) {
    std::string text(length_bytes, '.');
    for (std::size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>('a' + i % 26);
    return text;
}

/// One element for each byte, with an empty one in front of each.
std::vector<iovec> pieces(std::string& text) {
    std::vector<iovec> elements;
    for (char& c : text) {
        elements.push_back({0, nullptr});
        elements.push_back({1, &c});
    }
    return elements;
}

class CForeignAddr : public CSockAddr {
public:
    sockaddr* GetAddr(sockaddr* addr) const override { return addr; }
    int GetAddrLen() const override { return 16; }
    bool IsValid() const override { return true; }
};

TEST(SockDgram, SendReachesAnAddress) {
    SReceiver receiver;
    SReceiver sender;
    EXPECT_EQ(5, sendText(sender.socket, "hello", &receiver.address));
    EXPECT_EQ("hello", receiveDatagram(receiver.socket));
}

TEST(SockDgram, SendReachesAnAddressOverIPv6) {
    SKIP_UNLESS(TestSupport::hasIPv6(), "this machine has no IPv6 loopback");
    SReceiver6 receiver;
    SReceiver6 sender;
    CSockAddrIPv6 from;
    EXPECT_EQ(5, sendText(sender.socket, "hello", &receiver.address));
    EXPECT_EQ("hello", receiveDatagram(receiver.socket, &from));
    EXPECT_TRUE(from == sender.address);
}

TEST(SockDgram, SendReachesAStorage) {
    SReceiver receiver;
    SReceiver sender;
    const CSockAddrStorage remote("127.0.0.1", receiver.address.GetPort());
    EXPECT_EQ(5, sendText(sender.socket, "hello", &remote));
    EXPECT_EQ("hello", receiveDatagram(receiver.socket));
}

TEST(SockDgram, SendWithoutAnAddressTakesTheDestination) {
    SReceiver receiver;
    SSender sender(receiver);
    EXPECT_EQ(5, sendText(sender.socket, "hello"));
    EXPECT_EQ("hello", receiveDatagram(receiver.socket));
}

TEST(SockDgram, SendToAnAddressLeavesTheDestination) {
    SReceiver receiver;
    SReceiver other;
    SSender sender(receiver);
    EXPECT_EQ(5, sendText(sender.socket, "other", &other.address));
    EXPECT_EQ(5, sendText(sender.socket, "first"));
    EXPECT_EQ("other", receiveDatagram(other.socket));
    EXPECT_EQ("first", receiveDatagram(receiver.socket));
}

TEST(SockDgram, SendWithoutADestinationFails) {
    SReceiver sender;
    CLogCapture log;
    EXPECT_EQ(-1, sendText(sender.socket, "x"));
    EXPECT_EQ(1, log.count(2, "Send : send to failed! remote is null, fd[" +
                                  std::to_string(sender.socket.GetHandle()) + "]\n"));
}

TEST(SockDgram, SendToAnInvalidAddressFails) {
    SReceiver sender;
    CLogCapture log;
    const std::string fd = std::to_string(sender.socket.GetHandle());
    const CSockAddrIPv4 nobody(0xFFFFFFFFU, 0);
    const CSockAddrIPv6 nowhere;
    const CSockAddrStorage nothing;
    for (const CSockAddr* remote :
         {static_cast<const CSockAddr*>(&nobody), static_cast<const CSockAddr*>(&nowhere),
          static_cast<const CSockAddr*>(&nothing)}) {
        EXPECT_EQ(-1, sendText(sender.socket, "x", remote));
    }
    EXPECT_EQ(3, log.count(2, "Send : send to failed! remote is invalid, fd[" + fd + "]\n"));
}

TEST(SockDgram, SendToAnAddressThatWasNeverSetFails) {
    SReceiver sender;
    CLogCapture log;
    CSockAddrIPv4 never;
    never.SetPort(sender.address.GetPort());
    EXPECT_EQ(-1, sendText(sender.socket, "x", &never));
    EXPECT_EQ(1, log.count(2, "Send : send to failed! fd[" + std::to_string(sender.socket.GetHandle()) +
                                  "] error:"));
}

TEST(SockDgram, SendOfNothingFails) {
    SReceiver receiver;
    SSender sender(receiver);
    CLogCapture log;
    const std::string fd = std::to_string(sender.socket.GetHandle());
    EXPECT_EQ(-1, sender.socket.Send(nullptr, 5));
    EXPECT_EQ(-1, sender.socket.Send("x", 0));
    EXPECT_EQ(2, log.count(2, "Send : send to failed! Invalid parameter: buf:"));
    EXPECT_EQ(1, log.count(2, ", len:5, fd[" + fd + "]\n"));
    EXPECT_EQ(1, log.count(2, ", len:0, fd[" + fd + "]\n"));
}

TEST(SockDgram, SendWithoutASocketFails) {
    CLogCapture log;
    CSockDgram socket;
    const CSockAddrIPv4 remote("127.0.0.1", 9);
    EXPECT_EQ(-1, sendText(socket, "x", &remote));
    EXPECT_EQ(1, log.count(2, "Send : send to failed! fd[-1] error:"));
}

TEST(SockDgram, TheLongestDatagramArrivesWhole) {
    SReceiver receiver;
    SReceiver sender;
    ASSERT_EQ(0, receiver.socket.SetSockRecvBuf(1 << 18));
    ASSERT_EQ(0, sender.socket.SetSockSendBuf(1 << 18));
    const std::string text = pattern(65'507);
    EXPECT_EQ(65'507, sendText(sender.socket, text, &receiver.address));
    EXPECT_TRUE(text == receiveDatagram(receiver.socket));
}

TEST(SockDgram, ADatagramOf64KiBIsTooLong) {
    SReceiver receiver;
    SReceiver sender;
    CLogCapture log;
    EXPECT_EQ(-1, sendText(sender.socket, pattern(65'536), &receiver.address));
    EXPECT_EQ(1, log.count(2, "Send : send to failed! fd[" + std::to_string(sender.socket.GetHandle()) +
                                  "] error:" + (TestSupport::isWindows() ? "10040, " : "90, ")));
}

TEST(SockDgram, WriteVSendsOneDatagram) {
    SReceiver receiver;
    SSender sender(receiver);
    std::string text = "abcdefghij";
    const std::vector<iovec> elements{
        {3, text.data()}, {0, nullptr}, {1, text.data() + 3}, {6, text.data() + 4}, {0, text.data()}};
    EXPECT_EQ(10, sender.socket.WriteV(elements.data(), 5));
    EXPECT_EQ(text, receiveDatagram(receiver.socket));
}

TEST(SockDgram, WriteVSendsOneDatagramHoweverManyElements) {
    SReceiver receiver;
    SSender sender(receiver);
    for (const int count : {1024, 1025, 1026, 2048, 20'000}) {
        std::string text = pattern(static_cast<std::size_t>(count) / 2);
        const std::vector<iovec> elements = pieces(text);
        const int length = static_cast<int>(text.size());
        EXPECT_EQ(length, sender.socket.WriteV(elements.data(), static_cast<int>(elements.size()))) << count;
        EXPECT_EQ(text, receiveDatagram(receiver.socket)) << count;
    }
    char byte = 0;
    EXPECT_EQ(0, receiver.socket.Recv(&byte, 1)) << "nothing is left over";
}

TEST(SockDgram, WriteVOfMoreThanADatagramFails) {
    SReceiver receiver;
    SSender sender(receiver);
    std::string text = pattern(65'536);
    std::string long_text = pattern(200'000);
    const std::vector<iovec> few{{40'000, text.data()}, {25'536, text.data()}};
    const std::vector<iovec> many = pieces(long_text);
    CLogCapture log;
    EXPECT_EQ(-1, sender.socket.WriteV(few.data(), 2));
    EXPECT_EQ(-1, sender.socket.WriteV(many.data(), static_cast<int>(many.size())));
    EXPECT_EQ(2, log.count(2, "WriteV : send failed! fd[" + std::to_string(sender.socket.GetHandle()) +
                                  "] error:" + (TestSupport::isWindows() ? "10040, " : "90, ")));
}

TEST(SockDgram, WriteVWithoutMemoryForManyElementsFails) {
    SReceiver receiver;
    SSender sender(receiver);
    std::string text = pattern(1000);
    const std::vector<iovec> elements = pieces(text);
    CLogCapture log;
    {
        const TestSupport::CScarceMemory none(0);
        EXPECT_EQ(-1, sender.socket.WriteV(elements.data(), 2000));
    }
    EXPECT_EQ(1, log.count(2, "WriteV : send failed! fd["));
    EXPECT_EQ(1000, sender.socket.WriteV(elements.data(), 2000));
}

TEST(SockDgram, WriteVOfNoElementsSendsAnEmptyDatagram) {
    SReceiver receiver;
    SSender sender(receiver);
    CLogCapture log;
    const iovec element{0, nullptr};
    EXPECT_EQ(0, sender.socket.WriteV(&element, 0));
    EXPECT_EQ(0, sender.socket.WriteV(&element, 1));
    EXPECT_EQ(3, sendText(sender.socket, "end"));
    char buffer[8];
    for (const int length : {0, 0, 3}) {
        ASSERT_TRUE(waitReadable(receiver.socket));
        EXPECT_EQ(length, receiver.socket.Recv(buffer, sizeof buffer));
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST(SockDgram, WriteVOfFewerThanNoElementsFails) {
    SReceiver receiver;
    SSender sender(receiver);
    CLogCapture log;
    const iovec element{0, nullptr};
    EXPECT_EQ(-1, sender.socket.WriteV(&element, -1));
    EXPECT_EQ(1, log.count(2, "WriteV : send failed! fd[" + std::to_string(sender.socket.GetHandle()) +
                                  "] error:" + (TestSupport::isWindows() ? "10022, " : "22, ")));
}

TEST(SockDgram, WriteVWithoutAListOrADestinationFails) {
    SReceiver receiver;
    SSender sender(receiver);
    CLogCapture log;
    const iovec element{0, nullptr};
    const std::string sender_fd = " fd[" + std::to_string(sender.socket.GetHandle()) + "]\n";
    const std::string receiver_fd = " fd[" + std::to_string(receiver.socket.GetHandle()) + "]\n";
    EXPECT_EQ(-1, sender.socket.WriteV(nullptr, 1));
    EXPECT_EQ(1, log.count(2, sender_fd));
    EXPECT_EQ(-1, receiver.socket.WriteV(&element, 1));
    EXPECT_EQ(1, log.count(2, receiver_fd));
    EXPECT_EQ(2, log.count(2, "WriteV : WriteV failed! Invalid parameter: vector:"));
    EXPECT_EQ(2, log.count(2, ", m_remote_addr:"));
}

TEST(SockDgram, RecvWithNothingToReceiveReturnsZero) {
    SReceiver receiver;
    CLogCapture log;
    char byte = 0;
    EXPECT_EQ(0, receiver.socket.Recv(&byte, 1));
    EXPECT_TRUE(log.lines().empty());
}

TEST(SockDgram, RecvKeepsDatagramsApart) {
    SReceiver receiver;
    SSender sender(receiver);
    for (const char* text : {"one", "two", "three"}) EXPECT_LT(0, sendText(sender.socket, text));
    EXPECT_EQ("one", receiveDatagram(receiver.socket));
    EXPECT_EQ("two", receiveDatagram(receiver.socket));
    EXPECT_EQ("three", receiveDatagram(receiver.socket));
}

TEST(SockDgram, RecvOfAnEmptyDatagramReturnsZeroAndNoSender) {
    SReceiver receiver;
    SSender sender(receiver);
    const iovec element{0, nullptr};
    ASSERT_EQ(0, sender.socket.WriteV(&element, 1));
    ASSERT_TRUE(waitReadable(receiver.socket));
    CSockAddrIPv4 from("10.1.2.3", 4);
    char byte = 0;
    EXPECT_EQ(0, receiver.socket.Recv(&byte, 1, &from));
    EXPECT_TRUE(from == CSockAddrIPv4("10.1.2.3", 4));
}

TEST(SockDgram, RecvOfALongDatagramGivesWhatFitsOrFails) {
    SReceiver receiver;
    SSender sender(receiver);
    ASSERT_EQ(10, sendText(sender.socket, "abcdefghij"));
    ASSERT_EQ(4, sendText(sender.socket, "next"));
    ASSERT_TRUE(waitReadable(receiver.socket));
    CLogCapture log;
    char buffer[5] = {};
    const int received = receiver.socket.Recv(buffer, 4);
    if (TestSupport::isWindows()) {
        EXPECT_EQ(-1, received);
        EXPECT_EQ(1, log.count(2, failureOf("Recv : recv from failed!", receiver.socket) + "10040, "));
    } else {
        EXPECT_EQ(4, received);
        EXPECT_STREQ("abcd", buffer);
        EXPECT_TRUE(log.lines().empty());
    }
    EXPECT_EQ("next", receiveDatagram(receiver.socket));
}

TEST(SockDgram, RecvIntoNothingFails) {
    SReceiver receiver;
    CLogCapture log;
    const std::string fd = std::to_string(receiver.socket.GetHandle());
    char byte = 0;
    EXPECT_EQ(-1, receiver.socket.Recv(nullptr, 5));
    EXPECT_EQ(1, log.count(2, ", len:5, fd[" + fd + "]\n"));
    EXPECT_EQ(-1, receiver.socket.Recv(&byte, 0));
    EXPECT_EQ(1, log.count(2, ", len:0, fd[" + fd + "]\n"));
    EXPECT_EQ(2, log.count(2, "Recv : recv failed! invalid parameter: buf:"));
}

TEST(SockDgram, RecvIntoAnAddressOfNoFamilyFailsAndLeavesTheDatagram) {
    SReceiver receiver;
    SSender sender(receiver);
    ASSERT_EQ(5, sendText(sender.socket, "hello"));
    ASSERT_TRUE(waitReadable(receiver.socket));
    CLogCapture log;
    CForeignAddr foreign;
    char buffer[8];
    EXPECT_EQ(-1, receiver.socket.Recv(buffer, sizeof buffer, &foreign));
    EXPECT_EQ(1, log.count(2, "Recv : recv failed! invalid parameter,remote type:0, fd[" +
                                  std::to_string(receiver.socket.GetHandle()) + "]\n"));
    EXPECT_EQ("hello", receiveDatagram(receiver.socket));
}

TEST(SockDgram, RecvWithoutASocketFails) {
    CLogCapture log;
    CSockDgram socket;
    char byte = 0;
    EXPECT_EQ(-1, socket.Recv(&byte, 1));
    EXPECT_EQ(1, log.count(2, failureOf("Recv : recv from failed!", socket)));
}

TEST(SockDgram, RecvFillsAnIPv4Address) {
    SReceiver receiver;
    SReceiver sender;
    CSockAddrIPv4 from;
    ASSERT_EQ(5, sendText(sender.socket, "hello", &receiver.address));
    EXPECT_EQ("hello", receiveDatagram(receiver.socket, &from));
    EXPECT_TRUE(from == sender.address);
}

TEST(SockDgram, RecvFillsAStorageFromEitherFamily) {
    SReceiver receiver;
    SReceiver sender;
    CSockAddrStorage from;
    char text[64] = {};
    ASSERT_EQ(5, sendText(sender.socket, "hello", &receiver.address));
    EXPECT_EQ("hello", receiveDatagram(receiver.socket, &from));
    EXPECT_STREQ("127.0.0.1", from.GetIpStr(text, sizeof text));
    EXPECT_EQ(sender.address.GetPort(), from.GetPort());

    SKIP_UNLESS(TestSupport::hasIPv6(), "this machine has no IPv6 loopback");
    SReceiver6 receiver6;
    SReceiver6 sender6;
    ASSERT_EQ(5, sendText(sender6.socket, "hello", &receiver6.address));
    EXPECT_EQ("hello", receiveDatagram(receiver6.socket, &from));
    EXPECT_STREQ("::1", from.GetIpStr(text, sizeof text));
    EXPECT_EQ(sender6.address.GetPort(), from.GetPort());
}

TEST(SockDgram, RecvLeavesAnIPv4AddressThatAnIPv6SenderDoesNotFit) {
    SKIP_UNLESS(TestSupport::hasIPv6(), "this machine has no IPv6 loopback");
    SReceiver6 receiver;
    SReceiver6 sender;
    CSockAddrIPv4 from("10.1.2.3", 4);
    ASSERT_EQ(5, sendText(sender.socket, "hello", &receiver.address));
    CLogCapture log;
    EXPECT_EQ("hello", receiveDatagram(receiver.socket, &from));
    EXPECT_TRUE(from == CSockAddrIPv4("10.1.2.3", 4));
    EXPECT_EQ(1, log.count(2, "Recv : a ipv6 address can not put into CSockAddrIPv4! fd[" +
                                  std::to_string(receiver.socket.GetHandle()) + "]\n"));
}

TEST(SockDgram, RecvLeavesAnIPv6AddressThatAnIPv4SenderDoesNotFit) {
    SReceiver receiver;
    SSender sender(receiver);
    CSockAddrIPv6 from("2001:db8::1", 4);
    ASSERT_EQ(5, sendText(sender.socket, "hello"));
    CLogCapture log;
    EXPECT_EQ("hello", receiveDatagram(receiver.socket, &from));
    EXPECT_TRUE(from == CSockAddrIPv6("2001:db8::1", 4));
    EXPECT_TRUE(log.lines().empty());
}

TEST(SockDgram, AnIPv6SocketHearsIPv4SendersAsMappedOnesAndCanAnswer) {
    SKIP_UNLESS(TestSupport::hasIPv6(), "this machine has no IPv6 loopback");
    CSockDgram server;
    CSockAddrIPv6 local("::", 0);
    ASSERT_EQ(0, server.Open(&local));
    ASSERT_EQ(0, server.GetLocalAddr(&local));
    SReceiver client;
    const CSockAddrIPv4 server_address("127.0.0.1", local.GetPort());
    ASSERT_EQ(3, sendText(client.socket, "who", &server_address));
    CSockAddrStorage from;
    EXPECT_EQ("who", receiveDatagram(server, &from));
    EXPECT_EQ(unsigned{SOCKADDR_TYPE_IPV4}, from.GetRealType());
    EXPECT_EQ(4, sendText(server, "mine", &from));
    EXPECT_EQ("mine", receiveDatagram(client.socket));
}

TEST(SockDgram, AClosedPortFailsTheNextCallOfAConnectedSocketOnLinux) {
    SKIP_UNLESS(!TestSupport::isWindows(), "on Windows a closed port is never reported");
    SReceiver receiver;
    SSender sender(receiver);
    receiver.socket.Close();
    ASSERT_EQ(1, sendText(sender.socket, "x"));
    ASSERT_TRUE(waitReadable(sender.socket));
    CLogCapture log;
    char byte = 0;
    EXPECT_EQ(-1, sender.socket.Recv(&byte, 1));
    EXPECT_EQ(1, log.count(2, failureOf("Recv : recv from failed!", sender.socket) + "111, "));
    EXPECT_EQ(0, sender.socket.Recv(&byte, 1)) << "once";

    ASSERT_EQ(1, sendText(sender.socket, "x"));
    ASSERT_TRUE(waitReadable(sender.socket));
    EXPECT_EQ(-1, sendText(sender.socket, "x"));
    EXPECT_EQ(1, log.count(2, "Send : send to failed! fd[" + std::to_string(sender.socket.GetHandle()) +
                                  "] error:111, "));
}

TEST(SockDgram, AClosedPortIsNothingToASocketThatIsNotConnected) {
    SReceiver sender;
    CSockAddrIPv4 nobody;
    {
        SReceiver receiver;
        nobody = receiver.address;
    }
    CLogCapture log;
    EXPECT_EQ(1, sendText(sender.socket, "x", &nobody));
    EXPECT_EQ(1, sendText(sender.socket, "x", &nobody));
    EXPECT_EQ(2, sendText(sender.socket, "me", &sender.address));
    EXPECT_EQ("me", receiveDatagram(sender.socket));
    EXPECT_TRUE(log.lines().empty());
}

TEST(SockDgram, BufferSizesAreSetAndRead) {
    SReceiver receiver;
    EXPECT_EQ(0, receiver.socket.SetSockRecvBuf(65'536));
    EXPECT_EQ(0, receiver.socket.SetSockSendBuf(65'536));
    EXPECT_GE(receiver.socket.GetSockRecvBuf(), 65'536);
    EXPECT_GE(receiver.socket.GetSockSendBuf(), 65'536);
}

TEST(SockDgram, EveryOptionWithoutASocketFailsWithItsName) {
    CLogCapture log;
    CSockDgram socket;
    EXPECT_EQ(-1, socket.SetSockRecvBuf(1));
    EXPECT_EQ(-1, socket.SetSockSendBuf(1));
    EXPECT_EQ(-1, socket.GetSockRecvBuf());
    EXPECT_EQ(-1, socket.GetSockSendBuf());
    EXPECT_EQ(1, log.count(2, "SetSockRecvBuf : setsockopt failed! fd[-1], error:"));
    EXPECT_EQ(1, log.count(2, "SetSockSendBuf : setsockopt failed! fd[-1], error:"));
    EXPECT_EQ(1, log.count(2, "GetSockRecvBuf : getsockopt failed! fd[-1], error:"));
    EXPECT_EQ(1, log.count(2, "GetSockSendBuf : getsockopt failed! fd[-1], error:"));
}

TEST(SockDgram, AFailureLineEndsWithTheSystemsText) {
    CLogCapture log;
    CSockDgram socket;
    char byte = 0;
    EXPECT_EQ(-1, socket.Recv(&byte, 1));
    const int error = SocketApi::lastError();
    EXPECT_EQ(
        1, log.count(2, "error:" + std::to_string(error) + ", " + SocketApi::errorText(error).data() + "\n"));
}

}  // namespace
}  // namespace Veltro::Ravelo
