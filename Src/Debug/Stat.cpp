#include "Debug/Stat.h"

#include <Plinth/Component.h>
#include <Plinth/ThreadManager.h>
#include <Plinth/TypeName.h>

#include <cstring>
#include <map>
#include <new>
#include <span>
#include <string>
#include <typeinfo>

#include "Core/CurrentObject.h"
#include "Core/EventPool.h"
#include "Core/Message.h"
#include "Core/NetHandlerRecord.h"
#include "Core/NetTimer.h"
#include "Core/PoolTable.h"
#include "Core/ThreadPool.h"
#include "Debug/CallbackTimes.h"
#include "Debug/StatTable.h"
#include "Log.h"

namespace Veltro::Ravelo::Stat {

namespace {

constexpr int WRONG_WORD = 2;

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

SStatTable pools() {
    SStatTable table{"pool", {}};
    SWorkers by_pool = workers();
    forEachPool([&](CThreadPool& pool) {
        table.rows.push_back({{{"number", std::to_string(pool.number())}},
                              {{"threads", pool.threadCount()},
                               {"queued", pool.queue().size()},
                               {"last_wait_us", pool.lastWaitUs()},
                               {"longest_wait_us", pool.longestWaitUs()},
                               {"handlers", sizeOf(pool.objects())},
                               {"sockets", sizeOf(pool.sockets())},
                               {"callbacks", by_pool.callbacks[pool.number()]}}});
    });
    return table;
}

SStatTable threads() {
    SStatTable table{"thread", {}};
    for (const auto& [thread_id, module] : workers().modules) {
        const std::string name = Plinth::CThreadManager::getThreadNameByID(thread_id);
        table.rows.push_back({{{"id", std::to_string(thread_id)}, {"name", name}},
                              {{"busy", module.handler != nullptr ? 1 : 0},
                               {"callbacks", static_cast<std::int64_t>(module.callbacks)}}});
    }
    return table;
}

/// Handlers in the pools' tables, and their sockets, by class.
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
    SStatTable table{"handler", {}};
    for (const auto& [type, count] : classes) {
        table.rows.push_back({{{"class", type}}, {{"count", count.handlers}, {"sockets", count.sockets}}});
    }
    return table;
}

/// Registered sockets by what is waited for.
SStatTable sockets() {
    SStatTable table{"socket", {}};
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
        table.rows.push_back({{{"pool", std::to_string(pool.number())}},
                              {{"count", all},
                               {"reading", reading},
                               {"writing", writing},
                               {"with_timeout", with_timeout},
                               {"in_flight", in_flight}}});
    });
    return table;
}

SStatTable timers() {
    return {"timer", {{{}, {{"armed", static_cast<std::int64_t>(CNetTimer::armed())}}}}};
}

SStatTable messages() {
    return {"message",
            {{{},
              {{"waiting_for_file_threads", CMessage::waitingIo()},
               {"records_in_use", static_cast<std::int64_t>(CEventPool::inUse())}}}}};
}

SStatTable times() {
    SStatTable table{"time", {}};
    for (const CallbackTimes::STimes& one : CallbackTimes::list()) {
        table.rows.push_back({{{"class", one.type}},
                              {{"callbacks", static_cast<std::int64_t>(one.callbacks)},
                               {"longest_us", static_cast<std::int64_t>(one.longest_us)},
                               {"p99_us", static_cast<std::int64_t>(one.p99_us)}}});
    }
    return table;
}

struct STopic {
    const char* word;
    SStatTable (*read)();
};

constexpr STopic TOPICS[] = {{"pools", &pools},     {"threads", &threads}, {"handlers", &handlers},
                             {"sockets", &sockets}, {"timers", &timers},   {"messages", &messages},
                             {"times", &times}};

/// Logged as the command's own, like the answers of its neighbour.
void answer(const std::string& line) {
    RAVELO_LOG_BARE(Plinth::LOG_LEVEL_TRACE, "%s\n", line.c_str());
}

int refuse(const std::string& word) {
    answer("unknown word: " + word.substr(0, 40));
    answer("stat [pools|threads|handlers|sockets|timers|messages|times] [-json|-metrics]");
    answer("stat times on|off");
    return WRONG_WORD;
}

int switchTimes(bool on) {
    CallbackTimes::switchOn(on);
    answer(on ? "callbacks are timed from now on" : "callbacks are timed no more");
    return 0;
}

int run(std::span<char* const> words) {
    std::vector<SStatTable> tables;
    EStatForm form = EStatForm::Text;
    bool about_times = false;
    for (const char* given : words) {
        const std::string word = given != nullptr ? given : "";
        bool known = true;
        if (word == "-json") {
            form = EStatForm::Json;
        } else if (word == "-metrics") {
            form = EStatForm::Metrics;
        } else if (about_times && (word == "on" || word == "off")) {
            return switchTimes(word == "on");
        } else {
            known = false;
            for (const STopic& topic : TOPICS) {
                if (word != topic.word) continue;
                tables.push_back(topic.read());
                known = true;
            }
        }
        about_times = word == "times";
        if (!known) return refuse(word);
    }
    if (tables.empty()) {
        for (const STopic& topic : TOPICS) tables.push_back(topic.read());
    }
    for (const std::string& line : statLines(tables, form)) answer(line);
    return 0;
}

}  // namespace

void registerCommand() {
    const auto console = Plinth::CComponentRegistry::getConsole(Plinth::COMPONENT_SERVER_LOCAL);
    if (console) console->registerCommand("stat", "stat [pools|threads|...] [-json|-metrics]", &OnStat);
}

int OnStat(int argc, char** argv) {
    try {
        return run({argv, argc > 0 && argv != nullptr ? static_cast<std::size_t>(argc) : 0});
    } catch (const std::bad_alloc&) {
        RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "no memory for a console command\n");
        return 0;
    }
}

}  // namespace Veltro::Ravelo::Stat
