#include "Core/NetTimer.h"

#include <Plinth/Semaphore.h>

#include <set>
#include <vector>

#include "Core/IdPool.h"
#include "Core/ThreadPool.h"
#include "Support/LogCapture.h"
#include "Support/Reactor.h"

using namespace Veltro::Ravelo;
using namespace Veltro::TestSupport;
namespace Plinth = Veltro::Plinth;

namespace {

constexpr std::int64_t HOUR_US = 3'600'000'000;

std::int64_t nowUs() {
    return static_cast<std::int64_t>(Plinth::CTime::getCurrentMicroSecond());
}

bool pend(Plinth::CSemaphore& semaphore) {
    return waitUntil([&semaphore] { return semaphore.tryPend(); });
}

/// A handler for the time of a scope: declare it behind what its callbacks use.
struct SHandler {
    CTestHandler* handler;
    explicit SHandler(int pool = 0) : handler(new CTestHandler(pool)) {}
    ~SHandler() { close(); }
    void close() {
        if (handler != nullptr) closeAndWait(handler);
        handler = nullptr;
    }
    CTestHandler* operator->() const { return handler; }
};

/// How long after arming a timer of a period fires for the first time.
std::int64_t firstCallAfterUs(std::int64_t period_us) {
    const CPublicPool pool;
    Plinth::CSemaphore done;
    std::atomic<std::int64_t> called_us{0};
    SHandler handler;
    handler->on_timeout = [&](long) {
        called_us = nowUs();
        done.post();
        return -1;
    };
    const std::int64_t start_us = nowUs();
    EXPECT_LT(handler->SetTimer(period_us), -101);
    EXPECT_TRUE(pend(done));
    return called_us - start_us;
}

/// Arms a timer while nobody serves any, and expects it to be due so much later.
void expectDueAfter(std::int64_t period_us, std::int64_t after_us) {
    const CPublicPool pool;
    SHandler handler;
    CNetTimer::stop();
    const std::int64_t before_us = nowUs();
    const long id = handler->SetTimer(period_us);
    const auto due_us = static_cast<std::int64_t>(CNetTimer::firstDueUs());
    EXPECT_LE(before_us + after_us, due_us) << period_us;
    EXPECT_GE(nowUs() + after_us, due_us) << period_us;
    handler->DestroyTimer(id);
    EXPECT_EQ(0, CNetTimer::start());
}

/// What arming a timer logs, and that it is due after a day.
void expectADay(std::int64_t period_us, int lines) {
    CLogCapture log;
    expectDueAfter(period_us, 24 * HOUR_US - 2000);
    EXPECT_EQ(lines,
              log.count(Plinth::LOG_LEVEL_ERROR, "Set timer's value is too big,it will be reduce to 24h.\n"));
}

}  // namespace

TEST(NetTimer, PeriodsBelowThreeMillisecondsAreRaised) {
    // Every timer is due two milliseconds early.
    for (const std::int64_t period_us : {0, 1000, 2999, 3000}) expectDueAfter(period_us, 1000);
    expectDueAfter(3001, 1001);
}

TEST(NetTimer, TheShortestTimerFires) {
    for (const std::int64_t period_us : {0, 1000}) firstCallAfterUs(period_us);  // expects the call
}

TEST(NetTimer, FiresNoEarlierThanItsScheduleAllows) {
    EXPECT_GE(firstCallAfterUs(50'000), 50'000 - CNetTimer::EARLY_US - CNetTimer::AHEAD_US);
}

TEST(NetTimer, APeriodBeyondADayIsCutWithALine) {
    expectADay(90'000'000'000, 1);
}

TEST(NetTimer, ANegativePeriodCountsAsTooBig) {
    expectADay(-1, 1);
}

TEST(NetTimer, ADayItselfIsNotCut) {
    expectADay(24 * HOUR_US, 0);
}

TEST(NetTimer, AMicrosecondMoreThanADayIsCut) {
    expectADay(24 * HOUR_US + 1, 1);
}

TEST(NetTimer, ALongTimerDoesNotFireSoon) {
    const CPublicPool pool;
    Plinth::CSemaphore witness_done;
    std::atomic<int> calls{0};
    SHandler handler;
    SHandler witness;
    handler->on_timeout = [&](long) { return ++calls; };
    witness->on_timeout = [&](long) {
        witness_done.post();
        return -1;
    };
    const long id = handler->SetTimer(24 * HOUR_US);
    witness->SetTimer(100'000);
    EXPECT_TRUE(pend(witness_done));
    EXPECT_EQ(0, calls.load());
    EXPECT_EQ(1U, CNetTimer::armed());
    handler->DestroyTimer(id);
    EXPECT_EQ(0U, CNetTimer::armed());
}

TEST(NetTimer, AResultOfZeroKeepsThePeriod) {
    const CPublicPool pool;
    Plinth::CSemaphore done;
    std::vector<std::int64_t> calls_us;
    SHandler handler;
    handler->on_timeout = [&](long) -> std::int64_t {
        calls_us.push_back(nowUs());
        if (calls_us.size() < 5) return 0;
        done.post();
        return -1;
    };
    handler->SetTimer(30'000);
    ASSERT_TRUE(pend(done));
    for (std::size_t i = 1; i < calls_us.size(); ++i) {
        EXPECT_GE(calls_us[i] - calls_us[i - 1], 30'000 - CNetTimer::EARLY_US - CNetTimer::AHEAD_US);
    }
}

TEST(NetTimer, APositiveResultIsTheNextPeriodAndStays) {
    const CPublicPool pool;
    Plinth::CSemaphore done;
    std::vector<std::int64_t> calls_us;
    std::set<long> ids;
    SHandler handler;
    handler->on_timeout = [&](long id) -> std::int64_t {
        calls_us.push_back(nowUs());
        ids.insert(id);
        if (calls_us.size() == 1) return 500'000;
        if (calls_us.size() == 2) return 0;
        done.post();
        return -1;
    };
    handler->SetTimer(3000);
    ASSERT_TRUE(pend(done));
    EXPECT_GE(calls_us[1] - calls_us[0], 500'000 - CNetTimer::EARLY_US - CNetTimer::AHEAD_US);
    EXPECT_GE(calls_us[2] - calls_us[1], 500'000 - CNetTimer::EARLY_US - CNetTimer::AHEAD_US);
    EXPECT_EQ(1U, ids.size());
}

TEST(NetTimer, AResultBeyondADayIsCutWithALine) {
    CLogCapture log;
    const CPublicPool pool;
    SHandler handler;
    handler->on_timeout = [](long) { return 48 * HOUR_US; };
    const long id = handler->SetTimer(3000);
    EXPECT_TRUE(waitUntil([&] { return log.count(Plinth::LOG_LEVEL_ERROR, "reduce to 24h.\n") == 1; }));
    EXPECT_TRUE(waitUntil([] { return CNetTimer::armed() == 1; }));
    handler->DestroyTimer(id);
}

TEST(NetTimer, AHandlerThatKeepsTheBaseCallbackGetsOneCall) {
    struct CCounting : CTestHandler {
        std::atomic<int> calls{0};
        std::int64_t handle_timeout(long id) override {
            const std::int64_t result = CNetHandler::handle_timeout(id);
            ++calls;
            return result;
        }
    };
    const CPublicPool pool;
    auto* handler = new CCounting;
    handler->SetTimer(3000);
    EXPECT_TRUE(waitUntil([&] { return handler->calls.load() == 1; }));
    Plinth::CSemaphore later;
    SHandler witness;
    witness->on_timeout = [&](long) {
        later.post();
        return -1;
    };
    witness->SetTimer(60'000);
    EXPECT_TRUE(pend(later));
    EXPECT_EQ(1, handler->calls.load());
    EXPECT_EQ(0U, CNetTimer::armed());
    closeAndWait(handler);
}

TEST(NetTimer, IdsCarryThePoolAndAreDistinct) {
    const CPublicPool pool;
    const int number = CNetThread::CreatePrivatePool(2, false);
    ASSERT_GT(number, 0);
    {
        SHandler handler(number);
        std::set<long> ids;
        for (int i = 0; i < 100; ++i) {
            const long id = handler->SetTimer(HOUR_US);
            EXPECT_LT(id, -101);
            EXPECT_EQ(number, poolOfId(id));
            ids.insert(id);
        }
        EXPECT_EQ(100U, ids.size());
        EXPECT_EQ(100U, CNetTimer::armed());
        for (const long id : ids) handler->DestroyTimer(id);
        EXPECT_EQ(0U, CNetTimer::armed());
    }
    EXPECT_EQ(0, CNetThread::DestroyPrivatePool(number));
}

TEST(NetTimer, AnEndedTimersIdIsReusedAfterItsQuarantine) {
    const CPublicPool pool;
    SHandler handler;
    const long first = handler->SetTimer(HOUR_US);
    handler->DestroyTimer(first);
    const long sequence = first >> 10;
    std::set<long> resting;
    int timers = 0;
    for (; timers < 3000; ++timers) {
        const long id = handler->SetTimer(HOUR_US);
        handler->DestroyTimer(id);
        EXPECT_NE(first, id);
        if (id >> 10 == sequence) break;
    }
    EXPECT_GE(timers, 1024);
    EXPECT_LT(timers, 3000);
}

TEST(NetTimer, AnIdEndedByItsResultIsReusedToo) {
    const CPublicPool pool;
    Plinth::CSemaphore done;
    SHandler handler;
    handler->on_timeout = [&](long) {
        done.post();
        return -1;
    };
    const long first = handler->SetTimer(3000);
    ASSERT_TRUE(pend(done));
    EXPECT_TRUE(waitUntil([&] {
        for (int i = 0; i < 1100; ++i) {
            const long id = handler->SetTimer(HOUR_US);
            handler->DestroyTimer(id);
            if (id >> 10 == first >> 10) return true;
        }
        return false;
    }));
}

TEST(NetTimer, DestroyTimerOfAnUnknownIdDoesNothing) {
    const CPublicPool pool;
    SHandler handler;
    const long id = handler->SetTimer(HOUR_US);
    for (const long unknown : {0L, -1L, 1L, -101L, -102'400L - 1024 * 500, id + 1, id - 1024, -2147483647L}) {
        handler->DestroyTimer(unknown);
    }
    EXPECT_EQ(1U, CNetTimer::armed());
    handler->DestroyTimer(id);
    handler->DestroyTimer(id);
    EXPECT_EQ(0U, CNetTimer::armed());
}

TEST(NetTimer, DestroyTimerInsideItsOwnCallbackDoesNothing) {
    const CPublicPool pool;
    Plinth::CSemaphore done;
    std::atomic<int> calls{0};
    SHandler handler;
    handler->on_timeout = [&](long id) -> std::int64_t {
        handler->DestroyTimer(id);
        done.post();
        return ++calls < 3 ? 0 : -1;
    };
    handler->SetTimer(3000);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(pend(done));
    EXPECT_EQ(3, calls.load());
}

TEST(NetTimer, DestroyTimerWhileAnotherThreadRunsItGoesByTheResult) {
    const CPublicPool pool;
    Plinth::CSemaphore entered;
    Plinth::CSemaphore go_on;
    std::atomic<int> calls{0};
    SHandler handler;
    handler->on_timeout = [&](long) -> std::int64_t {
        entered.post();
        if (++calls == 2) return -1;
        EXPECT_TRUE(pend(go_on));
        return 0;
    };
    const long id = handler->SetTimer(3000);
    ASSERT_TRUE(pend(entered));
    handler->DestroyTimer(id);
    go_on.post();
    EXPECT_TRUE(pend(entered));
    EXPECT_TRUE(waitUntil([] { return CNetTimer::armed() == 0; }));
}

TEST(NetTimer, DestroyTimerFromAnotherThreadEndsIt) {
    const CPublicPool pool;
    std::atomic<int> calls{0};
    SHandler handler;
    handler->on_timeout = [&](long) { return ++calls, 0; };
    std::vector<long> ids;
    for (int i = 0; i < 200; ++i) ids.push_back(handler->SetTimer(3000 + i * 20));
    Plinth::CThreadLite other(
        [&](Plinth::CThreadLite&) {
            // A timer in flight escapes once; until it is back in the heap it cannot be found.
            waitUntil([&] {
                for (const long id : ids) handler->DestroyTimer(id);
                return CNetTimer::armed() == 0;
            });
        },
        "destroyer");
    ASSERT_TRUE(other.createThread());
    other.destroyThread();
    // What was in flight at the end comes back to the heap once and is ended there.
    EXPECT_TRUE(waitUntil([&] {
        for (const long id : ids) handler->DestroyTimer(id);
        const int before = calls.load();
        Plinth::sleepMilliSecond(30);
        return CNetTimer::armed() == 0 && before == calls.load();
    }));
}

TEST(NetTimer, TimersOfAClosedHandlerAreDroppedWhenTheyComeDue) {
    CLogCapture log;
    const CPublicPool pool;
    std::atomic<int> calls{0};
    SHandler handler;
    handler->on_timeout = [&](long) { return ++calls, 0; };
    for (int i = 0; i < 50; ++i) handler->SetTimer(400'000);
    handler.close();
    EXPECT_EQ(50U, CNetTimer::armed());
    EXPECT_TRUE(waitUntil([] { return CNetTimer::armed() == 0; }));
    EXPECT_EQ(0, calls.load());
    EXPECT_EQ(log.count(Plinth::LOG_LEVEL_ERROR, "InitConsoleDebug"), log.count(Plinth::LOG_LEVEL_ERROR, ""));
}

TEST(NetTimer, SetTimerAfterCloseIsRefused) {
    const CPublicPool pool;
    auto* handler = new CTestHandler;
    std::atomic<int> closed{0};
    handler->closed = &closed;
    handler->AddRef();
    handler->Close();
    EXPECT_EQ(-1, handler->SetTimer(3000));
    EXPECT_EQ(0U, CNetTimer::armed());
    handler->DecRef();
    EXPECT_TRUE(waitUntil([&] { return closed.load() == 1; }));
}

TEST(NetTimer, ClosingInsideTheCallbackEndsTheTimer) {
    const CPublicPool pool;
    std::atomic<int> closed{0};
    std::atomic<int> calls{0};
    auto* handler = new CTestHandler;
    handler->closed = &closed;
    handler->on_timeout = [&calls, handler](long) {
        ++calls;
        handler->Close();
        return 0;
    };
    handler->SetTimer(3000);
    EXPECT_TRUE(waitUntil([&] { return closed.load() == 1; }));
    EXPECT_TRUE(waitUntil([] { return CNetTimer::armed() == 0; }));
    EXPECT_EQ(1, calls.load());
}

TEST(NetTimer, AnEarlierTimerIsNotHeldUpByALaterOne) {
    const CPublicPool pool;
    Plinth::CSemaphore done;
    SHandler handler;
    handler->on_timeout = [&](long) {
        done.post();
        return -1;
    };
    const long late = handler->SetTimer(HOUR_US);
    handler->SetTimer(10'000);
    EXPECT_TRUE(pend(done));
    handler->DestroyTimer(late);
}

TEST(NetTimer, AHundredThousandTimersArmedAtOnceEachFireOnce) {
    constexpr std::size_t COUNT = 100'000;
    const CPublicPool pool;
    Plinth::CMutex mutex;
    std::vector<long> fired;
    std::set<long> armed;
    SHandler handler;
    handler->on_timeout = [&](long id) {
        Plinth::CLockGuard guard(mutex);
        fired.push_back(id);
        return -1;
    };
    for (std::size_t i = 0; i < COUNT; ++i) {
        armed.insert(handler->SetTimer(static_cast<std::int64_t>(3000 + (i * 7919) % 200'000)));
    }
    EXPECT_EQ(COUNT, armed.size());
    const auto fired_count = [&] {
        Plinth::CLockGuard guard(mutex);
        return fired.size();
    };
    EXPECT_TRUE(waitUntil([&] { return fired_count() >= COUNT; }, 50'000));
    handler.close();
    EXPECT_EQ(0U, CNetTimer::armed());
    EXPECT_EQ(COUNT, fired.size());
    EXPECT_EQ(armed, std::set<long>(fired.begin(), fired.end()));
}

TEST(NetTimer, TimersOfADestroyedPoolNeverReachItsSuccessor) {
    const CPublicPool pool;
    std::atomic<int> calls{0};
    for (int round = 0; round < 10; ++round) {
        const int number = CNetThread::CreatePrivatePool(2, false);
        ASSERT_GT(number, 0);
        std::atomic<int> closed{0};
        auto* old_handler = new CTestHandler(number);
        old_handler->closed = &closed;
        const long old_id = old_handler->GetID();
        old_handler->on_timeout = [](long) { return 0; };
        for (int i = 0; i < 100; ++i) old_handler->SetTimer(3000 + i * 300);
        EXPECT_EQ(0, CNetThread::DestroyPrivatePool(number));
        EXPECT_EQ(0U, CNetTimer::armed());
        ASSERT_EQ(number, CNetThread::CreatePrivatePool(2, false));
        {
            Plinth::CSemaphore later;
            SHandler successor(number);
            SHandler witness;
            EXPECT_EQ(old_id, successor->GetID());
            successor->on_timeout = [&](long) { return ++calls; };
            witness->on_timeout = [&](long) {
                later.post();
                return -1;
            };
            witness->SetTimer(40'000);
            EXPECT_TRUE(pend(later));
        }
        EXPECT_EQ(0, CNetThread::DestroyPrivatePool(number));
        old_handler->Close();
        old_handler->DecRef();  // the table's reference, which went with the pool
        EXPECT_EQ(1, closed.load());
    }
    EXPECT_EQ(0, calls.load());
}

TEST(NetTimer, ManyThreadsArmAndDestroyWhileTimersFire) {
    const CPublicPool pool(4);
    std::atomic<int> calls{0};
    SHandler handler;
    handler->on_timeout = [&](long) -> std::int64_t { return ++calls % 3 == 0 ? 3000 : -1; };
    handler->SetTimer(3000);  // one that nobody destroys
    std::vector<std::unique_ptr<Plinth::CThreadLite>> threads;
    for (int t = 0; t < 4; ++t) {
        threads.push_back(std::make_unique<Plinth::CThreadLite>(
            [&handler](Plinth::CThreadLite&) {
                for (int i = 0; i < 2000; ++i) {
                    const long id = handler->SetTimer(i % 2 == 0 ? 3000 : HOUR_US);
                    if (i % 2 != 0 || i % 3 == 0) handler->DestroyTimer(id);
                }
            },
            "arming"));
        ASSERT_TRUE(threads.back()->createThread());
    }
    for (auto& thread : threads) thread->destroyThread();
    EXPECT_TRUE(waitUntil([&] { return calls.load() > 0; }));
    EXPECT_TRUE(waitUntil([] { return CNetTimer::armed() == 0; }));
}
