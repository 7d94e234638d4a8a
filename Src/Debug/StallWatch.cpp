#include "Debug/StallWatch.h"

#include <Plinth/ThreadManager.h>
#include <Plinth/TypeName.h>

#include <atomic>
#include <new>
#include <string>

#include "Log.h"

namespace Veltro::Ravelo {

namespace {
constexpr std::uint64_t MINUTE_MS = 60'000;
constexpr int LINES_A_MINUTE = 5;

std::atomic<std::uint32_t> s_limit_ms{1'000};
}  // namespace

void CStallWatch::setLimit(std::uint32_t limit_ms) {
    s_limit_ms.store(limit_ms, std::memory_order_relaxed);
}

std::vector<CStallWatch::SStall> CStallWatch::findStalls(std::uint64_t now_ms, std::uint32_t limit_ms) {
    ++m_looks;
    std::vector<SStall> stalls;
    CCurrentObject::visit([&](unsigned long thread_id, const CCurrentObject::SModule& module) {
        if (module.handler == nullptr) return;
        SSeen& seen = m_seen[thread_id];
        if (seen.callbacks != module.callbacks) seen = {module.callbacks, now_ms, 0, false};
        seen.look = m_looks;
        if (seen.reported || now_ms - seen.since_ms < limit_ms) return;
        seen.reported = true;
        stalls.push_back({thread_id, module, now_ms - seen.since_ms});
    });
    // A thread between callbacks, or gone, starts anew.
    std::erase_if(m_seen, [this](const auto& entry) { return entry.second.look != m_looks; });
    return stalls;
}

bool CStallWatch::mayLog(std::uint64_t now_ms) {
    if (m_lines == 0 || now_ms - m_minute_from_ms >= MINUTE_MS) {
        m_minute_from_ms = now_ms;
        m_lines = 0;
    }
    return m_lines++ < LINES_A_MINUTE;
}

void CStallWatch::report(const SStall& stall) {
    const std::string type =
        stall.module.type != nullptr ? Plinth::readableTypeName(*stall.module.type) : "NULL";
    RAVELO_LOG(Plinth::LOG_LEVEL_WARNING,
               "a callback has run for %ju ms and goes on, obj_type:%s, obj_id:%jd, thread[%lu], name[%s]\n",
               static_cast<std::uintmax_t>(stall.time_ms), type.c_str(),
               static_cast<std::intmax_t>(stall.module.id), stall.thread_id,
               Plinth::CThreadManager::getThreadNameByID(stall.thread_id).c_str());
}

void CStallWatch::look(std::uint64_t now_ms) {
    const std::uint32_t limit_ms = s_limit_ms.load(std::memory_order_relaxed);
    if (limit_ms == 0) return;
    try {
        for (const SStall& stall : findStalls(now_ms, limit_ms)) {
            if (mayLog(now_ms)) report(stall);
        }
    } catch (const std::bad_alloc&) {
        // The next look may have the memory.
    }
}

}  // namespace Veltro::Ravelo
