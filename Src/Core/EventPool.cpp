#include "Core/EventPool.h"

#include <new>

namespace Veltro::Ravelo {

namespace {

constexpr auto relaxed = std::memory_order_relaxed;

/// What a thread's list takes from or gives to the shared one at a time, and twice as much is the most it
/// keeps.
constexpr std::size_t BATCH = 32;

struct SFreeList {
    Plinth::CMutex mutex;  // guards all below
    SQueueRecord* head PLINTH_GUARDED_BY(mutex) = nullptr;
    std::size_t size PLINTH_GUARDED_BY(mutex) = 0;
    std::size_t made PLINTH_GUARDED_BY(mutex) = 0;  // records that exist, free or not
    CEventPool::CThreadList* lists PLINTH_GUARDED_BY(mutex) = nullptr;
};

/// Never destroyed: records may come back while the process's statics go.
SFreeList& s_free = *new SFreeList;

thread_local CEventPool::CThreadList* t_list = nullptr;

SEvent* takeShared() {
    Plinth::CLockGuard guard(s_free.mutex);
    SQueueRecord* record = s_free.head;
    if (record == nullptr) return nullptr;
    s_free.head = record->next;
    --s_free.size;
    return static_cast<SEvent*>(record);
}

void giveShared(SQueueRecord* record) {
    Plinth::CLockGuard guard(s_free.mutex);
    record->next = s_free.head;
    s_free.head = record;
    ++s_free.size;
}

SEvent* make() {
    auto* record = new (std::nothrow) SEvent;
    if (record == nullptr) return nullptr;
    record->timer.record = record;
    Plinth::CLockGuard guard(s_free.mutex);
    ++s_free.made;
    return record;
}

/// Start values for what a socket has used; messages leave these fields alone.
void resetSocketFields(SEvent& record) {
    record.owner = CHandlerShare();
    record.obj_id.store(0, relaxed);
    record.m_revents.store(VL_NOPOLL, relaxed);
    record.m_event_mask = EventMask::None;
    record.timer = SSockTimeout{};
    record.timer.record = &record;
    record.armed = 0;
}

}  // namespace

SEvent* CEventPool::get(std::int64_t key) {
    SEvent* record = nullptr;
    if (t_list == nullptr) {
        record = takeShared();
    } else if (t_list->m_head != nullptr || t_list->refill()) {
        record = static_cast<SEvent*>(t_list->m_head);
        t_list->m_head = record->next;
        t_list->m_size.store(t_list->m_size.load(relaxed) - 1, relaxed);
    }
    if (record == nullptr) record = make();
    if (record == nullptr) return nullptr;
    record->key = key;
    record->next = nullptr;
    record->sender = 0;
    record->receiver = 0;
    record->info = 0;
    record->type = 0;
    return record;
}

void CEventPool::put(SEvent* record) {
    if (record->key >= 0) resetSocketFields(*record);
    if (t_list == nullptr) {
        giveShared(record);
        return;
    }
    record->next = t_list->m_head;
    t_list->m_head = record;
    t_list->m_size.store(t_list->m_size.load(relaxed) + 1, relaxed);
    if (t_list->m_size.load(relaxed) >= 2 * BATCH) t_list->spill(BATCH);
}

void CEventPool::destroy() {
    while (SEvent* record = takeShared()) {
        delete record;
        Plinth::CLockGuard guard(s_free.mutex);
        --s_free.made;
    }
}

std::ptrdiff_t CEventPool::inUse() {
    Plinth::CLockGuard guard(s_free.mutex);
    std::size_t free = s_free.size;
    for (const CThreadList* list = s_free.lists; list != nullptr; list = list->m_next) {
        free += list->m_size.load(relaxed);
    }
    return static_cast<std::ptrdiff_t>(s_free.made) - static_cast<std::ptrdiff_t>(free);
}

CEventPool::CThreadList::CThreadList() {
    Plinth::CLockGuard guard(s_free.mutex);
    m_next = s_free.lists;
    s_free.lists = this;
    t_list = this;
}

CEventPool::CThreadList::~CThreadList() {
    spill(0);
    t_list = nullptr;
    Plinth::CLockGuard guard(s_free.mutex);
    CThreadList** link = &s_free.lists;
    while (*link != this) link = &(*link)->m_next;
    *link = m_next;
}

/// Takes a batch from the shared list; false when that is empty.
bool CEventPool::CThreadList::refill() {
    Plinth::CLockGuard guard(s_free.mutex);
    std::size_t taken = 0;
    for (; taken < BATCH && s_free.head != nullptr; ++taken) {
        SQueueRecord* record = s_free.head;
        s_free.head = record->next;
        record->next = m_head;
        m_head = record;
    }
    s_free.size -= taken;
    m_size.store(m_size.load(relaxed) + taken, relaxed);
    return taken > 0;
}

/// Gives all but some records to the shared list.
void CEventPool::CThreadList::spill(std::size_t keep) {
    Plinth::CLockGuard guard(s_free.mutex);
    std::size_t left = m_size.load(relaxed);
    for (; left > keep; --left) {
        SQueueRecord* record = m_head;
        m_head = record->next;
        record->next = s_free.head;
        s_free.head = record;
        ++s_free.size;
    }
    m_size.store(left, relaxed);
}

}  // namespace Veltro::Ravelo
