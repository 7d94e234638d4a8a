#include "Core/CurrentObject.h"

#include <Plinth/Mutex.h>
#include <Plinth/Thread.h>

#include <map>

namespace Veltro::Ravelo {

namespace {
struct STable {
    Plinth::CMutex mutex;
    std::map<unsigned long, const CCurrentObject*> sm_thread_modules PLINTH_GUARDED_BY(mutex);
};

STable& table() {
    static auto* instance = new STable;  // never destroyed: threads may end late
    return *instance;
}
}  // namespace

CCurrentObject::CCurrentObject(int pool) : m_pool(pool), m_thread_id(Plinth::getCurrentThreadId()) {
    Plinth::CLockGuard guard(table().mutex);
    table().sm_thread_modules[m_thread_id] = this;
}

CCurrentObject::~CCurrentObject() {
    Plinth::CLockGuard guard(table().mutex);
    table().sm_thread_modules.erase(m_thread_id);
}

/// A callback that began before times were taken has none.
void CCurrentObject::noteTime() {
    if (m_began_us != 0) CallbackTimes::note(*m_type.load(std::memory_order_relaxed), m_began_us);
    m_began_us = 0;
}

void CCurrentObject::visit(
    const std::function<void(unsigned long thread_id, const SModule& module)>& visitor) {
    Plinth::CLockGuard guard(table().mutex);
    for (const auto& [thread_id, current] : table().sm_thread_modules) {
        const CNetHandler* handler = current->m_handler.load(std::memory_order_relaxed);
        const std::type_info* type = current->m_type.load(std::memory_order_relaxed);
        visitor(thread_id, {current->m_pool, current->m_id.load(std::memory_order_relaxed),
                            current->m_callbacks.load(std::memory_order_relaxed), handler,
                            handler != nullptr ? type : nullptr});
    }
}

}  // namespace Veltro::Ravelo
