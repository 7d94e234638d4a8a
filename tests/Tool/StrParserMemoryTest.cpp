// The text parser when memory runs out.
#include <Ravelo/StrParser.h>
#include <gtest/gtest.h>

#include <memory>

#include "Support/ScarceMemory.h"
#include "Support/SocketLayer.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CScarceMemory;

/// Calls what there is on a parser that has no text; nothing must come of it.
void expectNoText(CStrParser& parser) {
    char copy[16];
    EXPECT_EQ(nullptr, parser.GetString());
    EXPECT_EQ(0, parser.GetStringLen());
    EXPECT_EQ(0, parser.GetCurOffset());
    EXPECT_EQ('\0', parser.GetCurChar());
    EXPECT_EQ('\0', parser.CheckPrevChar());
    EXPECT_EQ(-1, parser.LocateOffset(3));
    EXPECT_EQ(-1, parser.Compare("a"));
    EXPECT_EQ(-1, parser.CompareCase("a"));
    EXPECT_EQ(-1, parser.Expect('a'));
    EXPECT_EQ(-1, parser.ExpectEOL());
    EXPECT_EQ(-1, parser.ConsumeInt64());
    EXPECT_EQ(0U, parser.ConsumeHexUint32());
    EXPECT_EQ(0, parser.ConsumeWord(copy, sizeof(copy)));
    EXPECT_EQ(0, parser.ConsumeLength(3, copy, sizeof(copy)));
    EXPECT_EQ(0, parser.ConsumeSentence("a", copy, sizeof(copy)));
    EXPECT_EQ(-1, parser.ConsumeUntil('a'));
    EXPECT_EQ(-1, parser.ConsumeUntilNextLine());
    EXPECT_EQ(-1, parser.ConsumeIpAddr(copy, sizeof(copy), nullptr));
    EXPECT_EQ(0, parser.ResetToLineHead());
    EXPECT_EQ(0, parser.GetCurLinelength());
    EXPECT_EQ(0, parser.GetLineNum());
    EXPECT_EQ(0, parser.GetLineNumWithHead(""));
    EXPECT_EQ(-1, parser.LocateString("a"));
    EXPECT_EQ(-1, parser.ReplaceInt32(1));
    EXPECT_EQ(0, parser.ReplaceLength(3, "abc"));
    EXPECT_EQ(0, parser.GetCurOffset());
}

TEST(StrParserMemory, WithoutMemoryForTheCopyTheStatusSaysSo) {
    std::unique_ptr<CStrParser> parser;
    {
        CScarceMemory scarce(1);
        parser = std::make_unique<CStrParser>("text");
    }
    EXPECT_EQ(-1, parser->GetStatus());
    expectNoText(*parser);
}

TEST(StrParserMemory, WithoutMemoryForAnythingTheStatusSaysSo) {
    std::unique_ptr<CStrParser> parser;
    {
        CScarceMemory scarce(0);
        parser = std::make_unique<CStrParser>("text", 4U);
        EXPECT_EQ(-1, parser->Attach("text"));
        EXPECT_EQ(-1, parser->Append("text"));
    }
    EXPECT_EQ(-1, parser->GetStatus());
    expectNoText(*parser);
    EXPECT_EQ(0, parser->Attach("text"));
    EXPECT_EQ(0, parser->GetStatus());
    EXPECT_STREQ("text", parser->GetString());
}

TEST(StrParserMemory, AppendGetsItsRecordWhenThereIsMemoryAgain) {
    std::unique_ptr<CStrParser> parser;
    {
        CScarceMemory scarce(0);
        parser = std::make_unique<CStrParser>();
    }
    EXPECT_EQ(4, parser->Append("text"));
    EXPECT_STREQ("text", parser->GetString());
}

TEST(StrParserMemory, AFailedAttachDropsTheFormerText) {
    CStrParser parser("former");
    parser.LocateOffset(3);
    {
        CScarceMemory scarce(0);
        EXPECT_EQ(-1, parser.Attach("latter"));
    }
    EXPECT_EQ(-1, parser.GetStatus());
    expectNoText(parser);
}

TEST(StrParserMemory, AFailedAppendLosesTheTextAndLeavesTheStatus) {
    CStrParser parser("former");
    parser.LocateOffset(3);
    {
        CScarceMemory scarce(0);
        EXPECT_EQ(-1, parser.Append("latter"));
    }
    EXPECT_EQ(0, parser.GetStatus());
    expectNoText(parser);
}

TEST(StrParserMemory, AReplacementThatCannotGrowChangesNothing) {
    CStrParser parser("1;x");
    {
        CScarceMemory scarce(0);
        EXPECT_EQ(-1, parser.ReplaceInt32(1000));
        EXPECT_EQ(1, parser.ReplaceInt32(2));
    }
    EXPECT_STREQ("2;x", parser.GetString());
}

TEST(StrParserMemory, AnUnfinishedAddressHasNoFamilyWithoutMemory) {
    char out[7];
    int family = 0;
    CStrParser parser("[1::2:3456]");
    {
        CScarceMemory scarce(0);
        EXPECT_EQ(7, parser.ConsumeIpAddr(out, sizeof(out), &family));
    }
    EXPECT_EQ(-1, family);
}

TEST(StrParserMemory, ALengthThatNoIntHoldsIsRefusedUnread) {
    CStrParser parser("former");
    EXPECT_EQ(-1, parser.Attach("x", 0xFFFFFFFFU));
    EXPECT_EQ(-1, parser.GetStatus());
    EXPECT_EQ(nullptr, parser.GetString());
}

}  // namespace
}  // namespace Veltro::Ravelo
