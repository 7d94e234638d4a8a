// Messages through libuv: its async handle only says "something happened", so a queue of our own goes with
// it. A libuv loop has one thread; a pool of several is several loops that share the receivers out.
#include <uv.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "common/Placement.h"
#include "message/MessageSystem.h"

namespace {

using namespace Bench;

struct SMessage {
    CReceiver* receiver;
    long info;
};

class CUvQueue {
public:
    CUvQueue() {
        uv_loop_init(&m_loop);
        uv_async_init(&m_loop, &m_async,
                      [](uv_async_t* async) { static_cast<CUvQueue*>(async->data)->serve(); });
        m_async.data = this;
        m_thread = std::thread([this] { uv_run(&m_loop, UV_RUN_DEFAULT); });
    }

    ~CUvQueue() {
        m_stop = true;
        uv_async_send(&m_async);
        m_thread.join();
        uv_loop_close(&m_loop);
    }

    CUvQueue(const CUvQueue&) = delete;
    CUvQueue& operator=(const CUvQueue&) = delete;

    void Push(SMessage message) {
        bool was_empty = false;
        {
            const std::lock_guard guard(m_mutex);
            was_empty = m_messages.empty();
            m_messages.push_back(message);
        }
        if (was_empty) uv_async_send(&m_async);
    }

private:
    void serve() {
        {
            const std::lock_guard guard(m_mutex);
            std::swap(m_messages, m_batch);
        }
        for (const SMessage& message : m_batch) message.receiver->OnMessage(message.info);
        m_batch.clear();
        if (m_stop) uv_close(reinterpret_cast<uv_handle_t*>(&m_async), nullptr);
    }

    uv_loop_t m_loop{};
    uv_async_t m_async{};
    std::atomic<bool> m_stop{false};
    std::mutex m_mutex;
    std::vector<SMessage> m_messages;
    std::vector<SMessage> m_batch;
    std::thread m_thread;
};

class CUvSystem : public CMessageSystem {
public:
    CUvSystem(int pools, unsigned threads_per_pool) : m_threads_per_pool(threads_per_pool) {
        for (unsigned pool = 0; pool < static_cast<unsigned>(pools); ++pool) {
            if (pools == 2) pin_to(pool);
            for (unsigned i = 0; i < threads_per_pool; ++i) m_loops.emplace_back();
        }
    }

    int Add(CReceiver& receiver, int pool) override {
        const std::size_t number = m_receivers.size();
        const std::size_t loop =
            static_cast<std::size_t>(pool) * m_threads_per_pool + number % m_threads_per_pool;
        m_receivers.push_back({&receiver, &m_loops[loop]});
        return static_cast<int>(number);
    }

    void Post(int receiver, long info) override {
        const SEntry& entry = m_receivers[static_cast<std::size_t>(receiver)];
        entry.loop->Push({entry.receiver, info});
    }

private:
    struct SEntry {
        CReceiver* receiver;
        CUvQueue* loop;
    };

    unsigned m_threads_per_pool;
    std::deque<CUvQueue> m_loops;
    std::vector<SEntry> m_receivers;
};

}  // namespace

namespace Bench {

std::unique_ptr<CMessageSystem> make_message_system(int pools, unsigned threads_per_pool) {
    return std::make_unique<CUvSystem>(pools, threads_per_pool);
}

const char* message_system_name() {
    return "libuv";
}

}  // namespace Bench
