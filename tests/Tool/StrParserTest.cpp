#include <Ravelo/StrParser.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace Veltro::Ravelo {
namespace {

TEST(StrParser, WithoutATextEverythingIsZero) {
    CStrParser parser;
    EXPECT_EQ(nullptr, parser.GetString());
    EXPECT_EQ(0, parser.GetStringLen());
    EXPECT_EQ(0, parser.GetStatus());
    EXPECT_EQ(0, parser.GetCurOffset());
    EXPECT_EQ(0, parser.GetLineNum());
}

TEST(StrParser, CopiesTheTextItIsMadeWith) {
    char text[] = "two words";
    CStrParser parser(text);
    std::memset(text, 'x', sizeof(text));
    EXPECT_STREQ("two words", parser.GetString());
    EXPECT_EQ(9, parser.GetStringLen());
    EXPECT_EQ(0, parser.GetCurOffset());
}

TEST(StrParser, ATextWithALengthMayHoldNuls) {
    CStrParser parser("a\0b\0", 4);
    EXPECT_EQ(4, parser.GetStringLen());
    EXPECT_EQ(0, std::memcmp("a\0b\0\0", parser.GetString(), 5));
}

TEST(StrParser, ALengthMayCutTheText) {
    CStrParser parser("abcdef", 3);
    EXPECT_STREQ("abc", parser.GetString());
}

TEST(StrParser, TenZeroBytesFollowTheText) {
    CStrParser parser("abc");
    EXPECT_EQ(std::string(10, '\0'), std::string(parser.GetString() + 3, 10));
}

TEST(StrParser, AttachReplacesTheTextAndResetsCursorAndStatus) {
    CStrParser parser("abc");
    EXPECT_EQ(-1, parser.ConsumeInt64());
    EXPECT_EQ(1, parser.Expect('a'));
    ASSERT_EQ(-1, parser.GetStatus());
    EXPECT_EQ(0, parser.Attach("12"));
    EXPECT_STREQ("12", parser.GetString());
    EXPECT_EQ(0, parser.GetCurOffset());
    EXPECT_EQ(0, parser.GetStatus());
    EXPECT_EQ(0, parser.Attach("345", 2));
    EXPECT_STREQ("34", parser.GetString());
}

TEST(StrParser, AttachTakesAPartOfItsOwnText) {
    CStrParser parser("GET /index.html");
    EXPECT_EQ(0, parser.Attach(parser.GetString() + 4));
    EXPECT_STREQ("/index.html", parser.GetString());
}

TEST(StrParser, ANullTextBreaksAnAssertion) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    const char* nothing = nullptr;
    CStrParser parser;
    EXPECT_DEATH(parser.Attach(nothing), "Assertion failed: text");
    EXPECT_DEATH(parser.Attach(nothing, 0), "Assertion failed: text");
    EXPECT_DEATH(CStrParser broken(nothing), "Assertion failed: text");
    EXPECT_DEATH(CStrParser broken(nothing, 3), "Assertion failed: text");
}

TEST(StrParser, GetCurCharIsZeroAtTheEnd) {
    CStrParser parser("ab");
    EXPECT_EQ('a', parser.GetCurChar());
    parser.ConsumeLength(2, nullptr, 0);
    EXPECT_EQ('\0', parser.GetCurChar());
}

TEST(StrParser, GetCurCharIsZeroWithoutAText) {
    CStrParser parser;
    EXPECT_EQ('\0', parser.GetCurChar());
}

TEST(StrParser, CheckPrevCharIsZeroAtTheStart) {
    CStrParser parser("ab");
    EXPECT_EQ('\0', parser.CheckPrevChar());
    parser.Expect('a');
    EXPECT_EQ('a', parser.CheckPrevChar());
}

TEST(StrParser, CheckPrevCharBehindANumberThatEndedTheTextIsItsLastByte) {
    CStrParser parser("42");
    parser.ConsumeInt64();
    ASSERT_EQ(3, parser.GetCurOffset());
    EXPECT_EQ('2', parser.CheckPrevChar());
}

TEST(StrParser, ResetAllClearsCursorAndStatus) {
    CStrParser parser("a1");
    parser.Expect('a');
    parser.ResetAll();
    EXPECT_EQ(0, parser.GetCurOffset());
    EXPECT_EQ(-1, parser.ConsumeInt64());
    parser.ResetAll();
    EXPECT_EQ(0, parser.GetStatus());
}

TEST(StrParser, LocateOffsetStaysWithinTheText) {
    CStrParser parser("0123456789");
    EXPECT_EQ(9, parser.LocateOffset(1000));
    EXPECT_EQ(9, parser.GetCurOffset());
    EXPECT_EQ(0, parser.LocateOffset(-5));
    EXPECT_EQ(4, parser.LocateOffset(4));
    EXPECT_EQ('4', parser.GetCurChar());
}

TEST(StrParser, LocateOffsetFailsOnAnEmptyText) {
    CStrParser parser("");
    EXPECT_EQ(-1, parser.LocateOffset(0));
    EXPECT_EQ(-1, parser.LocateOffset(1000));
    EXPECT_EQ(0, parser.GetCurOffset());
}

TEST(StrParser, GetLineNumCountsLineFeeds) {
    EXPECT_EQ(0, CStrParser("").GetLineNum());
    EXPECT_EQ(0, CStrParser("one").GetLineNum());
    EXPECT_EQ(2, CStrParser("one\r\ntwo\nthree").GetLineNum());
    EXPECT_EQ(3, CStrParser("\n\0\n\n", 4).GetLineNum());
}

TEST(StrParser, GetLineNumCountsFromTheStartWhereverTheCursorIs) {
    CStrParser parser("a\nb\nc");
    parser.LocateOffset(4);
    EXPECT_EQ(2, parser.GetLineNum());
}

TEST(StrParser, CompareLooksAtWhatComes) {
    CStrParser parser("GET /");
    EXPECT_EQ(0, parser.Compare("GET"));
    EXPECT_EQ(0, parser.Compare(""));
    EXPECT_NE(0, parser.Compare("get"));
    EXPECT_LT(parser.Compare("GEZ"), 0);
    EXPECT_GT(parser.Compare("GEA"), 0);
    EXPECT_EQ(0, parser.GetCurOffset());
}

TEST(StrParser, CompareIsMinusOneWhenTooLittleComes) {
    CStrParser parser("GE");
    EXPECT_EQ(-1, parser.Compare("GET"));
    EXPECT_EQ(-1, parser.CompareCase("GET"));
    EXPECT_EQ(-1, CStrParser("").Compare("A"));
    EXPECT_EQ(0, CStrParser("").Compare(""));
    EXPECT_EQ(0, CStrParser().CompareCase(""));
}

TEST(StrParser, CompareWithNullIsMinusOne) {
    CStrParser parser("x");
    EXPECT_EQ(-1, parser.Compare(nullptr));
    EXPECT_EQ(-1, parser.CompareCase(nullptr));
}

TEST(StrParser, CompareCaseTakesLettersOfEitherCaseAsAlike) {
    CStrParser parser("Content-LENGTH: [");
    EXPECT_EQ(0, parser.CompareCase("cOnTeNt-length"));
    EXPECT_LT(parser.CompareCase("contentz"), 0);
    parser.ConsumeUntil('[');
    EXPECT_NE(0, parser.CompareCase("{"));  // differs in the bit that tells cases apart, but is no letter
}

TEST(StrParser, CompareStopsAtANulOfTheText) {
    CStrParser parser("a\0b", 3);
    EXPECT_LT(parser.Compare("a1b"), 0);
}

TEST(StrParser, ExpectStepsOverItsByte) {
    CStrParser parser("ab");
    EXPECT_EQ(-1, parser.Expect('b'));
    EXPECT_EQ(0, parser.GetCurOffset());
    EXPECT_EQ(1, parser.Expect('a'));
    EXPECT_EQ(2, parser.Expect('b'));
    EXPECT_EQ(-1, parser.Expect('b'));
    EXPECT_EQ(2, parser.GetCurOffset());
}

TEST(StrParser, ExpectMatchesANulOfTheTextButNotItsEnd) {
    CStrParser parser("\0", 1);
    EXPECT_EQ(1, parser.Expect('\0'));
    EXPECT_EQ(-1, parser.Expect('\0'));
    EXPECT_EQ(1, parser.GetCurOffset());
}

TEST(StrParser, ExpectEolStepsOverLfAndCrLf) {
    CStrParser parser("\r\n\nx");
    EXPECT_EQ(2, parser.ExpectEOL());
    EXPECT_EQ(3, parser.ExpectEOL());
    EXPECT_EQ(-1, parser.ExpectEOL());
    EXPECT_EQ(3, parser.GetCurOffset());
}

TEST(StrParser, ExpectEolRefusesALoneCr) {
    for (const char* text : {"\rx", "\r", "\r\r\n"}) {
        CStrParser parser(text);
        EXPECT_EQ(-1, parser.ExpectEOL());
        EXPECT_EQ(0, parser.GetCurOffset());
    }
}

TEST(StrParser, ExpectEolFailsAtTheEnd) {
    CStrParser parser("");
    EXPECT_EQ(-1, parser.ExpectEOL());
    EXPECT_EQ(-1, CStrParser().ExpectEOL());
}

}  // namespace
}  // namespace Veltro::Ravelo
