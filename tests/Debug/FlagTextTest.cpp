#include "Debug/FlagText.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace Veltro::Ravelo {
namespace {

std::string maskText(unsigned mask, int size = 128) {
    char buf[128];
    return MaskToString(mask, size, buf);
}
std::string reventsText(unsigned revents) {
    char buf[128];
    return ReventsToString(revents, sizeof buf, buf);
}

TEST(FlagText, MaskThreeIsReadAndWrite) {
    EXPECT_EQ(maskText(3), "3|Read|Write|");
}
TEST(FlagText, NoMaskBitIsNone) {
    EXPECT_EQ(maskText(0), "0|None|");
}
TEST(FlagText, EveryMaskBitHasItsNameInOrder) {
    EXPECT_EQ(maskText(0x83F), "2111|Read|Write|Except|Timeout|Dealing|Delete|Protect|");
}
TEST(FlagText, UnknownMaskBitsAreIgnored) {
    EXPECT_EQ(maskText(0x1001), "4097|Read|");
    EXPECT_EQ(maskText(0x1000), "4096|");
}
TEST(FlagText, NoReventIsNopoll) {
    EXPECT_EQ(reventsText(0), "0|VL_NOPOLL|");
}
TEST(FlagText, EveryReventHasItsNameInOrder) {
    EXPECT_EQ(reventsText(0x71F),
              "1823|VL_POLLIN|VL_POLLPRI|VL_POLLOUT|VL_POLLERR|VL_POLLHUP|VL_POLLIN_TIMEOUT|"
              "VL_POLLOUT_TIMEOUT|VL_POLLDEL|");
}
TEST(FlagText, UnknownReventsAreIgnored) {
    EXPECT_EQ(reventsText(0x1000), "4096|");
}
TEST(FlagText, ATextThatDoesNotFitIsCut) {
    for (int size = 1; size <= 14; ++size) {
        const std::string whole = "3|Read|Write|";
        EXPECT_EQ(maskText(3, size), whole.substr(0, static_cast<std::size_t>(size) - 1));
    }
}
TEST(FlagText, NothingIsWrittenBehindTheRoomGiven) {
    char buf[16];
    std::memset(buf, '#', sizeof buf);
    MaskToString(3, 8, buf);
    EXPECT_STREQ(buf, "3|Read|");
    EXPECT_EQ(buf[8], '#');
}
TEST(FlagText, TheWholeRoomIsZeroedFirst) {
    char buf[16];
    std::memset(buf, '#', sizeof buf);
    ReventsToString(1, sizeof buf, buf);
    EXPECT_EQ(buf[15], '\0');
}
TEST(FlagText, WithoutRoomTheBufferStaysUntouched) {
    char buf[4] = "abc";
    EXPECT_EQ(MaskToString(3, 0, buf), buf);
    EXPECT_EQ(ReventsToString(3, -1, buf), buf);
    EXPECT_STREQ(buf, "abc");
}
TEST(FlagText, WithoutABufferNullIsReturned) {
    EXPECT_EQ(MaskToString(3, 128, nullptr), nullptr);
    EXPECT_EQ(ReventsToString(3, 128, nullptr), nullptr);
}

}  // namespace
}  // namespace Veltro::Ravelo
