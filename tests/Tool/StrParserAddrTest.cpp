#include <Ravelo/StrParser.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "Support/SocketLayer.h"

namespace Veltro::Ravelo {
namespace {

/// What ConsumeIpAddr gave for a text, from its start.
struct STaken {
    int result;
    std::string address;
    int family;
    int offset;

    explicit STaken(const char* text, bool with_family = true, unsigned size = 64) {
        std::string out(size, '?');
        family = 0;
        CStrParser parser(text);
        result = parser.ConsumeIpAddr(out.data(), size, with_family ? &family : nullptr);
        address = out.substr(0, out.find('\0'));
        offset = parser.GetCurOffset();
    }
};

TEST(StrParserAddr, ABracketedIPv6AddressIsTakenWithoutItsBrackets) {
    const STaken taken("[fe80::1]:80");
    EXPECT_EQ(7, taken.result);
    EXPECT_EQ("fe80::1", taken.address);
    EXPECT_EQ(6, taken.family);
    EXPECT_EQ(9, taken.offset);
}

TEST(StrParserAddr, AnIPv4AddressEndsBeforeItsPort) {
    const STaken taken("10.1.2.3:554");
    EXPECT_EQ(8, taken.result);
    EXPECT_EQ("10.1.2.3", taken.address);
    EXPECT_EQ(4, taken.family);
    EXPECT_EQ(8, taken.offset);
}

TEST(StrParserAddr, AnIPv4AddressIsNormalised) {
    const STaken taken("010.001.02.3 x");
    EXPECT_EQ(8, taken.result);
    EXPECT_EQ("10.1.2.3", taken.address);
    EXPECT_EQ(4, taken.family);
    EXPECT_EQ(12, taken.offset);
}

TEST(StrParserAddr, SpacesAndSignsBeforeItsNumbersAreReadButNotMovedOver) {
    EXPECT_EQ("1.2.3.4", STaken(" 1.2.3.4", false).address);
    EXPECT_EQ(0, STaken(" 1.2.3.4", false).offset);
    EXPECT_EQ("1.2.3.4", STaken("1.+2.\r\n3.4", false).address);
    EXPECT_EQ(2, STaken("1.+2.\r\n3.4", false).offset);
}

TEST(StrParserAddr, NumbersThatAreNoOctetsAreTakenButAreNoAddress) {
    const STaken taken("256.-1.99999999999.-99999999999;");
    EXPECT_EQ("256.-1.2147483647.-2147483648", taken.address);
    EXPECT_EQ(-1, taken.family);
    EXPECT_EQ(4, taken.offset);
}

TEST(StrParserAddr, ALongerRunOfDigitsAndDotsIsMovedOverAsAWhole) {
    const STaken taken("1.2.3.4.5.;");
    EXPECT_EQ("1.2.3.4", taken.address);
    EXPECT_EQ(10, taken.offset);
}

TEST(StrParserAddr, AnIPv4AddressIsCutWithItsNul) {
    const STaken taken("10.1.2.3;", false, 7);
    EXPECT_EQ(6, taken.result);
    EXPECT_EQ("10.1.2", taken.address);
    EXPECT_EQ(8, taken.offset);
}

TEST(StrParserAddr, AnIPv6AddressNeedsNoBrackets) {
    const STaken taken("2001:db8::7 rest");
    EXPECT_EQ("2001:db8::7", taken.address);
    EXPECT_EQ(6, taken.family);
    EXPECT_EQ(11, taken.offset);
}

TEST(StrParserAddr, AScopeBelongsToTheAddress) {
    const STaken taken("[fe80::1%25]x");
    EXPECT_EQ("fe80::1%25", taken.address);
    EXPECT_EQ(6, taken.family);
    EXPECT_EQ(12, taken.offset);
}

TEST(StrParserAddr, AMappedIPv6AddressCountsAsIPv4) {
    EXPECT_EQ(4, STaken("[::ffff:1.2.3.4]").family);
}

TEST(StrParserAddr, AHostNameEndsBeforeAColonOrASpace) {
    const STaken with_port("localhost:80");
    EXPECT_EQ("localhost", with_port.address);
    EXPECT_EQ(4, with_port.family);  // looked up
    EXPECT_EQ(9, with_port.offset);
    EXPECT_EQ("feed.example", STaken("feed.example rest", false).address);
    EXPECT_EQ("feed.example", STaken("feed.example", false).address);
}

TEST(StrParserAddr, ATextThatIsNoAddressHasNoFamily) {
    EXPECT_EQ(-1, STaken("[12345::]").family);
    EXPECT_EQ(-1, STaken("1.2.3 x").family);  // no literal, and its last label is a number
}

TEST(StrParserAddr, AnUnfinishedBracketFails) {
    for (const char* text : {"[", "[::1", "[::1:80", "[::1 ]", "[::g]"}) {
        const STaken taken(text);
        EXPECT_EQ(-1, taken.result) << text;
        EXPECT_EQ(0, taken.offset) << text;
        EXPECT_EQ(0, taken.family) << text;
        EXPECT_EQ("", taken.address) << text;
    }
}

TEST(StrParserAddr, NothingIsNoAddress) {
    for (const char* text : {"", " x", "\n", "[]", "\x80"}) {
        const STaken taken(text);
        EXPECT_EQ(-1, taken.result) << text;
        EXPECT_EQ(0, taken.offset) << text;
    }
}

TEST(StrParserAddr, ADestinationIsNeededAndOfSevenBytes) {
    char out[8];
    CStrParser parser("::1");
    EXPECT_EQ(-1, parser.ConsumeIpAddr(nullptr, 64, nullptr));
    EXPECT_EQ(-1, parser.ConsumeIpAddr(out, 6, nullptr));
    EXPECT_EQ(3, parser.ConsumeIpAddr(out, 7, nullptr));
    EXPECT_EQ(-1, parser.ConsumeIpAddr(out, 7, nullptr));
}

TEST(StrParserAddr, ACopyThatFillsTheDestinationHasNoNul) {
    for (const char* text : {"1:2:3:4:5:6:7:8", "[1:2:3:4:5:6:7:8]"}) {
        char out[9];
        out[8] = '#';
        int family = 0;
        CStrParser parser(text);
        EXPECT_EQ(8, parser.ConsumeIpAddr(out, 8, &family));
        EXPECT_EQ("1:2:3:4:#", std::string(out, 9));
        EXPECT_EQ(-1, family);
        EXPECT_EQ(static_cast<int>(std::strlen(text)), parser.GetCurOffset());
    }
}

TEST(StrParserAddr, ACutCopyThatIsAnAddressHasItsFamily) {
    char out[7];
    int family = 0;
    CStrParser parser("[1::2:3456]");
    EXPECT_EQ(7, parser.ConsumeIpAddr(out, 7, &family));
    EXPECT_EQ("1::2:34", std::string(out, 7));
    EXPECT_EQ(6, family);
}

TEST(StrParserAddr, AColonBeyondTheDestinationMakesAHostName) {
    char out[7];
    CStrParser parser("abcdef01:2::3");
    EXPECT_EQ(7, parser.ConsumeIpAddr(out, 7, nullptr));
    EXPECT_EQ("abcdef0", std::string(out, 7));
    EXPECT_EQ(8, parser.GetCurOffset());
}

TEST(StrParserAddr, TheAddressIsReadFromTheCursor) {
    char out[32];
    CStrParser parser("c=IN IP4 10.0.0.9\r\n");
    ASSERT_EQ(9, parser.LocateString("10"));
    EXPECT_EQ(8, parser.ConsumeIpAddr(out, sizeof(out), nullptr));
    EXPECT_STREQ("10.0.0.9", out);
    EXPECT_EQ('\r', parser.GetCurChar());
}

TEST(StrParserAddr, BehindANumberThatEndedTheTextThereIsNoAddress) {
    char out[32];
    CStrParser parser("1");
    parser.ConsumeInt64();
    EXPECT_EQ(-1, parser.ConsumeIpAddr(out, sizeof(out), nullptr));
    EXPECT_EQ(-1, parser.ReplaceIpAddr("x"));
    EXPECT_EQ(2, parser.GetCurOffset());
}

}  // namespace
}  // namespace Veltro::Ravelo
