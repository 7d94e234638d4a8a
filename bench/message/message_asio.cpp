// Messages through asio::post: one io_context per pool, run by the pool's threads.
#include <asio.hpp>
#include <deque>
#include <thread>
#include <vector>

#include "common/Placement.h"
#include "message/MessageSystem.h"

namespace {

using namespace Bench;

class CAsioSystem : public CMessageSystem {
public:
    CAsioSystem(int pools, unsigned threads_per_pool) {
        for (unsigned pool = 0; pool < static_cast<unsigned>(pools); ++pool) {
            if (pools == 2) pin_to(pool);
            asio::io_context& context = m_contexts.emplace_back(static_cast<int>(threads_per_pool));
            m_guards.push_back(asio::make_work_guard(context));
            for (unsigned i = 0; i < threads_per_pool; ++i)
                m_threads.emplace_back([&context] { context.run(); });
        }
    }

    ~CAsioSystem() override {
        m_guards.clear();
        for (std::thread& thread : m_threads) thread.join();
    }

    int Add(CReceiver& receiver, int pool) override {
        m_receivers.push_back({&receiver, &m_contexts[static_cast<std::size_t>(pool)]});
        return static_cast<int>(m_receivers.size()) - 1;
    }

    void Post(int receiver, long info) override {
        const SEntry& entry = m_receivers[static_cast<std::size_t>(receiver)];
        asio::post(*entry.context, [target = entry.receiver, info] { target->OnMessage(info); });
    }

private:
    struct SEntry {
        CReceiver* receiver;
        asio::io_context* context;
    };

    std::deque<asio::io_context> m_contexts;
    std::vector<asio::executor_work_guard<asio::io_context::executor_type>> m_guards;
    std::vector<SEntry> m_receivers;
    std::vector<std::thread> m_threads;
};

}  // namespace

namespace Bench {

std::unique_ptr<CMessageSystem> make_message_system(int pools, unsigned threads_per_pool) {
    return std::make_unique<CAsioSystem>(pools, threads_per_pool);
}

const char* message_system_name() {
    return "asio";
}

}  // namespace Bench
