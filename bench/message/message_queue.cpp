// Messages through a plain queue per pool: a mutex, a condition variable and a deque.
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "common/Placement.h"
#include "message/MessageSystem.h"

namespace {

using namespace Bench;

struct SMessage {
    CReceiver* receiver;  ///< null ends one thread
    long info;
};

class CQueue {
public:
    void Push(SMessage message) {
        {
            const std::lock_guard guard(m_mutex);
            m_messages.push_back(message);
        }
        m_filled.notify_one();
    }

    SMessage Pop() {
        std::unique_lock lock(m_mutex);
        m_filled.wait(lock, [this] { return !m_messages.empty(); });
        const SMessage message = m_messages.front();
        m_messages.pop_front();
        return message;
    }

    void Serve() {
        for (SMessage message = Pop(); message.receiver != nullptr; message = Pop())
            message.receiver->OnMessage(message.info);
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_filled;
    std::deque<SMessage> m_messages;
};

class CQueueSystem : public CMessageSystem {
public:
    CQueueSystem(int pools, unsigned threads_per_pool)
        : m_queues(static_cast<std::size_t>(pools)), m_threads_per_pool(threads_per_pool) {
        for (unsigned pool = 0; pool < m_queues.size(); ++pool) {
            if (pools == 2) pin_to(pool);
            for (unsigned i = 0; i < threads_per_pool; ++i)
                m_threads.emplace_back(&CQueue::Serve, &m_queues[pool]);
        }
    }

    ~CQueueSystem() override {
        for (CQueue& queue : m_queues)
            for (unsigned i = 0; i < m_threads_per_pool; ++i) queue.Push({nullptr, 0});
        for (std::thread& thread : m_threads) thread.join();
    }

    int Add(CReceiver& receiver, int pool) override {
        m_receivers.push_back({&receiver, &m_queues[static_cast<std::size_t>(pool)]});
        return static_cast<int>(m_receivers.size()) - 1;
    }

    void Post(int receiver, long info) override {
        const SEntry& entry = m_receivers[static_cast<std::size_t>(receiver)];
        entry.queue->Push({entry.receiver, info});
    }

private:
    struct SEntry {
        CReceiver* receiver;
        CQueue* queue;
    };

    std::deque<CQueue> m_queues;
    unsigned m_threads_per_pool;
    std::vector<SEntry> m_receivers;
    std::vector<std::thread> m_threads;
};

}  // namespace

namespace Bench {

std::unique_ptr<CMessageSystem> make_message_system(int pools, unsigned threads_per_pool) {
    return std::make_unique<CQueueSystem>(pools, threads_per_pool);
}

const char* message_system_name() {
    return "queue";
}

}  // namespace Bench
