// Groups: joining, hearing, sending and their settings. Nothing leaves this machine.
#include <Ravelo/SockAddrStorage.h>

#include <string>

#include "Support/Datagrams.h"
#include "Support/RefusedCall.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CLogCapture;
using TestSupport::failureOf;
using TestSupport::freeDatagramPort;
using TestSupport::GROUP4;
using TestSupport::GROUP6;
using TestSupport::OTHER_GROUP4;
using TestSupport::readOption;
using TestSupport::receiveDatagram;
using TestSupport::sendText;
using TestSupport::SReceiver;
using TestSupport::waitReadable;

constexpr unsigned LOOPBACK = 0x7F000001;

/// A socket in an IPv4 group, which is its destination, too.
struct SMember {
    CSockDgram socket;
    CSockAddrIPv4 group;

    explicit SMember(unsigned short port = freeDatagramPort(), const char* ip = GROUP4) : group(ip, port) {
        EXPECT_EQ(0, socket.Open(&group, true));
        EXPECT_EQ(0, socket.SetMulticastTTL(0));
        EXPECT_EQ(0, socket.SetRemote(&group));
    }
};

/// The same in an IPv6 group.
struct SMember6 {
    CSockDgram socket;
    CSockAddrIPv6 group;

    explicit SMember6(unsigned short port = freeDatagramPort(), const char* ip = GROUP6) : group(ip, port) {
        EXPECT_EQ(0, socket.Open(&group, true));
        EXPECT_EQ(0, socket.SetMulticastTTL(0));
        EXPECT_EQ(0, socket.SetRemote(&group));
    }
};

/// What a socket hears next, when somebody says "end" to it behind everything else.
std::string hears(CSockDgram& socket, unsigned short port) {
    SReceiver sender;
    const CSockAddrIPv4 own("127.0.0.1", port);
    EXPECT_EQ(3, sendText(sender.socket, "end", &own));
    return receiveDatagram(socket);
}

// A Windows socket hears its own groups only, and nothing need be done for it.
#define SKIP_UNDER_WINE() \
    SKIP_UNLESS(!TestSupport::isWindows(), "wine gives a socket every group that this machine has joined")

TEST(SockDgramMulticast, OpenOnAGroupBindsAllAddressesAndJoins) {
    SKIP_WITHOUT_GROUPS4();
    CLogCapture log;
    SMember member;
    CSockAddrIPv4 own;
    ASSERT_EQ(0, member.socket.GetLocalAddr(&own));
    EXPECT_TRUE(own == CSockAddrIPv4(0U, member.group.GetPort()));
    EXPECT_EQ(5, sendText(member.socket, "hello"));
    EXPECT_EQ("hello", receiveDatagram(member.socket));
    EXPECT_TRUE(log.lines().empty());
}

TEST(SockDgramMulticast, OpenOnAnIPv6GroupBindsAllAddressesAndJoins) {
    SKIP_WITHOUT_GROUPS6();
    CLogCapture log;
    SMember6 member;
    CSockAddrIPv6 own;
    char text[64];
    ASSERT_EQ(0, member.socket.GetLocalAddr(&own));
    EXPECT_STREQ("::", own.GetIpStr(text, sizeof text));
    EXPECT_EQ(member.group.GetPort(), own.GetPort());
    EXPECT_EQ(5, sendText(member.socket, "hello"));
    EXPECT_EQ("hello", receiveDatagram(member.socket));
    EXPECT_TRUE(log.lines().empty());
}

TEST(SockDgramMulticast, OpenOnTheGroupOfAllNodesJoinsOnTheDefaultInterface) {
    SKIP_WITHOUT_GROUPS6();
    CSockDgram socket;
    const CSockAddrIPv6 all_nodes("ff02::1", 0);
    CSockAddrIPv6 own;
    char text[64];
    EXPECT_EQ(0, socket.Open(&all_nodes));
    EXPECT_EQ(0, socket.SetMulticastLoop(true)) << "there is a group";
    ASSERT_EQ(0, socket.GetLocalAddr(&own));
    EXPECT_STREQ("::", own.GetIpStr(text, sizeof text));
}

TEST(SockDgramMulticast, OpenOnAStorageWithAGroupJoins) {
    SKIP_WITHOUT_GROUPS4();
    CSockDgram socket;
    const CSockAddrStorage group(GROUP4, freeDatagramPort());
    ASSERT_EQ(0, socket.Open(&group, true));
    ASSERT_EQ(0, socket.SetMulticastTTL(0));
    EXPECT_EQ(5, sendText(socket, "hello", &group));
    EXPECT_EQ("hello", receiveDatagram(socket));
}

TEST(SockDgramMulticast, AFreePortOfAGroupIsNotReused) {
    SKIP_WITHOUT_GROUPS4();
    SMember member(0);
    CSockAddrIPv4 own;
    EXPECT_EQ(0, readOption(member.socket, SOL_SOCKET, SO_REUSEADDR));
    ASSERT_EQ(0, member.socket.GetLocalAddr(&own));
    EXPECT_NE(0, own.GetPort());
}

TEST(SockDgramMulticast, AGroupThatCannotBeJoinedFailsAndKeepsTheSocket) {
    const TestSupport::CRefusedCall refused(IPPROTO_IP, IP_ADD_MEMBERSHIP);
    CLogCapture log;
    CSockDgram socket;
    const CSockAddrIPv4 group(GROUP4, 0);
    EXPECT_EQ(-1, socket.Open(&group));
    EXPECT_TRUE(socket.IsValid());
    EXPECT_EQ(1, log.count(2, failureOf("Open : IP_ADD_MEMBERSHIP failed,", socket)));
    EXPECT_EQ(-1, socket.SetMulticastIF(LOOPBACK)) << "there is no group";
}

TEST(SockDgramMulticast, AnIPv6GroupThatCannotBeJoinedFailsAndKeepsTheSocket) {
    SKIP_UNLESS(TestSupport::hasIPv6(), "this machine has no IPv6 loopback");
    const TestSupport::CRefusedCall refused(IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP);
    CLogCapture log;
    CSockDgram socket;
    const CSockAddrIPv6 group(GROUP6, 0);
    EXPECT_EQ(-1, socket.Open(&group));
    EXPECT_TRUE(socket.IsValid());
    EXPECT_EQ(1, log.count(2, failureOf("Open : IPV6_JOIN_GROUP failed,", socket)));
    EXPECT_EQ(-1, socket.SetMulticastLoop(true)) << "there is no group";
}

TEST(SockDgramMulticast, EveryMemberHearsTheGroup) {
    SKIP_WITHOUT_GROUPS4();
    SMember one;
    SMember other(one.group.GetPort());
    EXPECT_EQ(5, sendText(one.socket, "hello"));
    EXPECT_EQ("hello", receiveDatagram(one.socket));
    EXPECT_EQ("hello", receiveDatagram(other.socket));
}

TEST(SockDgramMulticast, AMemberHearsNoOtherGroup) {
    SKIP_WITHOUT_GROUPS4();
    SKIP_UNDER_WINE();
    SMember one;
    SMember other(one.group.GetPort(), OTHER_GROUP4);
    EXPECT_EQ(5, sendText(one.socket, "hello"));
    EXPECT_EQ("hello", receiveDatagram(one.socket));
    EXPECT_EQ(7, sendText(other.socket, "welcome"));
    EXPECT_EQ("welcome", receiveDatagram(other.socket));
}

TEST(SockDgramMulticast, AnIPv6MemberHearsNoOtherGroup) {
    SKIP_WITHOUT_GROUPS6();
    SKIP_UNDER_WINE();
    SMember6 one;
    SMember6 other(one.group.GetPort(), "ff15::77:2");
    EXPECT_EQ(5, sendText(one.socket, "hello"));
    EXPECT_EQ("hello", receiveDatagram(one.socket));
    EXPECT_EQ(7, sendText(other.socket, "welcome"));
    EXPECT_EQ("welcome", receiveDatagram(other.socket));
}

TEST(SockDgramMulticast, ASocketOnAllAddressesHearsNoGroup) {
    SKIP_WITHOUT_GROUPS4();
    SKIP_UNDER_WINE();
    SMember member;
    CSockDgram bystander;
    const CSockAddrIPv4 any(0U, member.group.GetPort());
    ASSERT_EQ(0, bystander.Open(&any, true));
    EXPECT_EQ(5, sendText(member.socket, "hello"));
    EXPECT_EQ("hello", receiveDatagram(member.socket));
    member.socket.Close();
    EXPECT_EQ("end", hears(bystander, any.GetPort()));
}

TEST(SockDgramMulticast, AnIPv6SocketOnAllAddressesHearsNoIPv4Group) {
    SKIP_WITHOUT_GROUPS4();
    SKIP_UNLESS(TestSupport::hasIPv6(), "this machine has no IPv6 loopback");
    SMember member;
    CSockDgram bystander;
    const CSockAddrIPv6 any("::", member.group.GetPort());
    ASSERT_EQ(0, bystander.Open(&any, true));
    EXPECT_EQ(5, sendText(member.socket, "hello"));
    EXPECT_EQ("hello", receiveDatagram(member.socket));
    member.socket.Close();
    EXPECT_EQ("end", hears(bystander, any.GetPort()));
}

TEST(SockDgramMulticast, WithoutAGroupTheInterfaceCannotBeChosen) {
    SReceiver receiver;
    CLogCapture log;
    EXPECT_EQ(-1, receiver.socket.SetMulticastIF(LOOPBACK));
    EXPECT_EQ(-1, receiver.socket.SetMulticastIF("127.0.0.1"));
    EXPECT_EQ(-1, receiver.socket.SetMulticastIF(nullptr));
    EXPECT_TRUE(log.lines().empty());
}

TEST(SockDgramMulticast, WithoutATextTheInterfaceStays) {
    SKIP_WITHOUT_GROUPS4();
    SMember member;
    CLogCapture log;
    EXPECT_EQ(-1, member.socket.SetMulticastIF(nullptr));
    EXPECT_TRUE(log.lines().empty());
}

TEST(SockDgramMulticast, TheGroupMovesToAnInterfaceAndBack) {
    SKIP_WITHOUT_GROUPS4();
    CLogCapture log;
    SMember member;
    for (const char* ifaddr : {"127.0.0.1", "127.0.0.1", "0.0.0.0", "127.0.0.1"}) {
        EXPECT_EQ(0, member.socket.SetMulticastIF(ifaddr)) << ifaddr;
        const auto outgoing = static_cast<unsigned>(readOption(member.socket, IPPROTO_IP, IP_MULTICAST_IF));
        EXPECT_EQ(CSockAddrIPv4(ifaddr, 0).GetIp(), ntohl(outgoing)) << ifaddr;
        EXPECT_EQ(5, sendText(member.socket, "hello")) << ifaddr;
        EXPECT_EQ("hello", receiveDatagram(member.socket)) << ifaddr;
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST(SockDgramMulticast, WhoMovedToAnInterfaceNoLongerHearsTheOthers) {
    SKIP_WITHOUT_GROUPS4();
    SKIP_UNDER_WINE();
    SMember moved;
    SMember stayed(moved.group.GetPort());
    ASSERT_EQ(0, moved.socket.SetMulticastIF(LOOPBACK));
    EXPECT_EQ(4, sendText(stayed.socket, "here"));
    EXPECT_EQ("here", receiveDatagram(stayed.socket));
    EXPECT_EQ(5, sendText(moved.socket, "there"));
    EXPECT_EQ("there", receiveDatagram(moved.socket));
}

TEST(SockDgramMulticast, AnInterfaceThatIsNoneFailsAndAnotherMayBeTriedAfterIt) {
    SKIP_WITHOUT_GROUPS4();
    SMember member;
    CLogCapture log;
    EXPECT_EQ(-1, member.socket.SetMulticastIF("198.51.100.1"));
    EXPECT_EQ(1, log.count(2, failureOf("SetMulticastIF : IP_ADD_MEMBERSHIP failed,", member.socket)));
    EXPECT_EQ(0, member.socket.SetMulticastIF(LOOPBACK));
    EXPECT_EQ(5, sendText(member.socket, "hello"));
    EXPECT_EQ("hello", receiveDatagram(member.socket));
}

TEST(SockDgramMulticast, AClosedSocketCannotLeaveItsGroup) {
    SKIP_WITHOUT_GROUPS4();
    SMember member;
    CLogCapture log;
    ASSERT_EQ(0, member.socket.Close());
    EXPECT_EQ(-1, member.socket.SetMulticastIF(LOOPBACK));
    EXPECT_EQ(1, log.count(2, "SetMulticastIF : IP_DROP_MEMBERSHIP failed, fd[-1], error:"));
}

TEST(SockDgramMulticast, ATextThatIsNoIPv4AddressIsNoInterface) {
    SKIP_WITHOUT_GROUPS4();
    SMember member;
    CLogCapture log;
    for (const char* ifaddr : {"", "localhost", "::1", "127.1", "127.0.0.1:80"}) {
        EXPECT_EQ(-1, member.socket.SetMulticastIF(ifaddr)) << ifaddr;
    }
    EXPECT_EQ(5, log.count(2, failureOf("SetMulticastIF : inet_pton failed,", member.socket) +
                                  (TestSupport::isWindows() ? "10022, " : "22, ")));
    EXPECT_EQ(5, sendText(member.socket, "hello"));
    EXPECT_EQ("hello", receiveDatagram(member.socket)) << "nothing has changed";
}

TEST(SockDgramMulticast, AnIPv6GroupStaysOnTheDefaultInterface) {
    SKIP_WITHOUT_GROUPS6();
    CLogCapture log;
    SMember6 member;
    EXPECT_EQ(0, member.socket.SetMulticastIF("not even an address"));
    EXPECT_EQ(0, readOption(member.socket, IPPROTO_IPV6, IPV6_MULTICAST_IF));
    EXPECT_EQ(-1, member.socket.SetMulticastIF(LOOPBACK));
    EXPECT_EQ(-1, member.socket.SetMulticastIF(nullptr));
    EXPECT_TRUE(log.lines().empty());
    ASSERT_EQ(0, member.socket.Close());
    EXPECT_EQ(-1, member.socket.SetMulticastIF("::1"));
    EXPECT_EQ(1, log.count(2, "SetMulticastIF : IPV6_MULTICAST_IF faied, fd[-1], error:"));
}

TEST(SockDgramMulticast, TheTTLNeedsNoGroup) {
    SReceiver receiver;
    for (const int ttl : {0, 1, 7, 255}) {
        EXPECT_EQ(0, receiver.socket.SetMulticastTTL(static_cast<unsigned char>(ttl)));
        EXPECT_EQ(ttl, readOption(receiver.socket, IPPROTO_IP, IP_MULTICAST_TTL));
    }
}

TEST(SockDgramMulticast, TheHopLimitOfAnIPv6SocketNeedsNoGroup) {
    SKIP_UNLESS(TestSupport::hasIPv6(), "this machine has no IPv6 loopback");
    TestSupport::SReceiver6 receiver;
    for (const int ttl : {0, 1, 7, 255}) {
        EXPECT_EQ(0, receiver.socket.SetMulticastTTL(static_cast<unsigned char>(ttl)));
        EXPECT_EQ(ttl, readOption(receiver.socket, IPPROTO_IPV6, IPV6_MULTICAST_HOPS));
    }
    CLogCapture log;
    ASSERT_EQ(0, receiver.socket.Close());
    EXPECT_EQ(-1, receiver.socket.SetMulticastTTL(1));
    EXPECT_EQ(1, log.count(2, "SetMulticastTTL : IP_MULTICAST_HOPS failed, fd[-1], error:"));
}

TEST(SockDgramMulticast, TheTTLNeedsASocket) {
    CLogCapture log;
    CSockDgram socket;
    EXPECT_EQ(-1, socket.SetMulticastTTL(1));
    EXPECT_EQ(1, log.count(2, "SetMulticastTTL : IP_MULTICAST_TTL failed, fd[-1], error:"));
}

TEST(SockDgramMulticast, WhoSwitchesTheLoopOffDoesNotHearItself) {
    SKIP_WITHOUT_GROUPS4();
    SMember member;
    EXPECT_EQ(0, member.socket.SetMulticastLoop(false));
    EXPECT_EQ(0, readOption(member.socket, IPPROTO_IP, IP_MULTICAST_LOOP));
    EXPECT_EQ(5, sendText(member.socket, "hello"));
    EXPECT_EQ("end", hears(member.socket, member.group.GetPort()));
    EXPECT_EQ(0, member.socket.SetMulticastLoop(true));
    EXPECT_EQ(1, readOption(member.socket, IPPROTO_IP, IP_MULTICAST_LOOP));
    EXPECT_EQ(5, sendText(member.socket, "hello"));
    EXPECT_EQ("hello", receiveDatagram(member.socket));
}

TEST(SockDgramMulticast, TheLoopIsSwitchedOverIPv6) {
    SKIP_WITHOUT_GROUPS6();
    SMember6 member;
    EXPECT_EQ(0, member.socket.SetMulticastLoop(false));
    EXPECT_EQ(0, readOption(member.socket, IPPROTO_IPV6, IPV6_MULTICAST_LOOP));
    EXPECT_EQ(0, member.socket.SetMulticastLoop(true));
    EXPECT_EQ(1, readOption(member.socket, IPPROTO_IPV6, IPV6_MULTICAST_LOOP));
    CLogCapture log;
    ASSERT_EQ(0, member.socket.Close());
    EXPECT_EQ(-1, member.socket.SetMulticastLoop(true));
    EXPECT_EQ(1, log.count(2, "SetMulticastLoop : IPV6_MULTICAST_LOOP failed, fd[-1], error:"));
}

TEST(SockDgramMulticast, TheLoopNeedsAGroupAndASocket) {
    SReceiver receiver;
    CLogCapture log;
    EXPECT_EQ(-1, receiver.socket.SetMulticastLoop(true));
    EXPECT_EQ(1, log.count(2, "SetMulticastLoop : IP_MULTICAST_LOOP failed, multicast addr:"));
    EXPECT_EQ(1, log.count(2, ", fd[" + std::to_string(receiver.socket.GetHandle()) + "]\n"));
    SKIP_WITHOUT_GROUPS4();
    SMember member;
    CLogCapture other_log;
    ASSERT_EQ(0, member.socket.Close());
    EXPECT_EQ(-1, member.socket.SetMulticastLoop(true));
    EXPECT_EQ(1, other_log.count(2, "SetMulticastLoop : IP_MULTICAST_LOOP failed, fd[-1], error:"));
}

TEST(SockDgramMulticast, OpenForgetsTheGroup) {
    SKIP_WITHOUT_GROUPS4();
    for (const bool close_first : {false, true}) {
        SMember member;
        CLogCapture log;
        if (close_first) {
            ASSERT_EQ(0, member.socket.Close());
        }
        ASSERT_EQ(0, member.socket.Open(nullptr));
        EXPECT_EQ(-1, member.socket.SetMulticastIF(LOOPBACK));
        EXPECT_EQ(-1, member.socket.SetMulticastLoop(true));
        EXPECT_EQ(1, log.count(2, "SetMulticastLoop : IP_MULTICAST_LOOP failed, multicast addr:"));
    }
}

}  // namespace
}  // namespace Veltro::Ravelo
