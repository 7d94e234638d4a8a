// Registering, withdrawing and removing shared sockets from several threads while events flow.

#include <random>

#include "Support/SockRegistry.h"

using namespace Veltro::Ravelo;
using namespace Veltro::TestSupport;
namespace Plinth = Veltro::Plinth;

namespace {

constexpr int THREADS = 4;
constexpr int SOCKETS = 12;
constexpr int HANDLERS = 3;
constexpr int STEPS = STRESS_ROUNDS / THREADS;

/// One random operation on a random socket by a random handler.
void step(std::mt19937& random, SSocketPair* pairs, CTestHandler* const* handlers) {
    SSocketPair& pair = pairs[random() % SOCKETS];
    CTestHandler& handler = *handlers[random() % HANDLERS];
    const unsigned masks[] = {EventMask::Read, EventMask::Write, EventMask::Read | EventMask::Write,
                              EventMask::Except, EventMask::None};
    const unsigned mask = masks[random() % 5];
    switch (random() % 8) {
        case 0:
        case 1:
        case 2:
            handler.RegisterSock(pair.server, mask, random() % 2 == 0 ? 0 : 1000);
            break;
        case 3:
            handler.UnregisterSock(pair.server, mask);
            break;
        case 4:
            handler.RemoveSock(pair.server);
            break;
        case 5:
            handler.CheckSock(pair.server);
            break;
        default:
            pair.client.Send("x", 1);
    }
}

}  // namespace

TEST(RegistrationChurn, LeavesEverySocketUsableAndEveryCountRight) {
    CLogCapture quiet(Plinth::LOG_LEVEL_FATAL);
    const CPublicPool pool(4);
    std::atomic<int> events{0};
    std::atomic<int> answers{0};
    CTestHandler* handlers[HANDLERS];
    SSocketPair pairs[SOCKETS];
    for (CTestHandler*& handler : handlers) {
        handler = new CTestHandler;
        handler->on_input = [&](int fd) {
            if (drain(fd) > 0) ++answers;
            return ++events % 3 - 1;
        };
        handler->on_output = handler->on_input_timeout =
            handler->on_output_timeout = [&](int) { return ++events % 3 - 1; };
    }
    std::vector<std::unique_ptr<Plinth::CThreadLite>> threads;
    for (int t = 0; t < THREADS; ++t) {
        threads.push_back(std::make_unique<Plinth::CThreadLite>(
            [&, t](Plinth::CThreadLite&) {
                std::mt19937 random{static_cast<unsigned>(t)};
                for (int i = 0; i < STEPS; ++i) step(random, pairs, handlers);
            },
            "churn"));
        ASSERT_TRUE(threads.back()->createThread());
    }
    for (auto& thread : threads) thread->destroyThread();
    EXPECT_GT(events.load(), 0);

    for (SSocketPair& pair : pairs) {
        EXPECT_EQ(0, handlers[0]->RemoveSock(pair.server));
        EXPECT_TRUE(waitUntil([&] { return !sockState(pair.server.GetHandle()).registered; }));
    }
    std::int64_t count = 0;
    for (CTestHandler* handler : handlers) count += sockCount(handler);
    EXPECT_EQ(0, count);

    for (SSocketPair& pair : pairs) {
        while (drain(pair.server.GetHandle()) > 0) {
        }
        const int before = answers.load();
        EXPECT_EQ(0, handlers[1]->RegisterSock(pair.server, EventMask::Read, 0));
        sendByte(pair.client);
        EXPECT_TRUE(waitUntil([&] { return answers.load() > before; }));
        EXPECT_EQ(0, handlers[1]->RemoveSock(pair.server));
    }
    for (CTestHandler* handler : handlers) closeAndWait(handler);
}
