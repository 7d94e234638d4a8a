#include "console/Fold.h"

#include <gtest/gtest.h>

namespace Veltro::Console {
namespace {

TEST(Fold, LeavesALineThatFits) {
    EXPECT_EQ(fold("short", 80), "short\n");
    EXPECT_EQ(fold(std::string(80, 'x'), 80), std::string(80, 'x') + "\n");
    EXPECT_EQ(fold("", 80), "\n");
}
TEST(Fold, BreaksAtABlankAndIndents) {
    EXPECT_EQ(fold("one two three", 9), "one two\n    three\n");
}
TEST(Fold, BreaksAWordThatIsTooLong) {
    EXPECT_EQ(fold("0123456789abcdef", 10), "0123456789\n    abcdef\n");
}
TEST(Fold, CutsALineOfDashes) {
    EXPECT_EQ(fold(std::string(85, '-'), 80), std::string(80, '-') + "\n");
}
TEST(Fold, DropsTheClosingDashOfAFrameThatDoesNotFit) {
    EXPECT_EQ(fold("- rvl  -h   Display help.    -", 28), "- rvl  -h   Display help.\n");
    EXPECT_EQ(fold("- rvl  -h   Display help.    -", 30), "- rvl  -h   Display help.    -\n");
}
TEST(Fold, LeavesEverythingWithoutColumns) {
    EXPECT_EQ(fold(std::string(500, 'x'), 0), std::string(500, 'x') + "\n");
}
TEST(Fold, CountsCharactersAndNotBytes) {
    EXPECT_EQ(fold("\xC3\xA4\xC3\xA4\xC3\xA4\xC3\xA4", 4), "\xC3\xA4\xC3\xA4\xC3\xA4\xC3\xA4\n");
    EXPECT_EQ(fold("\xC3\xA4\xC3\xA4\xC3\xA4", 2), "\xC3\xA4\xC3\xA4\n \xC3\xA4\n");
}
TEST(Fold, EndsForEveryWidth) {
    const std::string line = "a " + std::string(30, 'b') + "   " + std::string(30, ' ') + "cc ";
    for (std::size_t columns = 1; columns <= 80; ++columns) {
        const std::string folded = fold(line, columns);
        std::size_t start = 0;
        for (std::size_t end = 0; (end = folded.find('\n', start)) != std::string::npos; start = end + 1) {
            EXPECT_LE(end - start, columns);
        }
        EXPECT_EQ(start, folded.size());
    }
}

}  // namespace
}  // namespace Veltro::Console
