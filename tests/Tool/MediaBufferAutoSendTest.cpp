// The timer that sends again: one for all buffers of the process.
#include "Core/NetTimer.h"
#include "Tool/MediaRig.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;

constexpr std::uint64_t HOUR_MS = 3'600'000;

/// Waits until the timer has ended, which takes the last tick after the last buffer has left.
bool waitForNoTimer() {
    return waitUntil([] { return !MediaAutoSend::isRunning(); });
}

struct MediaAutoSendTest : MediaTest {
    CMediaBuffer one;
    CMediaBuffer other;

    ~MediaAutoSendTest() override {
        one.DisableAutoSend();
        other.DisableAutoSend();
        EXPECT_TRUE(endless || waitForNoTimer());
    }
    bool endless = false;  ///< the timer goes with its pool
};

TEST_F(MediaAutoSendTest, WhatWasNotTakenIsSentByTheTimer) {
    CMediaReceiver receiver;
    one.AddSender(receiver.get());
    receiver.stall();
    put(one, packets, "late", 1);
    receiver.open();
    one.EnableAutoSend(5);
    EXPECT_TRUE(waitUntil([&] { return receiver->GetCounters().bytes_sent == 4; }));
    EXPECT_EQ("late", receiver.text());
    one.DelSender(receiver.get());
}

TEST_F(MediaAutoSendTest, TheTimerAgesTheFrames) {
    CMediaReceiver receiver;
    one.AddSender(receiver.get());
    receiver.stall();
    put(one, packets, "K", 1, 1);
    put(one, packets, "a", 1, 10);
    one.EnableAutoSend(3);
    EXPECT_TRUE(waitUntil([&] { return one.GetCounters().discarded == 1; }));
    one.DelSender(receiver.get());
}

TEST_F(MediaAutoSendTest, OneTimerServesAllBuffers) {
    CMediaReceiver first;
    CMediaReceiver second;
    one.AddSender(first.get());
    other.AddSender(second.get());
    first.stall();
    second.stall();
    put(one, packets, "1", 1);
    put(other, packets, "2", 1);
    first.open();
    second.open();
    one.EnableAutoSend(5);
    other.EnableAutoSend(HOUR_MS);  // no matter, since the timer runs
    // One that is in its tick is not armed at that moment.
    EXPECT_TRUE(waitUntil([] { return CNetTimer::armed() == 1; }));
    EXPECT_TRUE(waitUntil(
        [&] { return first->GetCounters().bytes_sent == 1 && second->GetCounters().bytes_sent == 1; }));
    one.DelSender(first.get());
    other.DelSender(second.get());
}

TEST_F(MediaAutoSendTest, ABufferIsRegisteredOnce) {
    one.EnableAutoSend(5);
    one.EnableAutoSend(5);
    one.EnableAutoSend();
    EXPECT_TRUE(MediaAutoSend::isRunning());
    one.DisableAutoSend();
    one.DisableAutoSend();
    EXPECT_TRUE(waitForNoTimer());
}

TEST_F(MediaAutoSendTest, TheTimerEndsWithItsLastBufferAndBeginsAnew) {
    for (int i = 0; i < 3; ++i) {
        one.EnableAutoSend(3);
        other.EnableAutoSend(3);
        one.DisableAutoSend();
        EXPECT_TRUE(MediaAutoSend::isRunning());
        other.DisableAutoSend();
        EXPECT_TRUE(waitForNoTimer());
    }
}

TEST_F(MediaAutoSendTest, ABufferThatComesBeforeTheLastTickKeepsTheTimer) {
    CMediaReceiver receiver;
    other.AddSender(receiver.get());
    receiver.stall();
    put(other, packets, "x", 1);
    receiver.open();
    one.EnableAutoSend(50);
    one.DisableAutoSend();
    other.EnableAutoSend(50);
    EXPECT_TRUE(waitUntil([&] { return receiver->GetCounters().bytes_sent == 1; }));
    EXPECT_TRUE(MediaAutoSend::isRunning());
    other.DelSender(receiver.get());
}

TEST_F(MediaAutoSendTest, ABufferThatIsDestroyedLeavesTheTimer) {
    for (int i = 0; i < 20; ++i) {
        CMediaBuffer buffer;
        buffer.EnableAutoSend(3);
        put(buffer, packets, "x", i % 2);
    }
    EXPECT_TRUE(waitForNoTimer());
}

TEST_F(MediaAutoSendTest, TheIntervalWithoutAnArgumentIsATenthOfASecond) {
    CMediaReceiver receiver;
    one.AddSender(receiver.get());
    receiver.stall();
    put(one, packets, "x", 1);
    receiver.open();
    const std::uint64_t start_us = Plinth::CTime::getCurrentMicroSecond();
    one.EnableAutoSend();
    EXPECT_TRUE(waitUntil([&] { return receiver->GetCounters().bytes_sent == 1; }));
    const std::uint64_t took_us = Plinth::CTime::getCurrentMicroSecond() - start_us;
    EXPECT_GE(took_us, 100'000U - static_cast<std::uint64_t>(CNetTimer::EARLY_US + CNetTimer::AHEAD_US));
    one.DelSender(receiver.get());
}

TEST_F(MediaAutoSendTest, AnIntervalBeyondAllReasonIsTaken) {
    endless = true;
    one.EnableAutoSend(UINT64_MAX);
    EXPECT_TRUE(MediaAutoSend::isRunning());
}

TEST(MediaAutoSendPools, TheTimerComesBackWithThePool) {
    CLogCapture log;
    CPackets packets;
    CMediaBuffer buffer;
    CMediaBuffer other;
    for (int i = 0; i < 2; ++i) {
        {
            const CPublicPool pool;
            buffer.EnableAutoSend(3);
        }
        // The pool has taken the timer along.
        const CPublicPool pool;
        CMediaReceiver receiver;
        buffer.AddSender(receiver.get());
        put(buffer, packets, "frame", 1);
        receiver.stall();
        put(buffer, packets, "late", 1);
        receiver.open();
        other.EnableAutoSend(3);
        EXPECT_TRUE(waitUntil([&] { return receiver->GetCounters().bytes_sent == 9; }));
        buffer.DelSender(receiver.get());
        buffer.DisableAutoSend();
        other.DisableAutoSend();
        EXPECT_TRUE(waitForNoTimer());
    }
}

}  // namespace
}  // namespace Veltro::Ravelo
