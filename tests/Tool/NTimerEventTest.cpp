// One event's states, and what is logged when a call does not fit them.
#include <Ravelo/NTimer.h>

#include <cstdio>
#include <string>

#include "Support/LogCapture.h"
#include "Support/ScarceMemory.h"
#include "Tool/TimerEvents.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;

/// How a line about an event ends.
std::string lineOf(const CNTimerEvent* event, const char* operation, const char* text) {
    char line[200];
    std::snprintf(line, sizeof line, "] this:%p tid:%d, Veltro::Ravelo::CNTimerEvent::%s : %s\n",
                  static_cast<const void*>(event), static_cast<int>(Plinth::getCurrentThreadId()), operation,
                  text);
    return line;
}

void expectOneLine(const CLogCapture& log, const std::string& text) {
    const auto lines = log.lines();
    ASSERT_EQ(1U, lines.size());
    EXPECT_EQ(Plinth::LOG_LEVEL_ERROR, lines[0].level);
    EXPECT_EQ(".\\Src\\Tool\\NTimerEvent.cpp", lines[0].file);
    EXPECT_TRUE(lines[0].text.ends_with(text)) << lines[0].text;
}

const char* const NOT_READY = "this timer event not ready for start!";
const char* const CANNOT_STOP = "Can't stop a timer event not in running state!";

/// What a death test's process does: it has a pool, a clock and an event that nobody pushed.
void inAPool(const std::function<void(CNTimer&, CTestEvent&)>& act) {
    CNetThread::CreateThreadPool(1, false);
    act(*CNTimer::Create(HOUR_US), *new CTestEvent);
}

TEST(NTimerEvent, APushedEventRestsUntilItsStart) {
    const CPublicPool pool;
    CTestClock clock;
    CTestEvent* event = clock.push();
    clock.tick();
    EXPECT_EQ(0, event->calls.load());
    event->Start();
    clock.tick();
    clock.tick();
    EXPECT_EQ(2, event->calls.load());
}

TEST(NTimerEvent, StartBeforeThePushOnlyLogs) {
    const CPublicPool pool;
    CTestClock clock;
    std::atomic<int> closed{0};
    auto* event = new CTestEvent(&closed);
    {
        CLogCapture log;
        event->Start();
        expectOneLine(log, lineOf(event, "Start", NOT_READY));
    }
    EXPECT_EQ(0, clock->PushTimerEvent(event));
    clock.tick();
    EXPECT_EQ(0, event->calls.load());
    event->Start();
    clock.tick();
    EXPECT_EQ(1, event->calls.load());
    event->Close();
    clock.tick();
    EXPECT_TRUE(waitUntil([&] { return closed.load() == 1; }));
}

TEST(NTimerEvent, AStoppedEventIsNotCalledAndMayBeStartedAgain) {
    const CPublicPool pool;
    CTestClock clock;
    CTestEvent* event = clock.pushRunning();
    clock.tick();
    event->Stop();
    clock.tick();
    EXPECT_EQ(1, event->calls.load());
    event->Start();
    clock.tick();
    EXPECT_EQ(2, event->calls.load());
}

TEST(NTimerEvent, StartAndStopOfAFittingStateLogNothing) {
    const CPublicPool pool;
    CTestClock clock;
    CTestEvent* event = clock.push();
    CLogCapture log;
    event->Start();
    event->Stop();
    event->Start();
    EXPECT_TRUE(log.lines().empty());
}

TEST(NTimerEvent, StopBeforeThePushOnlyLogs) {
    const CPublicPool pool;
    std::atomic<int> closed{0};
    auto* event = new CTestEvent(&closed);
    {
        CLogCapture log;
        event->Stop();
        expectOneLine(log, lineOf(event, "Stop", CANNOT_STOP));
    }
    event->Close();
    EXPECT_TRUE(waitUntil([&] { return closed.load() == 1; }));
}

TEST(NTimerEvent, StopBeforeTheFirstStartOnlyLogs) {
    const CPublicPool pool;
    CTestClock clock;
    CTestEvent* event = clock.push();
    {
        CLogCapture log;
        event->Stop();
        expectOneLine(log, lineOf(event, "Stop", CANNOT_STOP));
    }
    event->Start();
    clock.tick();
    EXPECT_EQ(1, event->calls.load());
}

TEST(NTimerEvent, ASecondStopOnlyLogs) {
    const CPublicPool pool;
    CTestClock clock;
    CTestEvent* event = clock.pushRunning();
    event->Stop();
    CLogCapture log;
    event->Stop();
    expectOneLine(log, lineOf(event, "Stop", CANNOT_STOP));
}

TEST(NTimerEvent, StopOfAClosedEventOnlyLogs) {
    const CPublicPool pool;
    CTestClock clock;
    CTestEvent* event = clock.pushRunning();
    event->AddRef();
    event->Close();
    {
        CLogCapture log;
        event->Stop();
        expectOneLine(log, lineOf(event, "Stop", CANNOT_STOP));
    }
    clock.tick();
    EXPECT_EQ(0, event->calls.load());
    event->DecRef();
    EXPECT_TRUE(clock.waitClosed(1));
}

TEST(NTimerEvent, CloseBeforeThePushNeedsNoClock) {
    const CPublicPool pool;
    std::atomic<int> closed{0};
    auto* event = new CTestEvent(&closed);
    event->Close();
    EXPECT_TRUE(waitUntil([&] { return closed.load() == 1; }));
}

TEST(NTimerEvent, CloseOfAPushedEventWaitsForTheClock) {
    const CPublicPool pool;
    CTestClock clock;
    CTestEvent* ready = clock.push();
    CTestEvent* running = clock.pushRunning();
    CTestEvent* stopped = clock.pushRunning();
    stopped->Stop();
    for (CTestEvent* event : {ready, running, stopped}) {
        event->AddRef();
        event->Close();
        EXPECT_EQ(0, event->calls.load());
    }
    EXPECT_EQ(0, clock.closed());
    clock.tick();
    for (CTestEvent* event : {ready, running, stopped}) {
        EXPECT_EQ(0, event->calls.load());
        event->DecRef();
    }
    EXPECT_TRUE(clock.waitClosed(3));
}

TEST(NTimerEvent, ASecondCloseChangesNothing) {
    const CPublicPool pool;
    CTestClock clock;
    CTestEvent* event = clock.pushRunning();
    event->AddRef();
    event->Close();
    event->Close();
    clock.tick();
    event->Close();
    event->DecRef();
    EXPECT_TRUE(clock.waitClosed(1));
    clock.tick();
    EXPECT_EQ(1, clock.closed());
}

TEST(NTimerEvent, ACloseBeforeThePushMayBeRepeated) {
    const CPublicPool pool;
    std::atomic<int> closed{0};
    auto* event = new CTestEvent(&closed);
    event->AddRef();
    event->Close();
    event->Close();
    event->DecRef();
    EXPECT_TRUE(waitUntil([&] { return closed.load() == 1; }));
}

TEST(NTimerEvent, TheDefaultCallbackDoesNothing) {
    struct CPlain : CNTimerEvent {
        int handle_close(CNetHandler*) override {
            delete this;
            return 0;
        }
    };
    const CPublicPool pool;
    CTestClock clock;
    auto* event = new CPlain;
    EXPECT_EQ(0, event->handle_timer_event());
    EXPECT_EQ(0, clock->PushTimerEvent(event));
    event->Start();
    clock.tick();
}

TEST(NTimerEvent, AnEventWithoutMemoryIsNeitherPushedNorStarted) {
    const CPublicPool pool;
    CTestClock clock;
    std::atomic<int> closed{0};
    CTestEvent* event = nullptr;
    {
        const CScarceMemory scarce(0);
        event = new CTestEvent(&closed);
    }
    EXPECT_EQ(-1, clock->PushTimerEvent(event));
    event->Start();
    event->Stop();
    clock.tick();
    EXPECT_EQ(0, event->calls.load());
    event->Close();
    EXPECT_TRUE(waitUntil([&] { return closed.load() == 1; }));
}

TEST(NTimerEventDeathTest, ASecondStartFailsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto act = [](CNTimer& clock, CTestEvent& event) {
        clock.PushTimerEvent(&event);
        event.Start();
        event.Start();
    };
    EXPECT_DEATH(inAPool(act), "Veltro::Ravelo::CNTimerEvent::Start : this timer event already started!");
    EXPECT_DEATH(inAPool(act), "Assertion failed: 0");
}

TEST(NTimerEventDeathTest, StartOfAClosedEventFailsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto act = [](CNTimer& clock, CTestEvent& event) {
        event.AddRef();
        clock.PushTimerEvent(&event);
        event.Close();
        event.Start();
    };
    EXPECT_DEATH(inAPool(act), "Veltro::Ravelo::CNTimerEvent::Start : this timer event already started!");
    EXPECT_DEATH(inAPool(act), "Assertion failed: 0");
}

TEST(NTimerEventDeathTest, ASecondPushFailsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto act = [](CNTimer& clock, CTestEvent& event) {
        clock.PushTimerEvent(&event);
        clock.PushTimerEvent(&event);
    };
    EXPECT_DEATH(inAPool(act),
                 "Veltro::Ravelo::CNTimerEvent::set_event_ready : this timer event already started!");
    EXPECT_DEATH(inAPool(act), "Assertion failed: 0");
}

TEST(NTimerEventDeathTest, APushOntoASecondClockFailsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(inAPool([](CNTimer& clock, CTestEvent& event) {
                     clock.PushTimerEvent(&event);
                     event.Start();
                     event.Stop();
                     CNTimer::Create(HOUR_US)->PushTimerEvent(&event);
                 }),
                 "set_event_ready : this timer event already started!");
}

TEST(NTimerEventDeathTest, APushAfterCloseFailsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(inAPool([](CNTimer& clock, CTestEvent& event) {
                     event.AddRef();
                     event.Close();
                     clock.PushTimerEvent(&event);
                 }),
                 "set_event_ready : this timer event already started!");
}

}  // namespace
}  // namespace Veltro::Ravelo
