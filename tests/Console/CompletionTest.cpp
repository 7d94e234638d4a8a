#include "console/Completion.h"

#include <gtest/gtest.h>

namespace Veltro::Console {
namespace {

using Words = std::vector<std::string>;
const Words COMMANDS = {"rvl", "rings", "help"};

TEST(Completion, AnEmptyLineMayBecomeEveryCommand) {
    EXPECT_EQ(complete(COMMANDS, ""), (Words{"help", "rings", "rvl"}));
}
TEST(Completion, AWordMayBecomeWhatItBegins) {
    EXPECT_EQ(complete(COMMANDS, "r"), (Words{"rings", "rvl"}));
    EXPECT_EQ(complete(COMMANDS, "rv"), Words{"rvl"});
    EXPECT_EQ(complete(COMMANDS, "x"), Words{});
}
TEST(Completion, KnowsTheWordsOfRvl) {
    EXPECT_EQ(complete(COMMANDS, "rvl "), (Words{"-dump", "-h", "-man", "-sock", "-thd", "-v"}));
    EXPECT_EQ(complete(COMMANDS, "rvl -sock o"), (Words{"off", "on"}));
    EXPECT_EQ(complete(COMMANDS, "rvl   -dump  -fd "), Words{"all"});
    EXPECT_EQ(complete(COMMANDS, "rvl -man r"), Words{"revents"});
}
TEST(Completion, KnowsTheWordsOfStat) {
    EXPECT_EQ(complete(COMMANDS, "stat m"), (Words{"memory", "messages"}));
    EXPECT_EQ(complete(COMMANDS, "stat se"), Words{"senders"});
    EXPECT_EQ(complete(COMMANDS, "stat b"), Words{"buffers"});
    EXPECT_EQ(complete(COMMANDS, "stat times o"), (Words{"off", "on"}));
}
TEST(Completion, KnowsNothingOfOtherCommandsWords) {
    EXPECT_EQ(complete(COMMANDS, "rings "), Words{});
    EXPECT_EQ(complete(COMMANDS, "rvl -v "), Words{});
}
TEST(Completion, TheCommonStartIsWhatAllBeginWith) {
    EXPECT_EQ(commonStart({}), "");
    EXPECT_EQ(commonStart({"mask"}), "mask");
    EXPECT_EQ(commonStart({"more", "mid", "m"}), "m");
    EXPECT_EQ(commonStart({"on", "less"}), "");
}

}  // namespace
}  // namespace Veltro::Console
