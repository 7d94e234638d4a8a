#include "Debug/DebugControl.h"

#include <Plinth/ThreadManager.h>
#include <Plinth/TypeName.h>

#include <cstdio>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "Core/CurrentObject.h"
#include "Log.h"

namespace Veltro::Ravelo {

namespace {

constexpr auto relaxed = std::memory_order_relaxed;
constexpr int TRACE = Plinth::LOG_LEVEL_TRACE;

struct SThreadModule {
    unsigned long thread_id;
    CCurrentObject::SModule module;
};

/// A copy of the table: lines are logged without its lock. Short of memory, it is cut.
std::vector<SThreadModule> threadModules(unsigned long wanted_id) {
    std::vector<SThreadModule> found;
    CCurrentObject::visit(
        [&found, wanted_id](unsigned long thread_id, const CCurrentObject::SModule& module) {
            if (wanted_id != 0 && wanted_id != thread_id) return;
            try {
                found.push_back({thread_id, module});
            } catch (const std::bad_alloc&) {
                // The others are still worth showing.
            }
        });
    return found;
}

std::string className(const CCurrentObject::SModule& module) {
    return module.type != nullptr ? Plinth::readableTypeName(*module.type) : "NULL";
}

/// Returns how many threads were shown.
std::size_t dumpThreads(int level, unsigned long wanted_id) {
    RAVELO_LOG_BARE(level, "----------------------- thread module info ------------------------\n");
    const auto found = threadModules(wanted_id);
    for (const SThreadModule& thread : found) {
        RAVELO_LOG_BARE(level, "---- thread[%lu], name[%s], module[%s]\n", thread.thread_id,
                        Plinth::CThreadManager::getThreadNameByID(thread.thread_id).c_str(),
                        className(thread.module).c_str());
    }
    return found.size();
}

void showLevel(unsigned level) {
    static const char* const NAMES[] = {"less", "mid", "more"};
    if (level < std::size(NAMES)) {
        RAVELO_LOG_BARE(TRACE, " sm_sock_level = %s .\n", NAMES[level]);
    } else {
        RAVELO_LOG_BARE(TRACE, " sm_sock_level = unkown %u .\n", level);
    }
}

/// The set's descriptors, each followed by a blank; what goes beyond 127 bytes is cut.
template <std::size_t Size>
void joinSocks(char (&text)[Size]) {
    std::size_t used = 0;
    Plinth::CLockGuard guard(CDebugControl::sm_sock_mutex);
    for (const int fd : CDebugControl::sm_sock_fd) {
        const int length = std::snprintf(text + used, Size - used, "%d ", fd);
        used += static_cast<std::size_t>(length);
        if (used >= Size) return;
    }
}

}  // namespace

std::atomic<bool> CDebugControl::sm_sock_on{false};
std::atomic<unsigned> CDebugControl::sm_sock_level{LEVEL_LESS};
std::atomic<bool> CDebugControl::sm_sock_fd_all{false};
// Never destroyed: sites may ask while the process's statics go.
Plinth::CMutex& CDebugControl::sm_sock_mutex = *new Plinth::CMutex;
std::set<int>& CDebugControl::sm_sock_fd = *new std::set<int>;

void CDebugControl::ResetSockDumpRule() {
    sm_sock_on.store(false, relaxed);
    sm_sock_level.store(LEVEL_LESS, relaxed);
    sm_sock_fd_all.store(false, relaxed);
    Plinth::CLockGuard guard(sm_sock_mutex);
    sm_sock_fd.clear();
}

bool CDebugControl::SockDumpEnabled(int fd, unsigned level) {
    if (!sm_sock_on.load(relaxed) || sm_sock_level.load(relaxed) < level) return false;
    if (sm_sock_fd_all.load(relaxed)) return true;
    Plinth::CLockGuard guard(sm_sock_mutex);
    return sm_sock_fd.contains(fd);
}

void CDebugControl::selectSocks(std::set<int> fds) {
    {
        Plinth::CLockGuard guard(sm_sock_mutex);
        sm_sock_fd.swap(fds);
    }
    sm_sock_fd_all.store(false, relaxed);
}

void CDebugControl::ShowSockDumpRule() {
    RAVELO_LOG_BARE(TRACE, "--------------------------- socket debug info ----------------------------\n");
    RAVELO_LOG_BARE(TRACE, " sm_sock_on    = %s .\n", sm_sock_on.load(relaxed) ? "true" : "false");
    showLevel(sm_sock_level.load(relaxed));
    char socks[128] = "";
    joinSocks(socks);
    if (sm_sock_fd_all.load(relaxed)) {
        RAVELO_LOG_BARE(TRACE, " sm_sock_fd    = all .\n");
    } else {
        RAVELO_LOG_BARE(TRACE, " sm_sock_fd    = %s .\n", socks[0] != '\0' ? socks : "none");
    }
    RAVELO_LOG_BARE(TRACE, "--------------------------------------------------------------------------\n");
}

void CDebugControl::DumpThreadModALL() {
    dumpThreads(TRACE, 0);
}

void CDebugControl::DumpThreadModInfo(int thread_id) {
    const auto wanted_id = static_cast<unsigned long>(thread_id);
    if (dumpThreads(TRACE, wanted_id) == 0) {
        RAVELO_LOG_BARE(TRACE, "---- thread[%lu] not found\n", wanted_id);
    }
}

void CDebugControl::reportThreads() {
    dumpThreads(Plinth::LOG_LEVEL_ERROR, 0);
}

}  // namespace Veltro::Ravelo
