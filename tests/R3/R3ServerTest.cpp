#include <Ravelo/NetThread.h>
#include <Ravelo/R3Server.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "R3/R3Daemon.h"
#include "R3/Terminal.h"
#include "Support/Gate.h"
#include "Support/LogCapture.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CLogCapture;
using TestSupport::CRunner;
using TestSupport::CTerminal;

constexpr int ERROR_LEVEL = Plinth::LOG_LEVEL_ERROR;
constexpr int TRACE = Plinth::LOG_LEVEL_TRACE;

int s_command = 0;
void* const COMMAND = &s_command;

class R3Server : public testing::Test {
protected:
    ~R3Server() override { R3ServerExit(); }
};

TEST_F(R3Server, DoesNotStartWhateverTheArguments) {
    for (const char* text : {static_cast<const char*>(nullptr), "", "any text"}) {
        CLogCapture log;
        EXPECT_EQ(R3ServerStart(text != nullptr ? 0 : 65535, text, text != nullptr), -1);
        ASSERT_EQ(log.lines().size(), 1U);
        EXPECT_EQ(log.lines()[0].level, TRACE);
        EXPECT_EQ(log.lines()[0].text, "R3 has been disable.\n");
    }
}

TEST_F(R3Server, EnablingItFailsAndDisablingItEmptiesTheBox) {
    CLogCapture log;
    EXPECT_EQ(CNetThread::EnableR3(), -1);
    EXPECT_EQ(log.count(TRACE, "R3 has been disable.\n"), 1);
    EXPECT_EQ(log.count(ERROR_LEVEL, "R3ServerStart failed!!\n\n"), 1);
    EXPECT_EQ(R3Register(COMMAND, "name", "help"), 0);
    EXPECT_EQ(CNetThread::DisableR3(), 0);
    EXPECT_EQ(Ravelo::R3Server::registered(), 0U);
}

TEST_F(R3Server, RegistersAFunctionUnderAName) {
    CLogCapture log;
    EXPECT_EQ(R3Register(COMMAND, "one", "first"), 0);
    EXPECT_EQ(R3Register(COMMAND, "two", nullptr), 0);
    EXPECT_EQ(R3Register(COMMAND, "", ""), 0);
    EXPECT_EQ(Ravelo::R3Server::registered(), 3U);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(R3Server, RefusesNullFunctionsAndNamesWithoutAWord) {
    CLogCapture log;
    EXPECT_EQ(R3Register(nullptr, "name", "help"), -1);
    EXPECT_EQ(R3Register(COMMAND, nullptr, "help"), -1);
    EXPECT_EQ(Ravelo::R3Server::registered(), 0U);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(R3Server, RefusesANameThatIsTakenByAnEqualText) {
    const std::string name = "twice";
    const std::string again = "twice";
    EXPECT_EQ(R3Register(COMMAND, name.c_str(), "help"), 0);
    CLogCapture log;
    EXPECT_EQ(R3Register(COMMAND, again.c_str(), "other help"), -1);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.count(ERROR_LEVEL, ", TFuncBox::Register already exist!\n"), 1);
    EXPECT_NE(log.lines()[0].text.find("] this:"), std::string::npos);
}

TEST_F(R3Server, RefusesThe1025thFunction) {
    std::vector<std::string> names;
    for (int i = 0; i < 1025; ++i) names.push_back("name" + std::to_string(i));
    for (int i = 0; i < 1024; ++i)
        ASSERT_EQ(R3Register(COMMAND, names[static_cast<std::size_t>(i)].c_str(), ""), 0);
    CLogCapture log;
    EXPECT_EQ(R3Register(COMMAND, names[1024].c_str(), ""), -1);
    EXPECT_EQ(log.count(ERROR_LEVEL, ", CR3Daemon::Register func box full!\n"), 1);
    // A full box says so, also of a name that it holds.
    EXPECT_EQ(R3Register(COMMAND, names[0].c_str(), ""), -1);
    EXPECT_EQ(log.count(ERROR_LEVEL, "func box full!"), 2);
    EXPECT_EQ(log.lines().size(), 2U);
}

TEST_F(R3Server, ExitWithNothingRegisteredIsHarmless) {
    EXPECT_EQ(R3ServerExit(), 0);
    EXPECT_EQ(R3ServerExit(), 0);
}

TEST_F(R3Server, AfterExitTheBoxIsNewAndEmpty) {
    EXPECT_EQ(R3Register(COMMAND, "name", "help"), 0);
    EXPECT_EQ(R3ServerExit(), 0);
    EXPECT_EQ(Ravelo::R3Server::registered(), 0U);
    EXPECT_EQ(R3Register(COMMAND, "name", "help"), 0);
}

TEST_F(R3Server, PrintsNothingWithoutAServer) {
    CLogCapture log;
    R3Printf("nobody hears %d\n", 1);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(R3Server, PrintsNothingWithoutASession) {
    Ravelo::R3Server::setDaemon(std::make_shared<CR3Daemon>());
    R3Printf("nobody hears %d\n", 1);
    R3ServerExit();
}

TEST_F(R3Server, PrintsToTheCurrentSession) {
    CTerminal terminal;
    R3Printf("%s %d", "number", 7);
    EXPECT_EQ(terminal.chunks(), std::vector<std::string>{"number 7"});
}

TEST_F(R3Server, DropsATextOf4096CharactersAndAnEmptyOne) {
    CTerminal terminal;
    const std::string longest(4095, 'x');
    R3Printf("%s", (longest + "x").c_str());
    R3Printf("%s", "");
    EXPECT_TRUE(terminal.chunks().empty());
    R3Printf("%s", longest.c_str());
    EXPECT_EQ(terminal.chunks(), std::vector<std::string>{longest});
}

TEST_F(R3Server, ExitEndsTheServer) {
    CTerminal terminal;
    EXPECT_TRUE(Ravelo::R3Server::isRunning());
    EXPECT_EQ(R3ServerExit(), 0);
    EXPECT_FALSE(Ravelo::R3Server::isRunning());
    R3Printf("nobody hears\n");
    EXPECT_TRUE(terminal.chunks().empty());
}

TEST_F(R3Server, MayBeUsedByManyThreadsAtOnce) {
    CTerminal terminal;
    auto use = [] {
        for (int i = 0; i < 200; ++i) {
            R3Printf("line %d\n", i);
            R3Register(COMMAND, "the same name", "");
            if (i == 100) R3ServerExit();
        }
    };
    CLogCapture quiet;
    CRunner one(use);
    CRunner two(use);
    one.join();
    two.join();
    EXPECT_EQ(R3ServerExit(), 0);
    EXPECT_EQ(Ravelo::R3Server::registered(), 0U);
}

}  // namespace
}  // namespace Veltro::Ravelo
