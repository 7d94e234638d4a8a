#include "Core/TimerHeap.h"

#include <new>

namespace Veltro::Ravelo {

namespace {
/// An id is ((sequence * 64) + pool) * 16 plus a generation, the sequence going down from -100.
constexpr std::int64_t FIRST_SEQUENCE = -100;
constexpr unsigned SEQUENCE_SHIFT = 10;
}  // namespace

std::size_t CTimerHeap::sequenceOf(std::int64_t timer_id) {
    return static_cast<std::size_t>(FIRST_SEQUENCE - (timer_id >> SEQUENCE_SHIFT));
}

/// Where the timer of an id stands in the index; null when the index does not reach so far.
STimer** CTimerHeap::slotOf(std::int64_t timer_id) {
    if (timer_id > FIRST_SEQUENCE * (std::int64_t{1} << SEQUENCE_SHIFT) + (1 << SEQUENCE_SHIFT) - 1)
        return nullptr;
    auto& slots = m_by_sequence[poolOfId(timer_id)];
    const std::size_t sequence = sequenceOf(timer_id);
    return sequence < slots.size() ? &slots[sequence] : nullptr;
}

bool CTimerHeap::insert(STimer* timer) {
    auto& slots = m_by_sequence[poolOfId(timer->key)];
    const std::size_t sequence = sequenceOf(timer->key);
    try {
        if (sequence >= slots.size()) slots.resize(sequence + sequence / 2 + 64);
        m_heap.push_back({timer->due_us, timer});
    } catch (const std::bad_alloc&) {
        return false;
    }
    slots[sequence] = timer;
    timer->place = static_cast<std::uint32_t>(m_heap.size() - 1);
    siftUp(timer->place);
    return true;
}

STimer* CTimerHeap::popRoot() {
    return m_heap.empty() ? nullptr : takeAt(0);
}

STimer* CTimerHeap::remove(std::int64_t timer_id) {
    STimer** slot = slotOf(timer_id);
    if (slot == nullptr || *slot == nullptr || (*slot)->key != timer_id) return nullptr;
    return takeAt((*slot)->place);
}

STimer* CTimerHeap::removePool(int pool_number) {
    STimer* removed = nullptr;
    for (STimer*& slot : m_by_sequence[pool_number]) {
        if (slot == nullptr) continue;
        STimer* timer = takeAt(slot->place);
        timer->next = removed;
        removed = timer;
    }
    m_by_sequence[pool_number] = {};
    return removed;
}

/// Takes the timer at an index out; the last one moves to its place.
STimer* CTimerHeap::takeAt(std::size_t index) {
    STimer* timer = m_heap[index].timer;
    const SItem last = m_heap.back();
    m_heap.pop_back();
    if (last.timer != timer) {
        place(last, index);
        siftUp(index);
        siftDown(last.timer->place);
    }
    *slotOf(timer->key) = nullptr;
    return timer;
}

void CTimerHeap::place(const SItem& item, std::size_t index) {
    m_heap[index] = item;
    item.timer->place = static_cast<std::uint32_t>(index);
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
