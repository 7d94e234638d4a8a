#include "Debug/DebugControl.h"

#include <gtest/gtest.h>

#include <string>

#include "Core/CurrentObject.h"
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

constexpr int TRACE = Plinth::LOG_LEVEL_TRACE;
const char* const HEADER = "----------------------- thread module info ------------------------\n";

class DebugControl : public testing::Test {
protected:
    ~DebugControl() override { CDebugControl::ResetSockDumpRule(); }
};

TEST_F(DebugControl, SelectsNothingAtFirst) {
    EXPECT_FALSE(CDebugControl::SockDumpEnabled(5, CDebugControl::LEVEL_LESS));
}

TEST_F(DebugControl, SelectsNothingWhileSwitchedOff) {
    CDebugControl::sm_sock_fd_all.store(true);
    EXPECT_FALSE(CDebugControl::SockDumpEnabled(5, CDebugControl::LEVEL_LESS));
}

TEST_F(DebugControl, SelectsTheDescriptorsOfTheSet) {
    CDebugControl::sm_sock_on.store(true);
    CDebugControl::selectSocks({5, 7});
    EXPECT_TRUE(CDebugControl::SockDumpEnabled(5, 0));
    EXPECT_FALSE(CDebugControl::SockDumpEnabled(6, 0));
    EXPECT_TRUE(CDebugControl::SockDumpEnabled(7, 0));
}

TEST_F(DebugControl, ASiteWritesWhenTheRuleIsAtLeastAsVerbose) {
    CDebugControl::sm_sock_on.store(true);
    CDebugControl::sm_sock_fd_all.store(true);
    for (unsigned rule = 0; rule <= 2; ++rule) {
        CDebugControl::sm_sock_level.store(rule);
        for (unsigned site = 0; site <= 2; ++site) {
            EXPECT_EQ(CDebugControl::SockDumpEnabled(5, site), rule >= site) << rule << site;
        }
    }
}

TEST_F(DebugControl, ShowsALevelThatItDoesNotKnow) {
    CDebugControl::sm_sock_level.store(3);
    CLogCapture log;
    CDebugControl::ShowSockDumpRule();
    EXPECT_EQ(log.count(TRACE, " sm_sock_level = unkown 3 .\n"), 1);
}

TEST_F(DebugControl, TheRuleMayChangeWhileSitesAsk) {
    std::atomic<bool> done{false};
    CDebugControl::sm_sock_on.store(true);
    CRunner asking([&done] {
        while (!done.load()) CDebugControl::SockDumpEnabled(5, 0);
    });
    for (int i = 0; i < 2'000; ++i) CDebugControl::selectSocks({5, i});
    done.store(true);
    asking.join();
    EXPECT_TRUE(CDebugControl::SockDumpEnabled(5, 0));
}

/// A worker inside of a callback until the end of the test.
class ThreadDump : public testing::Test {
protected:
    ThreadDump() {
        handler->on_message = [this](long, unsigned, long) {
            worker.store(Plinth::getCurrentThreadId());
            m_entered.open();
            EXPECT_TRUE(m_leave.pass());
            return 0;
        };
        handler->Notify(handler->GetID(), 1, 0);
        EXPECT_TRUE(m_entered.pass());
    }
    ~ThreadDump() override {
        m_leave.open();
        closeAndWait(handler);
    }
    std::string busyLine() const {
        return "---- thread[" + std::to_string(worker.load()) +
               "], name[Ravelo0], module[Veltro::TestSupport::CTestHandler]\n";
    }

    const CPublicPool pool;
    CTestHandler* handler = new CTestHandler;
    std::atomic<unsigned long> worker{0};

private:
    CGate m_entered;
    CGate m_leave;
};

TEST_F(ThreadDump, ShowsEveryWorkerWithTheClassOfItsHandler) {
    CLogCapture log;
    // Workers enter the table a moment after the pool is made.
    ASSERT_TRUE(TestSupport::waitUntil([&log] {
        log.clear();
        CDebugControl::DumpThreadModALL();
        return log.lines().size() >= 3;
    }));
    log.clear();
    CDebugControl::DumpThreadModALL();
    const auto lines = log.lines();
    EXPECT_EQ(lines[0].text, HEADER);
    EXPECT_EQ(log.count(TRACE, busyLine()), 1);
    const int idle = log.count(TRACE, "], name[Ravelo0], module[NULL]\n");
    EXPECT_EQ(lines.size(), static_cast<std::size_t>(idle) + 2);
    EXPECT_GE(idle, 1);
}

TEST_F(ThreadDump, ShowsOneThread) {
    CLogCapture log;
    CDebugControl::DumpThreadModInfo(static_cast<int>(worker.load()));
    ASSERT_EQ(log.lines().size(), 2U);
    EXPECT_EQ(log.lines()[0].text, HEADER);
    EXPECT_EQ(log.lines()[1].text, busyLine());
}

TEST_F(ThreadDump, SaysThatAThreadIsNotThere) {
    CLogCapture log;
    CDebugControl::DumpThreadModInfo(1);
    ASSERT_EQ(log.lines().size(), 2U);
    EXPECT_EQ(log.lines()[1].text, "---- thread[1] not found\n");
}

TEST_F(ThreadDump, AReportStandsAtTheLevelOfErrors) {
    CLogCapture log;
    CDebugControl::reportThreads();
    EXPECT_EQ(log.count(Plinth::LOG_LEVEL_ERROR, busyLine()), 1);
}

}  // namespace
}  // namespace Veltro::Ravelo
