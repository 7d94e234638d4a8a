#include "Core/CurrentObject.h"

#include <Plinth/Mutex.h>
#include <Plinth/Thread.h>

#include <map>

namespace Veltro::Ravelo {

namespace {
struct SMap {
    Plinth::CMutex mutex;
    std::map<unsigned long, const std::atomic<CNetHandler*>*> slots PLINTH_GUARDED_BY(mutex);
};

SMap& currentObjects() {
    static auto* instance = new SMap;  // never destroyed: threads may end late
    return *instance;
}
}  // namespace

CCurrentObject::CCurrentObject() : m_thread_id(Plinth::getCurrentThreadId()) {
    Plinth::CLockGuard guard(currentObjects().mutex);
    currentObjects().slots[m_thread_id] = &m_handler;
}

CCurrentObject::~CCurrentObject() {
    Plinth::CLockGuard guard(currentObjects().mutex);
    currentObjects().slots.erase(m_thread_id);
}

void CCurrentObject::visit(
    const std::function<void(unsigned long thread_id, const CNetHandler* handler)>& visitor) {
    Plinth::CLockGuard guard(currentObjects().mutex);
    for (const auto& [thread_id, slot] : currentObjects().slots) {
        visitor(thread_id, slot->load(std::memory_order_relaxed));
    }
}

}  // namespace Veltro::Ravelo
