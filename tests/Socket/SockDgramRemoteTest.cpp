// The default destination of a datagram socket, and what it connects.
#include <Ravelo/SockAddrStorage.h>

#include <string>

#include "Support/Datagrams.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CForeignAddr;
using TestSupport::CLogCapture;
using TestSupport::failureOf;
using TestSupport::freeDatagramPort;
using TestSupport::readOption;
using TestSupport::receiveDatagram;
using TestSupport::sendText;
using TestSupport::SReceiver;
using TestSupport::SReceiver6;

bool isConnected(CSockDgram& socket) {
    const CLogCapture unheard;
    CSockAddrStorage peer;
    return socket.GetRemoteAddr(&peer) == 0;
}

/// Whether a socket hears somebody else than the peer that it was connected to.
bool hearsStrangers(SReceiver& receiver) {
    SReceiver stranger;
    EXPECT_EQ(8, sendText(stranger.socket, "stranger", &receiver.address));
    unsigned ready = 0;
    return SocketApi::waitOne(receiver.socket.GetHandle(), SocketApi::WAIT_READ, 200'000, &ready) == 1 &&
           receiveDatagram(receiver.socket) == "stranger";
}

TEST(SockDgramRemote, AUnicastDestinationIsConnected) {
    SReceiver receiver;
    SReceiver peer;
    CSockAddrIPv4 remote;
    EXPECT_TRUE(hearsStrangers(receiver));
    ASSERT_EQ(0, receiver.socket.SetRemote(&peer.address));
    ASSERT_EQ(0, receiver.socket.GetRemoteAddr(&remote));
    EXPECT_TRUE(remote == peer.address);
    EXPECT_FALSE(hearsStrangers(receiver));
    ASSERT_EQ(4, sendText(peer.socket, "peer", &receiver.address));
    EXPECT_EQ("peer", receiveDatagram(receiver.socket));
}

TEST(SockDgramRemote, AnIPv6DestinationIsConnected) {
    SKIP_UNLESS(TestSupport::hasIPv6(), "this machine has no IPv6 loopback");
    SReceiver6 receiver;
    SReceiver6 peer;
    CSockAddrIPv6 remote;
    ASSERT_EQ(0, receiver.socket.SetRemote(&peer.address));
    ASSERT_EQ(0, receiver.socket.GetRemoteAddr(&remote));
    EXPECT_TRUE(remote == peer.address);
    EXPECT_EQ(4, sendText(receiver.socket, "mine"));
    EXPECT_EQ("mine", receiveDatagram(peer.socket));
}

TEST(SockDgramRemote, AStorageGivesADestination) {
    SReceiver receiver;
    SReceiver peer;
    const CSockAddrStorage remote("127.0.0.1", peer.address.GetPort());
    ASSERT_EQ(0, receiver.socket.SetRemote(&remote));
    EXPECT_TRUE(isConnected(receiver.socket));
    EXPECT_EQ(4, sendText(receiver.socket, "mine"));
    EXPECT_EQ("mine", receiveDatagram(peer.socket));
}

TEST(SockDgramRemote, TheDestinationIsACopy) {
    SReceiver receiver;
    SReceiver peer;
    {
        const CSockAddrIPv4 remote(peer.address);
        ASSERT_EQ(0, receiver.socket.SetRemote(&remote));
    }
    EXPECT_EQ(4, sendText(receiver.socket, "mine"));
    EXPECT_EQ("mine", receiveDatagram(peer.socket));
}

TEST(SockDgramRemote, ASecondDestinationReplacesTheFirst) {
    SReceiver receiver;
    SReceiver first;
    SReceiver second;
    CSockAddrIPv4 remote;
    ASSERT_EQ(0, receiver.socket.SetRemote(&first.address));
    ASSERT_EQ(0, receiver.socket.SetRemote(&second.address));
    ASSERT_EQ(0, receiver.socket.GetRemoteAddr(&remote));
    EXPECT_TRUE(remote == second.address);
    EXPECT_EQ(4, sendText(receiver.socket, "mine"));
    EXPECT_EQ("mine", receiveDatagram(second.socket));
}

TEST(SockDgramRemote, AnAddressWithFourLowBitsSetIsABroadcastOne) {
    for (const char* ip : {"192.168.1.255", "10.0.0.15", "127.0.0.31", "255.255.255.255"}) {
        SReceiver receiver;
        CLogCapture log;
        const CSockAddrIPv4 remote(ip, 9);
        EXPECT_EQ(0, readOption(receiver.socket, SOL_SOCKET, SO_BROADCAST)) << ip;
        EXPECT_EQ(0, receiver.socket.SetRemote(&remote)) << ip;
        EXPECT_NE(0, readOption(receiver.socket, SOL_SOCKET, SO_BROADCAST)) << ip;
        EXPECT_FALSE(isConnected(receiver.socket)) << ip;
        EXPECT_TRUE(log.lines().empty()) << ip;
    }
}

TEST(SockDgramRemote, AnAddressWithAClearLowBitIsConnected) {
    for (const char* ip : {"127.0.0.14", "127.0.0.7", "127.0.0.240"}) {
        SReceiver receiver;
        const CSockAddrIPv4 remote(ip, 9);
        EXPECT_EQ(0, receiver.socket.SetRemote(&remote)) << ip;
        EXPECT_EQ(0, readOption(receiver.socket, SOL_SOCKET, SO_BROADCAST)) << ip;
        EXPECT_TRUE(isConnected(receiver.socket)) << ip;
    }
}

TEST(SockDgramRemote, AMappedBroadcastAddressIsConnected) {
    SKIP_UNLESS(TestSupport::hasIPv6(), "this machine has no IPv6 loopback");
    CSockDgram socket;
    const CSockAddrIPv6 any("::", 0);
    const CSockAddrIPv6 remote("::ffff:127.0.0.15", 9);
    ASSERT_EQ(0, socket.Open(&any));
    EXPECT_EQ(0, socket.SetRemote(&remote));
    EXPECT_TRUE(isConnected(socket));
}

TEST(SockDgramRemote, AGroupIsNotConnected) {
    SReceiver receiver;
    CLogCapture log;
    for (const char* ip : {"224.0.0.0", "239.255.77.1", "239.255.255.254"}) {
        const CSockAddrIPv4 remote(ip, 9);
        EXPECT_EQ(0, receiver.socket.SetRemote(&remote)) << ip;
        EXPECT_FALSE(isConnected(receiver.socket)) << ip;
    }
    EXPECT_EQ(0, readOption(receiver.socket, SOL_SOCKET, SO_BROADCAST));
    EXPECT_TRUE(log.lines().empty());
}

TEST(SockDgramRemote, AGroupWithFourLowBitsSetIsABroadcastOneToo) {
    SReceiver receiver;
    const CSockAddrIPv4 remote("239.255.255.255", 9);
    EXPECT_EQ(0, receiver.socket.SetRemote(&remote));
    EXPECT_NE(0, readOption(receiver.socket, SOL_SOCKET, SO_BROADCAST));
    EXPECT_FALSE(isConnected(receiver.socket));
}

TEST(SockDgramRemote, AnIPv6GroupIsNotConnected) {
    SKIP_UNLESS(TestSupport::hasIPv6(), "this machine has no IPv6 loopback");
    SReceiver6 receiver;
    const CSockAddrIPv6 remote(TestSupport::GROUP6, 9);
    EXPECT_EQ(0, receiver.socket.SetRemote(&remote));
    EXPECT_FALSE(isConnected(receiver.socket));
}

TEST(SockDgramRemote, WriteVToAGroupOrABroadcastAddressFails) {
    for (const char* ip : {TestSupport::GROUP4, "10.0.0.15"}) {
        SReceiver receiver;
        const CSockAddrIPv4 remote(ip, 9);
        ASSERT_EQ(0, receiver.socket.SetRemote(&remote));
        CLogCapture log;
        char byte = 'x';
        const iovec element{1, &byte};
        EXPECT_EQ(-1, receiver.socket.WriteV(&element, 1)) << ip;
        EXPECT_EQ(1, log.count(2, "WriteV : send failed! fd[" + std::to_string(receiver.socket.GetHandle()) +
                                      "] error:"))
            << ip;
    }
}

TEST(SockDgramRemote, ABroadcastDestinationEndsTheConnection) {
    SReceiver receiver(freeDatagramPort());
    SReceiver peer;
    CSockAddrIPv4 own;
    const CSockAddrIPv4 remote("10.0.0.15", 9);
    ASSERT_EQ(0, receiver.socket.SetRemote(&peer.address));
    CLogCapture log;
    EXPECT_EQ(0, receiver.socket.SetRemote(&remote));
    EXPECT_TRUE(log.lines().empty());
    EXPECT_FALSE(isConnected(receiver.socket));
    ASSERT_EQ(0, receiver.socket.GetLocalAddr(&own));
    EXPECT_TRUE(own == receiver.address);
    EXPECT_TRUE(hearsStrangers(receiver));
}

TEST(SockDgramRemote, TheEndOfAConnectionKeepsAPortThatTheSystemChose) {
    SKIP_UNLESS(!TestSupport::isWindows(), "wine gives up a port that it chose");
    SReceiver peer;
    CSockDgram socket;
    CSockAddrIPv4 before;
    CSockAddrIPv4 after;
    const CSockAddrIPv4 remote("10.0.0.15", 9);
    ASSERT_EQ(0, socket.Open(nullptr));
    ASSERT_EQ(0, socket.SetRemote(&peer.address));
    ASSERT_EQ(0, socket.GetLocalAddr(&before));
    ASSERT_EQ(0, socket.SetRemote(&remote));
    ASSERT_EQ(0, socket.GetLocalAddr(&after));
    EXPECT_EQ(before.GetPort(), after.GetPort());
}

TEST(SockDgramRemote, AGroupAsDestinationEndsTheConnection) {
    SReceiver receiver(freeDatagramPort());
    SReceiver peer;
    const CSockAddrIPv4 remote(TestSupport::GROUP4, 9);
    ASSERT_EQ(0, receiver.socket.SetRemote(&peer.address));
    EXPECT_EQ(0, receiver.socket.SetRemote(&remote));
    EXPECT_FALSE(isConnected(receiver.socket));
    EXPECT_TRUE(hearsStrangers(receiver));
    EXPECT_EQ(0, receiver.socket.SetRemote(&remote)) << "there is no connection to end any more";
    EXPECT_EQ(0, receiver.socket.SetRemote(&peer.address));
    EXPECT_TRUE(isConnected(receiver.socket));
}

TEST(SockDgramRemote, AnIPv6GroupAsDestinationEndsTheConnection) {
    SKIP_UNLESS(TestSupport::hasIPv6(), "this machine has no IPv6 loopback");
    SReceiver6 receiver(freeDatagramPort());
    SReceiver6 peer;
    SReceiver6 stranger;
    const CSockAddrIPv6 remote(TestSupport::GROUP6, 9);
    ASSERT_EQ(0, receiver.socket.SetRemote(&peer.address));
    EXPECT_EQ(0, receiver.socket.SetRemote(&remote));
    EXPECT_FALSE(isConnected(receiver.socket));
    EXPECT_EQ(8, sendText(stranger.socket, "stranger", &receiver.address));
    EXPECT_EQ("stranger", receiveDatagram(receiver.socket));
}

TEST(SockDgramRemote, NoAddressFailsAndKeepsTheDestination) {
    SReceiver receiver;
    SReceiver peer;
    ASSERT_EQ(0, receiver.socket.SetRemote(&peer.address));
    CLogCapture log;
    EXPECT_EQ(-1, receiver.socket.SetRemote(nullptr));
    EXPECT_EQ(1, log.count(2, "SetRemote : invalid remote addresst type! fd[" +
                                  std::to_string(receiver.socket.GetHandle()) + "]\n"));
    EXPECT_EQ(1, sendText(receiver.socket, "x"));
}

TEST(SockDgramRemote, AStorageWithoutTextFailsAndForgetsTheDestination) {
    SReceiver receiver;
    SReceiver peer;
    ASSERT_EQ(0, receiver.socket.SetRemote(&peer.address));
    CLogCapture log;
    const CSockAddrStorage nothing;
    EXPECT_EQ(-1, receiver.socket.SetRemote(&nothing));
    EXPECT_EQ(1, log.count(2, "SetRemote : invalid remote addresst type! fd[" +
                                  std::to_string(receiver.socket.GetHandle()) + "]\n"));
    EXPECT_EQ(-1, sendText(receiver.socket, "x"));
    EXPECT_EQ(1, log.count(2, "Send : send to failed! remote is null, fd["));
}

TEST(SockDgramRemote, AnAddressOfNoFamilyFailsAndForgetsTheDestination) {
    SReceiver receiver;
    SReceiver peer;
    ASSERT_EQ(0, receiver.socket.SetRemote(&peer.address));
    CLogCapture log;
    const CForeignAddr foreign;
    EXPECT_EQ(-1, receiver.socket.SetRemote(&foreign));
    EXPECT_EQ(1, log.count(2, "SetRemote : CSockDgram::SetRemote error! fd[" +
                                  std::to_string(receiver.socket.GetHandle()) + "]\n"));
    EXPECT_EQ(-1, sendText(receiver.socket, "x"));
}

TEST(SockDgramRemote, AConnectThatFailsClosesTheSocket) {
    SReceiver receiver;
    CLogCapture log;
    const std::string line = failureOf("SetRemote : connect faield!", receiver.socket);
    const CSockAddrIPv4 never;  // has no family
    EXPECT_EQ(-1, receiver.socket.SetRemote(&never));
    EXPECT_FALSE(receiver.socket.IsValid());
    EXPECT_EQ(1, log.count(2, line));
    EXPECT_NE(0, SocketApi::lastError());
}

TEST(SockDgramRemote, ADestinationOfTheOtherFamilyClosesTheSocket) {
    SKIP_UNLESS(TestSupport::hasIPv6(), "this machine has no IPv6 loopback");
    SReceiver receiver;
    CLogCapture log;
    const CSockAddrIPv6 remote("::1", 9);
    EXPECT_EQ(-1, receiver.socket.SetRemote(&remote));
    EXPECT_FALSE(receiver.socket.IsValid());
    EXPECT_EQ(1, log.count(2, "SetRemote : connect faield! fd["));
}

TEST(SockDgramRemote, WithoutASocketNothingIsConnected) {
    CLogCapture log;
    CSockDgram socket;
    const CSockAddrIPv4 unicast("127.0.0.1", 9);
    const CSockAddrIPv4 broadcast("10.0.0.15", 9);
    const CSockAddrIPv4 group(TestSupport::GROUP4, 9);
    EXPECT_EQ(-1, socket.SetRemote(&unicast));
    EXPECT_EQ(1, log.count(2, "SetRemote : connect faield! fd[-1], error:"));
    EXPECT_EQ(-1, socket.SetRemote(&broadcast));
    EXPECT_EQ(1, log.count(2, "SetRemote : set SO_BROADCAST failed, fd[-1], error:"));
    EXPECT_EQ(0, socket.SetRemote(&group));
}

TEST(SockDgramRemote, AfterACloseThereIsNoConnectionToEnd) {
    SReceiver receiver;
    SReceiver peer;
    const CSockAddrIPv4 group(TestSupport::GROUP4, 9);
    ASSERT_EQ(0, receiver.socket.SetRemote(&peer.address));
    ASSERT_EQ(0, receiver.socket.Close());
    CLogCapture log;
    EXPECT_EQ(0, receiver.socket.SetRemote(&group));
    EXPECT_TRUE(log.lines().empty());
}

}  // namespace
}  // namespace Veltro::Ravelo
