#include <Ravelo/StrParser.h>
#include <gtest/gtest.h>

#include <string>

namespace Veltro::Ravelo {
namespace {

TEST(StrParserSearch, LocateStringMovesOntoTheMatch) {
    CStrParser parser("one two one");
    EXPECT_EQ(0, parser.LocateString("one"));
    parser.LocateOffset(1);
    EXPECT_EQ(8, parser.LocateString("one"));
    EXPECT_EQ(8, parser.GetCurOffset());
}

TEST(StrParserSearch, LocateStringFailsAndStays) {
    CStrParser parser("one two");
    parser.LocateOffset(4);
    for (const char* absent : {"one", "two!", "TWO", "", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(-1, parser.LocateString(absent));
        EXPECT_EQ(4, parser.GetCurOffset());
    }
    EXPECT_EQ(-1, CStrParser("").LocateString("a"));
    EXPECT_EQ(-1, CStrParser().LocateString("a"));
}

TEST(StrParserSearch, LocateStringFindsWhatEndsTheText) {
    CStrParser parser("aab");
    EXPECT_EQ(1, parser.LocateString("ab"));
    EXPECT_EQ(2, parser.LocateString("b"));
}

TEST(StrParserSearch, LocateStringCrossesNulsAndLines) {
    CStrParser parser("\0\na\0b", 5);
    EXPECT_EQ(4, parser.LocateString("b"));
}

TEST(StrParserSearch, LocateStringCaseTakesEitherCase) {
    CStrParser parser("x CoNtEnT-length");
    EXPECT_EQ(2, parser.LocateStringCase("cOntent-LENGTH"));
    parser.ResetAll();
    EXPECT_EQ(-1, parser.LocateStringCase("content_length"));
    EXPECT_EQ(-1, parser.LocateStringCase(""));
    EXPECT_EQ(-1, parser.LocateStringCase(nullptr));
    EXPECT_EQ(0, parser.GetCurOffset());
}

TEST(StrParserSearch, LocateStringCaseTakesOnlyLettersAsAlike) {
    CStrParser parser("[@^\xe4");
    for (const char* other : {"{", "`", "~", "\xc4"}) EXPECT_EQ(-1, parser.LocateStringCase(other)) << other;
}

TEST(StrParserSearch, LocateStringInLineEndsWithTheLine) {
    CStrParser parser("one two\nthree");
    EXPECT_EQ(-1, parser.LocateStringInLine("three"));
    EXPECT_EQ(-1, parser.LocateStringInLine("two\nt"));
    EXPECT_EQ(4, parser.LocateStringInLine("two"));
    EXPECT_EQ(6, parser.LocateStringInLine("o\n"));
    EXPECT_EQ(7, parser.LocateStringInLine("\n"));
    EXPECT_EQ(-1, parser.LocateStringInLine("t"));
    EXPECT_EQ(7, parser.GetCurOffset());
}

TEST(StrParserSearch, LocateStringInLineReachesTheEndOfALastLine) {
    CStrParser parser("a\nbcd");
    parser.LocateOffset(2);
    EXPECT_EQ(4, parser.LocateStringInLine("d"));
}

TEST(StrParserSearch, LocateStringInLineCaseTakesEitherCase) {
    CStrParser parser("abc\nABC");
    EXPECT_EQ(1, parser.LocateStringInLineCase("BC"));
    EXPECT_EQ(-1, parser.LocateStringInLineCase("A"));
    EXPECT_EQ(1, parser.GetCurOffset());
}

TEST(StrParserSearch, BehindANumberThatEndedTheTextNothingIsFound) {
    CStrParser parser("1");
    parser.ConsumeInt64();
    EXPECT_EQ(-1, parser.LocateString("1"));
    EXPECT_EQ(-1, parser.LocateStringCase("1"));
    EXPECT_EQ(-1, parser.LocateStringInLine("1"));
    EXPECT_EQ(-1, parser.LocateStringInLineCase("1"));
    EXPECT_EQ(2, parser.GetCurOffset());
}

unsigned char* bytes(std::string& text) {
    return reinterpret_cast<unsigned char*>(text.data());
}

TEST(StrParserSearch, MemMemFindsTheFirstOccurrence) {
    std::string hay("aab\0ab", 6);
    std::string needle("ab");
    EXPECT_EQ(bytes(hay) + 1, CStrParser::MemMem(bytes(hay), 6, bytes(needle), 2));
    EXPECT_EQ(nullptr, CStrParser::MemMem(bytes(hay), 2, bytes(needle), 2));
    EXPECT_EQ(bytes(hay), CStrParser::MemMem(bytes(hay), 6, bytes(hay), 6));
    std::string nul("\0a", 2);
    EXPECT_EQ(bytes(hay) + 3, CStrParser::MemMem(bytes(hay), 6, bytes(nul), 2));
}

TEST(StrParserSearch, MemMemCaseTakesEitherCase) {
    std::string hay("aAb");
    std::string needle("AB");
    EXPECT_EQ(bytes(hay) + 1, CStrParser::MemMemCase(bytes(hay), 3, bytes(needle), 2));
    EXPECT_EQ(nullptr, CStrParser::MemMem(bytes(hay), 3, bytes(needle), 2));
}

TEST(StrParserSearch, MemMemOfNothingIsNull) {
    std::string hay("abc");
    for (auto* find : {CStrParser::MemMem, CStrParser::MemMemCase}) {
        EXPECT_EQ(nullptr, find(nullptr, 3, bytes(hay), 1));
        EXPECT_EQ(nullptr, find(bytes(hay), 3, nullptr, 1));
        EXPECT_EQ(nullptr, find(bytes(hay), 0, bytes(hay), 1));
        EXPECT_EQ(nullptr, find(bytes(hay), -1, bytes(hay), 1));
        EXPECT_EQ(nullptr, find(bytes(hay), 3, bytes(hay), 0));
        EXPECT_EQ(nullptr, find(bytes(hay), 1, bytes(hay), 3));
    }
}

}  // namespace
}  // namespace Veltro::Ravelo
