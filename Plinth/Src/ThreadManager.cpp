#include <Plinth/Mutex.h>
#include <Plinth/ThreadManager.h>

#include <map>
#include <new>

#include "Immortal.h"

namespace Veltro::Plinth {

namespace {
struct SThreadTable {
    CMutex mutex;
    std::map<unsigned long, std::string> names PLINTH_GUARDED_BY(mutex);
};

SThreadTable& table() {
    static TImmortal<SThreadTable> instance;
    return instance.get();
}
}  // namespace

std::string CThreadManager::getThreadNameByID(unsigned long thread_id) {
    try {
        CLockGuard guard(table().mutex);
        const auto found = table().names.find(thread_id);
        if (found != table().names.end()) return found->second;
    } catch (const std::bad_alloc&) {
        // As a thread without a name.
    }
    return {};
}

void CThreadManager::addThread(unsigned long thread_id, const char* name) {
    try {
        CLockGuard guard(table().mutex);
        table().names[thread_id] = name;
    } catch (const std::bad_alloc&) {
        // The thread runs all the same, without a name.
    }
}

void CThreadManager::removeThread(unsigned long thread_id) {
    CLockGuard guard(table().mutex);
    table().names.erase(thread_id);
}

}  // namespace Veltro::Plinth
