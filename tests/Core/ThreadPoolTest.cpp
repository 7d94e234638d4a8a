#include "Core/ThreadPool.h"

#include <Plinth/ThreadManager.h>
#include <gtest/gtest.h>

#include <set>

#include "Core/CurrentObject.h"
#include "Core/EventPool.h"
#include "Core/PoolTable.h"
#include "Support/Gate.h"
#include "Support/LogCapture.h"
#include "Support/Reactor.h"

namespace Veltro::Ravelo {

struct SThreadPoolProbe {
    static const SThreadSettings& settings(const CThreadPool& pool) { return pool.m_settings; }
    static std::int64_t loops(const CThreadPool& pool) { return pool.m_loop_counter.load(); }
    static Plinth::CThreadLite& daemon(CThreadPool& pool) { return *pool.m_daemon; }
    static std::size_t workers(const CThreadPool& pool) { return pool.m_threads.size(); }
    static bool serialTokenFree(CThreadPool& pool) {
        Plinth::CLockGuard guard(pool.m_serial_mutex);
        return pool.m_serial_token_free;
    }
    static CEventQueue& serialQueue(CThreadPool& pool) { return pool.m_serial_queue; }
};

namespace {

using TestSupport::CGate;
using TestSupport::CLogCapture;
using TestSupport::closeAndWait;
using TestSupport::CPublicPool;
using TestSupport::CTestHandler;
using TestSupport::waitUntil;

constexpr int ERROR_LEVEL = Plinth::LOG_LEVEL_ERROR;

/// Short times for the daemons of the pools of a test; must outlive them.
class CQuickDaemon {
public:
    CQuickDaemon(std::int64_t watchdog_ms, std::int64_t pass_us) {
        CThreadPool::sm_daemon_times = SDaemonTimes{watchdog_ms, pass_us / 2, pass_us / 2};
    }
    ~CQuickDaemon() { CThreadPool::sm_daemon_times = SDaemonTimes{}; }
};

TEST(ThreadPool, RoundsThreadsUpToAMultipleOfTheProcessors) {
    EXPECT_EQ(CThreadPool::roundThreadCount(1, 4), 4U);
    EXPECT_EQ(CThreadPool::roundThreadCount(5, 4), 8U);
    EXPECT_EQ(CThreadPool::roundThreadCount(0, 4), 4U);
    EXPECT_EQ(CThreadPool::roundThreadCount(4, 4), 4U);
    EXPECT_EQ(CThreadPool::roundThreadCount(8, 4), 8U);
    EXPECT_EQ(CThreadPool::roundThreadCount(9, 4), 12U);
    EXPECT_EQ(CThreadPool::roundThreadCount(3, 2), 4U);
}

TEST(ThreadPool, WithOneProcessorTheRequestStands) {
    EXPECT_EQ(CThreadPool::roundThreadCount(1, 1), 1U);
    EXPECT_EQ(CThreadPool::roundThreadCount(5, 1), 5U);
    EXPECT_EQ(CThreadPool::roundThreadCount(0, 1), 0U);
    EXPECT_EQ(CThreadPool::roundThreadCount(3, 0), 3U);
}

TEST(ThreadPool, ZeroThreadsAreLoggedAndRounded) {
    CLogCapture log;
    EXPECT_EQ(CNetThread::CreateThreadPool(0, false), 0);
    EXPECT_EQ(log.count(ERROR_LEVEL, ", Invalid thread num 0, Please check it!\n"), 1);
    EXPECT_EQ(CPoolTable::peek(0)->threadCount(),
              CThreadPool::roundThreadCount(0, Plinth::getProcessorCount()));
    EXPECT_EQ(CNetThread::DestroyThreadPool(), 0);
}

TEST(ThreadPool, StartsAsManyWorkersAsItCounts) {
    const CPublicPool pool(3);
    CThreadPool& inside = *CPoolTable::peek(0);
    EXPECT_EQ(inside.threadCount(), CThreadPool::roundThreadCount(3, Plinth::getProcessorCount()));
    EXPECT_EQ(SThreadPoolProbe::workers(inside), inside.threadCount());
}

TEST(ThreadPool, WorkersAndDaemonCarryThePoolsNumberInTheirNames) {
    const CPublicPool pool;
    const int number = CNetThread::CreatePrivatePool(1, false);
    auto* handler = new CTestHandler(number);
    std::atomic<unsigned long> worker{0};
    handler->on_message = [&worker](long, unsigned, long) {
        worker.store(Plinth::getCurrentThreadId());
        return 0;
    };
    handler->Notify(handler->GetID(), 1, 0);
    EXPECT_TRUE(waitUntil([&worker] { return worker.load() != 0; }));
    const std::string name = "Ravelo" + std::to_string(number);
    EXPECT_EQ(Plinth::CThreadManager::getThreadNameByID(worker.load()), name);
    Plinth::CThreadLite& daemon = SThreadPoolProbe::daemon(*CPoolTable::peek(number));
    EXPECT_STREQ(daemon.getName(), (name + " daemon").c_str());
    closeAndWait(handler);
    EXPECT_EQ(CNetThread::DestroyPrivatePool(number), 0);
}

TEST(ThreadPool, EveryWorkerEntersTheCurrentObjectMap) {
    const CPublicPool pool(4);
    const unsigned workers = CPoolTable::peek(0)->threadCount();
    EXPECT_TRUE(waitUntil([workers] {
        unsigned entered = 0;
        CCurrentObject::visit([&entered](unsigned long, const CCurrentObject::SModule&) { ++entered; });
        return entered == workers;
    }));
}

TEST(ThreadPool, FirstSerialTokenEndsAndSetsTheFlag) {
    const CPublicPool pool;
    EXPECT_TRUE(waitUntil([] { return SThreadPoolProbe::serialTokenFree(*CPoolTable::peek(0)); }));
}

TEST(ThreadPool, SuccessiveOnesOfANumberHaveDifferentBirths) {
    const CPublicPool pool;
    std::set<std::uint64_t> births;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(CNetThread::CreatePrivatePool(1, false), 1);
        births.insert(CPoolTable::peek(1)->birth());
        ASSERT_EQ(CNetThread::DestroyPrivatePool(1), 0);
    }
    EXPECT_EQ(births.size(), 3U);
}

TEST(ThreadPool, HeartbeatsPassThroughAnIdlePool) {
    const CQuickDaemon quick(60'000, 2'000);
    const CPublicPool pool;
    CThreadPool& inside = *CPoolTable::peek(0);
    const std::int64_t start = SThreadPoolProbe::loops(inside);
    EXPECT_TRUE(waitUntil([&] { return SThreadPoolProbe::loops(inside) > start + 10; }));
}

TEST(ThreadPool, AnIdlePoolIsNoDeadlock) {
    const CQuickDaemon quick(500, 2'000);
    CLogCapture log;
    const CPublicPool pool;
    CThreadPool& inside = *CPoolTable::peek(0);
    const auto start_ms = Plinth::CTime::getCurrentMilliSecond();
    EXPECT_TRUE(waitUntil([&] { return Plinth::CTime::getCurrentMilliSecond() > start_ms + 1'000; }));
    EXPECT_GT(SThreadPoolProbe::loops(inside), 0);
    EXPECT_EQ(log.count(ERROR_LEVEL, "deadlock"), 0);
}

TEST(ThreadPool, WorkersThatAllStayInCallbacksAreReportedWithTheirObjects) {
    const CQuickDaemon quick(100, 10'000);
    CLogCapture log;
    const CPublicPool pool;
    auto* handler = new CTestHandler;
    CGate leave;
    std::atomic<unsigned> inside{0};
    handler->on_message = [&](long, unsigned, long) {
        inside.fetch_add(1);
        EXPECT_TRUE(leave.pass());
        return 0;
    };
    const unsigned workers = CPoolTable::peek(0)->threadCount();
    for (unsigned i = 0; i < workers; ++i) handler->Notify(handler->GetID(), 1, 0);
    EXPECT_TRUE(waitUntil([&] { return inside.load() == workers; }));
    EXPECT_TRUE(
        waitUntil([&log] { return log.count(ERROR_LEVEL, ", All Ravelo Thread deadlock !!!!!!\n") >= 1; }));
    const char* const shown = "], name[Ravelo0], module[Veltro::TestSupport::CTestHandler]\n";
    EXPECT_TRUE(waitUntil([&] { return log.count(ERROR_LEVEL, shown) >= static_cast<int>(workers); }));
    leave.open();
    closeAndWait(handler);
}

TEST(ThreadPool, WorksOnAfterAReportedDeadlock) {
    const CQuickDaemon quick(50, 5'000);
    CLogCapture log;
    const CPublicPool pool;
    auto* handler = new CTestHandler;
    CGate leave;
    std::atomic<unsigned> served{0};
    handler->on_message = [&](long, unsigned, long) {
        EXPECT_TRUE(leave.pass());
        served.fetch_add(1);
        return 0;
    };
    const unsigned workers = CPoolTable::peek(0)->threadCount();
    for (unsigned i = 0; i < workers; ++i) handler->Notify(handler->GetID(), 1, 0);
    EXPECT_TRUE(waitUntil([&log] { return log.count(ERROR_LEVEL, "deadlock") >= 1; }));
    leave.open();
    EXPECT_TRUE(waitUntil([&] { return served.load() == workers; }));
    closeAndWait(handler);
}

TEST(ThreadPool, DaemonsTryTheConsoleFiveTimesInAll) {
    const CQuickDaemon quick(60'000, 2'000);
    CLogCapture log;
    const CPublicPool pool;
    const int number = CNetThread::CreatePrivatePool(1, false);
    EXPECT_TRUE(waitUntil([&log] { return log.count(ERROR_LEVEL, "Will not to able") == 1; }));
    EXPECT_EQ(log.count(ERROR_LEVEL, ", InitConsoleDebug Failed! try again.\n"), 4);
    EXPECT_EQ(log.count(ERROR_LEVEL, ", InitConsoleDebug Failed! Will not to able use console commands.\n"),
              1);
    EXPECT_EQ(CNetThread::DestroyPrivatePool(number), 0);
}

TEST(ThreadPool, SettingsReachTheWorkers) {
    const CPublicPool pool;
    ASSERT_EQ(CNetThread::SetThreadPriority(127, 0, 512 * 1024), 0);
    ASSERT_EQ(CNetThread::CreatePrivatePool(1, false), 1);
    const SThreadSettings& settings = SThreadPoolProbe::settings(*CPoolTable::peek(1));
    EXPECT_EQ(settings.priority, 127);
    EXPECT_EQ(settings.policy, 0);
    EXPECT_EQ(settings.param, 512 * 1024);
    EXPECT_EQ(CNetThread::DestroyPrivatePool(1), 0);
}

TEST(ThreadPool, SettingsApplyToTheNextPoolOnly) {
    const CPublicPool pool;
    ASSERT_EQ(CNetThread::SetThreadPriority(64, 0, 0), 0);
    ASSERT_EQ(CNetThread::SetThreadPriority(1, 1, 65536), 0);
    ASSERT_EQ(CNetThread::CreatePrivatePool(1, false), 1);
    ASSERT_EQ(CNetThread::CreatePrivatePool(1, false), 2);
    EXPECT_EQ(SThreadPoolProbe::settings(*CPoolTable::peek(1)).priority, 1);
    EXPECT_EQ(SThreadPoolProbe::settings(*CPoolTable::peek(1)).policy, 1);
    const SThreadSettings& second = SThreadPoolProbe::settings(*CPoolTable::peek(2));
    EXPECT_EQ(second.priority, 64);
    EXPECT_EQ(second.policy, 0);
    EXPECT_EQ(second.param, 0);
    EXPECT_EQ(CNetThread::DestroyPrivatePool(1), 0);
    EXPECT_EQ(CNetThread::DestroyPrivatePool(2), 0);
}

TEST(ThreadPoolDeathTest, AnUnexpectedEventIsLoggedAndFailsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            CNetThread::CreateThreadPool(1, false);
            CPoolTable::peek(0)->post(CEventPool::get(-60));
            TestSupport::waitUntil([] { return false; });
        },
        "Exist unexpected event, Please check it, key : \\[-60\\]!");
}

TEST(ThreadPoolDeathTest, AnUnexpectedSerialEventIsLoggedAndFailsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            CNetThread::CreateThreadPool(1, false);
            SThreadPoolProbe::serialQueue(*CPoolTable::peek(0)).pushWithoutSignal(CEventPool::get(-50));
            CPoolTable::peek(0)->postSerial(CEventPool::get(-51));
            TestSupport::waitUntil([] { return false; });
        },
        "Exist unexpected event_serial, Please check it, key : \\[-50\\]!");
}

}  // namespace
}  // namespace Veltro::Ravelo
