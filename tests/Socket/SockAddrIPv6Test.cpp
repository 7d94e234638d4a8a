#include <Ravelo/SockAddrIPv6.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "Support/LogCapture.h"
#include "Support/SocketLayer.h"

namespace Veltro::Ravelo {
namespace {

std::string textOf(const CSockAddrIPv6& address) {
    char text[46];
    const char* printed = address.GetIpStr(text, sizeof(text));
    return printed != nullptr ? printed : "(null)";
}

sockaddr_in6 systemOf(const CSockAddrIPv6& address) {
    sockaddr_in6 system;
    std::memset(&system, 0xEE, sizeof(system));
    EXPECT_EQ(reinterpret_cast<sockaddr*>(&system), address.GetAddr(reinterpret_cast<sockaddr*>(&system)));
    return system;
}

bool isZero(const CSockAddrIPv6& address) {
    const sockaddr_in6 zero{};
    const sockaddr_in6 system = systemOf(address);
    return std::memcmp(&zero, &system, sizeof(zero)) == 0;
}

TEST(SockAddrIPv6, DefaultIsAllZero) {
    EXPECT_TRUE(isZero(CSockAddrIPv6()));
    EXPECT_EQ(28, CSockAddrIPv6().GetAddrLen());
}

TEST(SockAddrIPv6, ATextWithPortAndScopeIsTaken) {
    const CSockAddrIPv6 address("fe80::1", 8080, 3);
    EXPECT_EQ("fe80::1", textOf(address));
    EXPECT_EQ(8080, address.GetPort());
    EXPECT_EQ(3U, address.GetScopeID());
    EXPECT_EQ(AF_INET6, systemOf(address).sin6_family);
}

TEST(SockAddrIPv6, ASystemAddressOfAnotherFamilyOrNullIsRefused) {
    CSockAddrIPv6 address("::1", 5);
    sockaddr_in6 other{};
    other.sin6_family = AF_INET;
    EXPECT_EQ(-1, address.SetAddr(&other));
    EXPECT_EQ(-1, address.SetAddr(static_cast<const sockaddr_in6*>(nullptr)));
    EXPECT_EQ("::1", textOf(address));
    EXPECT_TRUE(isZero(CSockAddrIPv6(&other)));
}

TEST(SockAddrIPv6, ASystemAddressIsTakenWhole) {
    sockaddr_in6 system;
    std::memset(&system, 0x5A, sizeof(system));
    system.sin6_family = AF_INET6;
    const CSockAddrIPv6 address(&system);
    const CSockAddrIPv6 copy(address);
    CSockAddrIPv6 assigned;
    assigned = address;
    for (const CSockAddrIPv6* made : {&address, &copy, static_cast<const CSockAddrIPv6*>(&assigned)}) {
        const sockaddr_in6 got = systemOf(*made);
        EXPECT_EQ(0, std::memcmp(&system, &got, sizeof(got)));
    }
}

TEST(SockAddrIPv6, GetAddrOfNullIsNull) {
    EXPECT_EQ(nullptr, CSockAddrIPv6("::1", 5).GetAddr(nullptr));
}

TEST(SockAddrIPv6, ALiteralSetsPortAndScopeToZero) {
    CSockAddrIPv6 address("fe80::1", 8080, 3);
    EXPECT_EQ(0, address.SetIp("fe80::2"));
    EXPECT_EQ(0, address.GetPort());
    EXPECT_EQ(0U, address.GetScopeID());
    EXPECT_EQ(0, address.SetIp("fe80::2%7"));
    EXPECT_EQ(7U, address.GetScopeID());
}

TEST(SockAddrIPv6, AnIPv4LiteralBecomesMappedAndKeepsThePort) {
    CSockAddrIPv6 address("2001:db8::1", 8080);
    EXPECT_EQ(0, address.SetIp("1.2.3.4"));
    EXPECT_EQ("::ffff:1.2.3.4", textOf(address));
    EXPECT_EQ(8080, address.GetPort());
}

TEST(SockAddrIPv6, AHostNameIsLookedUpAndKeepsThePort) {
    CSockAddrIPv6 address("2001:db8::1", 8080);
    EXPECT_EQ(0, address.SetIp("localhost"));
    EXPECT_TRUE(textOf(address) == "::1" || textOf(address).starts_with("::ffff:127.")) << textOf(address);
    EXPECT_EQ(8080, address.GetPort());
}

TEST(SockAddrIPv6, NullEmptyAndWrongTextsFailAndChangeNothing) {
    CSockAddrIPv6 address("2001:db8::1", 8080);
    for (const char* text :
         {static_cast<const char*>(nullptr), "", "[::1]", "::1:80:", "1", "::1%", "010.0.0.1"}) {
        EXPECT_EQ(-1, address.SetIp(text));
    }
    EXPECT_EQ("2001:db8::1", textOf(address));
    EXPECT_EQ(8080, address.GetPort());
}

TEST(SockAddrIPv6, AFailedSetAddrLeavesTheRecordZeroed) {
    CSockAddrIPv6 address("2001:db8::1", 8080, 3);
    EXPECT_EQ(-1, address.SetAddr("[::1]", 5));
    EXPECT_TRUE(isZero(address));
    ASSERT_EQ(0, address.SetAddr("2001:db8::1", 8080));
    EXPECT_EQ(-1, address.SetAddr("[::1]", 5, 9));
    EXPECT_TRUE(isZero(address));
}

TEST(SockAddrIPv6, SetPortSetsTheFamily) {
    CSockAddrIPv6 address;
    EXPECT_EQ(0, address.SetPort(7));
    EXPECT_EQ(AF_INET6, systemOf(address).sin6_family);
    EXPECT_EQ(7, address.GetPort());
    EXPECT_EQ(0, address.SetScopeID(4000000000U));
    EXPECT_EQ(4000000000U, address.GetScopeID());
}

TEST(SockAddrIPv6, GetIpStrCompresses) {
    EXPECT_EQ("2001:db8::1:0:0:1", textOf(CSockAddrIPv6("2001:db8:0:0:1:0:0:1", 1)));
    EXPECT_EQ("::ffff:1.2.3.4", textOf(CSockAddrIPv6("0:0:0:0:0:ffff:102:304", 1)));
}

TEST(SockAddrIPv6, GetIpStrNeedsSeventeenBytesAndABuffer) {
    const CSockAddrIPv6 address("::1", 5);
    char text[17];
    EXPECT_EQ(nullptr, address.GetIpStr(nullptr, 46));
    EXPECT_EQ(nullptr, address.GetIpStr(text, 16));
    EXPECT_EQ(text, address.GetIpStr(text, 17));
}

TEST(SockAddrIPv6, ATextThatDoesNotFitIsLogged) {
    TestSupport::CLogCapture log;
    char text[20];
    EXPECT_EQ(nullptr, CSockAddrIPv6("2001:db8:1:2:3:4:5:6", 5).GetIpStr(text, sizeof(text)));
    EXPECT_EQ(1,
              log.count(2, "inet_ntop_b error:" + std::to_string(SocketApi::bufferTooSmallError()) + ", "));
}

TEST(SockAddrIPv6, ADefaultAddressIsInvalid) {
    TestSupport::CLogCapture log;
    EXPECT_FALSE(CSockAddrIPv6().IsValid());
    EXPECT_EQ(1, log.count(2, "IsValid :Invalid addr: m_addr.sin6_port:0 \n"));
}

TEST(SockAddrIPv6, TheWildcardIsInvalidWithAnyPort) {
    TestSupport::CLogCapture log;
    EXPECT_FALSE(CSockAddrIPv6("::", 80).IsValid());
    EXPECT_EQ(1, log.count(2, "IsValid :Invalid addr: m_addr.sin6_port:80 \n"));
}

TEST(SockAddrIPv6, PortZeroIsInvalid) {
    EXPECT_FALSE(CSockAddrIPv6("::1", 0).IsValid());
    EXPECT_TRUE(CSockAddrIPv6("::1", 1).IsValid());
}

TEST(SockAddrIPv6, EqualMeansValidWithTheSameAddressAndPortInAnyScope) {
    const CSockAddrIPv6 address("fe80::1", 5, 1);
    EXPECT_TRUE(address == CSockAddrIPv6("fe80::1", 5, 2));
    EXPECT_FALSE(address == CSockAddrIPv6("fe80::1", 6, 1));
    EXPECT_FALSE(address == CSockAddrIPv6("fe80::2", 5, 1));
    EXPECT_FALSE(CSockAddrIPv6() == CSockAddrIPv6());
}

}  // namespace
}  // namespace Veltro::Ravelo
