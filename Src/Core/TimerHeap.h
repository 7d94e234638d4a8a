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
};

/// A binary min-heap of timers by due time that also finds a timer by its id. Not locked; owns nothing.
class CTimerHeap {
public:
    bool empty() const { return m_heap.empty(); }
    std::size_t size() const { return m_heap.size(); }
    /// The timer due first; null when there is none.
    STimer* root() const { return m_heap.empty() ? nullptr : slotAt(m_heap.front().id).timer; }

    /// @return false when no memory is left; then the timer is not in the heap.
    bool insert(STimer* timer);
    /// Takes the root out; null when there is none.
    STimer* popRoot();
    /// Takes the timer with this id out; null when it is not here.
    STimer* remove(std::int64_t timer_id);
    /// Takes all timers of a pool's handlers out, linked by next.
    STimer* removePool(int pool_number);

private:
    // Neither comparing nor moving follows a pointer to a timer: those lie scattered in memory, while what is
    // here stands close together.
    struct SItem {
        std::uint64_t due_us;
        std::int64_t id;
    };
    struct SSlot {
        STimer* timer = nullptr;  ///< null when it is not in the heap
        std::uint32_t place = 0;  ///< its index there
    };

    void place(const SItem& item, std::size_t index);
    void siftUp(std::size_t index);
    void siftDown(std::size_t index);
    STimer* takeAt(std::size_t index);
    SSlot* findSlot(std::int64_t timer_id);
    SSlot& slotAt(std::int64_t timer_id) { return m_by_sequence[poolOfId(timer_id)][sequenceOf(timer_id)]; }
    const SSlot& slotAt(std::int64_t timer_id) const {
        return m_by_sequence[poolOfId(timer_id)][sequenceOf(timer_id)];
    }
    /// An id is ((sequence * 64) + pool) * 16 plus a generation, the sequence going down from -100.
    static std::size_t sequenceOf(std::int64_t timer_id) {
        return static_cast<std::size_t>(FIRST_SEQUENCE - (timer_id >> SEQUENCE_SHIFT));
    }

    static constexpr std::int64_t FIRST_SEQUENCE = -100;
    static constexpr unsigned SEQUENCE_SHIFT = 10;

    std::vector<SItem> m_heap;
    // Ids are dense: a pool's go down in steps of one sequence number, so the number is an index.
    std::vector<SSlot> m_by_sequence[POOL_COUNT];
};

}  // namespace Veltro::Ravelo
