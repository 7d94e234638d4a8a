#include "Debug/ConsoleAttempts.h"

#include <Plinth/Mutex.h>

#include "Debug/Debug.h"
#include "Debug/Stat.h"
#include "Log.h"

namespace Veltro::Ravelo {

namespace {
constexpr int MAX_ATTEMPTS = 5;

struct SRegistration {
    Plinth::CMutex mutex;  // guards the two below
    bool done PLINTH_GUARDED_BY(mutex) = false;
    int attempt PLINTH_GUARDED_BY(mutex) = 1;
};

SRegistration& s_registration = *new SRegistration;
}  // namespace

void registerConsoleOnce() {
    Plinth::CLockGuard guard(s_registration.mutex);
    if (s_registration.done) return;
    if (InitConsoleDebug()) {
        s_registration.done = true;
        Stat::registerCommand();
        RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "InitConsoleDebug ok! run happy.\n");
    } else if (++s_registration.attempt <= MAX_ATTEMPTS) {
        RAVELO_LOG(Plinth::LOG_LEVEL_ERROR, "InitConsoleDebug Failed! try again.\n");
    } else {
        s_registration.done = true;
        RAVELO_LOG(Plinth::LOG_LEVEL_ERROR,
                   "InitConsoleDebug Failed! Will not to able use console commands.\n");
    }
}

}  // namespace Veltro::Ravelo
