#include <Plinth/Component.h>
#include <Plinth/Mutex.h>

#include <cstring>

#include "Immortal.h"

namespace Veltro::Plinth {

namespace {
struct SRegistry {
    CMutex mutex;
    std::shared_ptr<IConsole> console PLINTH_GUARDED_BY(mutex);
};

// Never destroyed: a host that joins its threads must not go while the library is being unloaded.
SRegistry& registry() {
    static TImmortal<SRegistry> instance;
    return instance.get();
}
}  // namespace

IConsole::~IConsole() = default;

std::shared_ptr<IConsole> CComponentRegistry::getConsole(const char* server) {
    if (server == nullptr || std::strcmp(server, COMPONENT_SERVER_LOCAL) != 0) return nullptr;
    CLockGuard guard(registry().mutex);
    return registry().console;
}

void CComponentRegistry::setConsole(std::shared_ptr<IConsole> console) {
    {
        CLockGuard guard(registry().mutex);
        registry().console.swap(console);
    }
    // The former host's destructor may call the registry, so it runs without the lock.
    console.reset();
}

}  // namespace Veltro::Plinth
