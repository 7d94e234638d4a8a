#include <Ravelo/StrParser.h>
#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cstdint>
#include <string>

namespace Veltro::Ravelo {
namespace {

TEST(StrParserEdit, ALongerNumberGrowsTheTextByALineBreakToo) {
    CStrParser parser("7;x");
    EXPECT_EQ(5, parser.ReplaceInt32(12345));
    EXPECT_STREQ("12345;x\r\n", parser.GetString());
    EXPECT_EQ(9, parser.GetStringLen());
    EXPECT_EQ(0, parser.GetCurOffset());
}

TEST(StrParserEdit, ATextThatEndsWithALineFeedGrowsByNoLineBreak) {
    CStrParser parser("7;x\n");
    EXPECT_EQ(2, parser.ReplaceInt32(12));
    EXPECT_STREQ("12;x\n", parser.GetString());
    EXPECT_EQ(5, parser.GetStringLen());
    EXPECT_EQ(std::string(10, '\0'), std::string(parser.GetString() + 5, 10));
}

TEST(StrParserEdit, AShorterNumberShortensTheText) {
    CStrParser parser("123;x");
    EXPECT_EQ(1, parser.ReplaceInt32(5));
    EXPECT_STREQ("5;x", parser.GetString());
    EXPECT_EQ(3, parser.GetStringLen());
}

TEST(StrParserEdit, ANumberOfTheSameLengthIsOverwritten) {
    CStrParser parser("a=123;x");
    parser.LocateOffset(2);
    const char* before = parser.GetString();
    EXPECT_EQ(3, parser.ReplaceInt16(-12));
    EXPECT_STREQ("a=-12;x", parser.GetString());
    EXPECT_EQ(before, parser.GetString());
    EXPECT_EQ(2, parser.GetCurOffset());
}

TEST(StrParserEdit, ANumberThatEndsTheTextCannotBeReplaced) {
    for (const char* text : {"42", "x42", "42.", "4.2"}) {
        CStrParser parser(text);
        parser.ConsumeUntilDigit();
        const int offset = parser.GetCurOffset();
        EXPECT_EQ(-1, parser.ReplaceInt64(1));
        EXPECT_EQ(-1, parser.ReplaceInt32(1));
        EXPECT_EQ(-1, parser.ReplaceInt16(1));
        EXPECT_EQ(-1, parser.ReplaceUint64(1));
        EXPECT_EQ(-1, parser.ReplaceUint32(1));
        EXPECT_EQ(-1, parser.ReplaceUint16(1));
        EXPECT_EQ(-1, parser.ReplaceFloat(1));
        EXPECT_EQ(-1, parser.ReplaceDouble(1));
        EXPECT_STREQ(text, parser.GetString());
        EXPECT_EQ(offset, parser.GetCurOffset());
    }
}

TEST(StrParserEdit, WhereNoNumberStartsNothingIsReplaced) {
    for (const char* text : {"x1;", "", "-;", ".5;"}) {
        CStrParser parser(text);
        EXPECT_EQ(-1, parser.ReplaceInt64(1)) << text;
        EXPECT_STREQ(text, parser.GetString());
    }
    CStrParser nothing;
    EXPECT_EQ(-1, nothing.ReplaceInt64(1));
}

TEST(StrParserEdit, TheFractionOfANumberIsReplacedWithIt) {
    CStrParser parser("-12.75;");
    EXPECT_EQ(1, parser.ReplaceInt32(3));
    EXPECT_STREQ("3;", parser.GetString());
    CStrParser pointed("12.;");
    EXPECT_EQ(1, pointed.ReplaceInt32(3));
    EXPECT_STREQ("3.;", pointed.GetString());
}

/// The text that takes the place of "1" in a line.
template <typename Value>
std::string printed(int (CStrParser::*replace)(Value), Value value) {
    CStrParser parser("1;\n");
    const int length = (parser.*replace)(value);
    const std::string text = parser.GetString();
    EXPECT_EQ(static_cast<std::size_t>(length) + 2, text.size());
    return text.substr(0, text.size() - 2);
}

TEST(StrParserEdit, NumbersOfEveryTypeArePrinted) {
    EXPECT_EQ("-9223372036854775808", printed<std::int64_t>(&CStrParser::ReplaceInt64, INT64_MIN));
    EXPECT_EQ("-2147483648", printed<int>(&CStrParser::ReplaceInt32, INT_MIN));
    EXPECT_EQ("-32768", printed<short>(&CStrParser::ReplaceInt16, SHRT_MIN));
    EXPECT_EQ("18446744073709551615", printed<std::uint64_t>(&CStrParser::ReplaceUint64, UINT64_MAX));
    EXPECT_EQ("4294967295", printed<unsigned>(&CStrParser::ReplaceUint32, UINT_MAX));
    EXPECT_EQ("65535", printed<unsigned short>(&CStrParser::ReplaceUint16, USHRT_MAX));
    EXPECT_EQ("0.500000", printed<float>(&CStrParser::ReplaceFloat, 0.5F));
    EXPECT_EQ("-0.333333", printed<double>(&CStrParser::ReplaceDouble, -1.0 / 3));
}

TEST(StrParserEdit, APrintedNumberIsCutTo255Bytes) {
    const std::string number = printed<double>(&CStrParser::ReplaceDouble, DBL_MAX);
    EXPECT_EQ(255U, number.size());
    EXPECT_EQ("179769313486231", number.substr(0, 15));
}

TEST(StrParserEdit, ReplaceIpAddrReplacesTheAddressAtTheCursor) {
    CStrParser parser("c=IN IP4 10.0.0.1\r\nx");
    parser.LocateString("10");
    EXPECT_EQ(9, parser.ReplaceIpAddr("127.0.0.1"));
    EXPECT_STREQ("c=IN IP4 127.0.0.1\r\nx\r\n", parser.GetString());
    EXPECT_EQ(9, parser.GetCurOffset());
    EXPECT_EQ(3, parser.ReplaceIpAddr("::1"));
    EXPECT_STREQ("c=IN IP4 ::1\r\nx\r\n", parser.GetString());
}

TEST(StrParserEdit, ReplaceIpAddrOfABracketedAddressLeavesItsLastByteAndBracket) {
    CStrParser parser("[fe80::9]:80;");
    EXPECT_EQ(3, parser.ReplaceIpAddr("ip6"));
    EXPECT_STREQ("ip69]:80;", parser.GetString());
}

TEST(StrParserEdit, ReplaceIpAddrGoesByTheLengthOfTheNormalisedAddress) {
    CStrParser parser("010.0.0.1;");
    EXPECT_EQ(1, parser.ReplaceIpAddr("x"));
    EXPECT_STREQ("x1;", parser.GetString());
}

TEST(StrParserEdit, ReplaceIpAddrWithoutAnAddressOrATextFails) {
    CStrParser parser("1.2.3.4;");
    EXPECT_EQ(-1, parser.ReplaceIpAddr(nullptr));
    CStrParser blank(" ;");
    EXPECT_EQ(-1, blank.ReplaceIpAddr("1.2.3.4"));
    EXPECT_STREQ(" ;", blank.GetString());
}

TEST(StrParserEdit, ShrinkingAtTheEndLeavesTheOldBytesBehindTheLength) {
    CStrParser parser("at 10.0.0.1");
    parser.LocateOffset(3);
    EXPECT_EQ(3, parser.ReplaceIpAddr("::1"));
    EXPECT_EQ(6, parser.GetStringLen());
    EXPECT_STREQ("at ::10.0.1", parser.GetString());
    parser.ConsumeLength(100, nullptr, 0);
    EXPECT_EQ(6, parser.GetCurOffset());
    EXPECT_EQ('\0', parser.GetCurChar());
}

TEST(StrParserEdit, ReplaceIpAddrByNothingRemovesTheAddress) {
    CStrParser parser("1.2.3.4;x");
    EXPECT_EQ(0, parser.ReplaceIpAddr(""));
    EXPECT_STREQ(";x", parser.GetString());
    CStrParser whole("1.2.3.4");
    EXPECT_EQ(0, whole.ReplaceIpAddr(""));
    EXPECT_EQ(0, whole.GetStringLen());
    EXPECT_EQ(-1, whole.LocateOffset(3));
}

TEST(StrParserEdit, AReplacementMayBeAPartOfTheTextItself) {
    CStrParser grown("1.2.3.4;\n");
    EXPECT_EQ(9, grown.ReplaceIpAddr(grown.GetString()));
    EXPECT_STREQ("1.2.3.4;\n;\n", grown.GetString());
    CStrParser shrunk("1.2.3.4;ab");
    EXPECT_EQ(2, shrunk.ReplaceIpAddr(shrunk.GetString() + 8));
    EXPECT_STREQ("ab;ab", shrunk.GetString());
    CStrParser same("1.2.3.4;abcdef");
    EXPECT_EQ(7, same.ReplaceIpAddr(same.GetString() + 7));
    EXPECT_STREQ(";abcdef;abcdef", same.GetString());
}

TEST(StrParserEdit, ReplaceLengthOverwritesAndPadsWithSpaces) {
    CStrParser parser("0123456789");
    EXPECT_EQ(2, parser.ReplaceLength(2, "abcd"));
    EXPECT_EQ(6, parser.ReplaceLength(4, "xy"));
    EXPECT_EQ(8, parser.ReplaceLength(2, nullptr));
    EXPECT_STREQ("abxy    89", parser.GetString());
    EXPECT_EQ(8, parser.GetCurOffset());
}

TEST(StrParserEdit, ReplaceLengthStopsAtTheEnd) {
    CStrParser parser("012");
    parser.LocateOffset(1);
    EXPECT_EQ(3, parser.ReplaceLength(INT_MAX, "abcdef"));
    EXPECT_STREQ("0ab", parser.GetString());
    EXPECT_EQ(3, parser.ReplaceLength(5, "z"));
    EXPECT_STREQ("0ab", parser.GetString());
}

TEST(StrParserEdit, ReplaceLengthOfNothingChangesNothing) {
    CStrParser parser("012");
    EXPECT_EQ(0, parser.ReplaceLength(0, "a"));
    EXPECT_EQ(0, parser.ReplaceLength(-1, "a"));
    EXPECT_EQ(0, parser.ReplaceLength(INT_MIN, nullptr));
    EXPECT_STREQ("012", parser.GetString());
    EXPECT_EQ(0, CStrParser().ReplaceLength(3, "a"));
}

TEST(StrParserEdit, ReplaceLengthBehindANumberThatEndedTheTextChangesNothing) {
    CStrParser parser("12");
    parser.ConsumeInt64();
    EXPECT_EQ(3, parser.ReplaceLength(2, "ab"));
    EXPECT_STREQ("12", parser.GetString());
}

TEST(StrParserEdit, ReplaceLengthTakesAPartOfTheTextItself) {
    CStrParser parser("abcdef");
    parser.LocateOffset(1);
    EXPECT_EQ(6, parser.ReplaceLength(5, parser.GetString()));
    EXPECT_STREQ("aabcde", parser.GetString());
}

TEST(StrParserEdit, AppendAddsToTheEndAndLeavesTheCursor) {
    CStrParser parser("ab");
    parser.Expect('a');
    EXPECT_EQ(5, parser.Append("cde"));
    EXPECT_STREQ("abcde", parser.GetString());
    EXPECT_EQ(5, parser.GetStringLen());
    EXPECT_EQ(1, parser.GetCurOffset());
    EXPECT_EQ(std::string(10, '\0'), std::string(parser.GetString() + 5, 10));
    EXPECT_EQ(5, parser.Append(""));
}

TEST(StrParserEdit, AppendOfNullFailsAndChangesNothing) {
    CStrParser parser("ab");
    EXPECT_EQ(-1, parser.Append(nullptr));
    EXPECT_STREQ("ab", parser.GetString());
}

TEST(StrParserEdit, AppendToNothingMakesAText) {
    CStrParser parser;
    EXPECT_EQ(2, parser.Append("ab"));
    EXPECT_STREQ("ab", parser.GetString());
}

TEST(StrParserEdit, AppendDoublesATextWithItself) {
    CStrParser parser("ab");
    EXPECT_EQ(4, parser.Append(parser.GetString()));
    EXPECT_STREQ("abab", parser.GetString());
}

TEST(StrParserEdit, AppendBehindNulsAddsAfterTheLength) {
    CStrParser parser("a\0", 2);
    EXPECT_EQ(3, parser.Append("b"));
    EXPECT_EQ(std::string("a\0b\0", 4), std::string(parser.GetString(), 4));
}

TEST(StrParserEdit, AppendOverwritesTheOldBytesBehindAShortenedText) {
    CStrParser parser("10.0.0.1");
    EXPECT_EQ(1, parser.ReplaceIpAddr("x"));
    EXPECT_EQ(2, parser.Append("y"));
    EXPECT_EQ(std::string("xy\0\0", 4), std::string(parser.GetString(), 4));
}

}  // namespace
}  // namespace Veltro::Ravelo
