#include <Ravelo/StrParser.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>

namespace Veltro::Ravelo {
namespace {

TEST(StrParserNumber, ConsumeInt64StopsBehindTheNumber) {
    CStrParser parser("-42x");
    EXPECT_EQ(-42, parser.ConsumeInt64());
    EXPECT_EQ('x', parser.GetCurChar());
    EXPECT_EQ(0, parser.GetStatus());
}

TEST(StrParserNumber, ConsumeInt64OfNoNumberFailsWithTheStatus) {
    for (const char* text : {"abc", "", "-", "-x", ".5", " 1", "+1", "--1", "-."}) {
        CStrParser parser(text);
        EXPECT_EQ(-1, parser.ConsumeInt64()) << text;
        EXPECT_EQ(-1, parser.GetStatus()) << text;
        EXPECT_EQ(0, parser.GetCurOffset()) << text;
    }
}

TEST(StrParserNumber, ASuccessClearsTheStatus) {
    CStrParser parser("x-1;");
    EXPECT_EQ(-1, parser.ConsumeInt64());
    EXPECT_EQ(-1, parser.GetStatus());
    parser.Expect('x');
    EXPECT_EQ(-1, parser.ConsumeInt64());
    EXPECT_EQ(0, parser.GetStatus());
}

TEST(StrParserNumber, APointBehindTheDigitsIsNotTaken) {
    CStrParser parser("7.x");
    EXPECT_EQ(7, parser.ConsumeInt64());
    EXPECT_EQ('.', parser.GetCurChar());
}

TEST(StrParserNumber, AFractionIsMovedOver) {
    CStrParser parser("12.5;");
    EXPECT_EQ(12, parser.ConsumeInt64());
    EXPECT_EQ(';', parser.GetCurChar());
}

TEST(StrParserNumber, ASecondPointEndsTheNumber) {
    CStrParser parser("1.2.3;");
    EXPECT_EQ(1, parser.ConsumeInt64());
    EXPECT_EQ(3, parser.GetCurOffset());
    CStrParser twice("1..2;");
    EXPECT_EQ(1, twice.ConsumeInt64());
    EXPECT_EQ(1, twice.GetCurOffset());
}

TEST(StrParserNumber, ANumberThatEndsTheTextLeavesTheCursorOneBeyondTheLength) {
    CStrParser parser("42");
    EXPECT_EQ(42, parser.ConsumeInt64());
    EXPECT_EQ(3, parser.GetCurOffset());
    EXPECT_EQ(0, parser.GetStatus());
    EXPECT_EQ(-1, parser.ConsumeInt64());
    EXPECT_EQ(-1, parser.GetStatus());
    EXPECT_EQ(3, parser.GetCurOffset());
}

TEST(StrParserNumber, APointThatEndsTheTextIsTaken) {
    CStrParser parser("7.");
    EXPECT_EQ(7, parser.ConsumeInt64());
    EXPECT_EQ(3, parser.GetCurOffset());
}

TEST(StrParserNumber, ANulEndsANumber) {
    CStrParser parser("42\0", 3);
    EXPECT_EQ(42, parser.ConsumeInt64());
    EXPECT_EQ(2, parser.GetCurOffset());
}

TEST(StrParserNumber, TheLargestInt64sAreRead) {
    EXPECT_EQ(INT64_MAX, CStrParser("9223372036854775807;").ConsumeInt64());
    EXPECT_EQ(INT64_MIN, CStrParser("-9223372036854775808;").ConsumeInt64());
    EXPECT_EQ(-INT64_MAX, CStrParser("-9223372036854775807;").ConsumeInt64());
}

TEST(StrParserNumber, WhatDoesNotFitBecomesTheNearestValue) {
    EXPECT_EQ(INT64_MAX, CStrParser("9223372036854775808;").ConsumeInt64());
    EXPECT_EQ(INT64_MIN, CStrParser("-9223372036854775809;").ConsumeInt64());
    EXPECT_EQ(INT64_MIN, CStrParser("-99999999999999999999999;").ConsumeInt64());
    EXPECT_EQ(UINT64_MAX, CStrParser("18446744073709551616;").ConsumeUint64());
    EXPECT_EQ(UINT64_MAX, CStrParser("18446744073709551616000;").ConsumeUint64());
    EXPECT_EQ(UINT64_MAX, CStrParser("-18446744073709551616;").ConsumeUint64());
}

TEST(StrParserNumber, ConsumeUint64ReadsTheWholeRange) {
    EXPECT_EQ(UINT64_MAX, CStrParser("18446744073709551615;").ConsumeUint64());
    EXPECT_EQ(0U, CStrParser("0;").ConsumeUint64());
    EXPECT_EQ(12U, CStrParser("0012.9;").ConsumeUint64());
}

TEST(StrParserNumber, ConsumeUint64OfANegativeNumberWrapsAround) {
    EXPECT_EQ(UINT64_MAX, CStrParser("-1;").ConsumeUint64());
    EXPECT_EQ(1U, CStrParser("-18446744073709551615;").ConsumeUint64());
}

TEST(StrParserNumber, ConsumeUint64FailsWithZero) {
    CStrParser parser("x");
    EXPECT_EQ(0U, parser.ConsumeUint64());
    EXPECT_EQ(-1, parser.GetStatus());
    EXPECT_EQ(0, parser.GetCurOffset());
    CStrParser empty("");
    EXPECT_EQ(0U, empty.ConsumeUint64());
    EXPECT_EQ(-1, empty.GetStatus());
}

TEST(StrParserNumber, TheShortFormsAreNarrowed) {
    EXPECT_EQ(-32768, CStrParser("32768;").ConsumeInt16());
    EXPECT_EQ(1, CStrParser("65537;").ConsumeUint16());
    EXPECT_EQ(-1, CStrParser("x").ConsumeInt16());
    EXPECT_EQ(0, CStrParser("x").ConsumeUint16());
    EXPECT_FLOAT_EQ(1.5F, CStrParser("1.5;").ConsumeFloat());
    EXPECT_FLOAT_EQ(-1.0F, CStrParser("x").ConsumeFloat());
}

TEST(StrParserNumber, ConsumeDoubleReadsTheFraction) {
    CStrParser parser("-12.25;");
    EXPECT_EQ(-12.25, parser.ConsumeDouble());
    EXPECT_EQ(';', parser.GetCurChar());
    EXPECT_EQ(0, parser.GetStatus());
}

TEST(StrParserNumber, ConsumeDoubleHasNoExponent) {
    CStrParser parser("1.5e3");
    EXPECT_EQ(1.5, parser.ConsumeDouble());
    EXPECT_EQ('e', parser.GetCurChar());
}

TEST(StrParserNumber, ConsumeDoubleGoesOneBeyondTheEndToo) {
    CStrParser parser("1.");
    EXPECT_EQ(1.0, parser.ConsumeDouble());
    EXPECT_EQ(3, parser.GetCurOffset());
}

TEST(StrParserNumber, ConsumeDoubleFailsWithMinusOne) {
    CStrParser parser(".5");
    EXPECT_EQ(-1.0, parser.ConsumeDouble());
    EXPECT_EQ(-1, parser.GetStatus());
    EXPECT_EQ(0, parser.GetCurOffset());
}

TEST(StrParserNumber, ADoubleThatIsTooLargeFails) {
    for (const char* sign : {"", "-"}) {
        const std::string text = sign + std::string(400, '9') + ";";
        CStrParser parser(text.c_str());
        EXPECT_EQ(-1.0, parser.ConsumeDouble());
        EXPECT_EQ(-1, parser.GetStatus());
        EXPECT_EQ(0, parser.GetCurOffset());
    }
}

TEST(StrParserNumber, ADoubleThatIsTooSmallIsZero) {
    const std::string text = "-00." + std::string(400, '0') + "1;";
    CStrParser parser(text.c_str());
    const double value = parser.ConsumeDouble();
    EXPECT_EQ(0.0, value);
    EXPECT_TRUE(std::signbit(value));
    EXPECT_EQ(';', parser.GetCurChar());
    EXPECT_EQ(0, parser.GetStatus());
}

TEST(StrParserNumber, ConsumeHexUint32ReadsDigitsOfEitherCase) {
    CStrParser parser("dEadBeeF;");
    EXPECT_EQ(0xDEADBEEFU, parser.ConsumeHexUint32());
    EXPECT_EQ(';', parser.GetCurChar());
    EXPECT_EQ(0, parser.GetStatus());
}

TEST(StrParserNumber, ConsumeHexUint32WrapsAround) {
    CStrParser parser("123456789");
    EXPECT_EQ(0x23456789U, parser.ConsumeHexUint32());
    EXPECT_EQ(9, parser.GetCurOffset());
}

TEST(StrParserNumber, ConsumeHexUint32WithoutADigitIsAZeroAndNoFailure) {
    CStrParser parser("zz");
    EXPECT_EQ(0U, parser.ConsumeHexUint32());
    EXPECT_EQ(0, parser.GetStatus());
    EXPECT_EQ(0, parser.GetCurOffset());
}

TEST(StrParserNumber, ConsumeHexUint32FailsAtTheEnd) {
    CStrParser parser("1");
    EXPECT_EQ(1U, parser.ConsumeHexUint32());
    EXPECT_EQ(0U, parser.ConsumeHexUint32());
    EXPECT_EQ(-1, parser.GetStatus());
}

TEST(StrParserNumber, OldBytesBehindTheTextAreNoPartOfANumber) {
    CStrParser parser("12;10.0.0.77");
    parser.LocateOffset(3);
    ASSERT_EQ(1, parser.ReplaceIpAddr("8"));
    ASSERT_EQ(4, parser.GetStringLen());
    EXPECT_STREQ("12;80.0.0.77", parser.GetString());  // shortened at its end: the rest stays behind
    EXPECT_EQ(8, parser.ConsumeInt64());
    EXPECT_EQ(5, parser.GetCurOffset());
    parser.LocateOffset(3);
    EXPECT_EQ(8U, parser.ConsumeHexUint32());
    EXPECT_EQ(4, parser.GetCurOffset());
}

}  // namespace
}  // namespace Veltro::Ravelo
