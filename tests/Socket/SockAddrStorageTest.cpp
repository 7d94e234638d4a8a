#include <Ravelo/SockAddrIPv4.h>
#include <Ravelo/SockAddrStorage.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "Support/LogCapture.h"
#include "Support/SocketLayer.h"

namespace Veltro::Ravelo {
namespace {

sockaddr_in6 systemOf(const CSockAddrStorage& address) {
    sockaddr_in6 system{};
    EXPECT_NE(nullptr, address.GetAddr(reinterpret_cast<sockaddr*>(&system)));
    return system;
}

std::string textOf(const CSockAddrStorage& address) {
    char text[130];
    const char* printed = address.GetIpStr(text, sizeof(text));
    return printed != nullptr ? printed : "(null)";
}

void expectTypes(const CSockAddrStorage& address, unsigned input_type, unsigned real_type) {
    EXPECT_EQ(input_type, address.GetInputType());
    EXPECT_EQ(real_type, address.GetRealType());
}

TEST(SockAddrStorage, DefaultHasNoFamily) {
    const CSockAddrStorage address;
    sockaddr_in6 system;
    expectTypes(address, 0, 0);
    EXPECT_FALSE(address.IsValid());
    EXPECT_EQ(0, address.GetAddrLen());
    EXPECT_EQ(nullptr, address.GetAddr(reinterpret_cast<sockaddr*>(&system)));
    EXPECT_EQ("(null)", textOf(address));
}

TEST(SockAddrStorage, AnIPv4LiteralIsIPv4InBothTypes) {
    CSockAddrStorage address;
    EXPECT_EQ(0, address.SetIp("192.168.1.1"));
    expectTypes(address, 1, 1);
    EXPECT_EQ(16, address.GetAddrLen());
    EXPECT_EQ(AF_INET, systemOf(address).sin6_family);
}

TEST(SockAddrStorage, AnIPv6LiteralIsIPv6InBothTypes) {
    CSockAddrStorage address;
    EXPECT_EQ(0, address.SetIp("fe80::1"));
    expectTypes(address, 2, 2);
    EXPECT_EQ(28, address.GetAddrLen());
    EXPECT_EQ(AF_INET6, systemOf(address).sin6_family);
}

TEST(SockAddrStorage, AMappedLiteralIsIPv6InputAndIPv4InFact) {
    CSockAddrStorage address;
    EXPECT_EQ(0, address.SetIp("::ffff:1.2.3.4"));
    expectTypes(address, 2, 1);
    EXPECT_EQ(28, address.GetAddrLen());
}

TEST(SockAddrStorage, ANameThatResolvesInIPv4IsIPv4InBothTypes) {
    CSockAddrStorage address("localhost", 80);
    expectTypes(address, 1, 1);
    EXPECT_EQ("localhost", textOf(address));
    EXPECT_EQ(80, address.GetPort());
}

TEST(SockAddrStorage, ANullTextFails) {
    CSockAddrStorage address("1.2.3.4", 5);
    EXPECT_EQ(-1, address.SetIp(nullptr));
    EXPECT_EQ(-1, address.SetAddr(static_cast<const char*>(nullptr), 6));
    EXPECT_EQ("1.2.3.4", textOf(address));
    EXPECT_EQ(5, address.GetPort());
}

TEST(SockAddrStorage, AnEmptyTextIsTheWildcardButNotValid) {
    CSockAddrStorage address;
    EXPECT_EQ(0, address.SetIp(""));
    EXPECT_FALSE(address.IsValid());
    EXPECT_EQ(0U, address.GetInputType());
    EXPECT_EQ(16, address.GetAddrLen());
}

TEST(SockAddrStorage, AFailedTextClearsTheRealType) {
    CSockAddrStorage address("1.2.3.4", 5);
    EXPECT_EQ(-1, address.SetIp("1.2.3.4.5"));
    EXPECT_EQ(0U, address.GetRealType());
    EXPECT_FALSE(address.IsValid());
}

TEST(SockAddrStorage, AFailedTextWithAColonKeepsItsInputTypeAndCountsAsValid) {
    CSockAddrStorage address("1.2.3.4", 5);
    EXPECT_EQ(-1, address.SetIp("[::1]"));
    expectTypes(address, 2, 0);
    EXPECT_TRUE(address.IsValid());
    EXPECT_EQ("(null)", textOf(address));
}

TEST(SockAddrStorage, SetAddrFillsThePortByTheRealType) {
    EXPECT_EQ(htons(80), systemOf(CSockAddrStorage("1.2.3.4", 80)).sin6_port);
    EXPECT_EQ(htons(80), systemOf(CSockAddrStorage("::1", 80)).sin6_port);
}

TEST(SockAddrStorage, AMappedLiteralKeepsThePortThatWasCurrentWithItsText) {
    CSockAddrStorage address("1.2.3.4", 80);
    ASSERT_EQ(0, address.SetIp("::ffff:1.2.3.4"));
    EXPECT_EQ(0, address.SetPort(81));
    EXPECT_EQ(81, address.GetPort());
    EXPECT_EQ(htons(80), systemOf(address).sin6_port);
}

TEST(SockAddrStorage, SetPortWithoutAnAddressIsKeptForTheNextText) {
    CSockAddrStorage address;
    EXPECT_EQ(0, address.SetPort(80));
    EXPECT_EQ(0, address.GetPort());
    ASSERT_EQ(0, address.SetIp("1.2.3.4"));
    EXPECT_EQ(80, address.GetPort());
    EXPECT_EQ(htons(80), systemOf(address).sin6_port);
}

TEST(SockAddrStorage, ASystemIPv4AddressIsTakenWithItsText) {
    sockaddr_in system{};
    system.sin_family = AF_INET;
    system.sin_port = htons(80);
    system.sin_addr.s_addr = htonl(0x01020304U);
    CSockAddrStorage address;
    EXPECT_EQ(0, address.SetAddr(&system));
    expectTypes(address, 1, 1);
    EXPECT_EQ("1.2.3.4", textOf(address));
    EXPECT_EQ(80, address.GetPort());
    const sockaddr_in6 got = systemOf(address);
    EXPECT_EQ(0, std::memcmp(&system, &got, sizeof(system)));
}

TEST(SockAddrStorage, ASystemIPv6AddressIsTakenWithItsScope) {
    sockaddr_in6 system{};
    system.sin6_family = AF_INET6;
    system.sin6_port = htons(80);
    system.sin6_scope_id = 77;
    const unsigned char bytes[16] = {0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    std::memcpy(&system.sin6_addr, bytes, sizeof(bytes));
    CSockAddrStorage address;
    EXPECT_EQ(0, address.SetAddr(reinterpret_cast<const sockaddr_in*>(&system)));
    expectTypes(address, 2, 2);
    EXPECT_EQ("fe80::1%77", textOf(address));
    const sockaddr_in6 got = systemOf(address);
    EXPECT_EQ(0, std::memcmp(&system, &got, sizeof(system)));
}

TEST(SockAddrStorage, ASystemMappedAddressKeepsItsPort) {
    sockaddr_in6 system{};
    system.sin6_family = AF_INET6;
    system.sin6_port = htons(80);
    const unsigned char bytes[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 1, 2, 3, 4};
    std::memcpy(&system.sin6_addr, bytes, sizeof(bytes));
    CSockAddrStorage address;
    EXPECT_EQ(0, address.SetAddr(reinterpret_cast<const sockaddr_in*>(&system)));
    expectTypes(address, 2, 1);
    EXPECT_EQ(htons(80), systemOf(address).sin6_port);
}

TEST(SockAddrStorage, ASystemAddressOfNoFamilyOrNullFails) {
    CSockAddrStorage address("1.2.3.4", 5);
    const sockaddr_in none{};
    EXPECT_EQ(-1, address.SetAddr(&none));
    EXPECT_EQ(-1, address.SetAddr(static_cast<const sockaddr_in*>(nullptr)));
    EXPECT_EQ("1.2.3.4", textOf(address));
}

TEST(SockAddrStorage, GetIpStrWithTheTextsLengthIsNull) {
    const CSockAddrStorage address("10.0.0.1", 5);
    char text[16];
    EXPECT_EQ(nullptr, address.GetIpStr(text, 8));
    EXPECT_EQ(nullptr, address.GetIpStr(nullptr, 16));
}

TEST(SockAddrStorage, GetIpStrWithOneByteMoreIsUnterminated) {
    const CSockAddrStorage address("10.0.0.1", 5);
    char text[16];
    std::memset(text, '#', sizeof(text));
    EXPECT_EQ(text, address.GetIpStr(text, 9));
    EXPECT_EQ("10.0.0.1#", std::string(text, 9));
}

TEST(SockAddrStorage, GetIpStrWithTwoBytesMoreIsTerminated) {
    const CSockAddrStorage address("10.0.0.1", 5);
    char text[16];
    std::memset(text, '#', sizeof(text));
    EXPECT_EQ(text, address.GetIpStr(text, 10));
    EXPECT_EQ(std::string("10.0.0.1\0#", 10), std::string(text, 10));
}

TEST(SockAddrStorage, TheTextIsKeptUpTo127CharactersAndResolvedWhole) {
    const std::string text = "fe80::1%" + std::string(150, '0') + "7";
    const CSockAddrStorage address(text.c_str(), 80);
    EXPECT_EQ(text.substr(0, 127), textOf(address));
    EXPECT_EQ(7U, systemOf(address).sin6_scope_id);
}

TEST(SockAddrStorage, CopiesTakeEveryField) {
    CSockAddrStorage address("::ffff:1.2.3.4", 80);
    const CSockAddrStorage copy(address);
    CSockAddrStorage assigned;
    assigned = address;
    for (const CSockAddrStorage* made : {&copy, static_cast<const CSockAddrStorage*>(&assigned)}) {
        expectTypes(*made, 2, 1);
        EXPECT_EQ("::ffff:1.2.3.4", textOf(*made));
        EXPECT_EQ(80, made->GetPort());
        EXPECT_TRUE(*made == address);
    }
}

TEST(SockAddrStorage, TwoTextsOfOneHostAreNotEqual) {
    EXPECT_TRUE(CSockAddrStorage("::1", 5) == CSockAddrStorage("::1", 5));
    EXPECT_FALSE(CSockAddrStorage("::1", 5) == CSockAddrStorage("0::1", 5));
    EXPECT_FALSE(CSockAddrStorage("::1", 5) == CSockAddrStorage("::1", 6));
    EXPECT_FALSE(CSockAddrStorage() == CSockAddrStorage());
}

TEST(SockAddrStorage, GetRealSockAddrIsNotAvailable) {
    TestSupport::CLogCapture log;
    CSockAddrIPv4 other;
    EXPECT_FALSE(CSockAddrStorage("1.2.3.4", 5).GetRealSockAddr(&other));
    EXPECT_EQ(1, log.count(2, "GetRealSockAddr : this interface is no support in windows system!\n"));
}

}  // namespace
}  // namespace Veltro::Ravelo
