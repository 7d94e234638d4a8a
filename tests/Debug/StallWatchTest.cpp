#include "Debug/StallWatch.h"

#include <Ravelo/NetThread.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Core/CurrentObject.h"
#include "Core/NetHandlerRecord.h"
#include "Support/Gate.h"
#include "Support/LogCapture.h"
#include "Support/Reactor.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CGate;
using TestSupport::CLogCapture;
using TestSupport::closeAndWait;
using TestSupport::CPublicPool;
using TestSupport::CTestHandler;

constexpr int WARNING = Plinth::LOG_LEVEL_WARNING;
const char* const LINE = "a callback has run for ";

/// A thread, the test's own, that says which callback it is in; the clock is the test's too.
class StallWatch : public testing::Test {
protected:
    ~StallWatch() override {
        CNetThread::SetStallReport(1'000);
        current.clear();
        closeAndWait(handler);
    }
    void lookAt(std::uint64_t now_ms) { watch.look(now_ms); }
    void enter() { current.set(*handler, handler->GetID()); }
    int lines() const { return log.count(WARNING, LINE); }

    const std::uint64_t start_ms = 1'000'000;
    CStallWatch watch;
    const CPublicPool pool;
    CTestHandler* handler = new CTestHandler;
    CCurrentObject current;
    CLogCapture log;
};

TEST_F(StallWatch, ReportsACallbackOnceWithClassIdAndThread) {
    enter();
    lookAt(start_ms);
    lookAt(start_ms + 999);
    EXPECT_EQ(lines(), 0);
    lookAt(start_ms + 1'000);
    lookAt(start_ms + 10'000);
    EXPECT_EQ(lines(), 1);
    EXPECT_EQ(log.count(WARNING, std::string(LINE) +
                                     "1000 ms and goes on, obj_type:Veltro::TestSupport::CTestHandler, "
                                     "obj_id:" +
                                     std::to_string(handler->GetID()) + ", thread[" +
                                     std::to_string(Plinth::getCurrentThreadId()) + "], name[]\n"),
              1);
}

TEST_F(StallWatch, ManyShortCallbacksOfOneHandlerAreNone) {
    for (unsigned i = 0; i < 10; ++i) {
        enter();
        lookAt(start_ms + i * 500);
    }
    EXPECT_EQ(lines(), 0);
}

TEST_F(StallWatch, AThreadBetweenCallbacksIsNone) {
    enter();
    lookAt(start_ms);
    current.clear();
    lookAt(start_ms + 5'000);
    EXPECT_EQ(lines(), 0);
}

TEST_F(StallWatch, TheNextStallIsReportedAgain) {
    for (unsigned i = 0; i < 2; ++i) {
        enter();
        lookAt(start_ms + i * 5'000);
        lookAt(start_ms + i * 5'000 + 1'000);
    }
    EXPECT_EQ(lines(), 2);
}

TEST_F(StallWatch, AtMostFiveLinesAMinute) {
    for (unsigned i = 0; i < 20; ++i) {
        enter();
        lookAt(start_ms + i * 2'000);
        lookAt(start_ms + i * 2'000 + 1'000);
    }
    EXPECT_EQ(lines(), 5);
    enter();
    lookAt(start_ms + 70'000);
    lookAt(start_ms + 71'000);
    EXPECT_EQ(lines(), 6);
}

TEST_F(StallWatch, TheLimitMayBeSet) {
    CNetThread::SetStallReport(50);
    enter();
    lookAt(start_ms);
    lookAt(start_ms + 50);
    EXPECT_EQ(lines(), 1);
}

TEST_F(StallWatch, ALimitOfZeroReportsNothing) {
    CNetThread::SetStallReport(0);
    enter();
    lookAt(start_ms);
    lookAt(start_ms + 100'000);
    EXPECT_EQ(lines(), 0);
}

TEST(StallWatchOfAPool, FindsACallbackThatDoesNotEnd) {
    CNetThread::SetStallReport(200);
    const CPublicPool pool;
    auto* handler = new CTestHandler;
    CGate leave;
    handler->on_message = [&leave](long, unsigned, long) {
        EXPECT_TRUE(leave.pass());
        return 0;
    };
    CLogCapture log;
    handler->Notify(handler->GetID(), 1, 0);
    EXPECT_TRUE(log.waitFor(WARNING, "obj_id:" + std::to_string(handler->GetID())));
    EXPECT_EQ(log.count(WARNING, "], name[Ravelo0]\n"), 1);
    leave.open();
    closeAndWait(handler);
    CNetThread::SetStallReport(1'000);
}

}  // namespace
}  // namespace Veltro::Ravelo
