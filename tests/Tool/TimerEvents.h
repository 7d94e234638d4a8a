// What tests of timer events have in common.
#pragma once

#include <Ravelo/NTimer.h>

#include "Support/Reactor.h"
#include "Tool/ToolClock.h"

namespace Veltro::TestSupport {

constexpr std::int64_t HOUR_US = 3'600'000'000;

/// Names neither timer of a clock, so that handle_timeout() takes it for a tick.
constexpr long A_TICK = 0;

/// An event made of callables. Make it with new: it deletes itself in handle_close().
class CTestEvent : public Ravelo::CNTimerEvent {
public:
    explicit CTestEvent(std::atomic<int>* closed = nullptr) : m_closed(closed) {}

    std::function<void()> on_tick;
    std::function<void()> on_close;
    std::atomic<int> calls{0};

    int handle_timer_event() override {
        calls.fetch_add(1);
        if (on_tick) on_tick();
        return -1;  // of no consequence
    }
    int handle_close(CNetHandler*) override {
        if (on_close) on_close();
        std::atomic<int>* closed = m_closed;
        delete this;
        if (closed != nullptr) closed->fetch_add(1);
        return 0;
    }

private:
    std::atomic<int>* m_closed;
};

/// A clock for the time of a scope, and the events that it ends. Declare it behind what their callbacks use.
class CTestClock {
public:
    explicit CTestClock(std::int64_t period_us = HOUR_US) : m_clock(Ravelo::CNTimer::Create(period_us)) {
        EXPECT_NE(nullptr, m_clock);
    }
    ~CTestClock() { close(); }
    CTestClock(const CTestClock&) = delete;
    CTestClock& operator=(const CTestClock&) = delete;

    Ravelo::CNTimer* operator->() const { return m_clock; }

    /// A new event on this clock.
    CTestEvent* push() {
        auto* event = new CTestEvent(&m_closed);
        EXPECT_EQ(0, m_clock->PushTimerEvent(event));
        m_pushed += 1;
        return event;
    }
    CTestEvent* pushRunning() {
        CTestEvent* event = push();
        event->Start();
        return event;
    }
    /// How many of its events have gone.
    int closed() const { return m_closed.load(); }
    bool waitClosed(int wanted) {
        return waitUntil([this, wanted] { return m_closed.load() >= wanted; }) && m_closed.load() == wanted;
    }
    std::int64_t tick() { return m_clock->handle_timeout(A_TICK); }
    /// Closes the clock; every event that it was given has gone when this returns.
    void close() {
        if (m_clock == nullptr) return;
        push();  // goes with the clock, so that its end is waited for
        m_clock->Close();
        m_clock = nullptr;
        EXPECT_TRUE(waitClosed(m_pushed));
    }

private:
    Ravelo::CNTimer* m_clock;
    int m_pushed = 0;
    std::atomic<int> m_closed{0};
};

/// A time that stands still until it is moved, for the grids of all clocks.
class CStandingTime {
public:
    CStandingTime() {
        s_now_us = 1'000'000'000;
        Ravelo::setToolClock({[] { return s_now_us.load(); }, nullptr});
    }
    ~CStandingTime() { Ravelo::setToolClock({}); }
    CStandingTime(const CStandingTime&) = delete;
    CStandingTime& operator=(const CStandingTime&) = delete;
    void move(std::int64_t by_us) { s_now_us += static_cast<std::uint64_t>(by_us); }

private:
    inline static std::atomic<std::uint64_t> s_now_us;
};

}  // namespace Veltro::TestSupport
