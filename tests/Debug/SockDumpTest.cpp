#include "Debug/SockDump.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "Core/BTree.h"
#include "Core/NetHandlerRecord.h"
#include "Core/PoolTable.h"
#include "Core/StreamPair.h"
#include "Core/ThreadPool.h"
#include "Support/LogCapture.h"
#include "Support/Reactor.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CLogCapture;
using TestSupport::closeAndWait;
using TestSupport::CPublicPool;
using TestSupport::CTestHandler;
using TestSupport::SStreamPair;

constexpr int TRACE = Plinth::LOG_LEVEL_TRACE;
const char* const TYPE = "Veltro::TestSupport::CTestHandler";

std::string pointerText(const CNetHandler* handler) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", static_cast<const void*>(handler));
    return text;
}

class SockDump : public testing::Test {
protected:
    ~SockDump() override {
        for (auto& pair : pairs) handler->RemoveSock(pair->near_end);
        closeAndWait(handler);
    }
    /// Registers so many sockets; returns their descriptors in ascending order.
    std::vector<int> registerSocks(int count, unsigned mask = EventMask::Read) {
        std::vector<int> fds;
        for (int i = 0; i < count; ++i) {
            pairs.push_back(std::make_unique<SStreamPair>());
            EXPECT_EQ(handler->RegisterSock(pairs.back()->near_end, mask, 0), 0);
            fds.push_back(pairs.back()->near_end.GetHandle());
        }
        std::sort(fds.begin(), fds.end());
        return fds;
    }
    static std::string header(int fd, const char* type = TYPE) {
        return "------------ Dump Sock fd[" + std::to_string(fd) + "][" + type + "] SEvent ------------\n";
    }
    static std::string traversalLine(int fd, const CNetHandler* owner) {
        return ", CThreadPool::Traversal, sock fd: " + std::to_string(fd) + ", owner: " + pointerText(owner) +
               ", owner type:" + TYPE + " \n";
    }
    /// The lines of a traversal, in order.
    static std::vector<std::string> traversalLines(const CLogCapture& log) {
        std::vector<std::string> lines;
        for (const auto& line : log.lines()) {
            const auto start = line.text.find("CThreadPool::Traversal");
            if (start != std::string::npos) lines.push_back(line.text.substr(start));
        }
        return lines;
    }

    const CPublicPool pool;
    CTestHandler* handler = new CTestHandler;
    std::vector<std::unique_ptr<SStreamPair>> pairs;
};

TEST_F(SockDump, TraversalOfNothingCountsZero) {
    CLogCapture log;
    EXPECT_EQ(CNetThread::TraversalSock(), 0);
    EXPECT_TRUE(traversalLines(log).empty());
}

TEST_F(SockDump, TraversalLogsEverySocketInKeyOrder) {
    const auto fds = registerSocks(20);
    CLogCapture log;
    EXPECT_EQ(CNetThread::TraversalSock(), 20);
    const auto lines = traversalLines(log);
    ASSERT_EQ(lines.size(), 20U);
    for (std::size_t i = 0; i < fds.size(); ++i) {
        EXPECT_EQ(", " + lines[i], traversalLine(fds[i], handler));
    }
    EXPECT_EQ(log.count(TRACE, "CThreadPool::Traversal"), 20);
}

TEST_F(SockDump, TraversalCountsTheSocketsOfAllPools) {
    registerSocks(2);
    const int number = CNetThread::CreatePrivatePool(1, false);
    auto* other = new CTestHandler(number);
    SStreamPair pair;
    ASSERT_EQ(other->RegisterSock(pair.near_end, EventMask::Read, 0), 0);
    EXPECT_EQ(CNetThread::TraversalSock(), 3);
    other->RemoveSock(pair.near_end);
    closeAndWait(other);
    EXPECT_EQ(CNetThread::DestroyPrivatePool(number), 0);
}

TEST_F(SockDump, TraversalLeavesOutASocketWhoseOwnerHasGone) {
    registerSocks(1);
    auto* gone = new CTestHandler;
    ASSERT_EQ(gone->RegisterSock(pairs[0]->far_end, EventMask::Read, 0), 0);
    {
        CLogCapture quiet;
        closeAndWait(gone);
    }
    CLogCapture log;
    EXPECT_EQ(CNetThread::TraversalSock(), 1);
    EXPECT_EQ(traversalLines(log).size(), 1U);
    handler->RemoveSock(pairs[0]->far_end);
}

/// What a gated walk over the pool's socket table lets through when the owner of one descriptor is gone.
int visibleWithout(int hidden_fd) {
    const CPoolPin pool(0);
    int visible = 0;
    Plinth::CReadGuard guard(pool->sockets().lock());
    pool->sockets().visitGated([hidden_fd](SKeyedEntry* entry) { return entry->key != hidden_fd; },
                               [&visible](SKeyedEntry*) { ++visible; });
    return visible;
}

TEST_F(SockDump, AVanishedOwnerAlsoHidesTheSmallerDescriptorsBelowItInTheTree) {
    const auto fds = registerSocks(30);
    // The socket whose record hides most stands in an inner node.
    int hiding_fd = fds[0];
    for (const int fd : fds) {
        if (visibleWithout(fd) < visibleWithout(hiding_fd)) hiding_fd = fd;
    }
    const int expected = visibleWithout(hiding_fd);
    ASSERT_LT(expected, 29);
    auto* gone = new CTestHandler;
    for (auto& pair : pairs) {
        if (pair->near_end.GetHandle() != hiding_fd) continue;
        ASSERT_EQ(gone->RegisterSock(pair->near_end, EventMask::Read, 0), 0);
    }
    {
        CLogCapture quiet;
        closeAndWait(gone);
    }
    EXPECT_EQ(CNetThread::TraversalSock(), expected);
}

TEST_F(SockDump, OneSocketGivesOneBlock) {
    const int fd = registerSocks(2)[0];
    CLogCapture log;
    CNetThread::DumpSockEvent(fd);
    EXPECT_EQ(log.count(TRACE, header(fd)), 1);
    EXPECT_EQ(log.count(TRACE, "---- obj: " + pointerText(handler) + "\n"), 1);
    EXPECT_EQ(log.count(TRACE, "---- obj_id: " + std::to_string(handler->GetID()) + "\n"), 1);
    EXPECT_EQ(log.count(TRACE, std::string("---- obj_type: ") + TYPE + "\n"), 1);
    EXPECT_EQ(log.count(TRACE, "---- m_revents: 0|VL_NOPOLL|\n"), 1);
    EXPECT_EQ(log.count(TRACE, "---- m_event_mask: 1|Read|\n"), 1);
    EXPECT_EQ(log.count(TRACE, "---- timer.m_set_time: 0\n"), 1);
    EXPECT_EQ(log.count(TRACE, "---- timer.m_time_out: 0\n"), 1);
    EXPECT_EQ(log.lines().size(), 8U);
}

TEST_F(SockDump, ShowsTheTimeOut) {
    SStreamPair pair;
    ASSERT_EQ(handler->RegisterSock(pair.near_end, EventMask::Read | EventMask::Protect, 30'000'000), 0);
    CLogCapture log;
    CNetThread::DumpSockEvent(pair.near_end.GetHandle());
    EXPECT_EQ(log.count(TRACE, "---- m_event_mask: 2049|Read|Protect|\n"), 1);
    EXPECT_EQ(log.count(TRACE, "---- timer.m_set_time: 30000\n"), 1);
    EXPECT_EQ(log.count(TRACE, "---- timer.m_time_out: 0\n"), 0);
    handler->RemoveSock(pair.near_end);
}

TEST_F(SockDump, DescriptorZeroMeansAll) {
    const auto fds = registerSocks(3);
    CLogCapture log;
    CNetThread::DumpSockEvent(0);
    for (const int fd : fds) EXPECT_EQ(log.count(TRACE, header(fd)), 1);
    EXPECT_EQ(log.lines().size(), 24U);
}

TEST_F(SockDump, AnUnregisteredDescriptorGivesNothing) {
    registerSocks(1);
    CLogCapture log;
    CNetThread::DumpSockEvent(1'000'000);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(SockDump, AListGivesTheBlocksOfItsSockets) {
    auto fds = registerSocks(4);
    int wanted[] = {fds[3], fds[1], 1'000'000};
    CLogCapture log;
    CNetThread::DumpSockArrayEvent(wanted, 3);
    EXPECT_EQ(log.count(TRACE, "Dump Sock fd["), 2);
    EXPECT_EQ(log.count(TRACE, header(fds[1])), 1);
    EXPECT_EQ(log.count(TRACE, header(fds[3])), 1);
}

TEST_F(SockDump, AnEmptyListGivesNothing) {
    auto fds = registerSocks(1);
    CLogCapture log;
    CNetThread::DumpSockArrayEvent(fds.data(), 0);
    CNetThread::DumpSockArrayEvent(nullptr, 1);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(SockDump, AHandlerGivesTheBlocksOfItsSockets) {
    const auto fds = registerSocks(2);
    auto* other = new CTestHandler;
    SStreamPair pair;
    ASSERT_EQ(other->RegisterSock(pair.near_end, EventMask::Read, 0), 0);
    CLogCapture log;
    CNetThread::DumpNethandlerEvent(handler->GetID());
    EXPECT_EQ(log.count(TRACE, "Dump Sock fd["), 2);
    log.clear();
    CNetThread::DumpNethandlerEvent(other->GetID());
    EXPECT_EQ(log.count(TRACE, header(pair.near_end.GetHandle())), 1);
    EXPECT_EQ(log.count(TRACE, "Dump Sock fd["), 1);
    log.clear();
    CNetThread::DumpNethandlerEvent(0);
    EXPECT_EQ(log.count(TRACE, "Dump Sock fd["), 3);
    other->RemoveSock(pair.near_end);
    closeAndWait(other);
}

TEST_F(SockDump, ASocketWhoseOwnerHasGoneShowsNoObject) {
    auto* gone = new CTestHandler;
    SStreamPair pair;
    ASSERT_EQ(gone->RegisterSock(pair.near_end, EventMask::Read, 0), 0);
    {
        CLogCapture quiet;
        closeAndWait(gone);
    }
    CLogCapture log;
    CNetThread::DumpSockEvent(pair.near_end.GetHandle());
    EXPECT_EQ(log.count(TRACE, header(pair.near_end.GetHandle(), "NULL")), 1);
    EXPECT_EQ(log.count(TRACE, "---- obj_type: NULL\n"), 1);
    handler->RemoveSock(pair.near_end);
}

TEST(SockDumpWithoutPools, FindsNothing) {
    CLogCapture log;
    EXPECT_EQ(CNetThread::TraversalSock(), 0);
    CNetThread::DumpSockEvent(0);
    CNetThread::DumpNethandlerEvent(0);
    EXPECT_TRUE(log.lines().empty());
}

}  // namespace
}  // namespace Veltro::Ravelo
