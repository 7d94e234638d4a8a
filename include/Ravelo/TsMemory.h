#pragma once

#include <Ravelo/Defs.h>

namespace Veltro::Ravelo {

struct mem_head;

/// A size-class cache of memory blocks: one per pool thread, without locks, and one shared by the process.
class RAVELO_API CTsMemory {
public:
    static void InitStaticVal();
    static void CreateMemPool();
    static void DestroyThreadMemPool();
    static void DestroyMemPool();

    static void* TsMalloc(unsigned int size);
    static void TsFree(void* block);
    static void* Malloc(unsigned int size);
    static void Free(void* block);

    static int get_index(unsigned int size);
    static void* do_malloc(mem_head* cache, unsigned int size, bool lock);
    static void do_free(mem_head* cache, void* block, bool lock);
    static void free_mem_key(void* cache);
};

}  // namespace Veltro::Ravelo
