// Many threads on one queue: nothing lost, nothing taken twice, no wake-up missed.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "Core/EventPool.h"
#include "Core/EventQueueProbe.h"
#include "Support/Gate.h"
#include "Support/Load.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CRunner;
using TestSupport::scaledDown;
using TestSupport::waitUntil;
using EPusher = CEventQueue::EPusher;
using EWait = CEventQueue::EWait;

/// A waiter as the multiplexer's: one wake is kept until the wait.
class CSemaphoreWaiter {
public:
    void wake() { m_semaphore.post(); }
    bool wait(std::int64_t timeout_us) { return m_semaphore.pend(timeout_us); }
    void wait() { m_semaphore.pend(); }

private:
    Plinth::CSemaphore m_semaphore;
};

/// Records that are counted as they come out.
class CCountedQueue {
public:
    explicit CCountedQueue(std::size_t records) : m_records(new SEvent[records]), m_count(records) {
        for (std::size_t i = 0; i < records; ++i) m_records[i].key = EVENT_KEY_MESSAGE;
    }
    SEvent* record(std::size_t index) { return &m_records[index]; }
    void count(SQueueRecord* record) {
        static_cast<SEvent*>(record)->info += 1;  // only the thread that popped it writes
        m_popped.fetch_add(1);
    }
    bool isComplete() const { return m_popped.load() == m_count; }
    void expectEachOnce() {
        for (std::size_t i = 0; i < m_count; ++i) ASSERT_EQ(m_records[i].info, 1);
    }
    CEventQueue queue;

private:
    std::unique_ptr<SEvent[]> m_records;
    const std::size_t m_count;
    std::atomic<std::size_t> m_popped{0};
};

class CThreads {
public:
    void add(std::function<void()> body) { m_threads.push_back(std::make_unique<CRunner>(std::move(body))); }
    void join() { m_threads.clear(); }

private:
    std::vector<std::unique_ptr<CRunner>> m_threads;
};

/// Serves the queue until stop(), as the workers that sleep in Pop() do.
void consume(CCountedQueue& counted) {
    while (SQueueRecord* record = counted.queue.Pop()) counted.count(record);
}

void produceAndConsume(std::size_t producers, unsigned consumers, std::size_t records) {
    CCountedQueue counted(records);
    CSemaphoreWaiter waiter;
    counted.queue.setWaiter(&waiter, consumers);
    CThreads consuming;
    for (unsigned i = 0; i < consumers; ++i) consuming.add([&counted] { consume(counted); });
    CThreads producing;
    for (std::size_t p = 0; p < producers; ++p) {
        producing.add([&counted, p, producers, records] {
            for (std::size_t i = p; i < records; i += producers) {
                counted.queue.push(counted.record(i), i % 3 == 0 ? EPusher::Worker : EPusher::Outside);
            }
        });
    }
    producing.join();
    EXPECT_TRUE(waitUntil([&counted] { return counted.isComplete(); }));
    counted.queue.stop();
    consuming.join();
    counted.expectEachOnce();
    EXPECT_EQ(counted.queue.size(), 0U);
}

TEST(EventQueueThreads, OneConsumerCountsEveryRecordOnce) {
    produceAndConsume(4, 1, scaledDown(1'000'000));
}

TEST(EventQueueThreads, SeveralConsumersCountEveryRecordOnce) {
    produceAndConsume(4, 4, scaledDown(1'000'000));
}

// Each record is pushed when the one before has come out, so that every push meets a thread about to sleep.
TEST(EventQueueThreads, NoWakeUpIsLostWhenThreadsAreAboutToSleep) {
    for (const EPusher pusher : {EPusher::Outside, EPusher::Worker}) {
        // What a worker pushes waits for the standby's next look.
        const std::size_t records = scaledDown(pusher == EPusher::Worker ? 2'000 : 20'000);
        CCountedQueue counted(records);
        CSemaphoreWaiter waiter;
        counted.queue.setWaiter(&waiter, 3);
        std::atomic<std::size_t> popped{0};
        CThreads consuming;
        for (int i = 0; i < 3; ++i) {
            consuming.add([&] {
                while (SQueueRecord* record = counted.queue.Pop()) {
                    counted.count(record);
                    popped.fetch_add(1);
                }
            });
        }
        for (std::size_t i = 0; i < records; ++i) {
            counted.queue.push(counted.record(i), pusher);
            while (popped.load() <= i) Plinth::yieldThread();
        }
        counted.queue.stop();
        consuming.join();
        counted.expectEachOnce();
    }
}

/// Waits as the holder of the reactor token does and serves what it finds.
void serveAsWaiter(CCountedQueue& counted, CSemaphoreWaiter& waiter, const std::atomic<bool>& done) {
    while (!done.load()) {
        counted.queue.setLooking(true);
        for (int look = 0; look < 10 && counted.queue.size() == 0; ++look) Plinth::yieldThread();
        EWait wait = counted.queue.beginWait();
        if (wait != EWait::Serve) {
            bool woken = false;
            while (!woken && wait == EWait::Tick) {
                woken = waiter.wait(CEventQueue::STANDBY_TICK_US);
                if (!woken) wait = counted.queue.waitTick();
            }
            if (!woken && wait == EWait::Unlimited) waiter.wait();
            counted.queue.endWait();
        }
        while (SQueueRecord* record = counted.queue.popNoWait()) counted.count(record);
    }
}

void serveBesideAWaiter(unsigned consumers, std::size_t producers, std::size_t records) {
    CCountedQueue counted(records);
    CSemaphoreWaiter waiter;
    counted.queue.setWaiter(&waiter, consumers + 1);
    std::atomic<bool> done{false};
    CThreads consuming;
    consuming.add([&] { serveAsWaiter(counted, waiter, done); });
    for (unsigned i = 0; i < consumers; ++i) consuming.add([&counted] { consume(counted); });
    CThreads producing;
    for (std::size_t p = 0; p < producers; ++p) {
        producing.add([&counted, p, producers, records] {
            for (std::size_t i = p; i < records; i += producers) {
                counted.queue.push(counted.record(i), i % 2 == 0 ? EPusher::Worker : EPusher::Outside);
                if (i % 64 == p) Plinth::yieldThread();
            }
        });
    }
    producing.join();
    EXPECT_TRUE(waitUntil([&counted] { return counted.isComplete(); }));
    done.store(true);
    counted.queue.stop();
    consuming.join();
    counted.expectEachOnce();
}

TEST(EventQueueThreads, AWaiterAloneIsWokenForEveryRecord) {
    serveBesideAWaiter(0, 3, scaledDown(300'000));
}

TEST(EventQueueThreads, AWaiterBesideOneSleeperMissesNothing) {
    serveBesideAWaiter(1, 3, scaledDown(300'000));
}

TEST(EventQueueThreads, AWaiterBesideSeveralSleepersMissesNothing) {
    serveBesideAWaiter(3, 3, scaledDown(300'000));
}

}  // namespace
}  // namespace Veltro::Ravelo
