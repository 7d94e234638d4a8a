#pragma once

#include <cstddef>

#include "Core/Event.h"

namespace Veltro::Ravelo {

/// The process's free list of event records. A freed record keeps its memory and its mutex until destroy(),
/// so a late reader of a stale pointer finds a record, never foreign memory. Any thread may call.
///
/// The workers of a pool have a short list each, so that a message between them takes no lock here.
class CEventPool {
public:
    /// A record with every field at its start value but the given key; null when no memory is left. Give it
    /// back with put().
    static SEvent* get(std::int64_t key);
    static void put(SEvent* record);
    /// Gives all free records back to the heap. Called when the last pool has gone.
    static void destroy();
    /// How many records are in use. Exact while no other thread gets or puts.
    static std::ptrdiff_t inUse();

    /// Gives the calling thread a list of its own from construction to destruction, on that thread.
    class CThreadList {
    public:
        CThreadList();
        ~CThreadList();
        CThreadList(const CThreadList&) = delete;
        CThreadList& operator=(const CThreadList&) = delete;

    private:
        friend class CEventPool;
        bool refill();
        void spill(std::size_t keep);

        SQueueRecord* m_head = nullptr;
        std::atomic<std::size_t> m_size{0};  // written by the own thread only
        CThreadList* m_next = nullptr;       // in the list of lists
    };
};

}  // namespace Veltro::Ravelo
