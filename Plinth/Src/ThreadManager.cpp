#include <Plinth/Mutex.h>
#include <Plinth/ThreadManager.h>

#include <map>

namespace Veltro::Plinth {

namespace {
struct SThreadTable {
    CMutex mutex;
    std::map<unsigned long, std::string> names PLINTH_GUARDED_BY(mutex);
};

/// Never destroyed: threads may end after the statics of other files have gone.
SThreadTable& table() {
    static auto* instance = new SThreadTable;
    return *instance;
}
}  // namespace

std::string CThreadManager::getThreadNameByID(unsigned long thread_id) {
    CLockGuard guard(table().mutex);
    const auto found = table().names.find(thread_id);
    return found == table().names.end() ? std::string() : found->second;
}

void CThreadManager::addThread(unsigned long thread_id, const char* name) {
    CLockGuard guard(table().mutex);
    table().names[thread_id] = name;
}

void CThreadManager::removeThread(unsigned long thread_id) {
    CLockGuard guard(table().mutex);
    table().names.erase(thread_id);
}

}  // namespace Veltro::Plinth
