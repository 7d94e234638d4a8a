#include "Debug/Debug.h"

#include <Plinth/Component.h>
#include <gtest/gtest.h>

#include <cctype>
#include <string>
#include <vector>

#include "Core/CurrentObject.h"
#include "Core/StreamPair.h"
#include "Debug/DebugControl.h"
#include "Debug/StandInConsole.h"
#include "Debug/VersionText.h"
#include "Support/LogCapture.h"
#include "Support/Reactor.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CLogCapture;
using TestSupport::closeAndWait;
using TestSupport::CPublicPool;
using TestSupport::CStandInConsole;
using TestSupport::CTestHandler;
using TestSupport::SStreamPair;

constexpr int TRACE = Plinth::LOG_LEVEL_TRACE;
const std::string SEPARATOR = std::string(79, '-') + "\n";
const std::string BANNER = "-                             Ravelo tips                               -\n";

using Lines = std::vector<std::string>;

/// Runs one command; returns what OnConsole did.
int run(const Lines& words) {
    Lines copies = words;
    std::vector<char*> argv;
    for (std::string& word : copies) argv.push_back(word.data());
    return OnConsole(static_cast<int>(argv.size()), argv.data());
}

Lines textsOf(const CLogCapture& log) {
    Lines texts;
    for (const auto& line : log.lines()) texts.push_back(line.text);
    return texts;
}

Lines answerTo(const Lines& words) {
    CLogCapture log;
    EXPECT_EQ(run(words), 0);
    for (const auto& line : log.lines()) EXPECT_EQ(line.level, TRACE);
    return textsOf(log);
}

/// A framed message, and the unframed lines after it.
Lines framed(const std::string& message, const Lines& list = {}) {
    Lines lines = {SEPARATOR, BANNER, SEPARATOR, message, SEPARATOR};
    lines.insert(lines.end(), list.begin(), list.end());
    return lines;
}

const Lines ALL_MASKS = {"mask[0] = None\n",    "mask[1] = Read\n",      "mask[2] = Write\n",
                         "mask[4] = Except\n",  "mask[8] = Timeout\n",   "mask[16] = Dealing\n",
                         "mask[32] = Delete\n", "mask[2048] = Protect\n"};
const Lines ALL_REVENTS = {"revents[0] = VL_NOPOLL\n",           "revents[1] = VL_POLLIN\n",
                           "revents[2] = VL_POLLPRI\n",          "revents[4] = VL_POLLOUT\n",
                           "revents[8] = VL_POLLERR\n",          "revents[16] = VL_POLLHUP\n",
                           "revents[256] = VL_POLLIN_TIMEOUT\n", "revents[512] = VL_POLLOUT_TIMEOUT\n",
                           "revents[1024] = VL_POLLDEL\n"};

const std::string NO_SUCH_COMMAND =
    "command error, Please refer to the help manual to reinput it! ( rvl -h )\n";
const std::string SOCK_ERROR =
    "command error: rvl -sock <on|off|more|less|dump|-fd <value>>, reinput it! (rvl -h for help)\n";
const std::string SOCK_FD_ERROR =
    "command error: rvl -dump -fd <all|fd-list>, reinput it! (rvl -h for help)\n";
const std::string DUMP_ERROR = "command error: rvl -dump <-fd|-obj <value>>, reinput it! (rvl -h for help)\n";
const std::string MAN_ERROR = "command error: rvl -man mask|revents, reinput it! (rvl -h for help)\n";
const std::string TURN_ON =
    "Turn on socket event flow dump, please run 'rvl -sock -fd <all>|<fd-list>' to set sock event dump\n";
const std::string TURN_OFF = "Turn off socket event flow dump, reset dump rule to default\n";
const Lines THREAD_HEADER = {"----------------------- thread module info ------------------------\n"};

std::string unknownWord(const std::string& word) {
    return "command error, unknow param[" + word + "], reinput it! (rvl -h for help)\n";
}

struct SCase {
    Lines words;
    Lines answer;
};

/// Every command but the help and the version, without a reactor: nothing is registered, no thread runs.
const SCase CASES[] = {
    {{"-sock"}, framed(SOCK_ERROR)},
    {{"-sock", "on"}, framed(TURN_ON)},
    {{"-sock", "only"}, framed(TURN_ON)},
    {{"-sock", "on", "ignored"}, framed(TURN_ON)},
    {{"-sock", "off"}, framed(TURN_OFF)},
    {{"-sock", "offside"}, framed(TURN_OFF)},
    {{"-sock", "more"}, framed("Display socket event flow level 2[more]\n")},
    {{"-sock", "moreover"}, framed("Display socket event flow level 2[more]\n")},
    {{"-sock", "mid"}, framed("Display socket event flow level 1[middle]\n")},
    {{"-sock", "middle"}, framed("Display socket event flow level 1[middle]\n")},
    {{"-sock", "less"}, framed("Display socket event flow level 0[less]\n")},
    {{"-sock", "-fd", "all"}, framed("Display socket event flow. [ALL]\n")},
    {{"-sock", "-fd", "allx", "7"}, framed("Display socket event flow. [ALL]\n")},
    {{"-sock", "-fd", "5", "7"}, framed("Display socket event flow, fd: 5 7 \n")},
    {{"-sock", "-fdx", "5", "7"}, framed("Display socket event flow, fd: 5 7 \n")},
    {{"-sock", "-fd", "al"}, framed("Display socket event flow, fd: al \n")},
    {{"-sock", "-fd"}, framed(SOCK_FD_ERROR)},
    {{"-sock", "of"}, framed(unknownWord("of"))},
    {{"-sock", ""}, framed(unknownWord(""))},
    {{"-sock", "%s%n"}, framed(unknownWord("%s%n"))},
    {{"-socket", "mid"}, framed("Display socket event flow level 1[middle]\n")},
    {{"-dump"}, framed(DUMP_ERROR)},
    {{"-dump", "-fd"}, framed("Display all fd info\n")},
    {{"-dump", "-fd", "all"}, framed("Display all fd info\n")},
    {{"-dump", "-fd", "all3"}, framed("Display all fd info\n")},
    {{"-dump", "-fd", "3", "four", "5"}, framed("Display Sevent info socket: 3 four 5 \n")},
    {{"-dump", "-obj"}, framed("Display all obj info\n")},
    {{"-dump", "-obj", "all"}, framed("Display all obj info\n")},
    {{"-dump", "-obj", "-102400"}, framed("Display obj[-102400] info\n")},
    {{"-dump", "-obj", "abc"}, framed("Display obj[0] info\n")},
    {{"-dump", "-objects", "all"}, framed("Display all obj info\n")},
    {{"-dump", "fd"}, framed(unknownWord("fd"))},
    {{"-dump", "-"}, framed(unknownWord("-"))},
    {{"-thd"}, framed("Display all thread info\n", THREAD_HEADER)},
    {{"-thd", "all"}, framed("Display all thread info\n", THREAD_HEADER)},
    {{"-thd", "alle"}, framed("Display all thread info\n", THREAD_HEADER)},
    {{"-thd", "1"}, framed("Display thread[1] info\n", {THREAD_HEADER[0], "---- thread[1] not found\n"})},
    {{"-thd", "abc"}, framed("Display thread[0] info\n", {THREAD_HEADER[0], "---- thread[0] not found\n"})},
    {{"-man"}, framed(MAN_ERROR)},
    {{"-man", "mask"}, framed("Display all mask info\n", ALL_MASKS)},
    {{"-man", "mask", "all"}, framed("Display all mask info\n", ALL_MASKS)},
    {{"-man", "masked", "allx"}, framed("Display all mask info\n", ALL_MASKS)},
    {{"-man", "mask", "0"}, framed("event mask type[0] = 0|None|\n")},
    {{"-man", "mask", "3"}, framed("event mask type[3] = 3|Read|Write|\n")},
    {{"-man", "mask", "zero"}, framed("event mask type[zero] = 0|None|\n")},
    {{"-man", "mask", "-1"},
     framed("event mask type[-1] = 4294967295|Read|Write|Except|Timeout|Dealing|Delete|Protect|\n")},
    {{"-man", "revents"}, framed("Display all revents info\n", ALL_REVENTS)},
    {{"-man", "revents", "all"}, framed("Display all revents info\n", ALL_REVENTS)},
    {{"-man", "revents", "0"}, framed("revents type[0] = 0|VL_NOPOLL|\n")},
    {{"-man", "revents", "257"}, framed("revents type[257] = 257|VL_POLLIN|VL_POLLIN_TIMEOUT|\n")},
    {{"-man", "events"}, framed("Please reinput rvl -man mask|revents value for help\n")},
    {{"-man", "mas", "3"}, framed("Please reinput rvl -man mask|revents value for help\n")},
    {{""}, framed(NO_SUCH_COMMAND)},
    {{"-"}, framed(NO_SUCH_COMMAND)},
    {{"sock", "on"}, framed(NO_SUCH_COMMAND)},
    {{"-Sock", "on"}, framed(NO_SUCH_COMMAND)},
    {{"-x"}, framed(NO_SUCH_COMMAND)},
};

class OnConsoleAnswers : public testing::TestWithParam<SCase> {
protected:
    ~OnConsoleAnswers() override { CDebugControl::ResetSockDumpRule(); }
};

TEST_P(OnConsoleAnswers, WithTheseLines) {
    EXPECT_EQ(answerTo(GetParam().words), GetParam().answer);
}

/// Its number and its words, as far as a test's name may hold them.
std::string nameOf(const testing::TestParamInfo<SCase>& parameter) {
    std::string name = std::to_string(parameter.index);
    for (const std::string& word : parameter.param.words) name += "_" + word;
    for (char& c : name) {
        if (std::isalnum(static_cast<unsigned char>(c)) == 0) c = '_';
    }
    return name;
}

INSTANTIATE_TEST_SUITE_P(Every, OnConsoleAnswers, testing::ValuesIn(CASES), &nameOf);

class OnConsole : public testing::Test {
protected:
    ~OnConsole() override { CDebugControl::ResetSockDumpRule(); }
    static Lines rule(const std::string& on, const std::string& level, const std::string& socks) {
        return {"--------------------------- socket debug info ----------------------------\n",
                " sm_sock_on    = " + on + " .\n", " sm_sock_level = " + level + " .\n",
                " sm_sock_fd    = " + socks + " .\n", std::string(74, '-') + "\n"};
    }
};

const Lines HELP = {std::string(85, '-') + "\n",
                    "-                           Ravelo Debug help                                 -\n",
                    std::string(85, '-') + "\n",
                    "- rvl  -v                           Display version iformation.                     -\n",
                    "- rvl  -h                           Display help iformation.                        -\n",
                    "- rvl  -sock  on/off                Turn on/off socket event flow dump.             -\n",
                    "- rvl  -sock  more/mid/less         Dump socket event flow more/mid/less[default].  -\n",
                    "- rvl  -sock  -fd  <all>|<fd-list>  Dump socket event flow (all) or (fd in fd-list).-\n",
                    "- rvl  -sock  dump                  Display socket event flow filer condition.      -\n",
                    "- rvl  -dump  -fd  [all]            Dump SEvent all (all fd Sevent).                -\n",
                    "- rvl  -dump  -fd  <fd-list>        Dump SEvent that fd in fd-list                  -\n",
                    "- rvl  -dump  -obj [all]            Dump SEvent all, (obj-id, obj-type) only.       -\n",
                    "- rvl  -dump  -obj <obj-id>         Dump SEvent that id = obj-id                    -\n",
                    "- rvl  -thd   [all]                 Dump Ravelo thread info all               -\n",
                    "- rvl  -thd   <thread-id>           Dump Ravelo thread(thread-id)             -\n",
                    "- rvl  -man   mask [all]|<value>    Display the meaning of mask [all] or <value>    -\n",
                    "- rvl  -man   revents [all]|<value> Display the meaning of revents [all] or <value> -\n",
                    std::string(85, '-') + "\n"};

TEST_F(OnConsole, WithoutWordsShowsTheHelpAsPlainLines) {
    CLogCapture log;
    EXPECT_EQ(Ravelo::OnConsole(0, nullptr), 0);
    EXPECT_EQ(textsOf(log), HELP);
    for (const auto& line : log.lines()) EXPECT_EQ(line.level, Plinth::LOG_LEVEL_PLAIN);
}

TEST_F(OnConsole, ShowsTheHelpForEveryWordThatBeginsWithIt) {
    for (const char* word : {"-h", "-help", "-helpme"}) {
        CLogCapture log;
        EXPECT_EQ(run({word}), 0);
        EXPECT_EQ(textsOf(log), HELP);
    }
}

TEST_F(OnConsole, ShowsBuildAndVersion) {
    const Lines lines = answerTo({"-version"});
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0], SEPARATOR);
    EXPECT_TRUE(lines[1].starts_with("-           Ravelo Build:")) << lines[1];
    EXPECT_NE(lines[1].find(", Version:0.1.0             -\n"), std::string::npos) << lines[1];
    EXPECT_EQ(lines[2], SEPARATOR);
}

TEST_F(OnConsole, ABuildThatSaysNothingHasNoNameAndAnUnknownVersion) {
    // This file is compiled without the texts.
    EXPECT_STREQ(BUILD_TEXT, "");
    EXPECT_STREQ(VERSION_TEXT, "Unknown");
}

TEST_F(OnConsole, AnswersInItsOwnName) {
    CLogCapture log;
    run({"-man", "mask"});
    run({"-v"});
    for (const auto& line : log.lines()) {
        EXPECT_EQ(line.function, "OnConsole");
        EXPECT_EQ(line.file, ".\\Src\\Debug\\Debug.cpp");
    }
}

TEST_F(OnConsole, TheRuleStartsSwitchedOff) {
    EXPECT_EQ(answerTo({"-sock", "dump"}), rule("false", "less", "none"));
}

TEST_F(OnConsole, TheRuleIsWhatWasSet) {
    run({"-sock", "on"});
    run({"-sock", "mid"});
    run({"-sock", "-fd", "7", "5", "7"});
    EXPECT_EQ(answerTo({"-sock", "dump"}), rule("true", "mid", "5 7 "));
    run({"-sock", "more"});
    run({"-sock", "-fd", "all"});
    EXPECT_EQ(answerTo({"-sock", "dump"}), rule("true", "more", "all"));
}

TEST_F(OnConsole, OffResetsTheFlagForAllAndEmptiesTheSet) {
    run({"-sock", "on"});
    run({"-sock", "more"});
    run({"-sock", "-fd", "5"});
    run({"-sock", "-fd", "all"});
    run({"-sock", "off"});
    EXPECT_EQ(answerTo({"-sock", "dump"}), rule("false", "less", "none"));
}

TEST_F(OnConsole, AListTakesThePlaceOfAll) {
    run({"-sock", "-fd", "all"});
    run({"-sock", "-fd", "9"});
    EXPECT_EQ(answerTo({"-sock", "dump"}), rule("false", "less", "9 "));
}

TEST_F(OnConsole, AWordThatIsNoNumberSelectsDescriptorZero) {
    run({"-sock", "-fd", "nine"});
    EXPECT_EQ(answerTo({"-sock", "dump"}), rule("false", "less", "0 "));
}

TEST_F(OnConsole, JoinedWordsAreCutAt127Bytes) {
    Lines words = {"-sock", "-fd"};
    std::string joined;
    for (int i = 0; i < 50; ++i) {
        words.push_back(std::to_string(1000 + i));
        joined += words.back() + " ";
    }
    const std::string expected = joined.substr(0, 127);
    EXPECT_EQ(answerTo(words), framed("Display socket event flow, fd: " + expected + "\n"));
    EXPECT_EQ(answerTo({"-sock", "dump"}), rule("false", "less", expected));
    words[0] = "-dump";
    EXPECT_EQ(answerTo(words), framed("Display Sevent info socket: " + expected + "\n"));
    // What was cut from the text counts all the same.
    CDebugControl::sm_sock_on.store(true);
    EXPECT_TRUE(CDebugControl::SockDumpEnabled(1049, 0));
}

TEST_F(OnConsole, DumpsTheSocketsThatAreAskedFor) {
    const CPublicPool pool;
    auto* handler = new CTestHandler;
    SStreamPair first;
    SStreamPair second;
    ASSERT_EQ(handler->RegisterSock(first.near_end, EventMask::Read, 0), 0);
    ASSERT_EQ(handler->RegisterSock(second.near_end, EventMask::Read, 0), 0);
    const std::string fd = std::to_string(first.near_end.GetHandle());
    const std::string header =
        "------------ Dump Sock fd[" + fd + "][Veltro::TestSupport::CTestHandler] SEvent ------------\n";
    const Lines one = answerTo({"-dump", "-fd", fd});
    ASSERT_EQ(one.size(), 13U);
    EXPECT_EQ(one[3], "Display Sevent info socket: " + fd + " \n");
    EXPECT_EQ(one[5], header);
    EXPECT_EQ(answerTo({"-dump", "-fd", fd, std::to_string(second.near_end.GetHandle())}).size(), 21U);
    EXPECT_EQ(answerTo({"-dump", "-fd"}).size(), 21U);
    EXPECT_EQ(answerTo({"-dump", "-obj", std::to_string(handler->GetID())}).size(), 21U);
    EXPECT_EQ(answerTo({"-dump", "-obj", "0"}).size(), 21U);
    EXPECT_EQ(answerTo({"-dump", "-obj", std::to_string(handler->GetID() - 16)}).size(), 5U);
    handler->RemoveSock(first.near_end);
    handler->RemoveSock(second.near_end);
    closeAndWait(handler);
}

TEST_F(OnConsole, AThreadIdThatIsNoNumberMeansEveryThread) {
    const CCurrentObject current;
    const std::string line =
        "---- thread[" + std::to_string(Plinth::getCurrentThreadId()) + "], name[], module[NULL]\n";
    EXPECT_EQ(answerTo({"-thd", "abc"}), framed("Display thread[0] info\n", {THREAD_HEADER[0], line}));
}

TEST_F(OnConsole, TakesNullWordsForEmptyOnes) {
    CLogCapture log;
    char* argv[] = {nullptr};
    EXPECT_EQ(Ravelo::OnConsole(1, argv), 0);
    EXPECT_EQ(textsOf(log), framed(NO_SUCH_COMMAND));
}

TEST_F(OnConsole, AnEndlessWordIsAnsweredInPart) {
    CLogCapture log;
    EXPECT_EQ(run({"-sock", std::string(1 << 20, 'x')}), 0);
    ASSERT_EQ(log.lines().size(), 5U);
    EXPECT_LT(log.lines()[3].text.size(), 10'000U);
}

TEST(InitConsoleDebug, RegistersTheCommandWithItsHelpLine) {
    const auto console = std::make_shared<CStandInConsole>();
    Plinth::CComponentRegistry::setConsole(console);
    EXPECT_TRUE(InitConsoleDebug());
    EXPECT_EQ(console->last_name, "rvl");
    EXPECT_EQ(console->last_help, "rvl [-h]");
    CLogCapture log;
    char word[] = "-h";
    char* argv[] = {word};
    EXPECT_EQ(console->last_handler(1, argv), 0);
    EXPECT_EQ(textsOf(log), HELP);
    Plinth::CComponentRegistry::setConsole(nullptr);
}

TEST(InitConsoleDebug, FailsWithoutAConsole) {
    CLogCapture log;
    EXPECT_FALSE(InitConsoleDebug());
    ASSERT_EQ(log.allLines().size(), 1U);
    EXPECT_EQ(log.count(Plinth::LOG_LEVEL_WARNING, "Get IConsole component failed. 0x"), 1);
}

TEST(InitConsoleDebug, FailsWhenTheConsoleRefuses) {
    const auto console = std::make_shared<CStandInConsole>();
    console->accepts = false;
    Plinth::CComponentRegistry::setConsole(console);
    CLogCapture log;
    EXPECT_FALSE(InitConsoleDebug());
    ASSERT_EQ(log.allLines().size(), 1U);
    EXPECT_EQ(log.count(Plinth::LOG_LEVEL_WARNING, "Register IConsole command failed. 0x"), 1);
    Plinth::CComponentRegistry::setConsole(nullptr);
}

}  // namespace
}  // namespace Veltro::Ravelo
