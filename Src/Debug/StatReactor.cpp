#include "Debug/StatReactor.h"

#include <Plinth/ThreadManager.h>
#include <Plinth/TypeName.h>

#include <map>
#include <typeinfo>

#include "Core/CurrentObject.h"
#include "Core/EventPool.h"
#include "Core/Message.h"
#include "Core/NetHandlerRecord.h"
#include "Core/NetTimer.h"
#include "Core/PoolTable.h"
#include "Core/ThreadPool.h"
#include "Core/TsMemoryCache.h"
#include "Debug/CallbackTimes.h"

namespace Veltro::Ravelo::StatReactor {

namespace {

constexpr EStatKind COUNTER = EStatKind::Counter;

std::int64_t sizeOf(CBTree& table) {
    Plinth::CReadGuard guard(table.lock());
    return static_cast<std::int64_t>(table.size());
}

/// Callbacks begun by the workers of each pool, and each worker's row.
struct SWorkers {
    std::map<int, std::int64_t> callbacks;
    std::vector<std::pair<unsigned long, CCurrentObject::SModule>> modules;
};

SWorkers workers() {
    SWorkers found;
    CCurrentObject::visit([&found](unsigned long thread_id, const CCurrentObject::SModule& module) {
        found.callbacks[module.pool] += static_cast<std::int64_t>(module.callbacks);
        found.modules.emplace_back(thread_id, module);
    });
    return found;
}

template <typename Visit>
void forEachPool(Visit&& visit) {
    for (int number = 0; number < POOL_COUNT; ++number) {
        const CPoolPin pool(number);
        if (pool) visit(*pool.get());
    }
}

}  // namespace

SStatTable pools() {
    SStatTable table{"pool",
                     {{"threads", "Workers of the pool"},
                      {"queued", "Records that wait for a worker"},
                      {"last_wait_us", "How long the last heartbeat waited in the queue"},
                      {"longest_wait_us", "How long a heartbeat has waited in the queue at most"},
                      {"handlers", "Handlers in the pool's table"},
                      {"sockets", "Sockets registered with the pool"},
                      {"callbacks", "Callbacks of handlers begun by the pool's workers", COUNTER}},
                     {}};
    SWorkers by_pool = workers();
    forEachPool([&](CThreadPool& pool) {
        table.rows.push_back(
            {{{"number", std::to_string(pool.number())}},
             {pool.threadCount(), static_cast<std::int64_t>(pool.queue().size()),
              static_cast<std::int64_t>(pool.lastWaitUs()), static_cast<std::int64_t>(pool.longestWaitUs()),
              sizeOf(pool.objects()), sizeOf(pool.sockets()), by_pool.callbacks[pool.number()]}});
    });
    return table;
}

SStatTable threads() {
    SStatTable table{"thread",
                     {{"busy", "Whether the thread runs a handler's callback"},
                      {"callbacks", "Callbacks of handlers begun by the thread", COUNTER}},
                     {}};
    for (const auto& [thread_id, module] : workers().modules) {
        const std::string name = Plinth::CThreadManager::getThreadNameByID(thread_id);
        table.rows.push_back(
            {{{"id", std::to_string(thread_id)}, {"name", name}},
             {module.handler != nullptr ? 1 : 0, static_cast<std::int64_t>(module.callbacks)}});
    }
    return table;
}

SStatTable handlers() {
    struct SCount {
        std::int64_t handlers = 0;
        std::int64_t sockets = 0;
    };
    std::map<std::string, SCount> classes;
    forEachPool([&classes](CThreadPool& pool) {
        Plinth::CReadGuard guard(pool.objects().lock());
        pool.objects().visit([&classes](SKeyedEntry* entry) {
            // The table's own reference keeps the handler alive while the table is held.
            const CNetHandler& handler = *static_cast<SObjectEntry*>(entry)->handler;
            SCount& count = classes[Plinth::readableTypeName(typeid(handler))];
            ++count.handlers;
            count.sockets += SNetHandlerRecord::of(handler).sockets.load(std::memory_order_relaxed);
            return true;
        });
    });
    SStatTable table{
        "handler",
        {{"count", "Handlers of the class"}, {"sockets", "Sockets registered by handlers of the class"}},
        {}};
    for (const auto& [type, count] : classes) {
        table.rows.push_back({{{"class", type}}, {count.handlers, count.sockets}});
    }
    return table;
}

SStatTable sockets() {
    SStatTable table{"socket",
                     {{"count", "Sockets registered with the pool"},
                      {"reading", "Sockets that wait to become readable"},
                      {"writing", "Sockets that wait to become writable"},
                      {"with_timeout", "Sockets with a time-out"},
                      {"in_flight", "Sockets that have fired and whose callback has not returned"}},
                     {}};
    forEachPool([&table](CThreadPool& pool) {
        std::int64_t all = 0, reading = 0, writing = 0, with_timeout = 0, in_flight = 0;
        Plinth::CReadGuard guard(pool.sockets().lock());
        pool.sockets().visit([&](SKeyedEntry* entry) {
            auto& record = *static_cast<SEvent*>(entry);
            Plinth::CLockGuard record_guard(record.mutex);
            ++all;
            reading += (record.m_event_mask & EventMask::Read) != 0;
            writing += (record.m_event_mask & EventMask::Write) != 0;
            with_timeout += record.timer.m_set_time > 0;
            in_flight += record.m_revents.load(std::memory_order_relaxed) != VL_NOPOLL;
            return true;
        });
        table.rows.push_back(
            {{{"pool", std::to_string(pool.number())}}, {all, reading, writing, with_timeout, in_flight}});
    });
    return table;
}

SStatTable timers() {
    return {"timer",
            {{"armed", "Timers of handlers that are set"}},
            {{{}, {static_cast<std::int64_t>(CNetTimer::armed())}}}};
}

SStatTable messages() {
    return {"message",
            {{"waiting_for_file_threads", "Messages that wait for a file thread"},
             {"records_in_use", "Event records that are not free"}},
            {{{}, {CMessage::waitingIo(), static_cast<std::int64_t>(CEventPool::inUse())}}}};
}

SStatTable memory() {
    const SMemFigures figures = memFigures();
    return {"memory",
            {{"in_use_blocks", "Blocks handed out by the memory pool"},
             {"in_use_bytes", "Bytes of the blocks handed out by the memory pool"},
             {"cached_blocks", "Free blocks in the caches of the memory pool"},
             {"cached_bytes", "Bytes of the free blocks in these caches"},
             {"thread_caches", "Threads with a cache of their own"}},
            {{{},
              {figures.in_use_blocks, figures.in_use_bytes, figures.cached_blocks, figures.cached_bytes,
               figures.thread_caches}}}};
}

SStatTable times() {
    SStatTable table{
        "time",
        {{"callbacks", "Callbacks of the class's handlers since times are taken", COUNTER},
         {"longest_us", "How long the longest callback of the class took"},
         {"p99_us", "What 99 of 100 callbacks of the class took at most, up to an eighth too much"}},
        {}};
    for (const CallbackTimes::STimes& one : CallbackTimes::list()) {
        table.rows.push_back(
            {{{"class", one.type}},
             {static_cast<std::int64_t>(one.callbacks), static_cast<std::int64_t>(one.longest_us),
              static_cast<std::int64_t>(one.p99_us)}});
    }
    return table;
}

}  // namespace Veltro::Ravelo::StatReactor
