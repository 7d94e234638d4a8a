// Messages from many threads to many handlers, each counted.
#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <vector>

#include "Core/EventPool.h"
#include "Support/Gate.h"
#include "Support/Load.h"
#include "Support/Reactor.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::closeAndWait;
using TestSupport::CPublicPool;
using TestSupport::CRunner;
using TestSupport::CTestHandler;
using TestSupport::scaledDown;
using TestSupport::waitUntil;

constexpr std::size_t POSTERS = 8;
constexpr std::size_t HANDLERS = 100;

/// One per handler: how many messages came, and the sum of what they carried.
struct STally {
    std::atomic<std::size_t> count{0};
    std::atomic<std::int64_t> sum{0};
};

enum class EKind { Ordinary, Serial, Both };

class CTalliedHandlers {
public:
    CTalliedHandlers() {
        for (std::size_t i = 0; i < HANDLERS; ++i) {
            auto* handler = new CTestHandler;
            STally& tally = m_tallies[i];
            handler->on_message = [this, &tally](long, unsigned, long info) {
                tally.count.fetch_add(1, std::memory_order_relaxed);
                tally.sum.fetch_add(info, std::memory_order_relaxed);
                m_total.fetch_add(1);
                return 0;
            };
            m_handlers.push_back(handler);
        }
    }
    ~CTalliedHandlers() {
        for (auto* handler : m_handlers) closeAndWait(handler);
    }
    void post(std::size_t poster, std::size_t messages, EKind kind) {
        CTestHandler* sender = m_handlers[poster];
        for (std::size_t i = 0; i < messages; ++i) {
            const long id = m_handlers[i % HANDLERS]->GetID();
            const bool serial = kind == EKind::Serial || (kind == EKind::Both && i % 2 == 0);
            if (serial) {
                sender->NotifySerial(id, 1, static_cast<long>(i), 0);
            } else {
                sender->Notify(id, 1, static_cast<long>(i));
            }
        }
    }
    bool waitFor(std::size_t total) {
        return waitUntil([this, total] { return m_total.load() == total; }, 200'000);
    }
    void expectAllOf(std::size_t messages_per_poster) {
        for (std::size_t i = 0; i < HANDLERS; ++i) {
            std::size_t count = 0;
            std::int64_t sum = 0;
            for (std::size_t m = i; m < messages_per_poster; m += HANDLERS) {
                ++count;
                sum += static_cast<std::int64_t>(m);
            }
            ASSERT_EQ(m_tallies[i].count.load(), POSTERS * count) << "handler " << i;
            ASSERT_EQ(m_tallies[i].sum.load(), static_cast<std::int64_t>(POSTERS) * sum) << "handler " << i;
        }
    }

private:
    std::array<STally, HANDLERS> m_tallies;
    std::vector<CTestHandler*> m_handlers;
    std::atomic<std::size_t> m_total{0};
};

void countAll(EKind kind, std::size_t messages) {
    const std::size_t per_poster = scaledDown(messages) / POSTERS;
    {
        const CPublicPool pool(2);
        CTalliedHandlers handlers;
        {
            std::vector<std::unique_ptr<CRunner>> posters;
            for (std::size_t p = 0; p < POSTERS; ++p) {
                posters.push_back(std::make_unique<CRunner>(
                    [&handlers, p, per_poster, kind] { handlers.post(p, per_poster, kind); }));
            }
        }
        EXPECT_TRUE(handlers.waitFor(POSTERS * per_poster));
        handlers.expectAllOf(per_poster);
    }
    EXPECT_EQ(CEventPool::inUse(), 0);
}

TEST(MessageStress, EightThreadsPostAMillionMessagesToAHundredHandlers) {
    countAll(EKind::Ordinary, 1'000'000);
}

TEST(MessageStress, EightThreadsPostAMillionSerialMessagesToAHundredHandlers) {
    countAll(EKind::Serial, 1'000'000);
}

TEST(MessageStress, OrdinaryAndSerialMessagesMixed) {
    countAll(EKind::Both, 1'000'000);
}

// Every message is answered, so that the workers themselves post as much as they serve.
TEST(MessageStress, HandlersThatAnswerEachOtherLoseNothing) {
    const CPublicPool pool(2);
    const std::size_t rounds = scaledDown(20'000);
    std::vector<CTestHandler*> handlers;
    std::atomic<std::size_t> ended{0};
    for (std::size_t i = 0; i < 16; ++i) {
        auto* handler = new CTestHandler;
        handler->on_message = [handler, &ended](long sender, unsigned, long left) {
            if (left > 0) {
                handler->Notify(sender, 1, left - 1);
            } else {
                ended.fetch_add(1);
            }
            return 0;
        };
        handlers.push_back(handler);
    }
    for (std::size_t i = 0; i < handlers.size(); ++i) {
        handlers[i]->Notify(handlers[(i + 1) % handlers.size()]->GetID(), 1, static_cast<long>(rounds));
    }
    EXPECT_TRUE(waitUntil([&] { return ended.load() == handlers.size(); }, 200'000));
    for (auto* handler : handlers) closeAndWait(handler);
}

// Handlers come and go while others post to their ids.
TEST(MessageStress, HandlersClosedUnderLoadEndOnce) {
    const std::size_t lives = scaledDown(5'000);
    {
        const CPublicPool pool(2);
        std::atomic<long> receiver{0};
        std::atomic<bool> done{false};
        std::atomic<int> closed{0};
        {
            CRunner poster([&] {
                auto* sender = new CTestHandler;
                while (!done.load()) {
                    const long id = receiver.load();
                    // A backlog would only delay the messages that a life waits for.
                    if (id == 0 || CEventPool::inUse() > 200) continue;
                    sender->Notify(id, 1, 0);
                    sender->NotifySerial(id, 1, 0, 0);
                }
                closeAndWait(sender);
            });
            for (std::size_t i = 0; i < lives; ++i) {
                auto* handler = new CTestHandler;
                handler->closed = &closed;
                std::atomic<int> messages{0};
                handler->on_message = [&messages](long, unsigned, long) { return messages.fetch_add(1); };
                handler->AddRef();
                receiver.store(handler->GetID());
                while (messages.load() == 0) Plinth::yieldThread();
                receiver.store(0);
                handler->Close();
                handler->DecRef();
                const int expected = static_cast<int>(i) + 1;
                ASSERT_TRUE(waitUntil([&] { return closed.load() == expected; }));
            }
            done.store(true);
        }
    }
    EXPECT_EQ(CEventPool::inUse(), 0);
}

}  // namespace
}  // namespace Veltro::Ravelo
