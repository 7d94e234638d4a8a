#include <Ravelo/StrParser.h>
#include <gtest/gtest.h>

#include <climits>
#include <string>

namespace Veltro::Ravelo {
namespace {

/// The 256 entries of a table in which some bytes are marked.
struct STable {
    unsigned char entries[256] = {};
    explicit STable(const std::string& marked) {
        for (const char c : marked) entries[static_cast<unsigned char>(c)] = 7;
    }
};

TEST(StrParserMove, ConsumeWordStopsAtTheFirstByteThatDoesNotPrint) {
    char word[16];
    CStrParser parser("GET~ /");
    EXPECT_EQ(4, parser.ConsumeWord(word, sizeof(word)));
    EXPECT_STREQ("GET~", word);
    EXPECT_EQ(' ', parser.GetCurChar());
    for (const char* text : {"a\x7f", "a\x80", "a\xff", "a\t", "a\x1f"}) {
        CStrParser other(text);
        EXPECT_EQ(1, other.ConsumeWord(nullptr, 0)) << text;
    }
}

TEST(StrParserMove, ConsumeWordAtASpaceMovesNothingAndEndsItsCopy) {
    char word[4] = "xyz";
    CStrParser parser(" a");
    EXPECT_EQ(0, parser.ConsumeWord(word, sizeof(word)));
    EXPECT_STREQ("", word);
    EXPECT_EQ(0, parser.GetCurOffset());
}

TEST(StrParserMove, ConsumeWordCrossesManyBlocksAndStopsWithinOne) {
    for (int length : {15, 16, 17, 31, 32, 33, 100}) {
        const std::string text = std::string(static_cast<std::size_t>(length), 'w') + " more text behind it";
        CStrParser parser(text.c_str());
        EXPECT_EQ(length, parser.ConsumeWord(nullptr, 0));
    }
}

TEST(StrParserMove, CopiesAreCutButResultsAreNot) {
    char copy[4];
    CStrParser parser("abcdef");
    EXPECT_EQ(6, parser.ConsumeWord(copy, sizeof(copy)));
    EXPECT_STREQ("abc", copy);
    parser.ResetAll();
    EXPECT_EQ(6, parser.ConsumeLength(6, copy, 2));
    EXPECT_STREQ("a", copy);
    parser.ResetAll();
    EXPECT_EQ(6, parser.ConsumeSentence("f", copy, sizeof(copy)));
    EXPECT_STREQ("abc", copy);
}

TEST(StrParserMove, WithoutADestinationNothingIsCopied) {
    char copy[4] = "xyz";
    CStrParser parser("ab ab ab");
    EXPECT_EQ(2, parser.ConsumeWord(nullptr, 4));
    EXPECT_EQ(3, parser.ConsumeLength(3, copy, 0));
    EXPECT_EQ(3, parser.ConsumeSentence(nullptr, nullptr, 4));
    EXPECT_STREQ("xyz", copy);
}

TEST(StrParserMove, ConsumeWhitespaceCrossesLines) {
    CStrParser parser(" \t\v\f\r\n x");
    EXPECT_EQ(7, parser.ConsumeWhitespace());
    EXPECT_EQ(0, parser.ConsumeWhitespace());
    EXPECT_EQ('x', parser.GetCurChar());
}

TEST(StrParserMove, BytesAbove127AreNoWhitespace) {
    CStrParser parser("\xa0\x85");
    EXPECT_EQ(0, parser.ConsumeWhitespace());
}

TEST(StrParserMove, ConsumeWhitespaceInLineStopsAtCrAndLf) {
    CStrParser parser(" \t\v\f\r\n");
    EXPECT_EQ(4, parser.ConsumeWhitespaceInLine());
    EXPECT_EQ('\r', parser.GetCurChar());
    EXPECT_EQ(0, parser.ConsumeWhitespaceInLine());
    CStrParser other(" \n ");
    EXPECT_EQ(1, other.ConsumeWhitespaceInLine());
    EXPECT_EQ('\n', other.GetCurChar());
}

TEST(StrParserMove, ConsumeLengthIsClampedToTheEnd) {
    char copy[8];
    CStrParser parser("a\0b", 3);
    EXPECT_EQ(2, parser.ConsumeLength(2, copy, sizeof(copy)));
    EXPECT_EQ(std::string("a\0", 3), std::string(copy, 3));
    EXPECT_EQ(1, parser.ConsumeLength(UINT_MAX, nullptr, 0));
    EXPECT_EQ(0, parser.ConsumeLength(1, copy, sizeof(copy)));
    EXPECT_STREQ("", copy);
    EXPECT_EQ(3, parser.GetCurOffset());
}

TEST(StrParserMove, ConsumeSentenceEndsBehindItsDelimiter) {
    char copy[16];
    for (const char* delims : {";", ";,", ";,.", ",.:;"}) {
        CStrParser parser("first; second");
        EXPECT_EQ(6, parser.ConsumeSentence(delims, copy, sizeof(copy))) << delims;
        EXPECT_STREQ("first", copy);
        EXPECT_EQ(6, parser.GetCurOffset());
    }
}

TEST(StrParserMove, ConsumeSentenceWithoutADelimiterRunsToTheEnd) {
    char copy[16];
    for (const char* delims : {";", ";,", ";,.", "", static_cast<const char*>(nullptr)}) {
        CStrParser parser("no end\0!", 8);
        EXPECT_EQ(8, parser.ConsumeSentence(delims, copy, sizeof(copy)));
        EXPECT_EQ(std::string("no end\0!", 9), std::string(copy, 9));
        EXPECT_EQ(8, parser.GetCurOffset());
    }
}

TEST(StrParserMove, ConsumeSentenceOfNothingCopiesNothing) {
    char copy[4] = "xyz";
    CStrParser parser(";");
    EXPECT_EQ(1, parser.ConsumeSentence(";", copy, sizeof(copy)));
    EXPECT_EQ(0, parser.ConsumeSentence(";", copy, sizeof(copy)));
    EXPECT_STREQ("xyz", copy);
}

TEST(StrParserMove, ConsumeUntilDigitStopsOnIt) {
    CStrParser parser("ab-7");
    EXPECT_EQ(3, parser.ConsumeUntilDigit());
    EXPECT_EQ('7', parser.GetCurChar());
    EXPECT_EQ(0, parser.ConsumeUntilDigit());
}

TEST(StrParserMove, ConsumeUntilDigitFailsWithoutOne) {
    CStrParser parser("a/:");
    parser.Expect('a');
    EXPECT_EQ(-1, parser.ConsumeUntilDigit());
    EXPECT_EQ(1, parser.GetCurOffset());
}

TEST(StrParserMove, ConsumeUntilHexDigitStopsOnEitherCase) {
    for (const char* text : {"xyf", "xyF", "xyA", "xya", "xy0", "xy9"}) {
        CStrParser parser(text);
        EXPECT_EQ(2, parser.ConsumeUntilHexDigit()) << text;
    }
    for (const char* text : {"g", "G", "@", "`", ":", "/"}) {
        CStrParser parser(text);
        EXPECT_EQ(-1, parser.ConsumeUntilHexDigit()) << text;
        EXPECT_EQ(0, parser.GetCurOffset());
    }
}

TEST(StrParserMove, ConsumeUntilAByteStopsOnIt) {
    CStrParser parser("key\n=\0v", 7);
    EXPECT_EQ(4, parser.ConsumeUntil('='));
    EXPECT_EQ(1, parser.ConsumeUntil('\0'));
    EXPECT_EQ(5, parser.GetCurOffset());
    EXPECT_EQ(-1, parser.ConsumeUntil('='));
    EXPECT_EQ(5, parser.GetCurOffset());
}

TEST(StrParserMove, ConsumeUntilANulDoesNotFindTheEnd) {
    CStrParser parser("abc");
    EXPECT_EQ(-1, parser.ConsumeUntil('\0'));
}

TEST(StrParserMove, ConsumeUntilATableByteStopsOnIt) {
    const STable table(";\xff");
    CStrParser parser("a\nb;\xff");
    EXPECT_EQ(3, parser.ConsumeUntil(table.entries));
    EXPECT_EQ(1, parser.Expect(';') - 3);
    EXPECT_EQ(0, parser.ConsumeUntil(table.entries));
    parser.Expect('\xff');
    EXPECT_EQ(-1, parser.ConsumeUntil(table.entries));
    EXPECT_EQ(5, parser.GetCurOffset());
}

TEST(StrParserMove, ANullTableFails) {
    const unsigned char* table = nullptr;
    CStrParser parser("a\n");
    EXPECT_EQ(-1, parser.ConsumeUntil(table));
    EXPECT_EQ(-1, parser.ConsumeUntilinLine(table));
    EXPECT_EQ(0, parser.GetCurOffset());
}

TEST(StrParserMove, ConsumeUntilinLineAByteDoesNotCrossTheLine) {
    CStrParser parser("ab\nx");
    EXPECT_EQ(-1, parser.ConsumeUntilinLine('x'));
    EXPECT_EQ(0, parser.GetCurOffset());
    EXPECT_EQ(1, parser.ConsumeUntilinLine('b'));
    EXPECT_EQ(-1, parser.ConsumeUntilinLine('q'));
    EXPECT_EQ(1, parser.GetCurOffset());
}

TEST(StrParserMove, ConsumeUntilinLineAByteFailsAtTheEnd) {
    CStrParser parser("abc");
    EXPECT_EQ(-1, parser.ConsumeUntilinLine('x'));
    EXPECT_EQ(0, parser.GetCurOffset());
}

TEST(StrParserMove, ConsumeUntilinLineALineFeedStopsOnIt) {
    CStrParser parser("ab\nx");
    EXPECT_EQ(2, parser.ConsumeUntilinLine('\n'));
}

TEST(StrParserMove, ConsumeUntilinLineFindsTheNearerOfByteAndLineFeedInEveryBlock) {
    for (int place = 0; place < 70; ++place) {
        std::string text(80, '.');
        text[static_cast<std::size_t>(place)] = ':';
        text[75] = '\n';
        CStrParser parser(text.c_str());
        EXPECT_EQ(place, parser.ConsumeUntilinLine(':'));
        if (place == 0) continue;
        text[static_cast<std::size_t>(place) - 1] = '\n';
        parser.Attach(text.c_str());
        EXPECT_EQ(-1, parser.ConsumeUntilinLine(':'));
    }
}

TEST(StrParserMove, ConsumeUntilinLineATableByteTakesTheLineFeedToo) {
    const STable table("x");
    CStrParser parser("ab\nx!");
    EXPECT_EQ(2, parser.ConsumeUntilinLine(table.entries));
    EXPECT_EQ('\n', parser.GetCurChar());
    EXPECT_EQ(0, parser.ConsumeUntilinLine(table.entries));
    parser.Expect('\n');
    EXPECT_EQ(0, parser.ConsumeUntilinLine(table.entries));
    parser.Expect('x');
    EXPECT_EQ(-1, parser.ConsumeUntilinLine(table.entries));
    EXPECT_EQ(4, parser.GetCurOffset());
}

TEST(StrParserMove, GetThruGoesBehindItsByte) {
    CStrParser parser("a:b");
    EXPECT_EQ(2, parser.GetThru(':'));
    EXPECT_EQ(2, parser.GetCurOffset());
    EXPECT_EQ(-1, parser.GetThru(':'));
    EXPECT_EQ(2, parser.GetCurOffset());
}

TEST(StrParserMove, GetThruStaysOnTheLastByteButCountsIt) {
    CStrParser parser("ab:");
    EXPECT_EQ(3, parser.GetThru(':'));
    EXPECT_EQ(2, parser.GetCurOffset());
    EXPECT_EQ(1, parser.GetThru(':'));
    EXPECT_EQ(2, parser.GetCurOffset());
}

TEST(StrParserMove, GetThruEolGoesBehindTheLineFeed) {
    CStrParser parser("a\r\nb\n");
    EXPECT_EQ(3, parser.GetThruEOL());
    EXPECT_EQ('b', parser.GetCurChar());
    EXPECT_EQ(2, parser.GetThruEOL());
    EXPECT_EQ(4, parser.GetCurOffset());
    CStrParser other("abc");
    EXPECT_EQ(-1, other.GetThruEOL());
    EXPECT_EQ(0, other.GetCurOffset());
}

TEST(StrParserMove, ConsumeUntilNextLineCountsTheBytesOfTheLine) {
    CStrParser parser("ab\r\ncd\nef");
    EXPECT_EQ(4, parser.ConsumeUntilNextLine());
    EXPECT_EQ(3, parser.ConsumeUntilNextLine());
    EXPECT_EQ(7, parser.GetCurOffset());
    EXPECT_EQ(-1, parser.ConsumeUntilNextLine());
    EXPECT_EQ(7, parser.GetCurOffset());
}

TEST(StrParserMove, ConsumeUntilNextLineStaysOnTheLastLineFeedAndReturnsTheCursor) {
    CStrParser parser("ab\ncd\n");
    EXPECT_EQ(3, parser.ConsumeUntilNextLine());
    EXPECT_EQ(5, parser.ConsumeUntilNextLine());
    EXPECT_EQ(5, parser.GetCurOffset());
    EXPECT_EQ(5, parser.ConsumeUntilNextLine());
    CStrParser alone("\n");
    EXPECT_EQ(0, alone.ConsumeUntilNextLine());
    EXPECT_EQ(0, alone.GetCurOffset());
}

TEST(StrParserMove, BehindANumberThatEndedTheTextEveryMovementIsAtTheEnd) {
    const STable table("1");
    char copy[8] = "xyz";
    CStrParser parser("1");
    ASSERT_EQ(1, parser.ConsumeInt64());
    ASSERT_EQ(2, parser.GetCurOffset());
    EXPECT_EQ(0, parser.ConsumeWord(copy, sizeof(copy)));
    EXPECT_STREQ("", copy);
    EXPECT_EQ(0, parser.ConsumeWhitespace());
    EXPECT_EQ(0, parser.ConsumeWhitespaceInLine());
    EXPECT_EQ(0, parser.ConsumeLength(3, nullptr, 0));
    EXPECT_EQ(0, parser.ConsumeSentence("1", nullptr, 0));
    EXPECT_EQ(-1, parser.ConsumeUntilDigit());
    EXPECT_EQ(-1, parser.ConsumeUntilHexDigit());
    EXPECT_EQ(-1, parser.ConsumeUntil('1'));
    EXPECT_EQ(-1, parser.ConsumeUntil('\0'));
    EXPECT_EQ(-1, parser.ConsumeUntil(table.entries));
    EXPECT_EQ(-1, parser.ConsumeUntilinLine('1'));
    EXPECT_EQ(-1, parser.ConsumeUntilinLine(table.entries));
    EXPECT_EQ(-1, parser.GetThru('\0'));
    EXPECT_EQ(-1, parser.ConsumeUntilNextLine());
    EXPECT_EQ('\0', parser.GetCurChar());
    EXPECT_EQ(-1, parser.Expect('\0'));
    EXPECT_EQ(-1, parser.ExpectEOL());
    EXPECT_EQ(2, parser.GetCurOffset());
}

}  // namespace
}  // namespace Veltro::Ravelo
