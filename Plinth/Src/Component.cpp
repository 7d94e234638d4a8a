#include <Plinth/Component.h>
#include <Plinth/Mutex.h>

#include <cstring>
#include <utility>

namespace Veltro::Plinth {

namespace {
struct SRegistry {
    CMutex mutex;
    std::shared_ptr<IConsole> console PLINTH_GUARDED_BY(mutex);
};

SRegistry& registry() {
    static SRegistry instance;
    return instance;
}
}  // namespace

std::shared_ptr<IConsole> CComponentRegistry::getConsole(const char* server) {
    if (server == nullptr || std::strcmp(server, COMPONENT_SERVER_LOCAL) != 0) return nullptr;
    CLockGuard guard(registry().mutex);
    return registry().console;
}

void CComponentRegistry::setConsole(std::shared_ptr<IConsole> console) {
    // The former host's destructor may call back into the registry, so it runs after the lock is given back.
    CLockGuard guard(registry().mutex);
    registry().console.swap(console);
}

}  // namespace Veltro::Plinth
