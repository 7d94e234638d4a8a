#include <Plinth/Semaphore.h>
#include <Plinth/Thread.h>
#include <Plinth/ThreadManager.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "FailingAllocator.h"

namespace Veltro::Plinth {
namespace {

const char* const LONG_NAME = "a name that no system would keep whole";

TEST(ThreadManager, KnowsARunningThreadByItsWholeName) {
    std::string inside;
    CThreadLite thread(
        [&](CThreadLite& self) { inside = CThreadManager::getThreadNameByID(self.getThreadId()); },
        LONG_NAME);
    ASSERT_TRUE(thread.createThread());
    thread.destroyThread();
    EXPECT_EQ(inside, LONG_NAME);
}

TEST(ThreadManager, ForgetsAThreadThatHasEnded) {
    unsigned long thread_id = 0;
    CThreadLite thread([&](CThreadLite&) { thread_id = getCurrentThreadId(); }, "gone");
    ASSERT_TRUE(thread.createThread());
    thread.destroyThread();
    ASSERT_NE(thread_id, 0U);
    EXPECT_EQ(CThreadManager::getThreadNameByID(thread_id), "");
}

TEST(ThreadManager, ForgetsAThreadThatEndedByAnException) {
    unsigned long thread_id = 0;
    CThreadLite thread(
        [&](CThreadLite&) {
            thread_id = getCurrentThreadId();
            throw 1;
        },
        "gone");
    ASSERT_TRUE(thread.createThread());
    thread.destroyThread();
    EXPECT_EQ(CThreadManager::getThreadNameByID(thread_id), "");
}

TEST(ThreadManager, KnowsNothingOfOtherThreads) {
    EXPECT_EQ(CThreadManager::getThreadNameByID(getCurrentThreadId()), "");
    EXPECT_EQ(CThreadManager::getThreadNameByID(0), "");
    EXPECT_EQ(CThreadManager::getThreadNameByID(~0UL), "");
}

TEST(ThreadManager, TellsManyThreadsApart) {
    constexpr int THREADS = 16;
    CSemaphore running;
    std::vector<std::unique_ptr<CThreadLite>> threads;
    for (int i = 0; i < THREADS; ++i) {
        threads.push_back(std::make_unique<CThreadLite>(
            [&](CThreadLite& self) {
                running.post();
                while (self.looping()) sleepMilliSecond(1);
            },
            ("worker " + std::to_string(i)).c_str()));
        ASSERT_TRUE(threads.back()->createThread());
    }
    for (int i = 0; i < THREADS; ++i) running.pend();
    for (const auto& thread : threads) {
        EXPECT_EQ(CThreadManager::getThreadNameByID(thread->getThreadId()), thread->getName());
    }
}

TEST(ThreadManager, WithoutMemoryAThreadHasNoName) {
    if (!TestSupport::libraryUsesThisAllocator()) return;
    bool is_empty = false;
    CThreadLite thread(
        [&](CThreadLite& self) {
            const TestSupport::CFailingAllocator failing;
            is_empty = CThreadManager::getThreadNameByID(self.getThreadId()).empty();
        },
        LONG_NAME);
    ASSERT_TRUE(thread.createThread());
    thread.destroyThread();
    EXPECT_TRUE(is_empty);
}

}  // namespace
}  // namespace Veltro::Plinth
