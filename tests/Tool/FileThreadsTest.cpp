// The file threads: their jobs, the messages they deliver, their start and stop.
#include "Tool/FileThreads.h"

#include <Plinth/Mutex.h>
#include <Plinth/Semaphore.h>
#include <Plinth/ThreadManager.h>

#include <memory>
#include <set>
#include <vector>

#include "Core/Message.h"
#include "Support/LogCapture.h"
#include "Tool/Files.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;

/// A file made of callables.
class CJobs : public CFileJobs {
public:
    CJobs() : CFileJobs(callsOf<CJobs>()) {}

    std::function<void(std::uint32_t type, std::int64_t argument)> on_run;
    std::atomic<int> held{0};
    std::atomic<int> released{0};
    std::atomic<int> ran{0};
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};

    bool waitIdle() {
        return waitUntil([this] { return held.load() == released.load(); });
    }

    void run(std::uint32_t type, std::int64_t argument) {
        if (inside.fetch_add(1) != 0) overlaps.fetch_add(1);
        if (on_run) on_run(type, argument);
        inside.fetch_sub(1);
        ran.fetch_add(1);
    }
    void hold() { held.fetch_add(1); }
    void release() { released.fetch_add(1); }
};

TEST(FileThreads, NothingIsQueuedWhileNoneRuns) {
    const CPublicPool pool;
    CJobs jobs;
    EXPECT_FALSE(FileThreads::areRunning());
    EXPECT_FALSE(jobs.queue(FILE_JOB_WRITE, 0));
    EXPECT_EQ(0, jobs.held.load());
}

TEST(FileThreads, TheFirstPoolThatAsksStartsThem) {
    const CPublicPool without;
    EXPECT_FALSE(FileThreads::areRunning());
    const CFilePool with;
    EXPECT_TRUE(FileThreads::areRunning());
}

TEST(FileThreads, AreNamedAndTwiceAsManyAsProcessors) {
    const CFilePool pool;
    const unsigned expected = 2 * Plinth::getProcessorCount();
    Plinth::CMutex mutex;
    std::set<unsigned long> ids;
    std::set<std::string> names;
    CGate gate;
    std::vector<std::unique_ptr<CJobs>> files;
    for (unsigned i = 0; i < expected; ++i) {
        files.push_back(std::make_unique<CJobs>());
        files.back()->on_run = [&](std::uint32_t, std::int64_t) {
            {
                Plinth::CLockGuard guard(mutex);
                ids.insert(Plinth::getCurrentThreadId());
                names.insert(Plinth::CThreadManager::getThreadNameByID(Plinth::getCurrentThreadId()));
            }
            gate.pass();
        };
        EXPECT_TRUE(files.back()->queue(FILE_JOB_WRITE, 0));
    }
    EXPECT_TRUE(waitUntil([&] {
        Plinth::CLockGuard guard(mutex);
        return ids.size() == expected;
    }));
    CJobs one_more;
    EXPECT_TRUE(one_more.queue(FILE_JOB_READ, 0));
    gate.open();
    for (auto& file : files) EXPECT_TRUE(file->waitIdle());
    EXPECT_TRUE(one_more.waitIdle());
    EXPECT_EQ(expected, ids.size());
    EXPECT_EQ(std::set<std::string>{"Ravelo::FileThread"}, names);
}

TEST(FileThreads, JobsOfAFileRunOneAtATimeAndInOrder) {
    const CFilePool pool;
    CJobs jobs;
    CGate gate;
    std::vector<std::uint32_t> order;
    jobs.on_run = [&](std::uint32_t type, std::int64_t) {
        if (order.empty()) gate.pass();
        order.push_back(type);
    };
    EXPECT_TRUE(jobs.queue(FILE_JOB_READ, 0));
    EXPECT_TRUE(waitUntil([&] { return jobs.inside.load() == 1; }));
    EXPECT_TRUE(jobs.queue(FILE_JOB_WRITE, 0));
    EXPECT_TRUE(jobs.queue(FILE_JOB_READ, 0));
    EXPECT_TRUE(jobs.queue(FILE_JOB_CLOSE, 1));
    gate.open();
    EXPECT_TRUE(jobs.waitIdle());
    EXPECT_EQ((std::vector<std::uint32_t>{FILE_JOB_READ, FILE_JOB_WRITE, FILE_JOB_READ, FILE_JOB_CLOSE}),
              order);
    EXPECT_EQ(0, jobs.overlaps.load());
    EXPECT_EQ(1, jobs.held.load());
}

TEST(FileThreads, AJobThatWaitsAlreadyRunsOnceWithTheHighestArgument) {
    const CFilePool pool;
    CJobs jobs;
    CGate gate;
    std::vector<std::int64_t> arguments;
    jobs.on_run = [&](std::uint32_t type, std::int64_t argument) {
        if (type == FILE_JOB_READ) {
            gate.pass();
        } else {
            arguments.push_back(argument);
        }
    };
    EXPECT_TRUE(jobs.queue(FILE_JOB_READ, 0));
    EXPECT_TRUE(waitUntil([&] { return jobs.inside.load() == 1; }));
    for (const std::int64_t argument : {0, 1, 0}) EXPECT_TRUE(jobs.queue(FILE_JOB_WRITE, argument));
    gate.open();
    EXPECT_TRUE(jobs.waitIdle());
    EXPECT_EQ(std::vector<std::int64_t>{1}, arguments);
}

TEST(FileThreads, AJobQueuedByItsOwnRunRunsAgain) {
    const CFilePool pool;
    CJobs jobs;
    jobs.on_run = [&](std::uint32_t, std::int64_t argument) {
        if (argument < 100) jobs.queue(FILE_JOB_WRITE, argument + 1);
    };
    EXPECT_TRUE(jobs.queue(FILE_JOB_WRITE, 0));
    EXPECT_TRUE(waitUntil([&] { return jobs.ran.load() == 101; }));
    EXPECT_TRUE(jobs.waitIdle());
    EXPECT_EQ(1, jobs.held.load());
}

TEST(FileThreads, ASlowFileHoldsUpNoOther) {
    const CFilePool pool;
    CJobs slow;
    CJobs other;
    CGate gate;
    slow.on_run = [&](std::uint32_t, std::int64_t) { gate.pass(); };
    // More jobs than there are threads, all of one file.
    for (int i = 0; i < 100; ++i) EXPECT_TRUE(slow.queue(FILE_JOB_WRITE + i % 2, 0));
    EXPECT_TRUE(other.queue(FILE_JOB_READ, 0));
    EXPECT_TRUE(other.waitIdle());
    EXPECT_EQ(1, slow.inside.load());
    gate.open();
    EXPECT_TRUE(slow.waitIdle());
}

TEST(FileThreads, StopDoesWhatIsQueued) {
    CJobs jobs;
    {
        const CFilePool pool;
        jobs.on_run = [&](std::uint32_t type, std::int64_t argument) {
            Plinth::sleepMilliSecond(1);
            if (argument < 30) jobs.queue(type, argument + 1);
        };
        EXPECT_TRUE(jobs.queue(FILE_JOB_WRITE, 0));
        EXPECT_TRUE(jobs.queue(FILE_JOB_READ, 0));
    }
    EXPECT_EQ(62, jobs.ran.load());
    EXPECT_EQ(jobs.held.load(), jobs.released.load());
    EXPECT_FALSE(jobs.queue(FILE_JOB_WRITE, 0));
}

TEST(FileThreads, JobsFromManyThreadsAllRun) {
    std::atomic<int> queued{0};
    CJobs files[3];
    {
        const CFilePool pool;
        std::vector<std::unique_ptr<CRunner>> runners;
        for (int i = 0; i < 4; ++i) {
            runners.push_back(std::make_unique<CRunner>([&] {
                for (int turn = 0; turn < 3'000; ++turn) {
                    if (files[turn % 3].queue(FILE_JOB_WRITE + turn % 2, 0)) queued.fetch_add(1);
                }
            }));
        }
    }
    EXPECT_EQ(12'000, queued.load());
    for (auto& file : files) {
        EXPECT_EQ(0, file.overlaps.load());
        EXPECT_EQ(file.held.load(), file.released.load());
        EXPECT_GT(file.ran.load(), 0);
    }
}

TEST(FileThreads, DeliverIoMessages) {
    const CFilePool pool;
    auto* handler = new CTestHandler;
    std::atomic<int> received{0};
    std::atomic<bool> on_file_thread{true};
    handler->on_message = [&](long, unsigned type, long info) {
        EXPECT_EQ(5U, type);
        if (!FileThreads::isOwnThread()) on_file_thread.store(false);
        received.fetch_add(static_cast<int>(info));
        return 0;
    };
    for (int i = 0; i < 100; ++i) handler->NotifyIO(handler->GetID(), 5, 1);
    EXPECT_TRUE(waitUntil([&] { return received.load() == 100; }));
    EXPECT_TRUE(on_file_thread.load());
    EXPECT_EQ(0U, CMessage::waitingIo());
    closeAndWait(handler);
}

TEST(FileThreads, DeliverEveryIoMessageThatWaitedForTheirStart) {
    const CPublicPool pool;
    auto* handler = new CTestHandler;
    std::atomic<int> received{0};
    handler->on_message = [&](long, unsigned, long) { return received.fetch_add(1); };
    for (int i = 0; i < 10; ++i) handler->NotifyIO(handler->GetID(), 5, 1);
    EXPECT_EQ(10U, CMessage::waitingIo());
    const CFilePool files;
    EXPECT_TRUE(waitUntil([&] { return received.load() == 10; }));
    closeAndWait(handler);
}

TEST(FileThreads, ABlockingIoMessageHoldsUpNeitherFilesNorPools) {
    const CFilePool pool;
    auto* handler = new CTestHandler;
    CGate gate;
    std::atomic<int> ordinary{0};
    std::atomic<int> blocked{0};
    handler->on_message = [&](long, unsigned type, long) {
        if (type == 2) return ordinary.fetch_add(1);
        blocked.fetch_add(1);
        gate.pass();
        return 0;
    };
    handler->NotifyIO(handler->GetID(), 1, 0);
    EXPECT_TRUE(waitUntil([&] { return blocked.load() == 1; }));
    handler->Notify(handler->GetID(), 2, 0);
    CJobs jobs;
    EXPECT_TRUE(jobs.queue(FILE_JOB_WRITE, 0));
    EXPECT_TRUE(jobs.waitIdle());
    EXPECT_TRUE(waitUntil([&] { return ordinary.load() == 1; }));
    gate.open();
    closeAndWait(handler);
}

TEST(FileThreads, AnIoMessageToAHandlerThatIsGoneIsDropped) {
    const CFilePool pool;
    auto* gone = new CTestHandler;
    const long id = gone->GetID();
    closeAndWait(gone);
    auto* handler = new CTestHandler;
    std::atomic<int> received{0};
    handler->on_message = [&](long, unsigned, long) { return received.fetch_add(1); };
    handler->NotifyIO(id, 5, 1);
    handler->NotifyIO(handler->GetID(), 5, 1);
    EXPECT_TRUE(waitUntil([&] { return received.load() == 1 && CMessage::waitingIo() == 0; }));
    closeAndWait(handler);
}

TEST(FileThreads, ACloseMessageThroughTheIoQueueEndsTheHandler) {
    const CFilePool pool;
    auto* handler = new CTestHandler;
    const long id = handler->GetID();
    CGate closed;
    handler->on_close = [&] { closed.open(); };
    handler->AddRef();
    handler->NotifyIO(id, 12, 0);
    EXPECT_TRUE(waitUntil([&] { return !isBound(id); }));
    handler->Close();  // an open handler must not be destroyed
    handler->DecRef();
    EXPECT_TRUE(closed.pass());
}

TEST(FileThreads, AnIoMessageMayCloseItsReceiver) {
    const CFilePool pool;
    auto* handler = new CTestHandler;
    CGate closed;
    handler->on_close = [&] { closed.open(); };
    handler->on_message = [handler](long, unsigned, long) {
        handler->Close();
        return 0;
    };
    handler->NotifyIO(handler->GetID(), 1, 0);
    EXPECT_TRUE(closed.pass());
}

TEST(FileThreads, DestroyingAPrivatePoolStrandsNoIoMessageOfOthers) {
    const CFilePool pool;
    auto* handler = new CTestHandler;
    std::atomic<int> received{0};
    handler->on_message = [&](long, unsigned, long) { return received.fetch_add(1); };
    for (int turn = 0; turn < 30; ++turn) {
        const int number = CNetThread::CreatePrivatePool(1, true);
        for (int i = 0; i < 20; ++i) handler->NotifyIO(handler->GetID(), 5, 1);
        EXPECT_EQ(0, CNetThread::DestroyPrivatePool(number));
    }
    EXPECT_TRUE(waitUntil([&] { return received.load() == 600; }));
    closeAndWait(handler);
}

TEST(FileThreads, CanNotDestroyTheLastPoolThemselves) {
    const CFilePool pool;
    auto* handler = new CTestHandler;
    CLogCapture log;
    std::atomic<int> result{1};
    handler->on_message = [&](long, unsigned, long) {
        result.store(CNetThread::DestroyThreadPool());
        return 0;
    };
    handler->NotifyIO(handler->GetID(), 1, 0);
    EXPECT_TRUE(waitUntil([&] { return result.load() != 1; }));
    EXPECT_EQ(-1, result.load());
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR,
                           "refused: thread pool 0 can't be destroyed by one of its own threads\n"));
    closeAndWait(handler);
}

TEST(FileThreads, ThatCreateAPoolWhileTheyAreStoppedAreRefused) {
    auto pool = std::make_unique<CFilePool>();
    auto* handler = new CTestHandler;
    CGate inside;
    CGate closed;
    std::atomic<int> result{0};
    handler->on_close = [&] { closed.open(); };
    handler->on_message = [&](long, unsigned, long) {
        inside.open();
        waitUntil([] { return FileThreads::isOwnThreadStopping(); });
        result.store(CNetThread::CreateThreadPool(1, true));
        return 0;
    };
    handler->NotifyIO(handler->GetID(), 1, 0);
    EXPECT_TRUE(inside.pass());
    const long id = handler->GetID();
    handler->Close();
    EXPECT_TRUE(waitUntil([id] { return !isBound(id); }));
    const CLogCapture log;
    pool.reset();
    EXPECT_EQ(-1, result.load());
    EXPECT_TRUE(closed.isOpen());
    EXPECT_EQ(
        1, log.count(Plinth::LOG_LEVEL_ERROR, "refused: the calling thread's own pool is being destroyed\n"));
}

TEST(FileThreads, StartAndStopInEveryOrderWithPools) {
    for (unsigned turn = 0; turn < 200; ++turn) {
        // Which of three pools ask for file threads, and which private one goes first.
        EXPECT_EQ(0, CNetThread::CreateThreadPool(1, (turn & 1U) != 0));
        const int first = CNetThread::CreatePrivatePool(1, (turn & 2U) != 0);
        const int second = CNetThread::CreatePrivatePool(1, (turn & 4U) != 0);
        EXPECT_EQ((turn & 7U) != 0, FileThreads::areRunning());
        CJobs jobs;
        for (int i = 0; i < 3; ++i) jobs.queue(FILE_JOB_WRITE + i % 2, 0);
        const bool public_first = (turn & 16U) != 0;
        if (public_first) {
            EXPECT_EQ(0, CNetThread::DestroyThreadPool());
        }
        EXPECT_EQ(0, CNetThread::DestroyPrivatePool((turn & 8U) != 0 ? second : first));
        EXPECT_EQ(0, CNetThread::DestroyPrivatePool((turn & 8U) != 0 ? first : second));
        if (!public_first) {
            EXPECT_EQ(0, CNetThread::DestroyThreadPool());
        }
        EXPECT_FALSE(FileThreads::areRunning());
        EXPECT_EQ(jobs.held.load(), jobs.released.load());
    }
}

}  // namespace
}  // namespace Veltro::Ravelo
