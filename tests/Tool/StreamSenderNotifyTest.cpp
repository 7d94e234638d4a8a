// Who is told what, and when.
#include <Ravelo/StreamSender.h>

#include <climits>
#include <string>
#include <vector>

#include "Plinth/FailingAllocator.h"
#include "Support/LogCapture.h"
#include "Tool/StreamSenders.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;

using Messages = std::vector<CMailbox::SMessage>;

struct StreamSenderNotify : ::testing::Test, SScriptedSender {
    void queue(std::size_t length_bytes) { EXPECT_EQ(0, sender.put(std::string(length_bytes, 'q'))); }
    CMailbox::SMessage free(std::uint32_t bytes) const {
        return message(NOTIFY_BUFFER_FREE, static_cast<long>(bytes));
    }
    CMailbox::SMessage finish() const { return message(NOTIFY_SEND_FINISH, 0); }
    /// Sends bytes; which handlers get a message each for that, in the order in which they get it.
    std::vector<long> whoIsTold(const std::vector<CMailbox*>& boxes, std::size_t room_bytes) {
        std::vector<long> order;  // by the pool's one worker, until the last one is in
        std::atomic<std::size_t> count{0};
        for (CMailbox* box : boxes) {
            box->handler()->on_message = [&, id = box->id()](long, unsigned, long) {
                order.push_back(id);
                count += 1;
                return 0;
            };
        }
        drain(room_bytes);
        EXPECT_TRUE(waitUntil([&] { return count == boxes.size(); }));
        return order;
    }
};

TEST_F(StreamSenderNotify, TheTypesHaveTheirNumbers) {
    EXPECT_EQ(2U, NOTIFY_STREAM_EXCEPTION);
    EXPECT_EQ(4U, NOTIFY_BUFFER_FREE);
    EXPECT_EQ(9U, NOTIFY_SEND_FINISH);
}

TEST_F(StreamSenderNotify, ASizeThatIsFreeIsToldAtOnceWithTheFreeBytes) {
    queue(100);
    sender->WaitBufferSize(owner.id(), 10);
    EXPECT_EQ(Messages{free(CAPACITY_BYTES - 100)}, owner.all());
}

TEST_F(StreamSenderNotify, ASizeOfAllThatIsFreeIsToldAtOnce) {
    sender->WaitBufferSize(owner.id(), CAPACITY_BYTES);
    EXPECT_EQ(Messages{free(CAPACITY_BYTES)}, owner.all());
}

TEST_F(StreamSenderNotify, ASizeIsToldOnceItIsFreeToTheByte) {
    queue(CAPACITY_BYTES);
    sender->WaitBufferSize(owner.id(), 1000);
    drain(999);
    EXPECT_EQ(Messages{}, owner.all());
    drain(1);
    EXPECT_EQ(Messages{free(1000)}, owner.all());
}

TEST_F(StreamSenderNotify, AnAnsweredWaitIsNotAnsweredAgainUntilItIsAskedFor) {
    queue(CAPACITY_BYTES);
    sender->WaitBufferSize(owner.id(), 10);
    drain(10);
    drain(10);
    sender->WaitSendFinish(-1);
    EXPECT_EQ(Messages{free(10)}, owner.all());
    sender->WaitBufferSize(owner.id(), 20);
    EXPECT_EQ(Messages{free(20)}, owner.all());
}

TEST_F(StreamSenderNotify, WaitingAgainReplacesTheSize) {
    queue(CAPACITY_BYTES);
    sender->WaitBufferSize(owner.id(), 10);
    sender->WaitBufferSize(owner.id(), 20);
    drain(10);
    EXPECT_EQ(Messages{}, owner.all());
    drain(10);
    EXPECT_EQ(Messages{free(20)}, owner.all());
}

TEST_F(StreamSenderNotify, ASizeOfZeroTakesAWaitBack) {
    queue(CAPACITY_BYTES);
    sender->WaitBufferSize(owner.id(), 10);
    sender->WaitBufferSize(owner.id(), 0);
    drain(CScriptedSend::EVERYTHING);
    EXPECT_EQ(Messages{}, owner.all());
}

TEST_F(StreamSenderNotify, ASizeBeyondAnIntWaitsForNothing) {
    sender->WaitBufferSize(owner.id(), static_cast<unsigned>(INT_MAX) + 1);
    sender->WaitBufferSize(owner.id(), UINT_MAX);
    EXPECT_EQ(Messages{}, owner.all());
}

TEST_F(StreamSenderNotify, ASizeAboveTheCapacityWaitsForAGreaterOne) {
    sender->WaitBufferSize(owner.id(), CAPACITY_BYTES + 1);
    EXPECT_EQ(Messages{}, owner.all());
    sender->SetBufferSize(9);
    EXPECT_EQ(Messages{free(9 * BLOCK_BYTES)}, owner.all());
}

TEST_F(StreamSenderNotify, HandlersAreToldInTheOrderOfTheirIds) {
    CMailbox second;
    CMailbox third;
    queue(CAPACITY_BYTES);
    for (const CMailbox* box : {&second, &owner, &third}) sender->WaitBufferSize(box->id(), 5);
    const auto told = whoIsTold({&owner, &second, &third}, 5);
    EXPECT_EQ((std::vector<long>{third.id(), second.id(), owner.id()}), told)
        << "ids of newer handlers are smaller";
}

TEST_F(StreamSenderNotify, EachHandlerHasASizeOfItsOwn) {
    CMailbox second;
    queue(CAPACITY_BYTES);
    sender->WaitBufferSize(owner.id(), 10);
    sender->WaitBufferSize(second.id(), 20);
    drain(10);
    EXPECT_EQ(Messages{free(10)}, owner.all());
    EXPECT_EQ(Messages{}, second.all());
    drain(10);
    EXPECT_EQ(Messages{}, owner.all());
    EXPECT_EQ(Messages{free(20)}, second.all());
}

TEST_F(StreamSenderNotify, AnEmptySenderHasFinishedAtOnce) {
    sender->WaitSendFinish(owner.id());
    EXPECT_EQ(Messages{finish()}, owner.all());
}

TEST_F(StreamSenderNotify, TheEndIsToldOnceAllIsSent) {
    queue(100);
    sender->WaitSendFinish(owner.id());
    drain(99);
    EXPECT_EQ(Messages{}, owner.all());
    drain(1);
    EXPECT_EQ(Messages{finish()}, owner.all());
}

TEST_F(StreamSenderNotify, TheEndIsToldOnceHoweverOftenItWasAskedFor) {
    queue(100);
    sender->WaitSendFinish(owner.id());
    sender->WaitSendFinish(owner.id());
    drain(CScriptedSend::EVERYTHING);
    queue(100);
    drain(CScriptedSend::EVERYTHING);
    EXPECT_EQ(Messages{finish()}, owner.all());
    sender->WaitSendFinish(owner.id());
    EXPECT_EQ(Messages{finish()}, owner.all());
}

TEST_F(StreamSenderNotify, TheEndIsToldInTheOrderOfTheWaits) {
    CMailbox second;
    CMailbox third;
    queue(100);
    const std::vector<long> waits{second.id(), owner.id(), third.id()};
    for (const long id : waits) sender->WaitSendFinish(id);
    EXPECT_EQ(waits, whoIsTold({&owner, &second, &third}, CScriptedSend::EVERYTHING));
}

TEST_F(StreamSenderNotify, RoomIsToldBeforeTheEnd) {
    queue(100);
    sender->WaitSendFinish(owner.id());
    sender->WaitBufferSize(owner.id(), CAPACITY_BYTES);
    drain(CScriptedSend::EVERYTHING);
    EXPECT_EQ((Messages{free(CAPACITY_BYTES), finish()}), owner.all());
}

TEST_F(StreamSenderNotify, ClearAnswersWhatWaits) {
    queue(CAPACITY_BYTES);
    sender->WaitSendFinish(owner.id());
    sender->WaitBufferSize(owner.id(), 1);
    sender->Clear();
    EXPECT_EQ((Messages{free(CAPACITY_BYTES), finish()}), owner.all());
}

TEST_F(StreamSenderNotify, EveryFailureIsToldUntilNobodyWaits) {
    CLogCapture log;
    script.setFailing(true);
    sender.put("x");
    sender.put("x");
    EXPECT_EQ((Messages{message(NOTIFY_STREAM_EXCEPTION, 0), message(NOTIFY_STREAM_EXCEPTION, 0)}),
              owner.all());
    sender->WaitException(0);
    sender.put("x");
    EXPECT_EQ(Messages{}, owner.all());
}

TEST_F(StreamSenderNotify, TheLastOneWhoWaitedIsToldAFailure) {
    CMailbox second;
    CLogCapture log;
    sender->WaitException(second.id());
    script.setFailing(true);
    sender.put("x");
    EXPECT_EQ(Messages{}, owner.all());
    EXPECT_EQ(Messages{message(NOTIFY_STREAM_EXCEPTION, 0)}, second.all());
}

TEST_F(StreamSenderNotify, AFailureAnswersNoOtherWait) {
    CLogCapture log;
    queue(CAPACITY_BYTES);
    sender->WaitSendFinish(owner.id());
    sender->WaitBufferSize(owner.id(), 1);
    script.setFailing(true);
    EXPECT_EQ(0, output());
    EXPECT_EQ(Messages{message(NOTIFY_STREAM_EXCEPTION, 0)}, owner.all());
}

TEST_F(StreamSenderNotify, AHandlerThatHasGoneIsToldNothing) {
    long id = 0;
    {
        CMailbox gone;
        id = gone.id();
        queue(CAPACITY_BYTES);
        sender->WaitBufferSize(id, 1);
        sender->WaitSendFinish(id);
    }
    CLogCapture log;
    drain(CScriptedSend::EVERYTHING);
    EXPECT_EQ(Messages{}, owner.all());
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(StreamSenderNotify, WhatIsNoHandlersIdIsLoggedWhenItIsTold) {
    CLogCapture log;
    sender->WaitSendFinish(7);
    EXPECT_EQ(1, log.count(2, "CMessage::Notify, invalid receiver id: 7, sender:"));
}

TEST_F(StreamSenderNotify, AWaitWithoutMemoryIsLoggedAndForgotten) {
    queue(CAPACITY_BYTES);
    CLastLine line;
    const std::string end = " : no memory for the wait of " + std::to_string(owner.id()) + "\n";
    {
        const long id = owner.id();
        const CFailingAllocator none;
        sender->WaitBufferSize(id, 1);
    }
    EXPECT_TRUE(line.text().ends_with("Veltro::Ravelo::CStreamSender::WaitBufferSize" + end)) << line.text();
    {
        const long id = owner.id();
        const CFailingAllocator none;
        sender->WaitSendFinish(id);
    }
    EXPECT_TRUE(line.text().ends_with("Veltro::Ravelo::CStreamSender::WaitSendFinish" + end)) << line.text();
    drain(CScriptedSend::EVERYTHING);
    EXPECT_EQ(Messages{}, owner.all());
}

}  // namespace
}  // namespace Veltro::Ravelo
