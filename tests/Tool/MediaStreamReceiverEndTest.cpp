// The ends of receivers and of the library under them: from inside callbacks, under load, and in every order.
#include <memory>
#include <string>

#include "Support/Gate.h"
#include "Support/LogCapture.h"
#include "Tool/PacedReceivers.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;
using Times = std::vector<std::int64_t>;

constexpr auto STREAM = CMediaStreamReceiver::RECEIVE_MODE_STREAM;
constexpr auto PASSIVE = CMediaStreamReceiver::RECEIVE_MODE_PASSIVE;
constexpr auto WRITE = CMediaStreamReceiver::RECEIVE_MODE_WRITE;
constexpr CMediaStreamReceiver::receiver_mode MODES[] = {STREAM, PASSIVE, WRITE};

/// How many messages of a type came from each sender.
std::size_t countFrom(const CListener& listener, long sender, unsigned type) {
    const auto messages = listener.messages();
    return static_cast<std::size_t>(
        std::count(messages.begin(), messages.end(), CListener::SMessage{sender, type, 0}));
}

TEST(MediaStreamReceiverEnd, AReceiverClosedInsideItsCallbackIsCalledNoMore) {
    for (const auto mode : MODES) {
        CPacedPool pool;
        const CListener listener;
        std::size_t calls = 0;
        CTestReceiver* receiver = pool.make(mode);
        receiver->WaitException(listener.id());
        receiver->on_call = [receiver, &calls] {
            calls += 1;
            receiver->Close();
            return 0;
        };
        receiver->StartReceive(0, 1.0F);
        pool.time.rest();
        EXPECT_EQ(0, pool.closed());
        pool.time.run(3 * FAST_PERIOD_US);
        EXPECT_TRUE(pool.waitClosed(1));
        EXPECT_EQ(1U, calls);
        EXPECT_TRUE(listener.waitFor(1));
        EXPECT_EQ(1U, listener.messages().size());
    }
}

TEST(MediaStreamReceiverEnd, AReceiverMayStopAndStartItselfInsideItsCallback) {
    CPacedPool pool;
    CLogCapture log;
    CTestReceiver* receiver = pool.make();
    receiver->on_call = [receiver] {
        receiver->StopReceive();
        if (receiver->calls() < 3) receiver->StartReceive(0, 1.0F);
        return 0;
    };
    receiver->StartReceive(0, 1.0F);
    pool.time.run(6 * PERIOD_US);
    EXPECT_EQ((Times{0, 40'000, 60'000}), receiver->at_us[STREAM]);
    EXPECT_TRUE(log.lines().empty());
}

TEST(MediaStreamReceiverEnd, AReceiverMayEndTheOthersOfItsGroup) {
    CPacedPool pool(1);
    std::vector<CTestReceiver*> receivers;
    for (int i = 0; i < 5; ++i) receivers.push_back(pool.start());
    std::vector<std::size_t> calls(5, 0);
    for (std::size_t i = 0; i < 5; ++i) {
        receivers[i]->on_call = [&, i] {
            if (++calls[i] == 1 && i == 2) {
                for (const std::size_t other : {0U, 1U, 3U, 4U}) receivers[other]->Close();
            }
            return 0;
        };
    }
    pool.time.run(3 * PERIOD_US);
    EXPECT_EQ((std::vector<std::size_t>{1, 1, 2, 0, 0}), calls);
    EXPECT_TRUE(pool.waitClosed(4));
}

TEST(MediaStreamReceiverEnd, AReceiverMayStartOthersInsideItsCallback) {
    CPacedPool pool;
    std::vector<CTestReceiver*> started;
    CTestReceiver* receiver = pool.make();
    receiver->on_call = [&] {
        if (!started.empty()) return 0;
        for (int i = 0; i < 4; ++i) {
            started.push_back(pool.make(i % 2 == 0 ? STREAM : WRITE));
            started.back()->StartReceive(0, 1.0F);
        }
        return 0;
    };
    receiver->StartReceive(0, 1.0F);
    pool.time.run(4 * FAST_PERIOD_US);
    ASSERT_EQ(4U, started.size());
    for (const CTestReceiver* other : started) EXPECT_LE(3U, other->calls());
}

TEST(MediaStreamReceiverEnd, AnHeirMayStartWhileTheThreadEndsItsLastReceiver) {
    // The last reference may go on the pacing thread, or on a worker: both lead here.
    CPacedPool pool(1);
    std::atomic<CTestReceiver*> heir{nullptr};
    CTestReceiver* receiver = pool.start();
    receiver->on_close = [&] {
        CTestReceiver* next = pool.make();
        next->StartReceive(0, 1.0F);
        heir = next;
    };
    receiver->Close();
    pool.time.run(2 * PERIOD_US);
    EXPECT_TRUE(waitUntil([&heir] { return heir.load() != nullptr; }));
    pool.time.rest();
    pool.time.run(2 * PERIOD_US);
    EXPECT_LE(2U, heir.load()->calls());
}

TEST(MediaStreamReceiverEnd, AnHeirMayStartOnThePacingThreadItself) {
    // A handler whose last reference a callback drops ends inside that callback.
    CPacedPool pool(1);
    std::atomic<CTestReceiver*> heir{nullptr};
    CTestReceiver* receiver = pool.make();
    CTestReceiver* victim = pool.make();
    victim->on_close = [&] {
        CTestReceiver* next = pool.make();
        next->StartReceive(0, 1.0F);
        heir = next;
    };
    victim->AddRef();
    victim->Close();
    receiver->on_call = [&] {
        if (receiver->calls() == 2) {
            receiver->Close();
            victim->DecRef();
        }
        return 0;
    };
    receiver->StartReceive(0, 1.0F);
    pool.time.run(6 * PERIOD_US);
    EXPECT_TRUE(waitUntil([&heir] { return heir.load() != nullptr; }));
    pool.time.run(2 * PERIOD_US);
    EXPECT_LE(2U, heir.load()->calls());
}

TEST(MediaStreamReceiverEnd, NoOperationWaitsForACallbackOfAnother) {
    const CPublicPool pool;
    CGate inside;
    CGate leave;
    std::atomic<int> closed{0};
    auto* slow = new CTestReceiver(&closed);
    slow->on_call = [&] {
        inside.open();
        EXPECT_TRUE(leave.pass());
        return 0;
    };
    slow->StartReceive(0, 1.0F);
    ASSERT_TRUE(inside.pass());
    // On the same threads and on others, the slow one itself, too.
    for (int i = 0; i < 8; ++i) {
        auto* other = new CTestReceiver(&closed);
        other->SetReceiveMode(MODES[i % 3]);
        other->StartReceive(0, 1.0F);
        other->StopReceive();
        other->StartReceive(0, 1.0F);
        other->Close();
    }
    slow->StopReceive();
    slow->StartReceive(0, 1.0F);
    slow->Close();
    leave.open();
    EXPECT_TRUE(waitUntil([&closed] { return closed.load() == 9; }));
}

TEST(MediaStreamReceiverEnd, TheLibraryTellsAndClosesEveryReceiverOnce) {
    auto pool = std::make_unique<CPublicPool>();
    std::atomic<int> closed{0};
    const CListener listener;
    std::vector<long> ids;
    for (int i = 0; i < 60; ++i) {
        auto* receiver = new CTestReceiver(&closed);
        receiver->SetReceiveMode(MODES[i % 3]);
        receiver->WaitException(listener.id());
        ids.push_back(receiver->GetID());
        receiver->StartReceive(0, 1.0F);
        if (i % 4 == 1) receiver->StopReceive();
        if (i % 4 == 2) receiver->Close();
    }
    pool.reset();
    EXPECT_EQ(60, closed.load());
    EXPECT_EQ(60U, listener.messages().size());
    for (const long id : ids) EXPECT_EQ(1U, countFrom(listener, id, NOTIFY_RECEIVER_CLOSED)) << id;
}

TEST(MediaStreamReceiverEnd, AReceiverThatNeverStartedIsLeftAlone) {
    auto pool = std::make_unique<CPublicPool>();
    std::atomic<int> closed{0};
    auto* receiver = new CTestReceiver(&closed);
    pool.reset();
    EXPECT_EQ(0, closed.load());
    receiver->Close();
    delete receiver;
}

TEST(MediaStreamReceiverEnd, AReferenceOutlivesTheLibrary) {
    auto pool = std::make_unique<CPublicPool>();
    std::atomic<int> closed{0};
    auto* receiver = new CTestReceiver(&closed);
    receiver->AddRef();
    receiver->StartReceive(0, 1.0F);
    pool.reset();
    EXPECT_EQ(0, closed.load());
    {
        CLogCapture log;
        receiver->StopReceive();
        receiver->StartReceive(0, 1.0F);
        EXPECT_EQ(2U, log.lines().size());
    }
    receiver->Close();
    receiver->DecRef();
    EXPECT_EQ(1, closed.load());
}

TEST(MediaStreamReceiverEnd, TheLibraryCannotBeEndedByACallback) {
    CLogCapture log;
    std::atomic<int> closed{0};
    {
        const CPublicPool pool;
        CGate refused;
        auto* receiver = new CTestReceiver(&closed);
        receiver->on_call = [&] {
            EXPECT_EQ(-1, CNetThread::DestroyThreadPool());
            receiver->on_call = nullptr;
            refused.open();
            return 0;
        };
        receiver->StartReceive(0, 1.0F);
        EXPECT_TRUE(refused.pass());
    }
    EXPECT_EQ(1, log.count(Plinth::LOG_LEVEL_ERROR,
                           "refused: thread pool 0 can't be destroyed by one of its own threads\n"));
    EXPECT_EQ(1, closed.load());
}

TEST(MediaStreamReceiverEnd, ACallbackMayMakeAndEndPools) {
    std::atomic<int> closed{0};
    const CPublicPool pool;
    CGate done;
    auto* receiver = new CTestReceiver(&closed);
    receiver->on_call = [&] {
        EXPECT_EQ(0, CNetThread::CreateThreadPool(1, false));
        const int number = CNetThread::CreatePrivatePool(1, false);
        EXPECT_EQ(0, CNetThread::DestroyPrivatePool(number));
        EXPECT_EQ(0, CNetThread::DestroyThreadPool());
        receiver->Close();
        done.open();
        return 0;
    };
    receiver->StartReceive(0, 1.0F);
    EXPECT_TRUE(done.pass());
    EXPECT_TRUE(waitUntil([&closed] { return closed.load() == 1; }));
}

/// Ends the library while a callback or a message asks for what its end holds.
struct SEnding {
    CLogCapture log;
    std::atomic<int> closed{0};
    CGate inside;
    CGate ending;
    std::unique_ptr<CPublicPool> pool = std::make_unique<CPublicPool>();
    CTestReceiver* receiver = new CTestReceiver(&closed);

    void run() {
        receiver->StartReceive(0, 1.0F);
        EXPECT_TRUE(inside.pass());
        CRunner ender([this] { pool.reset(); });
        // The end has begun when nobody can join any more.
        EXPECT_TRUE(waitUntil([] { return RecvThreads::numbers(STREAM).empty(); }));
        ending.open();
        ender.join();
        EXPECT_EQ(1, closed.load());
    }
};

TEST(MediaStreamReceiverEnd, ACallbackThatAsksForAPoolAtTheEndIsRefused) {
    SEnding end;
    end.receiver->on_call = [&end] {
        end.receiver->on_call = nullptr;
        end.inside.open();
        EXPECT_TRUE(end.ending.pass());
        EXPECT_EQ(-1, CNetThread::CreateThreadPool(1, false));
        EXPECT_EQ(-1, CNetThread::CreatePrivatePool(1, false));
        EXPECT_EQ(-1, CNetThread::DestroyThreadPool());
        return 0;
    };
    end.run();
    EXPECT_EQ(3, end.log.count(Plinth::LOG_LEVEL_ERROR, ", refused: the calling thread's own pool is being"));
}

TEST(MediaStreamReceiverEnd, ACallbackThatStartsAnotherReceiverAtTheEndOnlyLogs) {
    SEnding end;
    std::atomic<int> other_closed{0};
    auto* other = new CTestReceiver(&other_closed);
    other->AddRef();
    end.receiver->on_call = [&] {
        end.receiver->on_call = nullptr;
        end.inside.open();
        EXPECT_TRUE(end.ending.pass());
        other->StartReceive(0, 1.0F);
        other->Close();
        return 0;
    };
    end.run();
    EXPECT_EQ(1, end.log.count(Plinth::LOG_LEVEL_ERROR, "StartReceive : Thread start failed. error:"));
    EXPECT_EQ(0U, other->calls());
    other->DecRef();
    EXPECT_EQ(1, other_closed.load());
}

TEST(MediaStreamReceiverEnd, WorkersThatAskForAPoolDoNotHoldUpTheEnd) {
    SEnding end;
    std::atomic<int> refused{0};
    auto* handler = new CTestHandler;
    handler->on_message = [&](long, unsigned, long) {
        EXPECT_TRUE(end.ending.pass());
        if (CNetThread::CreateThreadPool(1, false) == -1) refused += 1;
        return 0;
    };
    end.receiver->on_call = [&] {
        end.receiver->on_call = nullptr;
        // As many as the pool can have workers, and more.
        for (unsigned i = 0; i < 4 * Plinth::getProcessorCount(); ++i) {
            handler->Notify(handler->GetID(), 100, 0);
        }
        end.inside.open();
        return 0;
    };
    end.run();
    EXPECT_LE(1, refused.load());
    handler->Close();
    delete handler;
}

TEST(MediaStreamReceiverEnd, TheLibraryStartsAndEndsInEveryOrder) {
    // What is started, in each of the orders: the public pool, a private one, receivers of two modes.
    for (int round = 0; round < 200; ++round) {
        std::atomic<int> closed{0};
        int made = 0;
        const bool files = round % 2 == 0;
        const bool private_first = round / 2 % 2 == 0;
        const bool public_ends_first = round / 4 % 2 == 0;
        const bool ends_itself = round / 8 % 3 == 0;
        int number = private_first ? CNetThread::CreatePrivatePool(1, files) : 0;
        ASSERT_EQ(0, CNetThread::CreateThreadPool(1, files));
        std::vector<CTestReceiver*> receivers;
        for (const auto mode : {STREAM, WRITE, PASSIVE}) {
            if (round / 8 % 3 == 1 && mode == WRITE) continue;
            receivers.push_back(new CTestReceiver(&closed));
            receivers.back()->SetReceiveMode(mode);
            receivers.back()->StartReceive(0, 1.0F);
            made += 1;
        }
        if (!private_first) number = CNetThread::CreatePrivatePool(1, files);
        ASSERT_EQ(1, number);
        if (ends_itself) {
            for (CTestReceiver* receiver : receivers) receiver->Close();
        }
        if (public_ends_first) {
            EXPECT_EQ(0, CNetThread::DestroyThreadPool());
            EXPECT_EQ(0, CNetThread::DestroyPrivatePool(number));
        } else {
            EXPECT_EQ(0, CNetThread::DestroyPrivatePool(number));
            EXPECT_EQ(0, CNetThread::DestroyThreadPool());
        }
        ASSERT_EQ(made, closed.load()) << round;
        EXPECT_TRUE(RecvThreads::numbers(STREAM).empty());
    }
}

TEST(MediaStreamReceiverEnd, ManyThreadsStartStopAndCloseTheSameReceivers) {
    const CLogCapture log(Plinth::LOG_LEVEL_FATAL);
    const CPublicPool pool;
    std::atomic<int> closed{0};
    constexpr int ROUNDS = 20;
    constexpr int COUNT = 10;
    for (int round = 0; round < ROUNDS; ++round) {
        std::vector<CTestReceiver*> receivers;
        for (int i = 0; i < COUNT; ++i) {
            receivers.push_back(new CTestReceiver(&closed));
            receivers.back()->SetReceiveMode(MODES[i % 3]);
            receivers.back()->on_call = [receiver = receivers.back()] {
                receiver->StopReceive();
                receiver->StartReceive(0, 1.0F);
                return 1;
            };
            receivers.back()->AddRef();
        }
        {
            std::vector<std::unique_ptr<CRunner>> runners;
            for (int thread = 0; thread < 3; ++thread) {
                runners.push_back(std::make_unique<CRunner>([&receivers, thread] {
                    for (int i = 0; i < COUNT; ++i) {
                        CTestReceiver& receiver = *receivers[static_cast<std::size_t>((i + thread) % COUNT)];
                        receiver.StartReceive(0, 1.0F);
                        receiver.StopReceive();
                        receiver.SetReceiveMode(MODES[(i + thread) % 3]);
                        receiver.StartReceive(0, 2.0F);
                        if (thread > 0) receiver.Close();
                    }
                }));
            }
        }
        for (CTestReceiver* receiver : receivers) receiver->DecRef();
    }
    EXPECT_TRUE(waitUntil([&closed] { return closed.load() == ROUNDS * COUNT; }));
}

}  // namespace
}  // namespace Veltro::Ravelo
