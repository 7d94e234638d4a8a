#pragma once

#include <cstdint>
#include <vector>

#include "Core/Event.h"
#include "Core/PoolTable.h"

namespace Veltro::Ravelo {

/// An armed handler timer. Its key is the timer's id.
struct STimer : SQueueRecord {
    std::int64_t handler_id = 0;
    std::uint64_t due_us = 0;  ///< on the steady clock
    std::int64_t period_us = 0;
    std::uint64_t pool_birth = 0;  ///< the pool it was made for, should another get the number
    std::uint32_t place = 0;       ///< its index in the heap
};

/// A binary min-heap of timers by due time that also finds a timer by its id. Not locked; owns nothing.
class CTimerHeap {
public:
    bool empty() const { return m_heap.empty(); }
    std::size_t size() const { return m_heap.size(); }
    /// The timer due first; null when there is none.
    STimer* root() const { return m_heap.empty() ? nullptr : m_heap.front().timer; }

    /// @return false when no memory is left; then the timer is not in the heap.
    bool insert(STimer* timer);
    /// Takes the root out; null when there is none.
    STimer* popRoot();
    /// Takes the timer with this id out; null when it is not here.
    STimer* remove(std::int64_t timer_id);
    /// Takes all timers of a pool's handlers out, linked by next.
    STimer* removePool(int pool_number);

private:
    /// The due time stands beside the pointer: comparing follows no pointer.
    struct SItem {
        std::uint64_t due_us;
        STimer* timer;
    };

    void place(const SItem& item, std::size_t index);
    void siftUp(std::size_t index);
    void siftDown(std::size_t index);
    STimer* takeAt(std::size_t index);
    STimer** slotOf(std::int64_t timer_id);
    static std::size_t sequenceOf(std::int64_t timer_id);

    std::vector<SItem> m_heap;
    // Ids are dense: a pool's go down in steps of one sequence number, so the number is an index.
    std::vector<STimer*> m_by_sequence[POOL_COUNT];
};

}  // namespace Veltro::Ravelo
