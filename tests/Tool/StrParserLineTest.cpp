#include <Ravelo/StrParser.h>
#include <gtest/gtest.h>

#include <string>

namespace Veltro::Ravelo {
namespace {

/// A parser's cursor at an offset, the end included.
void moveTo(CStrParser& parser, int offset) {
    parser.ResetAll();
    parser.ConsumeLength(static_cast<unsigned>(offset), nullptr, 0);
}

int headFrom(const char* text, int offset) {
    CStrParser parser(text);
    moveTo(parser, offset);
    const int head = parser.ResetToLineHead();
    EXPECT_EQ(head, parser.GetCurOffset());
    return head;
}

int lengthFrom(const char* text, int offset) {
    CStrParser parser(text);
    moveTo(parser, offset);
    return parser.GetCurLinelength();
}

TEST(StrParserLine, TheHeadIsBehindThePreviousLineFeed) {
    EXPECT_EQ(3, headFrom("ab\ncde\n", 3));
    EXPECT_EQ(3, headFrom("ab\ncde\n", 5));
    EXPECT_EQ(0, headFrom("ab\ncde\n", 1));
}

TEST(StrParserLine, ALineFeedBelongsToTheLineItEnds) {
    EXPECT_EQ(0, headFrom("ab\ncde\n", 2));
    EXPECT_EQ(3, headFrom("ab\ncde\n", 6));
    EXPECT_EQ(0, headFrom("\n\n", 0));
    EXPECT_EQ(1, headFrom("\n\n", 1));
}

TEST(StrParserLine, AtTheEndBehindALineFeedTheHeadIsThatLineFeed) {
    EXPECT_EQ(2, headFrom("ab\n", 3));
    EXPECT_EQ(0, headFrom("\n", 1));
    EXPECT_EQ(3, headFrom("ab\nc", 4));
}

TEST(StrParserLine, WithoutALineFeedBeforeItTheHeadIsTheStart) {
    EXPECT_EQ(0, headFrom("abc", 3));
    EXPECT_EQ(0, headFrom("", 0));
    CStrParser nothing;
    EXPECT_EQ(0, nothing.ResetToLineHead());
}

TEST(StrParserLine, BehindANumberThatEndedTheTextTheHeadIsThatOfTheLastLine) {
    CStrParser parser("a\n42");
    parser.LocateOffset(2);
    parser.ConsumeInt64();
    ASSERT_EQ(5, parser.GetCurOffset());
    EXPECT_EQ(2, parser.GetCurLinelength());
    EXPECT_EQ(2, parser.ResetToLineHead());
}

TEST(StrParserLine, TheLengthLeavesTheLineBreakOut) {
    EXPECT_EQ(2, lengthFrom("ab\r\ncde\nf", 0));
    EXPECT_EQ(2, lengthFrom("ab\r\ncde\nf", 3));
    EXPECT_EQ(3, lengthFrom("ab\r\ncde\nf", 6));
}

TEST(StrParserLine, TheLengthOfALastLineRunsToTheEnd) {
    EXPECT_EQ(1, lengthFrom("ab\nf", 3));
    EXPECT_EQ(2, lengthFrom("ab\nf\r", 4));  // without a LF a CR is no line break
    EXPECT_EQ(0, lengthFrom("", 0));
    EXPECT_EQ(0, CStrParser().GetCurLinelength());
}

TEST(StrParserLine, TheLengthIsNeverNegative) {
    EXPECT_EQ(0, lengthFrom("ab\r\n", 4));  // the line is the LF alone, and the CR stands before it
    EXPECT_EQ(0, lengthFrom("\r\n", 2));
    EXPECT_EQ(0, lengthFrom("\n\n", 1));
}

int countFrom(const char* text, int offset, const char* head) {
    CStrParser parser(text);
    moveTo(parser, offset);
    const int count = parser.GetLineNumWithHead(head);
    EXPECT_EQ(offset, parser.GetCurOffset());
    return count;
}

TEST(StrParserLine, LinesWithAHeadAreCountedFromTheCursorOn) {
    const char* text = "a=1\r\na=2\r\nv=0\r\na=3";
    EXPECT_EQ(3, countFrom(text, 0, "a="));
    EXPECT_EQ(2, countFrom(text, 5, "a="));  // at the head of the second line
    EXPECT_EQ(1, countFrom(text, 6, "a="));  // within it
    EXPECT_EQ(1, countFrom(text, 15, "a="));
    EXPECT_EQ(0, countFrom(text, 16, "a="));
    EXPECT_EQ(0, countFrom(text, 0, "A="));
    EXPECT_EQ(1, countFrom(text, 0, "a=3"));
    EXPECT_EQ(0, countFrom(text, 0, "a=34"));
}

TEST(StrParserLine, AtOffsetOneTheFirstLineIsSkipped) {
    EXPECT_EQ(1, countFrom("ab\nab", 1, "ab"));
    EXPECT_EQ(0, countFrom("\nab", 1, "ab"));    // though the cursor stands at a head
    EXPECT_EQ(1, countFrom("\n\nab", 2, "ab"));  // as it does here
}

TEST(StrParserLine, ALineFeedOfTheFirstLineCounts) {
    EXPECT_EQ(1, countFrom("\nab", 0, "ab"));
    EXPECT_EQ(1, countFrom("\nab", 0, "\n"));
}

TEST(StrParserLine, NothingIsCountedAtTheEndOrForNull) {
    EXPECT_EQ(0, countFrom("ab\n", 3, "ab"));
    EXPECT_EQ(0, countFrom("", 0, ""));
    EXPECT_EQ(-1, countFrom("ab", 0, nullptr));
    EXPECT_EQ(-1, countFrom("", 0, nullptr));
}

TEST(StrParserLine, AnEmptyHeadCountsEveryLine) {
    EXPECT_EQ(3, countFrom("a\n\nb", 0, ""));
    EXPECT_EQ(2, countFrom("a\n\n", 0, ""));
}

TEST(StrParserLine, GetLineWithHeadCopiesTheLineAndGoesBehindIt) {
    char line[16];
    CStrParser parser("v=0\r\na=1\r\nb=2");
    EXPECT_EQ(3, parser.GetLineWithHead("a=", line, sizeof(line)));
    EXPECT_STREQ("a=1", line);
    EXPECT_EQ(10, parser.GetCurOffset());
}

TEST(StrParserLine, GetLineWithHeadTakesTheCursorsLineAtItsHeadOnly) {
    char line[16];
    CStrParser parser("a=1\na=2\na=3");
    parser.LocateOffset(4);
    EXPECT_EQ(3, parser.GetLineWithHead("a=", line, sizeof(line)));
    EXPECT_STREQ("a=2", line);
    parser.LocateOffset(5);
    EXPECT_EQ(3, parser.GetLineWithHead("a=", line, sizeof(line)));
    EXPECT_STREQ("a=3", line);
    parser.LocateOffset(1);
    EXPECT_EQ(3, parser.GetLineWithHead("a=", line, sizeof(line)));
    EXPECT_STREQ("a=2", line);
}

TEST(StrParserLine, GetLineWithHeadStaysOnTheTextsLastByte) {
    char line[16];
    CStrParser parser("x\na=1\n");
    EXPECT_EQ(3, parser.GetLineWithHead("a", line, sizeof(line)));
    EXPECT_EQ(5, parser.GetCurOffset());
    CStrParser open("x\na=1\r");
    EXPECT_EQ(4, open.GetLineWithHead("a", line, sizeof(line)));
    EXPECT_STREQ("a=1\r", line);
    EXPECT_EQ(5, open.GetCurOffset());
}

TEST(StrParserLine, GetLineWithHeadReturnsTheLinesLengthNotTheCopys) {
    char line[3];
    CStrParser parser("abcdef\n;");
    EXPECT_EQ(6, parser.GetLineWithHead("a", line, sizeof(line)));
    EXPECT_STREQ("ab", line);
}

TEST(StrParserLine, GetLineWithHeadWithoutADestinationMovesAllTheSame) {
    char line[4] = "xyz";
    CStrParser parser("abc\nabd\n;");
    EXPECT_EQ(0, parser.GetLineWithHead("ab", nullptr, 16));
    EXPECT_EQ(4, parser.GetCurOffset());
    EXPECT_EQ(0, parser.GetLineWithHead("ab", line, 0));
    EXPECT_EQ(8, parser.GetCurOffset());
    EXPECT_STREQ("xyz", line);
}

TEST(StrParserLine, GetLineWithHeadFailsWithoutSuchALine) {
    char line[4] = "xyz";
    CStrParser parser("abc\n\nabd");
    parser.LocateOffset(2);
    EXPECT_EQ(-1, parser.GetLineWithHead("b", line, sizeof(line)));
    EXPECT_EQ(-1, parser.GetLineWithHead(nullptr, line, sizeof(line)));
    EXPECT_EQ(2, parser.GetCurOffset());
    EXPECT_STREQ("xyz", line);
    EXPECT_EQ(-1, CStrParser("").GetLineWithHead("", line, sizeof(line)));
}

}  // namespace
}  // namespace Veltro::Ravelo
