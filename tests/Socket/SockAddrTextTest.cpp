#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <random>
#include <string>

#include "Socket/SockAddrText.h"
#include "Socket/SocketApi.h"
#include "Support/SocketLayer.h"

namespace Veltro::Ravelo {
namespace {

bool isIPv4(const std::string& text) {
    in_addr address;
    return parseIPv4Literal(text.c_str(), &address);
}

bool isIPv6(const std::string& text) {
    sockaddr_in6 address;
    return parseIPv6Literal(text.c_str(), &address);
}

std::string print(int family, const void* address) {
    char text[64];
    const char* printed = formatAddress(family, address, text, sizeof(text));
    return printed != nullptr ? printed : "(null)";
}

/// What an IPv6 literal is printed as.
std::string canonical(const std::string& text) {
    sockaddr_in6 address;
    if (!parseIPv6Literal(text.c_str(), &address)) return "(no literal)";
    return print(AF_INET6, &address.sin6_addr);
}

TEST(SockAddrText, FourDecimalOctetsAreAnIPv4Literal) {
    in_addr address;
    ASSERT_TRUE(parseIPv4Literal("1.20.255.0", &address));
    EXPECT_EQ(0x0114FF00U, ntohl(address.s_addr));
    EXPECT_TRUE(isIPv4("0.0.0.0"));
    EXPECT_TRUE(isIPv4("255.255.255.255"));
}

TEST(SockAddrText, IPv4LiteralsWithAnotherNumberOfOctetsAreRefused) {
    for (const char* text :
         {"", "1", "1.2", "1.2.3", "1.2.3.4.5", "1.2.3.", ".1.2.3", "1..2.3", "1.2.3.4."}) {
        EXPECT_FALSE(isIPv4(text)) << text;
    }
}

TEST(SockAddrText, IPv4OctetsAboveTheirRangeAreRefused) {
    for (const char* text : {"256.1.1.1", "1.1.1.999", "1.1.1.4294967297"})
        EXPECT_FALSE(isIPv4(text)) << text;
}

TEST(SockAddrText, OctalAndHexadecimalOctetsAreRefused) {
    for (const char* text : {"010.0.0.1", "1.2.3.04", "00.0.0.0", "0x7f.0.0.1", "1.2.3.a"}) {
        EXPECT_FALSE(isIPv4(text)) << text;
    }
}

TEST(SockAddrText, IPv4LiteralsTakeNothingBeforeOrBehind) {
    for (const char* text : {" 1.2.3.4", "1.2.3.4 ", "1.2.3.4:80", "1.2.3.4x", "+1.2.3.4", "-1.2.3.4",
                             "1.2.3.4\n", "1.2. 3.4"}) {
        EXPECT_FALSE(isIPv4(text)) << text;
    }
}

TEST(SockAddrText, AFailedIPv4ParseChangesNothing) {
    in_addr address{};
    address.s_addr = 0x12345678U;
    EXPECT_FALSE(parseIPv4Literal("9.9.9.9x", &address));
    EXPECT_EQ(0x12345678U, address.s_addr);
}

TEST(SockAddrText, IPv6LiteralsOfEveryShapeAreRead) {
    const std::array<std::pair<const char*, const char*>, 14> table{{
        {"::", "::"},
        {"::1", "::1"},
        {"1::", "1::"},
        {"1:2:3:4:5:6:7:8", "1:2:3:4:5:6:7:8"},
        {"1:2:3:4:5:6:7::", "1:2:3:4:5:6:7:0"},
        {"::2:3:4:5:6:7:8", "0:2:3:4:5:6:7:8"},
        {"FE80::ABCD", "fe80::abcd"},
        {"0001:0002::000a", "1:2::a"},
        {"::1.2.3.4", "::1.2.3.4"},
        {"::ffff:1.2.3.4", "::ffff:1.2.3.4"},
        {"64:ff9b::1.2.3.4", "64:ff9b::102:304"},
        {"1:2:3:4:5:6:1.2.3.4", "1:2:3:4:5:6:102:304"},
        {"0:0:0:0:0:0:0:0", "::"},
        {"1::2:3", "1::2:3"},
    }};
    for (const auto& [text, printed] : table) EXPECT_EQ(printed, canonical(text)) << text;
}

TEST(SockAddrText, MalformedIPv6LiteralsAreRefused) {
    for (const char* text : {"",
                             ":",
                             ":::",
                             "1",
                             "1:",
                             ":1",
                             "1:2:3:4:5:6:7",
                             "1:2:3:4:5:6:7:8:9",
                             "1::2::3",
                             "12345::",
                             "g::",
                             "1:2:3:4:5:6:7:8::",
                             "::1:2:3:4:5:6:7:8",
                             "1:::2",
                             "::1:",
                             "1::2:",
                             "[::1]",
                             "[::1]:80",
                             "::1 ",
                             " ::1",
                             "::1.2.3",
                             "::1.2.3.4.5",
                             "::1.2.3.256",
                             "::1.2.3.4:5",
                             "1:2:3:4:5:6:7:1.2.3.4",
                             "1.2.3.4::",
                             "::01.2.3.4",
                             "1.2.3.4"}) {
        EXPECT_FALSE(isIPv6(text)) << text;
    }
}

TEST(SockAddrText, ANumericScopeIsRead) {
    sockaddr_in6 address;
    ASSERT_TRUE(parseIPv6Literal("fe80::1%4294967295", &address));
    EXPECT_EQ(4294967295U, address.sin6_scope_id);
    ASSERT_TRUE(parseIPv6Literal("::%0", &address));
    EXPECT_EQ(0U, address.sin6_scope_id);
}

TEST(SockAddrText, AnInterfaceNameIsAScope) {
    std::string name;
    unsigned index = 0;
    for (const char* candidate : {"lo", "eth0", "loopback_0", "ethernet_0"}) {
        index = SocketApi::interfaceIndex(candidate);
        name = candidate;
        if (index != 0) break;
    }
    if (index == 0) return TestSupport::printSkip("no network interface has a known name");

    sockaddr_in6 address;
    ASSERT_TRUE(parseIPv6Literal(("fe80::1%" + name).c_str(), &address));
    EXPECT_EQ(index, address.sin6_scope_id);
}

TEST(SockAddrText, WrongScopesAreRefused) {
    for (const char* text : {"fe80::1%", "%1", "fe80::1%no-such-interface", "fe80::1%4294967296",
                             "fe80::1%-1", "fe80:%1:2", "1.2.3.4%1"}) {
        EXPECT_FALSE(isIPv6(text)) << text;
    }
}

TEST(SockAddrText, AnIPv6LiteralSetsPortAndFlowInformationToZero) {
    sockaddr_in6 address;
    std::memset(&address, 0xEE, sizeof(address));
    ASSERT_TRUE(parseIPv6Literal("::1", &address));
    EXPECT_EQ(AF_INET6, address.sin6_family);
    EXPECT_EQ(0, address.sin6_port);
    EXPECT_EQ(0U, address.sin6_flowinfo);
    EXPECT_EQ(0U, address.sin6_scope_id);
}

TEST(SockAddrText, AFailedIPv6ParseChangesNothing) {
    sockaddr_in6 address;
    std::memset(&address, 0xEE, sizeof(address));
    const sockaddr_in6 before = address;
    EXPECT_FALSE(parseIPv6Literal("1:2:3:4::zz", &address));
    EXPECT_EQ(0, std::memcmp(&before, &address, sizeof(address)));
}

TEST(SockAddrText, TheLongestRunOfZeroGroupsIsCompressed) {
    EXPECT_EQ("2001:db8::1:0:0:1", canonical("2001:db8:0:0:1:0:0:1"));
    EXPECT_EQ("1:0:0:4::8", canonical("1:0:0:4:0:0:0:8"));
    EXPECT_EQ("1:0:3:4:5:6:7:8", canonical("1:0:3:4:5:6:7:8"));
    EXPECT_EQ("1::", canonical("1:0:0:0:0:0:0:0"));
}

TEST(SockAddrText, OnlySixOrMappedFiveLeadingZeroGroupsArePrintedDotted) {
    EXPECT_EQ("::ffff:1.2.3.4", canonical("0:0:0:0:0:ffff:102:304"));
    EXPECT_EQ("::1.2.3.4", canonical("0:0:0:0:0:0:102:304"));
    EXPECT_EQ("::304", canonical("0:0:0:0:0:0:0:304"));
    EXPECT_EQ("::fffe:102:304", canonical("0:0:0:0:0:fffe:102:304"));
    EXPECT_EQ("::ffff:0:102:304", canonical("0:0:0:0:ffff:0:102:304"));
    EXPECT_EQ("::1.0.0.0", canonical("0:0:0:0:0:0:100:0"));
}

TEST(SockAddrText, ATextThatDoesNotFitWithItsTerminatorIsNotPrinted) {
    in_addr address;
    ASSERT_TRUE(parseIPv4Literal("10.0.0.1", &address));
    char text[9];
    EXPECT_EQ(text, formatAddress(AF_INET, &address, text, 9));
    EXPECT_STREQ("10.0.0.1", text);
    SocketApi::setLastError(0);
    EXPECT_EQ(nullptr, formatAddress(AF_INET, &address, text, 8));
    EXPECT_EQ(SocketApi::bufferTooSmallError(), SocketApi::lastError());
}

class SockAddrTextProperty : public ::testing::Test {
protected:
    static constexpr int kRounds = 100'000;
    std::mt19937 m_random{20240517};

    int draw(int below) { return static_cast<int>(m_random() % static_cast<unsigned>(below)); }
    /// An address with many zero groups, so that compression has something to do.
    in6_addr drawAddress() {
        in6_addr address{};
        for (int group = 0; group < 8; ++group) {
            const int kind = draw(4);
            if (kind < 2) continue;
            address.s6_addr[group * 2] = static_cast<unsigned char>(kind == 2 ? 0 : draw(256));
            address.s6_addr[group * 2 + 1] = static_cast<unsigned char>(draw(256));
        }
        if (draw(8) == 0) address.s6_addr[10] = address.s6_addr[11] = 0xFF;
        return address;
    }
    std::string drawText(const std::string& alphabet, int longest) {
        std::string text(static_cast<std::size_t>(draw(longest + 1)), ' ');
        for (char& c : text) c = alphabet[static_cast<std::size_t>(draw(static_cast<int>(alphabet.size())))];
        return text;
    }
    /// Changes a character of a good text, so that near misses are tried too.
    std::string mutate(std::string text) {
        static const std::string alphabet = "0123456789abcdefABCDEFg:.: ";
        const std::size_t place = static_cast<std::size_t>(draw(static_cast<int>(text.size())));
        const char c = alphabet[static_cast<std::size_t>(draw(static_cast<int>(alphabet.size())))];
        if (draw(2) == 0) {
            text[place] = c;
        } else {
            text.insert(place, 1, c);
        }
        return text;
    }
};

TEST_F(SockAddrTextProperty, EveryPrintedIPv6AddressReadsBackHereAndInTheSystem) {
    for (int i = 0; i < kRounds; ++i) {
        const in6_addr address = drawAddress();
        const std::string text = print(AF_INET6, &address);
        sockaddr_in6 ours;
        in6_addr systems;
        ASSERT_TRUE(parseIPv6Literal(text.c_str(), &ours)) << text;
        ASSERT_EQ(0, std::memcmp(&address, &ours.sin6_addr, sizeof(address))) << text;
        ASSERT_EQ(1, inet_pton(AF_INET6, text.c_str(), &systems)) << text;
        ASSERT_EQ(0, std::memcmp(&address, &systems, sizeof(address))) << text;
    }
}

TEST_F(SockAddrTextProperty, IPv6AddressesArePrintedAsTheSystemDoes) {
    if (TestSupport::isWindows())
        return TestSupport::printSkip("Windows prints some IPv6 addresses otherwise");
    for (int i = 0; i < kRounds; ++i) {
        const in6_addr address = drawAddress();
        char systems[64];
        ASSERT_NE(nullptr, inet_ntop(AF_INET6, &address, systems, sizeof(systems)));
        ASSERT_EQ(systems, print(AF_INET6, &address));
    }
}

TEST_F(SockAddrTextProperty, TheIPv6ParserAcceptsWhatTheSystemAccepts) {
    if (TestSupport::isWindows()) return TestSupport::printSkip("Windows accepts octal and other parts");
    int accepted = 0;
    for (int i = 0; i < kRounds; ++i) {
        const in6_addr drawn = drawAddress();
        const std::string text = draw(2) == 0 ? drawText("0123af:.::", 24) : mutate(print(AF_INET6, &drawn));
        sockaddr_in6 ours{};
        in6_addr systems{};
        const bool is_literal = parseIPv6Literal(text.c_str(), &ours);
        ASSERT_EQ(inet_pton(AF_INET6, text.c_str(), &systems) == 1, is_literal) << text;
        ASSERT_EQ(0, std::memcmp(&ours.sin6_addr, &systems, sizeof(systems))) << text;
        accepted += is_literal ? 1 : 0;
    }
    EXPECT_GT(accepted, kRounds / 100);
}

TEST_F(SockAddrTextProperty, TheIPv4ParserAcceptsWhatTheSystemAccepts) {
    if (TestSupport::isWindows()) return TestSupport::printSkip("Windows accepts octal and other parts");
    int accepted = 0;
    for (int i = 0; i < kRounds; ++i) {
        in_addr drawn{};
        drawn.s_addr = static_cast<std::uint32_t>(m_random());
        const std::string text = draw(2) == 0 ? drawText("0125..", 12) : mutate(print(AF_INET, &drawn));
        in_addr ours{};
        in_addr systems{};
        const bool is_literal = parseIPv4Literal(text.c_str(), &ours);
        ASSERT_EQ(inet_pton(AF_INET, text.c_str(), &systems) == 1, is_literal) << text;
        ASSERT_EQ(ours.s_addr, systems.s_addr) << text;
        accepted += is_literal ? 1 : 0;
    }
    EXPECT_GT(accepted, kRounds / 100);
}

}  // namespace
}  // namespace Veltro::Ravelo
