#include "Debug/Debug.h"

#include <gtest/gtest.h>

#include "Core/CurrentObject.h"
#include "Support/Gate.h"
#include "Support/LogCapture.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CLogCapture;

constexpr int ERROR_LEVEL = Plinth::LOG_LEVEL_ERROR;

TEST(Debug, HasNoConsoleCommand) {
    EXPECT_FALSE(Debug::InitConsoleDebug());
}

TEST(Debug, FourFailedAttemptsAreRepeatedAndTheFifthIsTheLast) {
    CLogCapture log;
    for (int attempt = 1; attempt <= 4; ++attempt) {
        Debug::registerConsoleOnce();
        EXPECT_EQ(log.count(ERROR_LEVEL, ", InitConsoleDebug Failed! try again.\n"), attempt);
    }
    Debug::registerConsoleOnce();
    EXPECT_EQ(log.count(ERROR_LEVEL, "try again"), 4);
    EXPECT_EQ(log.count(ERROR_LEVEL, ", InitConsoleDebug Failed! Will not to able use console commands.\n"),
              1);
    Debug::registerConsoleOnce();
    Debug::registerConsoleOnce();
    EXPECT_EQ(log.allLines().size(), 5U);
}

TEST(Debug, ThreadDumpShowsNameAndObjectOfEveryReactorThread) {
    TestSupport::CGate entered;
    TestSupport::CGate leave;
    std::atomic<unsigned long> thread_id{0};
    int object = 0;
    TestSupport::CRunner runner([&] {
        CCurrentObject current;
        current.set(reinterpret_cast<CNetHandler*>(&object));  // only its address is shown
        thread_id.store(Plinth::getCurrentThreadId());
        entered.open();
        EXPECT_TRUE(leave.pass());
    });
    ASSERT_TRUE(entered.pass());
    char expected[96];
    std::snprintf(expected, sizeof expected, "thread[%lu], name[runner], object:%p\n", thread_id.load(),
                  static_cast<const void*>(&object));
    CLogCapture log;
    Debug::dumpThreads();
    EXPECT_EQ(log.count(ERROR_LEVEL, expected), 1);
    EXPECT_EQ(log.lines().size(), 1U);
    leave.open();
}

}  // namespace
}  // namespace Veltro::Ravelo
