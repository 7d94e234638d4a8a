#include "Debug/SockDump.h"

#include <Ravelo/NetHandler.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Core/NetHandlerRecord.h"
#include "Core/NetThreadState.h"
#include "Core/PoolTable.h"
#include "Debug/FlagText.h"
#include "Log.h"

namespace Veltro::Ravelo::SockDump {

namespace {

/// A copy of a socket record, taken under its mutex, and a reference on its owner. Logging and giving
/// references back wait until no lock is held: the last reference calls the application.
struct SSnapshot {
    int fd;
    std::int64_t owner_id;
    CNetHandler* owner;  ///< null when it has gone
    unsigned revents;
    unsigned mask;
    std::int32_t set_time_ms;
    std::int64_t time_out_ms;
};

SSnapshot snapshot(CThreadPool& pool, SEvent& record) {
    Plinth::CLockGuard guard(record.mutex);
    const std::int64_t owner_id = record.obj_id.load();
    return {static_cast<int>(record.key), owner_id,
            pool.findHandler(owner_id),   record.m_revents.load(),
            record.m_event_mask,          record.timer.m_set_time,
            record.timer.m_time_out};
}

template <typename Visit>
void forEachPool(Visit&& visit) {
    const CCreationGuard guard(SNetThreadState::get());
    for (int number = 0; guard && number < POOL_COUNT; ++number) {
        if (CThreadPool* pool = CPoolTable::peek(number)) visit(*pool);
    }
}

void release(const std::vector<SSnapshot>& snapshots) {
    for (const SSnapshot& shot : snapshots) {
        if (shot.owner != nullptr) shot.owner->DecRef();
    }
}

void logBlock(const SSnapshot& shot) {
    char mask[128];
    char revents[128];
    const std::string type = shot.owner != nullptr ? SNetHandlerRecord::className(shot.owner) : "NULL";
    RAVELO_LOG_BARE(Plinth::LOG_LEVEL_TRACE, "------------ Dump Sock fd[%d][%s] SEvent ------------\n",
                    shot.fd, type.c_str());
    RAVELO_LOG_BARE(Plinth::LOG_LEVEL_TRACE, "---- obj: %p\n", static_cast<const void*>(shot.owner));
    RAVELO_LOG_BARE(Plinth::LOG_LEVEL_TRACE, "---- obj_id: %jd\n", static_cast<std::intmax_t>(shot.owner_id));
    RAVELO_LOG_BARE(Plinth::LOG_LEVEL_TRACE, "---- obj_type: %s\n", type.c_str());
    RAVELO_LOG_BARE(Plinth::LOG_LEVEL_TRACE, "---- m_revents: %s\n",
                    ReventsToString(shot.revents, sizeof revents, revents));
    RAVELO_LOG_BARE(Plinth::LOG_LEVEL_TRACE, "---- m_event_mask: %s\n",
                    MaskToString(shot.mask, sizeof mask, mask));
    RAVELO_LOG_BARE(Plinth::LOG_LEVEL_TRACE, "---- timer.m_set_time: %d\n", shot.set_time_ms);
    RAVELO_LOG_BARE(Plinth::LOG_LEVEL_TRACE, "---- timer.m_time_out: %jd\n",
                    static_cast<std::intmax_t>(shot.time_out_ms));
}

/// Logs a block for each record that the filter lets through.
template <typename Filter>
void dump(Filter&& wanted) {
    std::vector<SSnapshot> snapshots;
    forEachPool([&](CThreadPool& pool) {
        Plinth::CReadGuard guard(pool.sockets().lock());
        pool.sockets().visit([&](SKeyedEntry* entry) {
            auto& record = *static_cast<SEvent*>(entry);
            if (wanted(record)) snapshots.push_back(snapshot(pool, record));
            return true;
        });
    });
    for (const SSnapshot& shot : snapshots) logBlock(shot);
    release(snapshots);
}

}  // namespace

int traverse() {
    std::vector<SSnapshot> found;
    forEachPool([&](CThreadPool& pool) {
        std::vector<SSnapshot> entered;
        Plinth::CReadGuard guard(pool.sockets().lock());
        pool.sockets().visitGated(
            [&](SKeyedEntry* entry) {
                const SSnapshot shot = snapshot(pool, *static_cast<SEvent*>(entry));
                if (shot.owner != nullptr) entered.push_back(shot);
                return shot.owner != nullptr;
            },
            [&](SKeyedEntry*) {
                // All that was entered since then stood left of this entry and has been visited.
                found.push_back(entered.back());
                entered.pop_back();
            });
    });
    for (const SSnapshot& shot : found) {
        RAVELO_LOG(Plinth::LOG_LEVEL_TRACE,
                   "CThreadPool::Traversal, sock fd: %jd, owner: %p, owner type:%s \n",
                   static_cast<std::intmax_t>(shot.fd), static_cast<const void*>(shot.owner),
                   SNetHandlerRecord::className(shot.owner).c_str());
    }
    release(found);
    return static_cast<int>(found.size());
}

void dumpSocks(const int* fds, int count) {
    dump([fds, count](const SEvent& record) {
        return count == 0 || std::find(fds, fds + count, static_cast<int>(record.key)) != fds + count;
    });
}

void dumpHandler(std::int64_t id) {
    dump([id](const SEvent& record) { return id == 0 || record.obj_id.load() == id; });
}

}  // namespace Veltro::Ravelo::SockDump
