// Pools: numbers, references, settings and the log lines of CNetThread.
#include <Ravelo/NetThread.h>
#include <gtest/gtest.h>

#include "Core/NetThreadState.h"
#include "Core/PoolTable.h"
#include "Support/LogCapture.h"
#include "Support/Reactor.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CLogCapture;
using TestSupport::CPublicPool;

constexpr int ERROR_LEVEL = Plinth::LOG_LEVEL_ERROR;
constexpr int TRACE_LEVEL = Plinth::LOG_LEVEL_TRACE;

struct SCounts {
    int pools;
    int references;
    bool operator==(const SCounts&) const = default;
};

SCounts counts() {
    SNetThreadState& state = SNetThreadState::get();
    Plinth::CLockGuard guard(state.mutex);
    return {state.pool_count, state.sm_pub_pool_ref};
}

bool exists(int number) {
    return static_cast<bool>(CPoolPin(number));
}

constexpr SCounts NOT_INITIALISED{-1, 0};

TEST(NetThread, StartsWithoutPools) {
    EXPECT_EQ(counts(), NOT_INITIALISED);
    EXPECT_FALSE(exists(0));
}

TEST(NetThread, FirstCreationCountsTwoReferencesAndLogs) {
    CLogCapture log;
    EXPECT_EQ(CNetThread::CreateThreadPool(1, false), 0);
    EXPECT_EQ(counts(), (SCounts{1, 2}));
    EXPECT_EQ(log.count(TRACE_LEVEL, ", Create Ravelo thread pool success!\n"), 1);
    EXPECT_EQ(CNetThread::DestroyThreadPool(), 0);
    EXPECT_EQ(log.count(TRACE_LEVEL, ", Destroy Ravelo thread pool! ret:0\n"), 1);
    EXPECT_EQ(counts(), NOT_INITIALISED);
}

TEST(NetThread, SecondCreationOnlyCountsAndIgnoresTheThreadNumber) {
    const CPublicPool pool(1);
    const unsigned threads = CPoolTable::peek(0)->threadCount();
    const std::uint64_t birth = CPoolTable::peek(0)->birth();
    EXPECT_EQ(CNetThread::CreateThreadPool(threads + 10, false), 0);
    EXPECT_EQ(CPoolTable::peek(0)->threadCount(), threads);
    EXPECT_EQ(counts(), (SCounts{1, 3}));
    EXPECT_EQ(CNetThread::DestroyThreadPool(), 0);
    EXPECT_EQ(counts(), (SCounts{1, 2}));
    EXPECT_EQ(CPoolTable::peek(0)->birth(), birth);
}

TEST(NetThread, CreationsAndReleasesPair) {
    for (int i = 0; i < 5; ++i) ASSERT_EQ(CNetThread::CreateThreadPool(1, false), 0);
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(CNetThread::DestroyThreadPool(), 0);
        ASSERT_TRUE(exists(0));
    }
    EXPECT_EQ(CNetThread::DestroyThreadPool(), 0);
    EXPECT_FALSE(exists(0));
}

TEST(NetThread, AReleaseWithoutAPublicPoolLogsAndChangesNothing) {
    CLogCapture log;
    EXPECT_EQ(CNetThread::DestroyThreadPool(), -1);
    EXPECT_EQ(CNetThread::DestroyThreadPool(), -1);
    EXPECT_EQ(log.count(ERROR_LEVEL, ", The private pool 0 not exist! Can't close it!\n"), 2);
    EXPECT_EQ(log.count(TRACE_LEVEL, ", Destroy Ravelo thread pool! ret:-1\n"), 2);
    EXPECT_EQ(counts(), NOT_INITIALISED);
}

TEST(NetThread, ACreationAfterExcessReleasesStartsFromScratch) {
    { const CPublicPool pool; }
    {
        CLogCapture quiet;
        for (int i = 0; i < 3; ++i) EXPECT_EQ(CNetThread::DestroyThreadPool(), -1);
    }
    EXPECT_EQ(CNetThread::CreateThreadPool(1, false), 0);
    EXPECT_EQ(counts(), (SCounts{1, 2}));
    EXPECT_EQ(CNetThread::DestroyThreadPool(), 0);
    EXPECT_EQ(counts(), NOT_INITIALISED);
}

TEST(NetThread, APrivatePoolBringsThePublicOneWithoutAReference) {
    CLogCapture log;
    EXPECT_EQ(CNetThread::CreatePrivatePool(1, false), 1);
    EXPECT_EQ(counts(), (SCounts{2, 1}));
    EXPECT_TRUE(exists(0));
    EXPECT_EQ(log.count(TRACE_LEVEL, ", Create Ravelo privatepool success!\n"), 1);
    EXPECT_EQ(log.count(TRACE_LEVEL, "Create Ravelo thread pool success!"), 0);
    EXPECT_EQ(CNetThread::DestroyPrivatePool(1), 0);
    EXPECT_EQ(log.count(TRACE_LEVEL, ", Destroy Ravelo privatepool! ret:0\n"), 1);
    EXPECT_EQ(counts(), NOT_INITIALISED);
    EXPECT_FALSE(exists(0));
}

TEST(NetThread, PrivatePoolsKeepThePublicOneAliveUntilTheLastHasGone) {
    ASSERT_EQ(CNetThread::CreateThreadPool(1, false), 0);
    ASSERT_EQ(CNetThread::CreatePrivatePool(1, false), 1);
    ASSERT_EQ(CNetThread::CreatePrivatePool(1, false), 2);
    EXPECT_EQ(CNetThread::DestroyThreadPool(), 0);
    EXPECT_TRUE(exists(0));
    TestSupport::closeAndWait(new TestSupport::CTestHandler(0));
    EXPECT_EQ(CNetThread::DestroyPrivatePool(1), 0);
    EXPECT_TRUE(exists(0));
    EXPECT_EQ(CNetThread::DestroyPrivatePool(2), 0);
    EXPECT_FALSE(exists(0));
    EXPECT_EQ(counts(), NOT_INITIALISED);
}

TEST(NetThread, AUsedPublicPoolOutlivesThePrivateOnes) {
    const CPublicPool pool;
    ASSERT_EQ(CNetThread::CreatePrivatePool(1, false), 1);
    EXPECT_EQ(CNetThread::DestroyPrivatePool(1), 0);
    EXPECT_TRUE(exists(0));
    EXPECT_EQ(counts(), (SCounts{1, 2}));
}

TEST(NetThread, ExcessReleasesWithAPrivatePoolNeverCountBelowZero) {
    ASSERT_EQ(CNetThread::CreatePrivatePool(1, false), 1);
    for (int i = 0; i < 3; ++i) CNetThread::DestroyThreadPool();
    EXPECT_EQ(counts(), (SCounts{2, 0}));
    EXPECT_TRUE(exists(0));
    EXPECT_EQ(CNetThread::DestroyPrivatePool(1), 0);
    EXPECT_EQ(counts(), NOT_INITIALISED);
}

TEST(NetThread, SixtyThreePrivatePoolsAndNotOneMore) {
    const CPublicPool pool(1);
    for (int number = 1; number <= 63; ++number) {
        ASSERT_EQ(CNetThread::CreatePrivatePool(1, false), number);
    }
    CLogCapture log;
    EXPECT_EQ(CNetThread::CreatePrivatePool(1, false), -1);
    EXPECT_EQ(log.count(ERROR_LEVEL, ", No more private pool can be created!\n"), 1);
    EXPECT_EQ(counts().pools, 64);
    // Freed numbers come back, the lowest first.
    EXPECT_EQ(CNetThread::DestroyPrivatePool(40), 0);
    EXPECT_EQ(CNetThread::DestroyPrivatePool(7), 0);
    EXPECT_EQ(CNetThread::CreatePrivatePool(1, false), 7);
    EXPECT_EQ(CNetThread::CreatePrivatePool(1, false), 40);
    EXPECT_EQ(CNetThread::CreatePrivatePool(1, false), -1);
    for (int number = 1; number <= 63; ++number) ASSERT_EQ(CNetThread::DestroyPrivatePool(number), 0);
    EXPECT_EQ(counts(), (SCounts{1, 2}));
}

TEST(NetThread, DestroyPrivatePoolOutsideItsNumbersTouchesNothing) {
    const CPublicPool pool;
    CLogCapture log;
    EXPECT_EQ(CNetThread::DestroyPrivatePool(0), -1);
    EXPECT_EQ(CNetThread::DestroyPrivatePool(64), -1);
    EXPECT_EQ(CNetThread::DestroyPrivatePool(-1), -1);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(counts(), (SCounts{1, 2}));
}

TEST(NetThread, DestroyPrivatePoolOfANumberWithoutAPoolLogs) {
    const CPublicPool pool;
    CLogCapture log;
    EXPECT_EQ(CNetThread::DestroyPrivatePool(5), -1);
    EXPECT_EQ(log.count(ERROR_LEVEL, ", The private pool 5 not exist! Can't close it!\n"), 1);
    EXPECT_EQ(log.count(TRACE_LEVEL, ", Destroy Ravelo privatepool! ret:-1\n"), 1);
    EXPECT_EQ(counts(), (SCounts{1, 2}));
}

TEST(NetThread, ThreadPriorityTakesThreeValuesOnly) {
    CLogCapture log;
    for (const int priority : {0, 2, 63, 65, 126, 128, -1}) {
        EXPECT_EQ(CNetThread::SetThreadPriority(priority, 0, 0), -1);
    }
    EXPECT_EQ(log.count(ERROR_LEVEL, ", SetThreadPriority : Thread priority set error!\n"), 7);
    for (const int priority : {1, 127, 64}) EXPECT_EQ(CNetThread::SetThreadPriority(priority, 0, 0), 0);
    EXPECT_EQ(log.lines().size(), 7U);
}

TEST(NetThread, ThreadPolicyIsZeroOrOne) {
    CLogCapture log;
    EXPECT_EQ(CNetThread::SetThreadPriority(64, 2, 0), -1);
    EXPECT_EQ(CNetThread::SetThreadPriority(64, -1, 0), -1);
    EXPECT_EQ(log.count(ERROR_LEVEL, ", SetThreadPriority : Thread policy set error!\n"), 2);
    EXPECT_EQ(CNetThread::SetThreadPriority(64, 1, -7), 0);
    EXPECT_EQ(CNetThread::SetThreadPriority(64, 0, 0), 0);
}

TEST(NetThread, ARefusedSettingChangesNothing) {
    EXPECT_EQ(CNetThread::SetThreadPriority(127, 1, 3), 0);
    {
        CLogCapture quiet;
        EXPECT_EQ(CNetThread::SetThreadPriority(5, 0, 0), -1);
        EXPECT_EQ(CNetThread::SetThreadPriority(64, 5, 0), -1);
    }
    SNetThreadState& state = SNetThreadState::get();
    Plinth::CLockGuard guard(state.mutex);
    EXPECT_EQ(state.worker_settings.priority, 127);
    EXPECT_EQ(state.worker_settings.policy, 1);
    EXPECT_EQ(state.worker_settings.param, 3);
}

TEST(NetThread, ReceiveThreadSettingsAreKept) {
    CLogCapture log;
    EXPECT_EQ(CNetThread::SetRecvThreadPriority(5, 2, 0), -1);
    EXPECT_EQ(log.count(ERROR_LEVEL, ", SetRecvThreadPriority : Thread policy set error!\n"), 1);
    EXPECT_EQ(CNetThread::SetRecvThreadPriority(5, 1, 9), 0);
    { const CPublicPool pool; }
    SNetThreadState& state = SNetThreadState::get();
    Plinth::CLockGuard guard(state.mutex);
    EXPECT_EQ(state.recv_settings.priority, 5);
    EXPECT_EQ(state.recv_settings.policy, 1);
    EXPECT_EQ(state.recv_settings.param, 9);
}

TEST(NetThread, ReceivePaceTakesAnyLevelWithOrWithoutPools) {
    for (const int level : {-1, 0, 1, 2, 3, 4}) CNetThread::SetRcvPriority(level);
    const CPublicPool pool;
    for (const int level : {-1, 0, 1, 2, 3, 4}) CNetThread::SetRcvPriority(level);
}

TEST(NetThread, SocketCapacityOfZeroIsRefused) {
    CLogCapture log;
    EXPECT_EQ(CNetThread::SetSocketCapacity(0), -1);
    EXPECT_EQ(log.count(ERROR_LEVEL, ", SetSocketCapacity : capacity 0 is not within 1 and "), 1);
    EXPECT_EQ(CNetThread::SetSocketCapacity(4096), 0);
}

TEST(NetThread, TheRemoteServerIsSwitchedOff) {
    CLogCapture log;
    EXPECT_EQ(CNetThread::EnableR3(), -1);
    EXPECT_EQ(log.count(ERROR_LEVEL, "R3ServerStart failed!!\n\n"), 1);
    EXPECT_EQ(CNetThread::DisableR3(), 0);
}

TEST(NetThread, PlainFunctionsCreateAndDestroyThePublicPool) {
    EXPECT_EQ(::CreateThreadPool(1, false), 0);
    EXPECT_EQ(counts(), (SCounts{1, 2}));
    EXPECT_EQ(::DestroyThreadPool(), 0);
    EXPECT_EQ(counts(), NOT_INITIALISED);
}

TEST(NetThread, PoolsWithFileThreadsPairAsOthersDo) {
    EXPECT_EQ(CNetThread::CreateThreadPool(1, true), 0);
    EXPECT_EQ(CNetThread::CreatePrivatePool(1, true), 1);
    EXPECT_EQ(CNetThread::DestroyPrivatePool(1), 0);
    EXPECT_EQ(CNetThread::DestroyThreadPool(), 0);
    EXPECT_EQ(counts(), NOT_INITIALISED);
}

}  // namespace
}  // namespace Veltro::Ravelo
