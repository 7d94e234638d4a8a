#pragma once

#include <Plinth/Mutex.h>
#include <Plinth/Semaphore.h>
#include <Plinth/Thread.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "Core/BTree.h"
#include "Core/EventPool.h"
#include "Core/EventQueue.h"
#include "Core/IdPool.h"
#include "Core/Select.h"

namespace Veltro::Ravelo {

class CCurrentObject;
class CNetHandler;
struct SNetHandlerRecord;

/// How the worker threads of a pool are started; see CNetThread::SetThreadPriority.
struct SThreadSettings {
    int priority = Plinth::PRIORITY_NORMAL;
    int policy = Plinth::POLICY_NORMAL;
    int param = 0;
};

/// The times of a pool's daemon; tests shorten them.
struct SDaemonTimes {
    std::int64_t watchdog_ms = 60'000;  ///< without progress for so long, the pool is reported as stuck
    std::int64_t pause_us = 200'000;
    std::int64_t wait_us = 5'000'000;  ///< between two heartbeats, besides the pause
};

/// One pool: workers that share a queue, a multiplexer, the tables of its handlers and sockets, and a daemon
/// that watches the workers.
///
/// Two tokens circulate in the queue. Whoever takes the reactor token waits for the sockets and queues what
/// fired; whoever takes the serial token delivers the serial messages in order.
class CThreadPool {
public:
    /// Throws std::bad_alloc when no memory is left.
    CThreadPool(unsigned number, unsigned thread_num, const SThreadSettings& settings, unsigned capacity,
                unsigned processors);
    /// stop() must have returned. Queued records and the socket table's go back; handlers are left alone.
    ~CThreadPool();
    CThreadPool(const CThreadPool&) = delete;
    CThreadPool& operator=(const CThreadPool&) = delete;

    /// Starts the daemon, queues the tokens and starts the workers; false when the system has no memory or no
    /// thread to give: then stop().
    bool start();
    /// Ends workers and daemon and waits for them; not from one of its own threads.
    void stop();
    /// How long heartbeats waited in the queue, in microseconds: the last one, and the longest of all.
    std::int64_t lastWaitUs() const { return m_last_wait_us.load(std::memory_order_relaxed); }
    std::int64_t longestWaitUs() const { return m_longest_wait_us.load(std::memory_order_relaxed); }
    bool isStopping() const { return m_stopping.load(std::memory_order_relaxed); }

    int number() const { return static_cast<int>(m_number); }
    unsigned threadCount() const { return m_thread_count; }
    /// Tells this pool from others that had its number before or will have it.
    std::uint64_t birth() const { return m_birth; }

    CBTree& objects() { return m_objects; }
    CBTree& sockets() { return m_sockets; }
    CMultiplexer& multiplexer() { return m_multiplexer; }
    CEventQueue& queue() { return m_queue; }
    CIdPool& ids() { return m_ids; }

    /// Enters a new handler: takes a reference, draws its id.
    void bind(CNetHandler& handler, SNetHandlerRecord& record);
    /// Takes a handler out of the table, gives its id back and drops the table's reference.
    void unbind(std::int64_t id);
    /// The handler with a reference taken, or null.
    CNetHandler* findHandler(std::int64_t id) { return m_objects.findObject(id); }

    /// Queues records that came from the calling thread.
    void post(SQueueRecord* chain);
    void postFront(SQueueRecord* record);
    /// Queues a serial message, and the serial token if it is not under way.
    void postSerial(SQueueRecord* record);

    /// What a request for threads comes to: with several processors, a multiple of their number.
    static unsigned roundThreadCount(unsigned requested, unsigned processors);

    /// For tests: the daemon's times of pools created from now on.
    static SDaemonTimes sm_daemon_times;

private:
    friend struct SThreadPoolProbe;  // tests

    bool start_threads();
    void ThreadProc(Plinth::CThreadLite& self);
    SQueueRecord* dispatch(CCurrentObject& current, SQueueRecord* record);
    SQueueRecord* run_pass(SQueueRecord* token);
    void note_wait(std::int64_t pushed_us);
    void drain_serial(CCurrentObject& current, SQueueRecord* token);
    void DaemonThreadProc(Plinth::CThreadLite& self);
    void free_queued();

    CEventQueue::EPusher pusher() const;

    std::vector<std::unique_ptr<Plinth::CThreadLite>> m_threads;
    const unsigned m_number;
    unsigned m_thread_count;
    const SThreadSettings m_settings;
    const std::uint64_t m_birth;
    struct SPutBack {
        void operator()(SEvent* record) const { CEventPool::put(record); }
    };
    const std::unique_ptr<SEvent, SPutBack> m_reactor_token;
    std::unique_ptr<Plinth::CThreadLite> m_daemon;
    std::atomic<std::int64_t> m_loop_counter{0};
    std::atomic<std::int64_t> m_last_wait_us{0};
    std::atomic<std::int64_t> m_longest_wait_us{0};
    std::atomic<bool> m_stopping{false};
    Plinth::CSemaphore m_semaphore;  // wakes the daemon at the end
    Plinth::CMutex m_serial_mutex;   // guards whether the serial token is under way
    bool m_serial_token_free PLINTH_GUARDED_BY(m_serial_mutex) = false;
    CIdPool m_ids;
    CBTree m_objects;
    CBTree m_sockets;
    CMultiplexer m_multiplexer;
    bool m_multiplexer_works = false;
    CEventQueue m_queue;
    CEventQueue m_serial_queue;
};

}  // namespace Veltro::Ravelo
