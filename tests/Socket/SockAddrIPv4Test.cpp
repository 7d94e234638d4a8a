#include <Ravelo/SockAddrIPv4.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "Support/LogCapture.h"
#include "Support/SocketLayer.h"

namespace Veltro::Ravelo {
namespace {

std::string textOf(const CSockAddrIPv4& address) {
    char text[16];
    const char* printed = address.GetIpStr(text, sizeof(text));
    return printed != nullptr ? printed : "(null)";
}

sockaddr_in systemOf(const CSockAddrIPv4& address) {
    sockaddr_in system;
    std::memset(&system, 0xEE, sizeof(system));
    EXPECT_EQ(reinterpret_cast<sockaddr*>(&system), address.GetAddr(reinterpret_cast<sockaddr*>(&system)));
    return system;
}

TEST(SockAddrIPv4, DefaultIsAllZeroWithoutAFamily) {
    const CSockAddrIPv4 address;
    const sockaddr_in zero{};
    const sockaddr_in system = systemOf(address);
    EXPECT_EQ(0, std::memcmp(&zero, &system, sizeof(zero)));
    EXPECT_EQ(16, address.GetAddrLen());
}

TEST(SockAddrIPv4, NumbersAreInHostOrder) {
    const CSockAddrIPv4 address(0x0A000001U, 8080);
    EXPECT_EQ("10.0.0.1", textOf(address));
    EXPECT_EQ(0x0A000001U, address.GetIp());
    EXPECT_EQ(8080, address.GetPort());
    const sockaddr_in system = systemOf(address);
    EXPECT_EQ(AF_INET, system.sin_family);
    EXPECT_EQ(htons(8080), system.sin_port);
    EXPECT_EQ(htonl(0x0A000001U), system.sin_addr.s_addr);
}

TEST(SockAddrIPv4, GetAddrOfNullIsNull) {
    EXPECT_EQ(nullptr, CSockAddrIPv4("1.2.3.4", 5).GetAddr(nullptr));
}

TEST(SockAddrIPv4, ASystemAddressIsTakenAsItIs) {
    sockaddr_in system;
    std::memset(&system, 0x5A, sizeof(system));
    const CSockAddrIPv4 address(system);
    const sockaddr_in copy = systemOf(address);
    EXPECT_EQ(0, std::memcmp(&system, &copy, sizeof(copy)));
}

TEST(SockAddrIPv4, ACopyHasTheFamilySet) {
    sockaddr_in system;
    std::memset(&system, 0x5A, sizeof(system));
    const CSockAddrIPv4 address(system);
    const CSockAddrIPv4 copy(address);
    CSockAddrIPv4 assigned("9.9.9.9", 9);
    assigned = address;
    for (const CSockAddrIPv4* made : {&copy, static_cast<const CSockAddrIPv4*>(&assigned)}) {
        EXPECT_EQ(AF_INET, systemOf(*made).sin_family);
        EXPECT_EQ(address.GetIp(), made->GetIp());
        EXPECT_EQ(address.GetPort(), made->GetPort());
    }
}

TEST(SockAddrIPv4, SelfAssignmentChangesNothing) {
    sockaddr_in system;
    std::memset(&system, 0x5A, sizeof(system));
    CSockAddrIPv4 address(system);
    const CSockAddrIPv4& same = address;
    address = same;
    const sockaddr_in copy = systemOf(address);
    EXPECT_EQ(0, std::memcmp(&system, &copy, sizeof(copy)));
}

TEST(SockAddrIPv4, AMappedLiteralGivesItsIPv4Address) {
    CSockAddrIPv4 address;
    EXPECT_EQ(0, address.SetIp("::ffff:10.0.0.1"));
    EXPECT_EQ("10.0.0.1", textOf(address));
    EXPECT_EQ(AF_INET, systemOf(address).sin_family);
}

TEST(SockAddrIPv4, AnotherIPv6LiteralFails) {
    CSockAddrIPv4 address("1.2.3.4", 5);
    EXPECT_EQ(-1, address.SetIp("::1"));
    EXPECT_EQ(-1, address.SetIp("::1.2.3.4"));
    EXPECT_EQ("1.2.3.4", textOf(address));
}

TEST(SockAddrIPv4, NullAndEmptyTextsMeanTheWildcard) {
    CSockAddrIPv4 address("1.2.3.4", 5);
    EXPECT_EQ(0, address.SetIp(static_cast<const char*>(nullptr)));
    EXPECT_EQ(0U, address.GetIp());
    ASSERT_EQ(0, address.SetIp("1.2.3.4"));
    EXPECT_EQ(0, address.SetIp(""));
    EXPECT_EQ(0U, address.GetIp());
    EXPECT_EQ(5, address.GetPort());
}

TEST(SockAddrIPv4, AHostNameIsLookedUp) {
    CSockAddrIPv4 address;
    EXPECT_EQ(0, address.SetIp("localhost"));
    EXPECT_EQ(0x7FU, address.GetIp() >> 24);
}

TEST(SockAddrIPv4, NumbersThatAreNoLiteralsAreNoHostNames) {
    CSockAddrIPv4 address("1.2.3.4", 5);
    for (const char* text :
         {"1", "127.1", "0x7f.0.0.1", "010.0.0.1", "1.2.3.4.5", "2130706433", "1.2.3.4:80"}) {
        EXPECT_EQ(-1, address.SetIp(text)) << text;
    }
    EXPECT_EQ("1.2.3.4", textOf(address));
}

TEST(SockAddrIPv4, AFailedSetAddrLeavesThePort) {
    CSockAddrIPv4 address("1.2.3.4", 5);
    EXPECT_EQ(-1, address.SetAddr("::1", 6));
    EXPECT_EQ(5, address.GetPort());
    EXPECT_EQ(0, address.SetAddr("1.2.3.5", 6));
    EXPECT_EQ(6, address.GetPort());
}

TEST(SockAddrIPv4, SetPortLeavesTheFamily) {
    CSockAddrIPv4 address;
    EXPECT_EQ(0, address.SetPort(7));
    EXPECT_EQ(0, systemOf(address).sin_family);
    EXPECT_EQ(7, address.GetPort());
}

TEST(SockAddrIPv4, SetIpKeepsThePort) {
    CSockAddrIPv4 address(1U, 7);
    EXPECT_EQ(0, address.SetIp(2U));
    EXPECT_EQ(0, address.SetIp("0.0.0.3"));
    EXPECT_EQ(7, address.GetPort());
    EXPECT_EQ(3U, address.GetIp());
}

TEST(SockAddrIPv4, GetIpStrNeedsSevenBytesAndABuffer) {
    const CSockAddrIPv4 address("1.2.3.4", 5);
    char text[8];
    EXPECT_EQ(nullptr, address.GetIpStr(nullptr, 16));
    EXPECT_EQ(nullptr, address.GetIpStr(text, 6));
    EXPECT_EQ(nullptr, address.GetIpStr(text, 7));
    EXPECT_EQ(text, address.GetIpStr(text, 8));
}

TEST(SockAddrIPv4, ATextThatDoesNotFitIsLogged) {
    TestSupport::CLogCapture log;
    char text[10];
    EXPECT_EQ(nullptr, CSockAddrIPv4("192.168.100.100", 5).GetIpStr(text, sizeof(text)));
    EXPECT_EQ(1,
              log.count(2, "inet_ntop_b error:" + std::to_string(SocketApi::bufferTooSmallError()) + ", "));
}

TEST(SockAddrIPv4, ADefaultAddressIsValid) {
    EXPECT_TRUE(CSockAddrIPv4().IsValid());
}

TEST(SockAddrIPv4, OnlyTheBroadcastAddressWithPortZeroIsInvalid) {
    TestSupport::CLogCapture log;
    EXPECT_TRUE(CSockAddrIPv4("255.255.255.255", 1).IsValid());
    EXPECT_TRUE(log.lines().empty());
    EXPECT_FALSE(CSockAddrIPv4("255.255.255.255", 0).IsValid());
    EXPECT_EQ(1, log.count(2, "IsValid :Invalid addr, m_addrin.sin_port:0 \n"));
}

TEST(SockAddrIPv4, EqualMeansValidWithTheSameAddressAndPort) {
    const CSockAddrIPv4 address("1.2.3.4", 5);
    CSockAddrIPv4 without_family;
    EXPECT_TRUE(address == CSockAddrIPv4(0x01020304U, 5));
    EXPECT_FALSE(address == CSockAddrIPv4("1.2.3.4", 6));
    EXPECT_FALSE(address == CSockAddrIPv4("1.2.3.5", 5));
    EXPECT_TRUE(without_family == CSockAddrIPv4("0.0.0.0", 0));
    EXPECT_FALSE(CSockAddrIPv4("255.255.255.255", 0) == CSockAddrIPv4("255.255.255.255", 0));
}

}  // namespace
}  // namespace Veltro::Ravelo
