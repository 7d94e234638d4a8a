#include "Core/EventPool.h"

#include <new>

namespace Veltro::Ravelo {

namespace {

struct SFreeList {
    Plinth::CMutex mutex;
    SQueueRecord* head PLINTH_GUARDED_BY(mutex) = nullptr;
    std::atomic<std::ptrdiff_t> in_use{0};
};

/// Never destroyed: records may come back while the process's statics go.
SFreeList& freeList() {
    static auto* instance = new SFreeList;
    return *instance;
}

SEvent* takeFree() {
    Plinth::CLockGuard guard(freeList().mutex);
    SQueueRecord* record = freeList().head;
    if (record != nullptr) freeList().head = record->next;
    return static_cast<SEvent*>(record);
}

/// Start values for a record that was used before.
void reset(SEvent& record) {
    record.next = nullptr;
    record.sender = 0;
    record.receiver = 0;
    record.info = 0;
    record.type = 0;
    record.obj_id.store(0, std::memory_order_relaxed);
    record.m_revents.store(VL_NOPOLL, std::memory_order_relaxed);
    record.m_event_mask = EventMask::None;
    record.timer = SSockTimeout{};
    record.armed = 0;
}

}  // namespace

SEvent* CEventPool::get(std::int64_t key) {
    SEvent* record = takeFree();
    if (record != nullptr) {
        reset(*record);
    } else {
        record = new (std::nothrow) SEvent;
        if (record == nullptr) return nullptr;
    }
    record->key = key;
    record->timer.record = record;
    freeList().in_use.fetch_add(1, std::memory_order_relaxed);
    return record;
}

void CEventPool::put(SEvent* record) {
    record->owner_sockets.reset();
    freeList().in_use.fetch_sub(1, std::memory_order_relaxed);
    Plinth::CLockGuard guard(freeList().mutex);
    record->next = freeList().head;
    freeList().head = record;
}

void CEventPool::destroy() {
    while (SEvent* record = takeFree()) delete record;
}

std::ptrdiff_t CEventPool::inUse() {
    return freeList().in_use.load(std::memory_order_relaxed);
}

}  // namespace Veltro::Ravelo
