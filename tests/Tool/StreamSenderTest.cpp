// Putting, keeping and sending, with a socket that takes what the test says.
#include <Ravelo/StreamSender.h>

#include <Ravelo/SimulatorStream.h>
#include <Ravelo/SockDgram.h>

#include <string>
#include <utility>

#include "Core/EventPool.h"
#include "Plinth/FailingAllocator.h"
#include "Support/LogCapture.h"
#include "Tool/StreamSenders.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;

struct StreamSender : ::testing::Test, SScriptedSender {
    /// Puts bytes while the socket takes none.
    std::string queue(std::size_t length_bytes) {
        std::string text = textFrom(0, length_bytes);
        EXPECT_EQ(0, sender.put(text));
        return text;
    }
};

TEST_F(StreamSender, ANewOneHoldsEightBlocksAndNothing) {
    EXPECT_EQ(8U, sender->GetBufferSize());
    const auto counters = sender->GetCounters();
    EXPECT_EQ(0U, counters.bytes_queued);
    EXPECT_EQ(CAPACITY_BYTES, counters.bytes_free);
    sender.expectQueued("");
}

TEST_F(StreamSender, ABlockThatTheSocketTakesIsNotKept) {
    script.setRoom(CScriptedSend::EVERYTHING);
    EXPECT_EQ(0, sender.put("hello"));
    EXPECT_EQ("hello", script.take());
    sender.expectQueued("");
    EXPECT_EQ(0U, sender.walk().used) << "nothing was allocated";
    EXPECT_FALSE(state().registered);
}

TEST_F(StreamSender, WhatTheSocketDoesNotTakeIsKeptAndItsRoomWaitedFor) {
    script.setRoom(3);
    EXPECT_EQ(0, sender.put("hello"));
    EXPECT_EQ("hel", script.take());
    sender.expectQueued("lo");
    EXPECT_EQ(unsigned{EventMask::Write}, state().mask);
    EXPECT_EQ(owner.id(), static_cast<long>(state().owner_id));
    EXPECT_FALSE(state().in_list) << "without a time-out";
}

TEST_F(StreamSender, TheWholeCapacityIsKeptAndNotAByteMore) {
    const std::string text = queue(CAPACITY_BYTES);
    sender.expectQueued(text);
    EXPECT_EQ(-1, sender.put("x"));
    sender.expectQueued(text);
    EXPECT_EQ(0U, sender->GetCounters().bytes_free);
}

TEST_F(StreamSender, ABlockThatDoesNotFitIsRefusedWhole) {
    std::string text = queue(CAPACITY_BYTES - 10);
    EXPECT_EQ(-1, sender.put("eleven byte"));
    sender.expectQueued(text);
    EXPECT_EQ(0, sender.put("ten bytes."));
    sender.expectQueued(text + "ten bytes.");
    EXPECT_TRUE(owner.all().empty()) << "a refusal sends no message";
}

TEST_F(StreamSender, WhileBytesAreKeptABlockIsNeverSentAtOnce) {
    queue(5);
    script.setRoom(CScriptedSend::EVERYTHING);
    EXPECT_EQ(0, sender.put("later"));
    EXPECT_EQ("", script.take());
    EXPECT_EQ(1, script.sends());
    EXPECT_EQ(10U, sender.queued());
}

TEST_F(StreamSender, BytesThatEndAtABlocksEndGoOnInANewOne) {
    std::string text = queue(BLOCK_BYTES);
    EXPECT_EQ(1U, sender.walk().used);
    EXPECT_EQ(0, sender.put("more"));
    EXPECT_EQ(2U, sender.walk().used);
    sender.expectQueued(text + "more");
}

TEST_F(StreamSender, NothingIsTakenAndDoesNothing) {
    EXPECT_EQ(0, sender->Put("", 0));
    EXPECT_EQ(0, script.sends());
    const std::string text = queue(CAPACITY_BYTES);
    EXPECT_EQ(0, sender->Put("", 0));
    sender.expectQueued(text);
    EXPECT_EQ(1U, sender->GetCounters().puts);
}

TEST_F(StreamSender, AnEventSendsAllThatIsKeptWithOneGatheredCall) {
    const std::string text = queue(5 * BLOCK_BYTES + 1);
    EXPECT_EQ(text, drain(CScriptedSend::EVERYTHING));
    EXPECT_EQ(1, script.gatheredSends());
    EXPECT_EQ(6, script.elements());
    sender.expectQueued("");
    EXPECT_FALSE(waitsForRoom());
}

TEST_F(StreamSender, AnEventThatSendsAPartWaitsForMoreRoom) {
    const std::string text = queue(2 * BLOCK_BYTES);
    EXPECT_EQ(text.substr(0, BLOCK_BYTES + 1), drain(BLOCK_BYTES + 1));
    sender.expectQueued(text.substr(BLOCK_BYTES + 1));
    EXPECT_TRUE(waitsForRoom());
}

TEST_F(StreamSender, AnEventThatSendsNothingChangesNothing) {
    const std::string text = queue(100);
    EXPECT_EQ("", drain(0));
    sender.expectQueued(text);
    EXPECT_TRUE(waitsForRoom());
}

TEST_F(StreamSender, OnceAllIsSentBlocksAreSentAtOnceAgain) {
    queue(100);
    drain(CScriptedSend::EVERYTHING);
    script.setRoom(CScriptedSend::EVERYTHING);
    EXPECT_EQ(0, sender.put("again"));
    EXPECT_EQ("again", script.take());
}

TEST_F(StreamSender, ReadingGoesOnWhenAllIsSent) {
    owner.handler()->RegisterSock(stream, EventMask::Read, 0);
    queue(100);
    EXPECT_EQ(unsigned{EventMask::Read | EventMask::Write}, state().mask);
    drain(CScriptedSend::EVERYTHING);
    EXPECT_EQ(unsigned{EventMask::Read}, state().mask);
    EXPECT_EQ(0, owner.handler()->RemoveSock(stream));
}

TEST_F(StreamSender, KeepingBytesEndsTheSocketsTimeOut) {
    owner.handler()->RegisterSock(stream, EventMask::Read, 60'000'000);
    EXPECT_TRUE(state().in_list);
    queue(100);
    EXPECT_FALSE(state().in_list);
    EXPECT_EQ(0, owner.handler()->RemoveSock(stream));
}

TEST_F(StreamSender, AnEventWithoutASocketFails) {
    const CTestSender idle;
    EXPECT_EQ(-1, idle->handle_output(fd()));
}

TEST_F(StreamSender, AnEventWithNothingKeptWithdrawsTheInterest) {
    owner.handler()->RegisterSock(stream, EventMask::Read | EventMask::Write, 0);
    EXPECT_EQ(0, output());
    EXPECT_EQ(0, script.gatheredSends());
    EXPECT_EQ(unsigned{EventMask::Read}, state().mask);
    EXPECT_EQ(0, owner.handler()->RemoveSock(stream));
}

TEST_F(StreamSender, ABlockThatCannotBeSentIsRefusedAndTheRegistrationStays) {
    owner.handler()->RegisterSock(stream, EventMask::Read, 0);
    script.setFailing(true);
    CLogCapture log;
    EXPECT_EQ(-1, sender.put("hello"));
    sender.expectQueued("");
    EXPECT_EQ(unsigned{EventMask::Read}, state().mask);
    EXPECT_EQ(1, log.count(2, "Send : send failed! buf["));
    EXPECT_EQ((std::vector{message(NOTIFY_STREAM_EXCEPTION, 0)}), owner.all());
    EXPECT_EQ(0, owner.handler()->RemoveSock(stream));
}

TEST_F(StreamSender, AFailureWhileKeptBytesAreSentRemovesTheSocketAndKeepsThem) {
    owner.handler()->RegisterSock(stream, EventMask::Read, 0);
    const std::string text = queue(100);
    script.setFailing(true);
    CLogCapture log;
    EXPECT_EQ(0, output());
    EXPECT_FALSE(state().registered);
    sender.expectQueued(text);
    EXPECT_EQ(1, log.count(2, "WriteV : send failed! iovec["));
    EXPECT_EQ((std::vector{message(NOTIFY_STREAM_EXCEPTION, 0)}), owner.all());
    // It goes on keeping, until the owner ends it or drops what is kept.
    EXPECT_EQ(0, sender.put("more"));
    EXPECT_EQ(0, sender->Clear());
    sender.expectQueued("");
}

TEST_F(StreamSender, AFailureIsLoggedWithThePlaceAndTheSocket) {
    script.setFailing(true);
    CLogCapture log;
    EXPECT_EQ(-1, sender.put("hello"));
    const auto lines = log.lines();
    ASSERT_EQ(2U, lines.size());
    const auto& line = lines.back();
    EXPECT_EQ(2, line.level);
    EXPECT_EQ(".\\Src\\Tool\\StreamSender.cpp", line.file);
    EXPECT_EQ("CStreamSender::report_exception", line.function);
    char text[300];
    std::snprintf(
        text, sizeof text,
        "[.\\Src\\Tool\\StreamSender.cpp:%d] this:%p tid:%d, "
        "Veltro::Ravelo::CStreamSender::report_exception on line:%d CStreamSender socket exception! "
        "fd: %d\n",
        line.number, static_cast<void*>(sender.get()), static_cast<int>(Plinth::getCurrentThreadId()),
        line.number, fd());
    EXPECT_EQ(text, line.text);
}

TEST_F(StreamSender, AFailureThatNobodyWaitsForIsNotReported) {
    sender->WaitException(0);
    script.setFailing(true);
    CLogCapture log;
    EXPECT_EQ(-1, sender.put("hello"));
    EXPECT_EQ(0, log.count(2, "CStreamSender socket exception!"));
    EXPECT_TRUE(owner.all().empty());
}

TEST_F(StreamSender, ADeadSocketFailsLikeOneThatBroke) {
    CSockStream dead;
    EXPECT_EQ(0, sender->Attach(owner.handler(), &dead));
    CLogCapture log;
    EXPECT_EQ(-1, sender.put("hello"));
    EXPECT_EQ(1, log.count(2, "CStreamSender socket exception! fd: -1\n"));
    EXPECT_EQ(&dead, sender->Detach());
    EXPECT_EQ(0, sender->Attach(owner.handler(), &stream));
}

TEST_F(StreamSender, AClosedOwnerCannotWaitForRoom) {
    auto* closed = new CTestHandler;
    closed->AddRef();
    closed->Close();
    EXPECT_EQ(0, sender->Attach(closed, &stream));
    script.setRoom(2);
    EXPECT_EQ(-1, sender.put("hello"));
    EXPECT_EQ("he", script.take());
    EXPECT_EQ((std::vector{message(NOTIFY_STREAM_EXCEPTION, 0)}), owner.all());
    EXPECT_EQ(0, sender->Attach(owner.handler(), &stream));
    closed->DecRef();
}

TEST_F(StreamSender, DetachGivesTheSocketAndKeepsTheBytes) {
    const std::string text = queue(100);
    EXPECT_EQ(&stream, sender->Detach());
    EXPECT_FALSE(state().registered) << "nobody reads from it";
    sender.expectQueued(text);
    EXPECT_EQ(&stream, sender->Detach());
}

TEST_F(StreamSender, DetachLeavesReadingAlone) {
    owner.handler()->RegisterSock(stream, EventMask::Read, 0);
    queue(100);
    EXPECT_EQ(&stream, sender->Detach());
    EXPECT_EQ(unsigned{EventMask::Read}, state().mask);
    EXPECT_EQ(0, owner.handler()->RemoveSock(stream));
}

TEST_F(StreamSender, DetachWithoutASocketGivesNone) {
    const CTestSender idle;
    EXPECT_EQ(nullptr, idle->Detach());
}

TEST_F(StreamSender, ANewSocketGetsWhatWasKeptOnceItsRoomIsWaitedFor) {
    const std::string text = queue(100);
    SSocketPair pair;
    EXPECT_EQ(&stream, sender->Detach());
    EXPECT_EQ(0, sender->Attach(owner.handler(), &pair.client));
    EXPECT_FALSE(sockState(pair.client.GetHandle()).registered);
    owner.handler()->on_output = [this](int handle) { return sender->handle_output(handle); };
    EXPECT_EQ(0, owner.handler()->RegisterSock(pair.client, EventMask::Write, 0));
    EXPECT_EQ(text, receive(pair.server, text.size()));
    EXPECT_TRUE(waitUntil([this] { return sender.queued() == 0; }));
    EXPECT_EQ(&pair.client, sender->Detach());
    EXPECT_EQ(0, sender->Attach(owner.handler(), &stream));
}

TEST_F(StreamSender, AttachToNothingChangesNothing) {
    EXPECT_EQ(-1, sender->Attach(nullptr, &stream));
    EXPECT_EQ(-1, sender->Attach(owner.handler(), nullptr));
    EXPECT_EQ(&stream, sender->Detach());
}

TEST_F(StreamSender, TheCapacityNeverShrinks) {
    EXPECT_EQ(0, sender->SetBufferSize(4));
    EXPECT_EQ(8U, sender->GetBufferSize());
    EXPECT_EQ(0, sender->SetBufferSize(0));
    EXPECT_EQ(8U, sender->GetBufferSize());
    queue(4 * BLOCK_BYTES);
    EXPECT_EQ(0, sender->SetBufferSize(4)) << "as much as is queued";
}

TEST_F(StreamSender, AGreaterCapacityKeepsMore) {
    std::string text = queue(CAPACITY_BYTES);
    EXPECT_EQ(0, sender->SetBufferSize(20));
    EXPECT_EQ(20U, sender->GetBufferSize());
    const std::string more = textFrom(text.size(), 12 * BLOCK_BYTES);
    EXPECT_EQ(0, sender.put(more));
    EXPECT_EQ(-1, sender.put("x"));
    EXPECT_EQ(text + more, drain(CScriptedSend::EVERYTHING));
    EXPECT_EQ(20, script.elements());
}

TEST_F(StreamSender, ACapacityBeyondAnIntIsRefused) {
    EXPECT_EQ(-1, sender->SetBufferSize(65'536));
    EXPECT_EQ(-1, sender->SetBufferSize(0xFFFFFFFF));
    EXPECT_EQ(8U, sender->GetBufferSize());
    EXPECT_EQ(0, sender->SetBufferSize(65'535));
    EXPECT_EQ(0x7FFF8000U, sender->GetCounters().bytes_free);
}

TEST_F(StreamSender, ClearDropsWhatIsKeptAndLeavesTheRegistration) {
    queue(3 * BLOCK_BYTES);
    EXPECT_EQ(0, sender->Clear());
    sender.expectQueued("");
    EXPECT_TRUE(waitsForRoom());
    EXPECT_EQ("", drain(CScriptedSend::EVERYTHING));
    EXPECT_FALSE(waitsForRoom());
    EXPECT_EQ(0, script.gatheredSends());
}

TEST_F(StreamSender, ClearOfNothingDoesNothing) {
    EXPECT_EQ(0, sender->Clear());
    sender.expectQueued("");
}

TEST_F(StreamSender, CountersAddUp) {
    script.setRoom(10);
    EXPECT_EQ(0, sender.put("fifteen bytes!!"));
    EXPECT_EQ(0, sender.put("more"));
    EXPECT_EQ(-1, sender.put(std::string(CAPACITY_BYTES - 8, 'x')));
    drain(2);
    auto counters = sender->GetCounters();
    EXPECT_EQ(2U, counters.puts);
    EXPECT_EQ(1U, counters.refused_puts);
    EXPECT_EQ(19U, counters.bytes_taken);
    EXPECT_EQ(12U, counters.bytes_sent);
    EXPECT_EQ(7U, counters.bytes_queued);
    EXPECT_EQ(CAPACITY_BYTES - 7, counters.bytes_free);
    EXPECT_EQ(0U, counters.bytes_cleared);
    sender->Clear();
    counters = sender->GetCounters();
    EXPECT_EQ(7U, counters.bytes_cleared);
    EXPECT_EQ(0U, counters.bytes_queued);
    EXPECT_EQ(12U, counters.bytes_sent);
}

TEST_F(StreamSender, ASocketThatFailsIsNoRefusal) {
    script.setFailing(true);
    CLogCapture log;
    EXPECT_EQ(-1, sender.put("hello"));
    EXPECT_EQ(0U, sender->GetCounters().refused_puts);
    EXPECT_EQ(0U, sender->GetCounters().bytes_taken);
}

TEST_F(StreamSender, TheTimeWithBytesQueuedIsCounted) {
    const auto now_us = [] { return Plinth::CTime::getCurrentMicroSecond(); };
    EXPECT_EQ(0U, sender->GetCounters().stalled_us);
    const std::uint64_t before_us = now_us();
    queue(100);
    const std::uint64_t begun_us = now_us();
    Plinth::sleepMilliSecond(2);
    const std::uint64_t half_us = now_us();
    EXPECT_GE(sender->GetCounters().stalled_us, half_us - begun_us);
    sender.put("more");
    drain(50);
    const std::uint64_t last_us = now_us();
    drain(CScriptedSend::EVERYTHING);
    const std::uint64_t stalled_us = sender->GetCounters().stalled_us;
    EXPECT_GE(stalled_us, last_us - begun_us);
    EXPECT_LE(stalled_us, now_us() - before_us);
    Plinth::sleepMilliSecond(2);
    EXPECT_EQ(stalled_us, sender->GetCounters().stalled_us) << "nothing is queued";
    queue(1);
    sender->Clear();
    const std::uint64_t cleared_us = sender->GetCounters().stalled_us;
    Plinth::sleepMilliSecond(2);
    EXPECT_EQ(cleared_us, sender->GetCounters().stalled_us);
}

TEST_F(StreamSender, CreateWithoutMemoryGivesNull) {
    const long before = sender.id();
    int failures = 0;
    for (int allocations = 0;; ++allocations) {
        CStreamSender* made = nullptr;
        {
            const CFailingAllocator few(allocations);
            made = CStreamSender::Create();
        }
        if (made != nullptr) {
            EXPECT_NE(before, made->GetID());
            made->Close();
            break;
        }
        failures += 1;
    }
    EXPECT_GE(failures, 4) << "the record, its list of elements, the sender, the handler's record";
}

TEST_F(StreamSender, WithoutMemoryABlockIsRefusedWhileBytesAreKept) {
    std::string text = queue(BLOCK_BYTES);
    {
        const CFailingAllocator none;
        EXPECT_EQ(-1, sender->Put("x", 1));
    }
    sender.expectQueued(text);
    EXPECT_EQ(1U, sender->GetCounters().refused_puts);
    EXPECT_TRUE(owner.all().empty());
    EXPECT_EQ(0, sender.put("x"));
}

TEST_F(StreamSender, WithoutMemoryForTheRestOfABlockTheStreamHasFailed) {
    script.setRoom(2);
    sender->WaitException(0);  // whose line would come last
    CLastLine line;
    {
        // The two bytes that the script takes fit a string as it is.
        const CFailingAllocator none;
        EXPECT_EQ(-1, sender->Put("hello", 5));
    }
    EXPECT_TRUE(line.text().ends_with(
        "Veltro::Ravelo::CStreamSender::Put : no memory for the rest of a block, len:5, sent:2\n"))
        << line.text();
    EXPECT_EQ("he", script.take());
    sender.expectQueued("");
    EXPECT_EQ(2U, sender->GetCounters().bytes_taken);
    EXPECT_EQ(0U, sender->GetCounters().refused_puts);
}

TEST_F(StreamSender, WithoutMemoryForTheRestOfABlockTheFailureIsReported) {
    script.setRoom(2);
    // The message's record is one of those that are free already.
    CEventPool::put(CEventPool::get(EVENT_KEY_MESSAGE));
    {
        CLastLine line;
        const CFailingAllocator none;
        EXPECT_EQ(-1, sender->Put("hello", 5));
    }
    EXPECT_EQ((std::vector{message(NOTIFY_STREAM_EXCEPTION, 0)}), owner.all());
}

TEST_F(StreamSender, WithoutMemoryTheCapacityStays) {
    {
        const CFailingAllocator none;
        EXPECT_EQ(-1, sender->SetBufferSize(9));
    }
    EXPECT_EQ(8U, sender->GetBufferSize());
}

TEST_F(StreamSender, ALimitedStreamIsSentOn) {
    CSimulatorStream limited;
    limited.SetRealSocket(&stream);
    EXPECT_EQ(0, sender->Attach(owner.handler(), &limited));
    script.setRoom(CScriptedSend::EVERYTHING);
    EXPECT_EQ(0, sender.put("hello")) << "nothing passes";
    sender.expectQueued("hello");
    limited.SetBandWidth(1);
    EXPECT_EQ(0, output());
    EXPECT_EQ("hello", script.take());
    EXPECT_FALSE(waitsForRoom());
    EXPECT_EQ(&limited, sender->Detach());
    EXPECT_EQ(0, sender->Attach(owner.handler(), &stream));
}

TEST_F(StreamSender, CloseLosesWhatIsKept) {
    queue(CAPACITY_BYTES);
    sender.close();
    EXPECT_EQ("", script.take());
    EXPECT_FALSE(state().registered);
}

/// What a death test's process does: it has a pool, a sender and a socket.
void inAPool(const std::function<void(CStreamSender&, CTestHandler&, CSockStream&)>& act) {
    CNetThread::CreateThreadPool(1, false);
    SListener listener;
    CSockStream stream;
    stream.Attach(listener.acceptor.Detach());
    CScriptedSend script(stream.GetHandle());
    auto* owner = new CTestHandler;
    CStreamSender* sender = CStreamSender::Create();
    sender->Attach(owner, &stream);
    act(*sender, *owner, stream);
}

TEST(StreamSenderDeathTest, ANullBlockFailsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(inAPool([](auto& sender, auto&, auto&) { sender.Put(nullptr, 0); }),
                 "Assertion failed: buf != NULL && len <= BUF_SIZE");
}

TEST(StreamSenderDeathTest, ABlockAboveTheCapacityFailsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(inAPool([](auto& sender, auto&, auto&) {
                     const std::string text(CAPACITY_BYTES + 1, 'x');
                     sender.Put(text.data(), CAPACITY_BYTES + 1);
                 }),
                 "Assertion failed: buf != NULL && len <= BUF_SIZE");
}

TEST(StreamSenderDeathTest, ABlockWithoutASocketFailsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(inAPool([](auto&, auto&, auto&) { CStreamSender::Create()->Put("x", 1); }),
                 "Assertion failed: m_stream != NULL");
}

TEST(StreamSenderDeathTest, AnEventOfAnotherSocketFailsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        inAPool([](auto& sender, auto&, auto& stream) { sender.handle_output(stream.GetHandle() + 1); }),
        "Assertion failed: handle == m_stream->GetHandle\\(\\)");
}

TEST(StreamSenderDeathTest, ASocketThatIsNoStreamFailsAnAssertionWhenItIsSentOn) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto put_on = [](CSock& sock) {
        inAPool([&sock](auto& sender, auto& owner, auto&) {
            sender.Attach(&owner, &sock);
            sender.Put("x", 1);
        });
    };
    CSockDgram dgram;
    CSockAcceptor acceptor;
    CSock unknown;
    EXPECT_DEATH(put_on(dgram), "Assertion failed: SockWrite::isStream\\(m_internal->m_stream_type\\)");
    EXPECT_DEATH(put_on(acceptor), "Assertion failed: SockWrite::isStream");
    EXPECT_DEATH(put_on(unknown), "Assertion failed: SockWrite::isStream");
    EXPECT_DEATH(inAPool([&dgram](auto& sender, auto& owner, auto&) {
                     sender.Put("x", 1);
                     sender.Attach(&owner, &dgram);
                     sender.handle_output(dgram.GetHandle());
                 }),
                 "Assertion failed: SockWrite::isStream");
}

TEST(StreamSenderDeathTest, ACapacityBelowWhatIsKeptIsLoggedAndFailsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto shrink = [](auto& sender, auto&, auto&) {
        const std::string text(BLOCK_BYTES + 1, 'x');
        sender.Put(text.data(), BLOCK_BYTES + 1);
        sender.SetBufferSize(1);
    };
    EXPECT_DEATH(inAPool(shrink),
                 "Veltro::Ravelo::CStreamSender::SetBufferSize buf size:32768 smaller than data len:32769!");
    EXPECT_DEATH(inAPool(shrink), "Assertion failed: 0");
}

TEST(StreamSenderDeathTest, ASenderNeedsAPool) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(CStreamSender::Create(), "Can't find the thread pool 0, create thread pool first!");
}

}  // namespace
}  // namespace Veltro::Ravelo
