#include "Core/ThreadPool.h"

#include <Plinth/Time.h>
#include <Ravelo/NetHandler.h>
#include <Ravelo/TsMemory.h>

#include <new>
#include <string>

#include "Core/CurrentObject.h"
#include "Core/Message.h"
#include "Core/NetHandlerRecord.h"
#include "Core/NetSock.h"
#include "Core/NetTimer.h"
#include "Core/PoolTable.h"
#include "Debug/ConsoleAttempts.h"
#include "Debug/DebugControl.h"
#include "Log.h"

namespace Veltro::Ravelo {

namespace {

std::uint64_t nextBirth() {
    static std::atomic<std::uint64_t> s_births{0};
    return ++s_births;
}

/// "Ravelo3", the name of pool 3's workers.
std::string poolName(unsigned number) {
    return "Ravelo" + std::to_string(number);
}

/// As CEventPool::get, for set-up: a pool without its tokens cannot be.
SEvent* getRecord(std::int64_t key) {
    SEvent* record = CEventPool::get(key);
    if (record == nullptr) throw std::bad_alloc();
    return record;
}

}  // namespace

SDaemonTimes CThreadPool::sm_daemon_times;

unsigned CThreadPool::roundThreadCount(unsigned requested, unsigned processors) {
    if (processors <= 1) return requested;
    if (requested < processors) return processors;
    return (requested + processors - 1) / processors * processors;
}

CThreadPool::CThreadPool(unsigned number, unsigned thread_num, const SThreadSettings& settings,
                         unsigned capacity, unsigned processors)
    : m_number(number),
      m_thread_count(roundThreadCount(thread_num, processors)),
      m_settings(settings),
      m_birth(nextBirth()),
      m_reactor_token(getRecord(EVENT_KEY_REACTOR_TOKEN)),
      m_ids(number),
      m_objects(CBTree::MAX_ORDER),
      m_sockets(CBTree::MAX_ORDER, &CNetSock::freeRecord),
      m_multiplexer(number, capacity) {
    if (thread_num == 0) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "Invalid thread num 0, Please check it!\n");
    }
    m_queue.setWaiter(&m_multiplexer, m_thread_count);
    m_multiplexer_works = m_multiplexer.Init() == 0;
    if (!m_multiplexer_works) {
        RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR, "socket mutiplexer init fail, Please check it!\n");
    }
}

CThreadPool::~CThreadPool() {
    free_queued();
    // The table frees its records but for descriptor 0.
    if (SKeyedEntry* standard_input = m_sockets.erase(0)) CNetSock::freeRecord(standard_input);
}

bool CThreadPool::start() {
    try {
        return start_threads();
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool CThreadPool::start_threads() {
    const std::string daemon_name = poolName(m_number) + " daemon";
    m_daemon = std::make_unique<Plinth::CThreadLite>(
        [this](Plinth::CThreadLite& self) { DaemonThreadProc(self); }, daemon_name.c_str());
    if (!m_daemon->createThread()) return false;

    // Without a multiplexer nobody can wait for sockets; messages and timers still run.
    if (m_multiplexer_works) m_queue.push(m_reactor_token.get());
    m_queue.push(getRecord(EVENT_KEY_SERIAL_TOKEN));

    const std::string name = poolName(m_number);
    for (unsigned i = 0; i < m_thread_count; ++i) {
        m_threads.push_back(std::make_unique<Plinth::CThreadLite>(
            [this](Plinth::CThreadLite& self) { ThreadProc(self); }, name.c_str(), m_settings.priority,
            m_settings.policy, m_settings.param));
        if (!m_threads.back()->createThread()) return false;
    }
    return true;
}

void CThreadPool::stop() {
    m_stopping.store(true);
    if (m_daemon) m_daemon->cancelThread();
    m_semaphore.post();
    for (auto& thread : m_threads) thread->cancelThread();
    m_queue.stop();
    for (auto& thread : m_threads) thread->destroyThread();
    if (m_daemon) m_daemon->destroyThread();
}

void CThreadPool::bind(CNetHandler& handler, SNetHandlerRecord& record) {
    handler.AddRef();
    record.pool_birth = m_birth;
    record.entry.key = m_ids.GetId();
    record.entry.handler = &handler;
    m_objects.insert(&record.entry);
    record.references.bind();
}

void CThreadPool::unbind(std::int64_t id) {
    auto* entry = static_cast<SObjectEntry*>(m_objects.erase(id));
    if (entry == nullptr) return;
    CNetHandler& handler = *entry->handler;
    SNetHandlerRecord::of(handler).references.unbind();
    m_ids.PutId(id);
    handler.DecRef();
}

CEventQueue::EPusher CThreadPool::pusher() const {
    return CPoolTable::current() == this ? CEventQueue::EPusher::Worker : CEventQueue::EPusher::Outside;
}

void CThreadPool::post(SQueueRecord* chain) {
    m_queue.push(chain, pusher());
}

void CThreadPool::postFront(SQueueRecord* record) {
    m_queue.pushFront(record, pusher());
}

void CThreadPool::postSerial(SQueueRecord* record) {
    m_serial_queue.pushWithoutSignal(record);
    Plinth::CLockGuard guard(m_serial_mutex);
    if (!m_serial_token_free) return;
    SEvent* token = CEventPool::get(EVENT_KEY_SERIAL_TOKEN);
    if (token == nullptr) return;
    post(token);
    m_serial_token_free = false;
}

void CThreadPool::ThreadProc(Plinth::CThreadLite& self) {
    CTsMemory::CreateMemPool();
    RAVELO_ASSERT(m_reactor_token->key == EVENT_KEY_REACTOR_TOKEN);
    CPoolTable::setCurrent(this);
    {
        CCurrentObject current(number());
        const CEventPool::CThreadList records;
        SQueueRecord* record = nullptr;
        while (self.looping()) {
            if (record == nullptr) record = m_queue.Pop();
            // Workers that count at the same moment may count once: what matters is that the number changes.
            m_loop_counter.store(m_loop_counter.load(std::memory_order_relaxed) + 1,
                                 std::memory_order_relaxed);
            if (record != nullptr) record = dispatch(current, record);
        }
        // A pass may have ended with a record in hand.
        if (record != nullptr) m_queue.pushFront(record);
    }
    m_multiplexer.wake();
    CPoolTable::setCurrent(nullptr);
    CTsMemory::DestroyThreadMemPool();
}

/// Serves one record. Returns the record to serve next when that is known already.
SQueueRecord* CThreadPool::dispatch(CCurrentObject& current, SQueueRecord* record) {
    if (record->key >= 0) {
        CNetSock::handle_netevent(*this, current, *static_cast<SEvent*>(record));
    } else if (record->key < EVENT_KEY_TIMER_LIMIT) {
        CNetTimer::dispatch(*this, current, static_cast<STimer*>(record));
    } else if (record->key == EVENT_KEY_MESSAGE) {
        CMessage::dispatch(*this, current, static_cast<SEvent*>(record));
    } else if (record->key == EVENT_KEY_REACTOR_TOKEN) {
        return run_pass(record);
    } else if (record->key == EVENT_KEY_SERIAL_TOKEN) {
        drain_serial(current, record);
    } else {
        const std::int64_t key = record->key;
        if (key == EVENT_KEY_HEARTBEAT) note_wait(static_cast<SEvent*>(record)->info);
        CEventPool::put(static_cast<SEvent*>(record));
        if (key != EVENT_KEY_HEARTBEAT) {
            RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR,
                            "Exist unexpected event, Please check it, key : [%jd]!\n",
                            static_cast<std::intmax_t>(key));
            RAVELO_ASSERT(key == EVENT_KEY_HEARTBEAT);
        }
    }
    return nullptr;
}

/// A heartbeat has come through the queue: it waited like everything else, and may be asked for how long.
void CThreadPool::note_wait(std::int64_t pushed_us) {
    const std::int64_t wait_us =
        static_cast<std::int64_t>(Plinth::CTime::getCurrentMicroSecond()) - pushed_us;
    m_last_wait_us.store(wait_us, std::memory_order_relaxed);
    // Two heartbeats at a time would be a pool that stands still for seconds: the longer of them may be lost.
    if (wait_us > m_longest_wait_us.load(std::memory_order_relaxed)) {
        m_longest_wait_us.store(wait_us, std::memory_order_relaxed);
    }
}

/// One wait for the sockets: what fired goes to the queue's end, the token behind it.
SQueueRecord* CThreadPool::run_pass(SQueueRecord* token) {
    SQueueRecord* fired = m_multiplexer.Wait(m_sockets, m_queue);
    SQueueRecord** end = &fired;
    while (*end != nullptr) end = &(*end)->next;
    token->next = nullptr;
    *end = token;
    return m_queue.pushAndPop(fired);
}

void CThreadPool::drain_serial(CCurrentObject& current, SQueueRecord* token) {
    for (;;) {
        while (SQueueRecord* record = isStopping() ? nullptr : m_serial_queue.popNoWait()) {
            if (record->key != EVENT_KEY_SERIAL_MESSAGE) {
                RAVELO_LOG_THIS(Plinth::LOG_LEVEL_ERROR,
                                "Exist unexpected event_serial, Please check it, key : [%jd]!\n",
                                static_cast<std::intmax_t>(record->key));
                CEventPool::put(static_cast<SEvent*>(record));
                RAVELO_ASSERT(false);
            }
            CMessage::dispatch(*this, current, static_cast<SEvent*>(record));
        }
        // Looked at again under the mutex: a message posted just now may have found the token under way.
        Plinth::CLockGuard guard(m_serial_mutex);
        if (m_serial_queue.size() > 0 && !isStopping()) continue;
        m_serial_token_free = true;
        break;
    }
    CEventPool::put(static_cast<SEvent*>(token));
}

void CThreadPool::DaemonThreadProc(Plinth::CThreadLite& self) {
    const SDaemonTimes times = sm_daemon_times;
    std::int64_t seen_loops = m_loop_counter.load(std::memory_order_relaxed);
    self.setWatchdog(times.watchdog_ms);
    while (self.looping()) {
        const std::int64_t loops = m_loop_counter.load(std::memory_order_relaxed);
        if (loops != seen_loops) self.setWatchdog(times.watchdog_ms);
        seen_loops = loops;
        if (SEvent* heartbeat = CEventPool::get(EVENT_KEY_HEARTBEAT)) {
            heartbeat->info = static_cast<std::int64_t>(Plinth::CTime::getCurrentMicroSecond());
            m_queue.push(heartbeat);
        }
        registerConsoleOnce();
        if (self.isWatchdogExpired()) {
            RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "All Ravelo Thread deadlock !!!!!!\n");
            CDebugControl::reportThreads();
        }
        if (!m_semaphore.pend(times.pause_us)) m_semaphore.pend(times.wait_us);
    }
}

/// Returns what the workers left in the queues. Socket records stay for their table to free.
void CThreadPool::free_queued() {
    for (CEventQueue* queue : {&m_queue, &m_serial_queue}) {
        while (SQueueRecord* record = queue->popNoWait()) {
            if (record->key < EVENT_KEY_TIMER_LIMIT) {
                CNetTimer::freeRecord(static_cast<STimer*>(record));
            } else if (record->key < 0 && record->key != EVENT_KEY_REACTOR_TOKEN) {
                CEventPool::put(static_cast<SEvent*>(record));
            }
        }
    }
}

}  // namespace Veltro::Ravelo
