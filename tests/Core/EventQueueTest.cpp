// The queue as a list, and who is woken; with one thread, or one beside the test's.
#include "Core/EventQueue.h"

#include <gtest/gtest.h>

#include <vector>

#include "Core/EventPool.h"
#include "Core/EventQueueProbe.h"
#include "Support/Gate.h"
#include "Support/LogCapture.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CLogCapture;
using TestSupport::CRunner;
using TestSupport::waitUntil;
using EPusher = CEventQueue::EPusher;
using EWait = CEventQueue::EWait;

class CCountingWaiter {
public:
    void wake() { wakes.fetch_add(1); }
    std::atomic<int> wakes{0};
};

class EventQueue : public testing::Test {
protected:
    ~EventQueue() override {
        queue.reset();
        EXPECT_EQ(CEventPool::inUse(), 0);
        CEventPool::destroy();
    }
    SEvent* make(std::int64_t info) {
        SEvent* record = CEventPool::get(EVENT_KEY_MESSAGE);
        record->info = info;
        return record;
    }
    SQueueRecord* chain(std::int64_t first, std::int64_t last) {
        SEvent* head = make(first);
        SQueueRecord* tail = head;
        for (std::int64_t info = first + 1; info <= last; ++info) tail = tail->next = make(info);
        return head;
    }
    /// The info of a record that goes back; -1 for null.
    static std::int64_t free(SQueueRecord* record) {
        if (record == nullptr) return -1;
        EXPECT_EQ(record->next, nullptr);
        const std::int64_t info = static_cast<SEvent*>(record)->info;
        CEventPool::put(static_cast<SEvent*>(record));
        return info;
    }
    void useWaiter(unsigned workers) { queue->setWaiter(&waiter, workers); }

    CCountingWaiter waiter;
    std::unique_ptr<CEventQueue> queue = std::make_unique<CEventQueue>();
};

TEST_F(EventQueue, GivesRecordsInTheOrderPushed) {
    for (int i = 0; i < 5; ++i) queue->push(make(i));
    EXPECT_EQ(queue->size(), 5U);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(free(queue->Pop()), i);
    EXPECT_EQ(queue->size(), 0U);
    EXPECT_EQ(queue->popNoWait(), nullptr);
}

TEST_F(EventQueue, AppendsWholeChains) {
    queue->push(chain(0, 2));
    queue->push(make(3));
    queue->push(chain(4, 6));
    EXPECT_EQ(queue->size(), 7U);
    for (int i = 0; i <= 6; ++i) EXPECT_EQ(free(queue->popNoWait()), i);
}

TEST_F(EventQueue, PushFrontGoesAheadOfAllOthers) {
    queue->push(chain(1, 2));
    queue->pushFront(make(0));
    queue->pushFront(make(-2));
    EXPECT_EQ(free(queue->popNoWait()), -2);
    for (int i = 0; i <= 2; ++i) EXPECT_EQ(free(queue->popNoWait()), i);
}

TEST_F(EventQueue, PushFrontIntoAnEmptyQueueLeavesARightTail) {
    queue->pushFront(make(0));
    queue->push(make(1));
    EXPECT_EQ(free(queue->popNoWait()), 0);
    EXPECT_EQ(free(queue->popNoWait()), 1);
    EXPECT_EQ(free(queue->popNoWait()), -1);
}

TEST_F(EventQueue, PopWithoutWaitGivesNullWhenEmpty) {
    EXPECT_EQ(queue->popNoWait(), nullptr);
}

TEST_F(EventQueue, PushAndPopAppendsThenTakesTheHead) {
    queue->push(make(0));
    EXPECT_EQ(free(queue->pushAndPop(chain(1, 2))), 0);
    EXPECT_EQ(free(queue->pushAndPop(make(3))), 1);
    EXPECT_EQ(queue->size(), 2U);
}

TEST_F(EventQueue, DestructionFreesWhatIsStillQueued) {
    queue->push(chain(0, 9));
    queue->pushWithoutSignal(chain(10, 19));
    // The fixture checks that no record is left in use.
}

TEST_F(EventQueue, PushWithoutSignalWakesNobody) {
    useWaiter(1);
    ASSERT_EQ(queue->beginWait(), EWait::Unlimited);
    queue->pushWithoutSignal(chain(0, 1));
    EXPECT_EQ(waiter.wakes.load(), 0);
    queue->endWait();
    EXPECT_EQ(queue->size(), 2U);
}

TEST_F(EventQueue, UnexpectedPostOfTheSemaphoreIsLoggedAndGivesNull) {
    CLogCapture log;
    SQueueRecord* popped = nullptr;
    {
        CRunner popper([&] { popped = queue->Pop(); });
        EXPECT_TRUE(waitUntil([this] { return SEventQueueProbe::sleepers(*queue) == 1; }));
        SEventQueueProbe::postUnexpectedly(*queue);
    }
    EXPECT_EQ(popped, nullptr);
    EXPECT_EQ(log.count(Plinth::LOG_LEVEL_ERROR, ", sem_wait error unexpected!!\n"), 1);
    EXPECT_EQ(log.count(Plinth::LOG_LEVEL_ERROR, "this:"), 1);
    EXPECT_EQ(SEventQueueProbe::sleepers(*queue), 0U);
}

TEST_F(EventQueue, GoesOnAfterAnUnexpectedPost) {
    CLogCapture log;
    std::atomic<std::int64_t> got{-2};
    {
        CRunner popper([&] {
            SQueueRecord* record = nullptr;
            while (record == nullptr) record = queue->Pop();
            got.store(free(record));
        });
        EXPECT_TRUE(waitUntil([this] { return SEventQueueProbe::sleepers(*queue) == 1; }));
        SEventQueueProbe::postUnexpectedly(*queue);
        EXPECT_TRUE(waitUntil([&log] { return log.count(Plinth::LOG_LEVEL_ERROR, "sem_wait") == 1; }));
        queue->push(make(42));
    }
    EXPECT_EQ(got.load(), 42);
}

TEST_F(EventQueue, PopWaitsForAPush) {
    std::atomic<std::int64_t> got{-2};
    {
        CRunner popper([&] { got.store(free(queue->Pop())); });
        EXPECT_TRUE(waitUntil([this] { return SEventQueueProbe::sleepers(*queue) == 1; }));
        EXPECT_EQ(got.load(), -2);
        queue->push(make(42));
    }
    EXPECT_EQ(got.load(), 42);
}

TEST_F(EventQueue, StopEndsEverySleepAndThenGivesWhatIsQueued) {
    useWaiter(3);
    std::atomic<int> nulls{0};
    auto pop = [&] {
        if (queue->Pop() == nullptr) nulls.fetch_add(1);
    };
    {
        CRunner first(pop);
        CRunner second(pop);
        EXPECT_TRUE(waitUntil([this] { return SEventQueueProbe::sleepers(*queue) == 2; }));
        queue->stop();
    }
    EXPECT_EQ(nulls.load(), 2);
    EXPECT_EQ(waiter.wakes.load(), 1);
    queue->push(make(1));
    EXPECT_EQ(free(queue->Pop()), 1);
    EXPECT_EQ(queue->Pop(), nullptr);
    EXPECT_EQ(queue->beginWait(), EWait::Serve);
}

TEST_F(EventQueue, APushWakesTheWaiterWhenNobodySleeps) {
    useWaiter(1);
    ASSERT_EQ(queue->beginWait(), EWait::Unlimited);
    queue->push(make(0));
    EXPECT_EQ(waiter.wakes.load(), 1);
    queue->push(make(1));
    EXPECT_EQ(waiter.wakes.load(), 1);  // it is under way
    queue->endWait();
}

TEST_F(EventQueue, NoPushWakesAWaiterThatHasEnded) {
    useWaiter(1);
    queue->beginWait();
    queue->endWait();
    queue->push(make(0));
    EXPECT_EQ(waiter.wakes.load(), 0);
}

TEST_F(EventQueue, AWaitDoesNotBeginWhileRecordsAreQueued) {
    useWaiter(2);
    queue->push(make(0));
    EXPECT_EQ(queue->beginWait(), EWait::Serve);
    EXPECT_FALSE(SEventQueueProbe::hasStandby(*queue));
}

TEST_F(EventQueue, TheWaiterOfSeveralWorkersIsStandbyUntilNothingMoves) {
    useWaiter(2);
    ASSERT_EQ(queue->beginWait(), EWait::Tick);
    EXPECT_TRUE(SEventQueueProbe::hasStandby(*queue));
    EXPECT_EQ(queue->waitTick(), EWait::Tick);
    EXPECT_EQ(queue->waitTick(), EWait::Tick);
    EXPECT_EQ(queue->waitTick(), EWait::Unlimited);
    EXPECT_FALSE(SEventQueueProbe::hasStandby(*queue));
    queue->endWait();
}

TEST_F(EventQueue, AWorkersPushIsLeftToTheStandbyWhichServesItAtItsTick) {
    useWaiter(2);
    ASSERT_EQ(queue->beginWait(), EWait::Tick);
    queue->push(make(0), EPusher::Worker);
    EXPECT_EQ(waiter.wakes.load(), 0);
    EXPECT_EQ(queue->waitTick(), EWait::Serve);
    queue->endWait();
}

TEST_F(EventQueue, TheStandbyLeavesAQueueThatMovesToTheOthers) {
    useWaiter(2);
    ASSERT_EQ(queue->beginWait(), EWait::Tick);
    queue->push(chain(0, 2), EPusher::Worker);
    EXPECT_EQ(free(queue->popNoWait()), 0);
    EXPECT_EQ(queue->waitTick(), EWait::Tick);
    EXPECT_EQ(queue->waitTick(), EWait::Serve);
    queue->endWait();
}

TEST_F(EventQueue, AWorkersPushWithoutAStandbyWakesTheWaiter) {
    useWaiter(2);
    ASSERT_EQ(queue->beginWait(), EWait::Tick);
    while (queue->waitTick() != EWait::Unlimited) {
    }
    queue->push(make(0), EPusher::Worker);
    EXPECT_EQ(waiter.wakes.load(), 1);
    queue->endWait();
}

TEST_F(EventQueue, AWorkersPushOfManyRecordsWakesHelp) {
    useWaiter(2);
    ASSERT_EQ(queue->beginWait(), EWait::Tick);
    queue->push(chain(0, CEventQueue::WORKER_SHARE), EPusher::Worker);
    EXPECT_EQ(waiter.wakes.load(), 1);
    queue->endWait();
}

TEST_F(EventQueue, APushWhileTheWaiterLooksWakesNobodyIfThereIsAStandby) {
    useWaiter(2);
    std::atomic<std::int64_t> got{-2};
    CRunner sleeper([&] { got.store(free(queue->Pop())); });
    EXPECT_TRUE(waitUntil([this] { return SEventQueueProbe::sleepers(*queue) == 1; }));
    queue->setLooking(true);
    queue->push(make(5));
    EXPECT_EQ(waiter.wakes.load(), 0);
    sleeper.join();  // woken, or at its tick
    EXPECT_EQ(got.load(), 5);
}

// A worker pushes and then stays in its callback; nobody is woken, and nobody comes by.
TEST_F(EventQueue, TheStandbyTakesARecordThatABusyWorkerLeavesLying) {
    useWaiter(2);
    for (int round = 0; round < 20; ++round) {
        std::atomic<std::uint64_t> taken_us{0};
        CRunner standby([&] {
            free(queue->Pop());
            taken_us.store(Plinth::CTime::getCurrentMicroSecond());
        });
        EXPECT_TRUE(waitUntil([this] { return SEventQueueProbe::sleepers(*queue) == 1; }));
        const std::uint64_t pushed_us = Plinth::CTime::getCurrentMicroSecond();
        queue->push(make(round), EPusher::Worker);
        standby.join();
        EXPECT_LT(taken_us.load() - pushed_us, 100'000U);
    }
}

TEST_F(EventQueue, TheIdleStandbySleepsWithoutLimitInTheEnd) {
    useWaiter(2);
    std::atomic<std::int64_t> got{-2};
    CRunner popper([&] { got.store(free(queue->Pop())); });
    EXPECT_TRUE(waitUntil([this] { return SEventQueueProbe::sleepers(*queue) == 1; }));
    EXPECT_TRUE(waitUntil([this] { return !SEventQueueProbe::hasStandby(*queue); }));
    EXPECT_EQ(got.load(), -2);
    queue->push(make(1), EPusher::Worker);  // wakes it, since there is no standby any more
    popper.join();
    EXPECT_EQ(got.load(), 1);
}

}  // namespace
}  // namespace Veltro::Ravelo
