#include "Debug/Debug.h"

#include <Plinth/Mutex.h>
#include <Plinth/ThreadManager.h>

#include "Core/CurrentObject.h"
#include "Log.h"

namespace Veltro::Ravelo::Debug {

namespace {
constexpr int MAX_ATTEMPTS = 5;

struct SRegistration {
    Plinth::CMutex mutex;  // guards the two below
    bool done PLINTH_GUARDED_BY(mutex) = false;
    int attempt PLINTH_GUARDED_BY(mutex) = 1;
};

SRegistration& s_registration = *new SRegistration;
}  // namespace

bool InitConsoleDebug() {
    return false;
}

void registerConsoleOnce() {
    Plinth::CLockGuard guard(s_registration.mutex);
    if (s_registration.done) return;
    if (InitConsoleDebug()) {
        s_registration.done = true;
        RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "InitConsoleDebug ok! run happy.\n");
    } else if (++s_registration.attempt <= MAX_ATTEMPTS) {
        RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "InitConsoleDebug Failed! try again.\n");
    } else {
        s_registration.done = true;
        RAVELO_LOG(Plinth::LOG_LEVEL_ERROR,
                   "InitConsoleDebug Failed! Will not to able use console commands.\n");
    }
}

void dumpThreads() {
    CCurrentObject::visit([](unsigned long thread_id, const CNetHandler* handler) {
        RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "thread[%lu], name[%s], object:%p\n", thread_id,
                   Plinth::CThreadManager::getThreadNameByID(thread_id).c_str(),
                   static_cast<const void*>(handler));
    });
}

}  // namespace Veltro::Ravelo::Debug
