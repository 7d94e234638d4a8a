// Pools created and destroyed many times, idle and under load.
#include <Plinth/Thread.h>
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "Core/EventPool.h"
#include "Core/Message.h"
#include "Core/NetTimer.h"
#include "Core/PoolTable.h"
#include "Core/StreamPair.h"
#include "Core/ThreadPool.h"
#include "Support/Gate.h"
#include "Support/Load.h"
#include "Support/LogCapture.h"
#include "Support/Reactor.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CLogCapture;
using TestSupport::CPublicPool;
using TestSupport::CRunner;
using TestSupport::CTestHandler;
using TestSupport::scaledDown;
using TestSupport::SStreamPair;
using TestSupport::waitUntil;

void expectNothingLeft() {
    EXPECT_EQ(CEventPool::inUse(), 0);
    EXPECT_EQ(CNetTimer::armed(), 0U);
    EXPECT_EQ(CMessage::waitingIo(), 0U);
}

TEST(PoolStress, PublicPoolCreatedAndDestroyed200Times) {
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(CNetThread::CreateThreadPool(2, false), 0);
        ASSERT_EQ(CNetThread::DestroyThreadPool(), 0);
    }
    expectNothingLeft();
}

TEST(PoolStress, PrivatePoolCreatedAndDestroyed200Times) {
    {
        const CPublicPool pool(1);
        for (int i = 0; i < 200; ++i) {
            ASSERT_EQ(CNetThread::CreatePrivatePool(2, false), 1);
            ASSERT_EQ(CNetThread::DestroyPrivatePool(1), 0);
        }
    }
    expectNothingLeft();
}

TEST(PoolStress, PoolsCreatedAndDestroyedByFourThreadsAtOnce) {
    {
        const CPublicPool pool(1);
        std::vector<std::unique_ptr<CRunner>> threads;
        for (int t = 0; t < 4; ++t) {
            threads.push_back(std::make_unique<CRunner>([] {
                for (int i = 0; i < 50; ++i) {
                    const int number = CNetThread::CreatePrivatePool(1, false);
                    ASSERT_GE(number, 1);
                    ASSERT_EQ(CNetThread::CreateThreadPool(1, false), 0);
                    ASSERT_EQ(CNetThread::DestroyPrivatePool(number), 0);
                    ASSERT_EQ(CNetThread::DestroyThreadPool(), 0);
                }
            }));
        }
    }
    expectNothingLeft();
}

/// A handler that keeps its pool busy in every way: messages, timers, an echoing pair of sockets.
class CBusyHandler {
public:
    explicit CBusyHandler(int pool) : handler(new CTestHandler(pool)) {
        handler->on_message = [this](long, unsigned, long info) {
            work.fetch_add(1, std::memory_order_relaxed);
            handler->Notify(handler->GetID(), 1, info);
            return 0;
        };
        handler->on_timeout = [this](long) {
            work.fetch_add(1, std::memory_order_relaxed);
            return 0;
        };
        handler->on_input = [this](int fd) {
            echo(fd == pair.near_end.GetHandle() ? pair.near_end : pair.far_end);
            return 0;
        };
        handler->on_input_timeout = [](int) { return 0; };
    }
    /// The pool must have gone.
    ~CBusyHandler() {
        CLogCapture quiet;
        handler->Close();
        delete handler;
    }
    void start() {
        for (int i = 0; i < 10; ++i) handler->Notify(handler->GetID(), 1, i);
        for (int i = 0; i < 10; ++i) handler->NotifySerial(handler->GetID(), 1, i, 0);
        for (int i = 0; i < 10; ++i) EXPECT_LT(handler->SetTimer(3'000), 0);
        EXPECT_EQ(handler->RegisterSock(pair.near_end, EventMask::Read, 1'000'000), 0);
        EXPECT_EQ(handler->RegisterSock(pair.far_end, EventMask::Read, 1'000'000), 0);
        EXPECT_GT(pair.near_end.Send("ping", 4), 0);
    }
    CTestHandler* const handler;
    SStreamPair pair;
    std::atomic<std::size_t> work{0};
    std::atomic<std::size_t> echoes{0};

private:
    void echo(CSockStream& stream) {
        char buffer[64];
        const int received = stream.Recv(buffer, sizeof buffer);
        if (received <= 0) return;
        // Wine may refuse a few bytes for a moment, and what is not sent back ends the exchange.
        while (stream.Send(buffer, static_cast<unsigned>(received)) == 0) Plinth::yieldThread();
        echoes.fetch_add(1);
    }
};

void destroyUnderLoad(int handlers) {
    const int number = CNetThread::CreatePrivatePool(2, false);
    ASSERT_EQ(number, 1);
    std::vector<std::unique_ptr<CBusyHandler>> busy;
    for (int i = 0; i < handlers; ++i) busy.push_back(std::make_unique<CBusyHandler>(number));
    for (auto& each : busy) each->start();
    ASSERT_TRUE(waitUntil([&busy] {
        for (auto& each : busy) {
            if (each->work.load() < 20 || each->echoes.load() < 2) return false;
        }
        return true;
    }));
    ASSERT_EQ(CNetThread::DestroyPrivatePool(number), 0);
}

TEST(PoolStress, PrivatePoolDestroyedUnderLoadAgainAndAgain) {
    const std::size_t rounds = std::max<std::size_t>(scaledDown(100), 20);
    {
        const CPublicPool pool(1);
        for (std::size_t i = 0; i < rounds; ++i) destroyUnderLoad(4);
    }
    expectNothingLeft();
}

TEST(PoolStress, WholeLibraryDestroyedUnderLoadAgainAndAgain) {
    const std::size_t rounds = std::max<std::size_t>(scaledDown(100), 20);
    for (std::size_t i = 0; i < rounds; ++i) {
        ASSERT_EQ(CNetThread::CreateThreadPool(2, false), 0);
        CBusyHandler busy(0);
        busy.start();
        ASSERT_TRUE(waitUntil([&busy] { return busy.work.load() > 20 && busy.echoes.load() > 2; }));
        ASSERT_EQ(CNetThread::DestroyThreadPool(), 0);
    }
    expectNothingLeft();
}

// Threads from outside post, arm timers and register sockets in pools that come and go.
TEST(PoolStress, DestroyedWhileOutsideThreadsUseIt) {
    const std::size_t rounds = std::max<std::size_t>(scaledDown(100), 20);
    {
        const CPublicPool pool(1);
        for (std::size_t i = 0; i < rounds; ++i) {
            const int number = CNetThread::CreatePrivatePool(2, false);
            auto* handler = new CTestHandler(number);
            SStreamPair pair;
            std::atomic<bool> done{false};
            std::atomic<int> passes{0};
            handler->on_input = [](int) { return 0; };
            {
                auto use = [&](int kind) {
                    while (!done.load()) {
                        if (kind == 0) handler->Notify(handler->GetID(), 1, 0);
                        if (kind == 0) handler->NotifySerial(handler->GetID(), 1, 0, 0);
                        if (kind == 1) handler->DestroyTimer(handler->SetTimer(3'000));
                        if (kind == 2) handler->RegisterSock(pair.near_end, EventMask::Read, 500'000);
                        if (kind == 2) handler->RemoveSock(pair.near_end);
                        passes.fetch_add(1);
                    }
                };
                CRunner messages([&use] { use(0); });
                CRunner timers([&use] { use(1); });
                CRunner sockets([&use] { use(2); });
                EXPECT_TRUE(waitUntil([&passes] { return passes.load() > 100; }));
                EXPECT_EQ(CNetThread::DestroyPrivatePool(number), 0);
                const int so_far = passes.load();
                EXPECT_TRUE(waitUntil([&] { return passes.load() > so_far + 10; }));
                done.store(true);
            }
            CLogCapture quiet;
            handler->Close();
            delete handler;
        }
    }
    expectNothingLeft();
}

}  // namespace
}  // namespace Veltro::Ravelo
