#include "Core/Message.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

#include "Core/EventPool.h"
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
using TestSupport::CRunner;
using TestSupport::CTestHandler;
using TestSupport::waitUntil;

struct SReceived {
    long sender;
    unsigned type;
    long info;
    bool operator==(const SReceived&) const = default;
};

/// A handler that keeps what it receives.
class CReceiver {
public:
    explicit CReceiver(int pool = 0) : handler(new CTestHandler(pool)) {
        handler->on_message = [this](long sender, unsigned type, long info) {
            Plinth::CLockGuard guard(m_mutex);
            m_received.push_back({sender, type, info});
            return 0;
        };
    }
    ~CReceiver() { closeAndWait(handler); }
    std::vector<SReceived> received() {
        Plinth::CLockGuard guard(m_mutex);
        return m_received;
    }
    bool waitFor(std::size_t count) {
        return waitUntil([this, count] { return received().size() == count; });
    }
    CTestHandler* const handler;

private:
    Plinth::CMutex m_mutex;
    std::vector<SReceived> m_received PLINTH_GUARDED_BY(m_mutex);
};

TEST(Message, CarriesSenderTypeAndInfo) {
    const CPublicPool pool;
    CReceiver sender;
    CReceiver receiver;
    sender.handler->Notify(receiver.handler->GetID(), 7, -5);
    ASSERT_TRUE(receiver.waitFor(1));
    EXPECT_EQ(receiver.received()[0], (SReceived{sender.handler->GetID(), 7, -5}));
    EXPECT_TRUE(sender.received().empty());
}

TEST(Message, InfoTravelsWholeInALong) {
    const CPublicPool pool;
    CReceiver receiver;
    const long greatest = std::numeric_limits<long>::max();
    receiver.handler->Notify(receiver.handler->GetID(), 0xFFFFFFFF, greatest);
    ASSERT_TRUE(receiver.waitFor(1));
    EXPECT_EQ(receiver.received()[0], (SReceived{receiver.handler->GetID(), 0xFFFFFFFF, greatest}));
}

TEST(Message, ReachesAHandlerOfAnotherPool) {
    const CPublicPool pool;
    const int number = CNetThread::CreatePrivatePool(1, false);
    {
        CReceiver sender;
        CReceiver receiver(number);
        sender.handler->Notify(receiver.handler->GetID(), 1, 2);
        sender.handler->NotifySerial(receiver.handler->GetID(), 3, 4, 0);
        EXPECT_TRUE(receiver.waitFor(2));
    }
    EXPECT_EQ(CNetThread::DestroyPrivatePool(number), 0);
}

TEST(Message, WithoutAReceiverGoesToTheDefaultReceiver) {
    const CPublicPool pool;
    CReceiver sender;
    CReceiver receiver;
    sender.handler->SetDefaultRcer(receiver.handler->GetID());
    sender.handler->Notify(7, 1);
    sender.handler->NotifySerial(8, 2, 0);
    sender.handler->NotifyIO(9, 3);
    ASSERT_TRUE(receiver.waitFor(2));
    EXPECT_EQ(CMessage::waitingIo(), 1U);
    EXPECT_THAT(receiver.received(), testing::UnorderedElementsAre(SReceived{sender.handler->GetID(), 7, 1},
                                                                   SReceived{sender.handler->GetID(), 8, 2}));
}

TEST(Message, WithoutAnyDefaultReceiverIsLoggedAndDropped) {
    const CPublicPool pool;
    CReceiver sender;
    CLogCapture log;
    sender.handler->Notify(7, 1);
    sender.handler->NotifySerial(8, 2, 3);
    EXPECT_EQ(log.count(Plinth::LOG_LEVEL_ERROR, "CMessage::Notify, invalid receiver id: 0, sender:"), 1);
    EXPECT_EQ(log.count(Plinth::LOG_LEVEL_ERROR, "CMessage::NotifySerial, invalid receiver id: 0, sender:"),
              1);
}

TEST(Message, ToAnInvalidReceiverLogsAllOfIt) {
    const CPublicPool pool;
    CReceiver sender;
    CLogCapture log;
    const long id = sender.handler->GetID();
    const std::string from = ", sender:" + std::to_string(id);
    sender.handler->Notify(5, 7, -1);
    sender.handler->NotifyIO(6, 8, 2);
    sender.handler->NotifySerial(7, 9, 3, 4'000'000'000U);
    EXPECT_EQ(log.count(Plinth::LOG_LEVEL_ERROR, "tid:" + std::to_string(Plinth::getCurrentThreadId()) +
                                                     ", CMessage::Notify, invalid receiver id: 5" + from +
                                                     ", type:7, info:-1, is_io:0\n"),
              1);
    EXPECT_EQ(log.count(Plinth::LOG_LEVEL_ERROR,
                        "CMessage::Notify, invalid receiver id: 6" + from + ", type:8, info:2, is_io:1\n"),
              1);
    EXPECT_EQ(log.count(Plinth::LOG_LEVEL_ERROR, "CMessage::NotifySerial, invalid receiver id: 7" + from +
                                                     ", type:9, info:3, flag:4000000000\n"),
              1);
}

TEST(Message, ToAHandlerThatNeverWasIsFreedQuietly) {
    const CPublicPool pool;
    CReceiver sender;
    const auto in_use = CEventPool::inUse();
    CLogCapture log(Plinth::LOG_LEVEL_WARNING);
    const long nobody = sender.handler->GetID() - 1024 * 50;
    sender.handler->Notify(nobody, 1, 0);
    sender.handler->NotifySerial(nobody, 1, 0, 0);
    sender.handler->Notify(sender.handler->GetID(), 1, 0);
    sender.handler->NotifySerial(sender.handler->GetID(), 1, 0, 0);
    EXPECT_TRUE(sender.waitFor(2));
    EXPECT_TRUE(waitUntil([in_use] { return CEventPool::inUse() <= in_use; }));
    EXPECT_EQ(log.count(Plinth::LOG_LEVEL_ERROR, "receiver"), 0);
}

TEST(Message, ToAPoolThatDoesNotExistIsFreedQuietly) {
    const CPublicPool pool;
    CReceiver sender;
    const auto in_use = CEventPool::inUse();
    CLogCapture log(Plinth::LOG_LEVEL_WARNING);
    const long in_pool_9 = (-100 * 64 + 9) * 16;
    for (int i = 0; i < 100; ++i) {
        sender.handler->Notify(in_pool_9, 1, 0);
        sender.handler->NotifySerial(in_pool_9, 1, 0, 0);
        sender.handler->NotifyIO(in_pool_9, 1, 0);
    }
    EXPECT_LT(CEventPool::inUse(), in_use + 100);
    EXPECT_EQ(CMessage::waitingIo(), 0U);
    EXPECT_EQ(log.count(Plinth::LOG_LEVEL_ERROR, "receiver"), 0);
}

TEST(Message, OfType12ToOneselfClosesWithoutChangingTheMagic) {
    const CPublicPool pool;
    auto* handler = new CTestHandler;
    std::atomic<int> messages{0};
    std::atomic<int> closed{0};
    handler->closed = &closed;
    handler->on_message = [&messages](long, unsigned, long) { return messages.fetch_add(1); };
    handler->on_close = [handler] {
        SNetHandlerRecord& record = SNetHandlerRecord::of(*handler);
        {
            Plinth::CLockGuard guard(record.mutex);
            EXPECT_EQ(record.__m_magic, MAGIC_OPEN);
        }
        handler->Close();  // so that it may be deleted
    };
    handler->Notify(handler->GetID(), 12, 0);
    EXPECT_TRUE(waitUntil([&closed] { return closed.load() == 1; }));
    EXPECT_EQ(messages.load(), 0);
}

TEST(Message, OfType12FromAnotherIsAnOrdinaryMessage) {
    const CPublicPool pool;
    CReceiver sender;
    CReceiver receiver;
    sender.handler->Notify(receiver.handler->GetID(), 12, 5);
    ASSERT_TRUE(receiver.waitFor(1));
    EXPECT_EQ(receiver.received()[0], (SReceived{sender.handler->GetID(), 12, 5}));
}

/// Keeps the workers of a private pool busy until it is opened.
class CBusyPool {
public:
    CBusyPool() : number(CNetThread::CreatePrivatePool(1, false)), m_blocker(new CTestHandler(number)) {
        m_blocker->on_message = [this](long, unsigned, long) {
            m_entered.fetch_add(1);
            EXPECT_TRUE(m_gate.pass());
            return 0;
        };
        const int workers = static_cast<int>(Plinth::getProcessorCount());
        for (int i = 0; i < workers; ++i) m_blocker->Notify(m_blocker->GetID(), 1, 0);
        EXPECT_TRUE(waitUntil([this, workers] { return m_entered.load() == workers; }));
    }
    ~CBusyPool() {
        open();
        closeAndWait(m_blocker);
        EXPECT_EQ(CNetThread::DestroyPrivatePool(number), 0);
    }
    void open() { m_gate.open(); }
    const int number;

private:
    CGate m_gate;
    std::atomic<int> m_entered{0};
    CTestHandler* m_blocker;
};

TEST(Message, CloseGoesAheadOfQueuedMessages) {
    const CPublicPool pool;
    CBusyPool busy;
    auto* handler = new CTestHandler(busy.number);
    std::atomic<int> messages{0};
    std::atomic<int> closed{0};
    handler->closed = &closed;
    handler->on_message = [&messages](long, unsigned, long) { return messages.fetch_add(1); };
    for (int i = 0; i < 100; ++i) handler->Notify(handler->GetID(), 1, i);
    handler->Close();
    CReceiver last(busy.number);
    last.handler->Notify(last.handler->GetID(), 1, 0);
    busy.open();
    EXPECT_TRUE(last.waitFor(1));
    EXPECT_TRUE(waitUntil([&closed] { return closed.load() == 1; }));
    EXPECT_EQ(messages.load(), 0);
}

TEST(Message, SerialOnesArriveInPostingOrderWithoutOverlap) {
    const CPublicPool pool(4);
    std::vector<long> order;  // no lock: the messages must not overlap
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    std::atomic<int> served{0};
    auto* handler = new CTestHandler;
    handler->on_message = [&](long, unsigned, long info) {
        if (inside.fetch_add(1) != 0) overlapped.store(true);
        order.push_back(info);
        Plinth::yieldThread();
        inside.fetch_sub(1);
        served.fetch_add(1);
        return 0;
    };
    constexpr int COUNT = 3'000;
    for (int i = 0; i < COUNT; ++i) handler->NotifySerial(handler->GetID(), 1, i, 0);
    ASSERT_TRUE(waitUntil([&served] { return served.load() == COUNT; }));
    EXPECT_FALSE(overlapped.load());
    for (int i = 0; i < COUNT; ++i) ASSERT_EQ(order[static_cast<std::size_t>(i)], i);
    closeAndWait(handler);
}

TEST(Message, ThreeSerialOnesToOneReceiverKeepTheirOrder) {
    const CPublicPool pool(4);
    CReceiver receiver;
    const long id = receiver.handler->GetID();
    for (unsigned type = 1; type <= 3; ++type) receiver.handler->NotifySerial(id, type, 0, 0);
    ASSERT_TRUE(receiver.waitFor(3));
    EXPECT_THAT(receiver.received(),
                testing::ElementsAre(SReceived{id, 1, 0}, SReceived{id, 2, 0}, SReceived{id, 3, 0}));
}

TEST(Message, SerialOnesOfSeveralReceiversOfAPoolNeverOverlap) {
    const CPublicPool pool(4);
    std::atomic<int> inside{0};
    std::atomic<int> served{0};
    std::atomic<bool> overlapped{false};
    std::vector<CTestHandler*> handlers;
    for (int i = 0; i < 4; ++i) {
        handlers.push_back(new CTestHandler);
        handlers.back()->on_message = [&](long, unsigned, long) {
            if (inside.fetch_add(1) != 0) overlapped.store(true);
            Plinth::yieldThread();
            inside.fetch_sub(1);
            return served.fetch_add(1);
        };
    }
    constexpr int ROUNDS = 250;
    {
        CRunner first([&] {
            for (int i = 0; i < ROUNDS; ++i) {
                for (auto* handler : handlers) handler->NotifySerial(handler->GetID(), 1, i, 0);
            }
        });
        CRunner second([&] {
            for (int i = 0; i < ROUNDS; ++i) {
                for (auto* handler : handlers) handler->NotifySerial(handler->GetID(), 1, i, 0);
            }
        });
    }
    EXPECT_TRUE(waitUntil([&served] { return served.load() == 2 * 4 * ROUNDS; }));
    EXPECT_FALSE(overlapped.load());
    for (auto* handler : handlers) closeAndWait(handler);
}

TEST(Message, SerialPostedByASerialMessageFollows) {
    const CPublicPool pool;
    std::atomic<int> served{0};
    auto* handler = new CTestHandler;
    handler->on_message = [&](long, unsigned, long info) {
        served.fetch_add(1);
        if (info > 0) handler->NotifySerial(handler->GetID(), 1, info - 1, 0);
        return 0;
    };
    handler->NotifySerial(handler->GetID(), 1, 999, 0);
    EXPECT_TRUE(waitUntil([&served] { return served.load() == 1'000; }));
    closeAndWait(handler);
}

// Each message is posted when the one before has been served, so it often meets the token on its way out.
TEST(Message, SerialPostedAsTheTokenRetiresIsNotStranded) {
    const CPublicPool pool;
    std::atomic<int> served{0};
    auto* handler = new CTestHandler;
    handler->on_message = [&](long, unsigned, long) { return served.fetch_add(1); };
    for (int i = 0; i < 2'000; ++i) {
        handler->NotifySerial(handler->GetID(), 1, 0, 0);
        while (served.load() <= i) Plinth::yieldThread();
    }
    EXPECT_EQ(served.load(), 2'000);
    closeAndWait(handler);
}

TEST(Message, ForTheFileThreadsWaitsWhileNoneRun) {
    const CPublicPool pool;
    CReceiver receiver;
    receiver.handler->NotifyIO(receiver.handler->GetID(), 1, 1);
    receiver.handler->NotifyIO(receiver.handler->GetID(), 1, 2);
    EXPECT_EQ(CMessage::waitingIo(), 2U);
    receiver.handler->Notify(receiver.handler->GetID(), 2, 3);
    ASSERT_TRUE(receiver.waitFor(1));
    EXPECT_EQ(receiver.received()[0].type, 2U);
    EXPECT_EQ(CMessage::waitingIo(), 2U);
}

TEST(Message, ForTheFileThreadsGoesWithItsPool) {
    const CPublicPool pool;
    CReceiver of_public_pool;
    const int number = CNetThread::CreatePrivatePool(1, false);
    {
        CReceiver of_private_pool(number);
        of_private_pool.handler->NotifyIO(of_private_pool.handler->GetID(), 1, 1);
        of_public_pool.handler->NotifyIO(of_public_pool.handler->GetID(), 1, 1);
        EXPECT_EQ(CMessage::waitingIo(), 2U);
    }
    EXPECT_EQ(CNetThread::DestroyPrivatePool(number), 0);
    EXPECT_EQ(CMessage::waitingIo(), 1U);
}

// With one processor's worth of workers all inside callbacks, what they leave lying is served by the next.
TEST(Message, PostedFromABusyCallbackIsServedByAnotherWorkerAtOnce) {
    const CPublicPool pool(2);
    if (Plinth::getProcessorCount() < 2) {
        std::puts("not run: the pool has one worker on one processor");
        return;
    }
    CReceiver receiver;
    CGate served;
    auto* busy = new CTestHandler;
    std::atomic<bool> arrived{false};
    busy->on_message = [&](long, unsigned, long) {
        receiver.handler->Notify(receiver.handler->GetID(), 1, 0);
        arrived.store(receiver.waitFor(1));
        served.open();
        return 0;
    };
    busy->Notify(busy->GetID(), 1, 0);
    EXPECT_TRUE(served.pass());
    EXPECT_TRUE(arrived.load());
    closeAndWait(busy);
}

}  // namespace
}  // namespace Veltro::Ravelo
