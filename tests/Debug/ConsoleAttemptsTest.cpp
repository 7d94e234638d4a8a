#include "Debug/ConsoleAttempts.h"

#include <Plinth/Component.h>
#include <gtest/gtest.h>

#include "Debug/StandInConsole.h"
#include "Support/LogCapture.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CLogCapture;
using TestSupport::CStandInConsole;

constexpr int ERROR_LEVEL = Plinth::LOG_LEVEL_ERROR;

TEST(ConsoleAttempts, FourFailedAttemptsAreRepeatedAndTheFifthIsTheLast) {
    CLogCapture log;
    for (int attempt = 1; attempt <= 4; ++attempt) {
        registerConsoleOnce();
        EXPECT_EQ(log.count(ERROR_LEVEL, ", InitConsoleDebug Failed! try again.\n"), attempt);
    }
    registerConsoleOnce();
    EXPECT_EQ(log.count(ERROR_LEVEL, "try again"), 4);
    EXPECT_EQ(log.count(ERROR_LEVEL, ", InitConsoleDebug Failed! Will not to able use console commands.\n"),
              1);
    registerConsoleOnce();
    registerConsoleOnce();
    EXPECT_EQ(log.count(ERROR_LEVEL, "InitConsoleDebug"), 5);
    EXPECT_EQ(log.count(Plinth::LOG_LEVEL_WARNING, "Get IConsole component failed. 0x"), 5);
    EXPECT_EQ(log.allLines().size(), 10U);
}

TEST(ConsoleAttempts, ASuccessIsLoggedAndTheLast) {
    const auto console = std::make_shared<CStandInConsole>();
    Plinth::CComponentRegistry::setConsole(console);
    CLogCapture log;
    registerConsoleOnce();
    registerConsoleOnce();
    EXPECT_EQ(log.count(ERROR_LEVEL, ", InitConsoleDebug ok! run happy.\n"), 1);
    EXPECT_EQ(log.allLines().size(), 1U);
    // "rvl", and "stat" beside it.
    EXPECT_EQ(console->registered, 2);
    EXPECT_EQ(console->last_name, "stat");
    Plinth::CComponentRegistry::setConsole(nullptr);
}

TEST(ConsoleAttempts, AConsoleThatComesBetweenTwoAttemptsIsFound) {
    CLogCapture log;
    registerConsoleOnce();
    const auto console = std::make_shared<CStandInConsole>();
    Plinth::CComponentRegistry::setConsole(console);
    registerConsoleOnce();
    EXPECT_EQ(log.count(ERROR_LEVEL, "try again"), 1);
    EXPECT_EQ(log.count(ERROR_LEVEL, "run happy"), 1);
    Plinth::CComponentRegistry::setConsole(nullptr);
}

TEST(ConsoleAttempts, AfterTheFifthFailureAConsoleComesTooLate) {
    CLogCapture log;
    for (int attempt = 1; attempt <= 5; ++attempt) registerConsoleOnce();
    const auto console = std::make_shared<CStandInConsole>();
    Plinth::CComponentRegistry::setConsole(console);
    registerConsoleOnce();
    EXPECT_EQ(console->registered, 0);
    Plinth::CComponentRegistry::setConsole(nullptr);
}

}  // namespace
}  // namespace Veltro::Ravelo
