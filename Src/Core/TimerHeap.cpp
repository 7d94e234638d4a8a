#include "Core/TimerHeap.h"

#include <new>
#include <utility>

namespace Veltro::Ravelo {

/// The slot of an id; null when there is none.
CTimerHeap::SSlot* CTimerHeap::findSlot(std::int64_t timer_id) {
    if (timer_id > FIRST_SEQUENCE * (std::int64_t{1} << SEQUENCE_SHIFT) + (1 << SEQUENCE_SHIFT) - 1)
        return nullptr;
    auto& slots = m_by_sequence[poolOfId(timer_id)];
    const std::size_t sequence = sequenceOf(timer_id);
    return sequence < slots.size() ? &slots[sequence] : nullptr;
}

bool CTimerHeap::insert(STimer* timer) {
    auto& slots = m_by_sequence[poolOfId(timer->key)];
    const std::size_t sequence = sequenceOf(timer->key);
    const auto index = static_cast<std::uint32_t>(m_heap.size());
    try {
        if (sequence >= slots.size()) slots.resize(sequence + sequence / 2 + 64);
        m_heap.push_back({timer->due_us, timer->key});
    } catch (const std::bad_alloc&) {
        return false;
    }
    slots[sequence] = {timer, index};
    siftUp(index);
    return true;
}

STimer* CTimerHeap::popRoot() {
    return m_heap.empty() ? nullptr : takeAt(0);
}

STimer* CTimerHeap::remove(std::int64_t timer_id) {
    const SSlot* slot = findSlot(timer_id);
    if (slot == nullptr || slot->timer == nullptr || m_heap[slot->place].id != timer_id) return nullptr;
    return takeAt(slot->place);
}

STimer* CTimerHeap::removePool(int pool_number) {
    STimer* removed = nullptr;
    for (const SSlot& slot : m_by_sequence[pool_number]) {
        if (slot.timer == nullptr) continue;
        STimer* timer = takeAt(slot.place);
        timer->next = removed;
        removed = timer;
    }
    m_by_sequence[pool_number] = {};
    return removed;
}

/// Takes the timer at an index out; the last one moves to its place.
STimer* CTimerHeap::takeAt(std::size_t index) {
    STimer* timer = std::exchange(slotAt(m_heap[index].id).timer, nullptr);
    const SItem last = m_heap.back();
    m_heap.pop_back();
    if (index == m_heap.size()) return timer;
    place(last, index);
    if (index > 0 && last.due_us < m_heap[(index - 1) / 2].due_us) {
        siftUp(index);
    } else {
        siftDown(index);
    }
    return timer;
}

void CTimerHeap::place(const SItem& item, std::size_t index) {
    m_heap[index] = item;
    slotAt(item.id).place = static_cast<std::uint32_t>(index);
}

void CTimerHeap::siftUp(std::size_t index) {
    const SItem item = m_heap[index];
    const std::size_t start = index;
    while (index > 0) {
        const std::size_t parent = (index - 1) / 2;
        if (item.due_us >= m_heap[parent].due_us) break;
        place(m_heap[parent], index);
        index = parent;
    }
    if (index != start) place(item, index);
}

void CTimerHeap::siftDown(std::size_t index) {
    const SItem item = m_heap[index];
    const std::size_t start = index;
    for (;;) {
        std::size_t child = 2 * index + 1;
        if (child >= m_heap.size()) break;
        const std::size_t right = child + 1;
        if (right < m_heap.size() && m_heap[right].due_us < m_heap[child].due_us) child = right;
        if (item.due_us <= m_heap[child].due_us) break;
        place(m_heap[child], index);
        index = child;
    }
    if (index != start) place(item, index);
}

}  // namespace Veltro::Ravelo
