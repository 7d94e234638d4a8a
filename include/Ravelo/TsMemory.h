#pragma once

#include <Ravelo/Defs.h>

namespace Veltro::Ravelo {

struct mem_head;

/// A size-class cache of memory blocks: one per pool thread, without locks, and one shared by the process.
///
/// Freed blocks are kept, up to a limit per class, for the next request of their class; what is beyond a
/// limit or above 229376 bytes goes to the heap. Classes: every 8 bytes to 128; 256; 512; 1500; every 4096
/// bytes to 65536; every 16384 bytes to 229376.
///
/// Blocks are aligned to 16 bytes and belong to the caller until freed. A block from TsMalloc() goes back
/// through TsFree(), one from Malloc() through Free(), on any thread.
class RAVELO_API CTsMemory {
public:
    /// @name Set-up
    /// Called by the library; an application needs none of these for the threads of its pools.
    /// @{

    /// Back to the state before any cache: no shared cache, and no thread's cache is used any more.
    static void InitStaticVal();
    /// Gives the calling thread an empty cache, in place of the one it may have, and makes the shared cache
    /// if there is none. Without memory the thread goes on without a cache. The thread must call
    /// DestroyThreadMemPool() before it ends.
    static void CreateMemPool();
    /// Frees the calling thread's cache and the blocks in it; does nothing if it has none.
    static void DestroyThreadMemPool();
    /// Frees the blocks of the shared cache, and ends the use of every thread's cache; each thread still
    /// frees its own. Blocks in use stay valid and go to the heap when they are freed.
    static void DestroyMemPool();
    /// @}

    /// Allocates from the calling thread's cache; takes no lock. On a thread without a cache the block comes
    /// from the heap.
    /// @param size bytes; 0 counts as 1.
    /// @return the block, or null if there is no memory.
    static void* TsMalloc(unsigned int size);
    /// Frees a block into the calling thread's cache, whichever thread allocated it; takes no lock.
    /// @param block may be null: then nothing happens.
    static void TsFree(void* block);
    /// As TsMalloc(), from the shared cache, which is locked for an instant.
    static void* Malloc(unsigned int size);
    /// As TsFree(), into the shared cache, which is locked for an instant.
    static void Free(void* block);

    /// @name Steps
    /// What the operations above are made of.
    /// @{

    /// The class of a request. @param size bytes; 0 counts as 1. @return 0 to 44, or -1 above 229376.
    static int get_index(unsigned int size);
    /// Allocates from a cache. @param cache null means the heap. @param lock holds the shared cache's lock
    /// during list operations; never during a call of the heap.
    static void* do_malloc(mem_head* cache, unsigned int size, bool lock);
    /// Frees into a cache; arguments as in do_malloc().
    static void do_free(mem_head* cache, void* block, bool lock);
    /// Frees a thread's cache and the blocks in it. @param cache one that CreateMemPool() made, or null.
    static void free_mem_key(void* cache);
    /// @}
};

}  // namespace Veltro::Ravelo
