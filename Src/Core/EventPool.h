#pragma once

#include <Plinth/Mutex.h>

#include <cstddef>

#include "Core/Event.h"

namespace Veltro::Ravelo {

/// The process's free list of event records. A freed record keeps its memory and its mutex until destroy(),
/// so a late reader of a stale pointer finds a record, never foreign memory. Any thread may call.
class CEventPool {
public:
    /// A record with every field at its start value but the given key; null when no memory is left. Give it
    /// back with put().
    static SEvent* get(std::int64_t key);
    static void put(SEvent* record);
    /// Gives all free records back to the heap. Called when the last pool has gone.
    static void destroy();
    /// How many records are in use, for tests.
    static std::ptrdiff_t inUse();
};

}  // namespace Veltro::Ravelo
