#include <Plinth/Mutex.h>
#include <Ravelo/TsMemory.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>

#include "TsMemoryCache.h"

namespace Veltro::Ravelo {

namespace {

constexpr std::int32_t NO_CLASS = -1;
constexpr int NO_KEY = -1;

/// Serialises making and freeing the key.
Plinth::CMutex s_key_mutex;
int s_last_key PLINTH_GUARDED_BY(s_key_mutex) = NO_KEY;
/// Under which threads keep their caches; no number is used twice, so that a cache of a key that was freed is
/// not taken for one of its successor. Written under s_key_mutex, read by every allocation.
std::atomic<int> s_key{NO_KEY};

/// Guards the shared cache's lists.
Plinth::CMutex s_shared_mutex;
/// The shared cache's memory is never freed: a thread that saw it just before it went finds empty lists that
/// take nothing.
mem_head s_shared_heads[MEM_HEAD_COUNT] PLINTH_GUARDED_BY(s_shared_mutex);
/// s_shared_heads while there is a shared cache, else null.
std::atomic<mem_head*> s_shared_cache{nullptr};

struct SThreadSlot {
    mem_head* cache;
    int key;  ///< the key under which the cache was stored
};
/// A thread's cache, in the list of all of them.
struct SThreadCache {
    mem_head heads[MEM_HEAD_COUNT];
    SThreadCache* next;
};
/// Guards the list of caches; a leaf.
Plinth::CMutex s_caches_mutex;
SThreadCache* s_caches PLINTH_GUARDED_BY(s_caches_mutex) = nullptr;

/// Blocks that came from the heap and have not gone back, and their bytes. In several places, so that threads
/// which use the heap do not meet; a block may come in one and go in another.
struct alignas(64) SHeapUse {
    std::atomic<std::int64_t> blocks{0};
    std::atomic<std::int64_t> bytes{0};
};
constexpr unsigned HEAP_USE_COUNT = 16;
SHeapUse s_heap_use[HEAP_USE_COUNT];
std::atomic<unsigned> s_next_heap_use{0};
/// Trivial on purpose, too: 0 until it has been chosen.
thread_local unsigned t_heap_use = 0;

void countHeap(std::int64_t blocks, std::int64_t bytes) {
    if (t_heap_use == 0) {
        t_heap_use = s_next_heap_use.fetch_add(1, std::memory_order_relaxed) % HEAP_USE_COUNT + 1;
    }
    SHeapUse& use = s_heap_use[t_heap_use - 1];
    use.blocks.fetch_add(blocks, std::memory_order_relaxed);
    use.bytes.fetch_add(bytes, std::memory_order_relaxed);
}

void freeBlock(SBlockHeader* header) {
    countHeap(-1, -static_cast<std::int64_t>(header->block_size));
    std::free(header);
}

/// Trivial on purpose: a thread that ends runs no destructor of it.
thread_local SThreadSlot t_slot = {nullptr, NO_KEY};

mem_head* threadCache() {
    const SThreadSlot& slot = t_slot;
    return slot.cache && slot.key == s_key.load(std::memory_order_relaxed) ? slot.cache : nullptr;
}

/// Takes a lock, or leaves it alone.
class CLockGuardIf {
public:
    // Whether the lock is held depends on an argument, which the lock analysis cannot follow.
    CLockGuardIf(Plinth::CMutex& mutex, bool lock) PLINTH_NO_THREAD_SAFETY_ANALYSIS
        : m_mutex(lock ? &mutex : nullptr) {
        if (m_mutex) m_mutex->lock();
    }
    ~CLockGuardIf() PLINTH_NO_THREAD_SAFETY_ANALYSIS {
        if (m_mutex) m_mutex->unlock();
    }
    CLockGuardIf(const CLockGuardIf&) = delete;
    CLockGuardIf& operator=(const CLockGuardIf&) = delete;

private:
    Plinth::CMutex* m_mutex;
};

/// A new block from the heap. @return the address after its header, or null.
void* newBlock(std::int32_t class_index, std::size_t block_size, std::size_t size) {
    void* const memory = std::malloc(size + sizeof(SBlockHeader));
    if (!memory) return nullptr;
    auto* header = new (memory) SBlockHeader;
    header->class_index = class_index;
    header->block_size = static_cast<std::uint32_t>(block_size);
    countHeap(1, header->block_size);
    return header + 1;
}

/// Others may read how many there are.
void setCount(mem_head& head, int count) {
    std::atomic_ref(head.count).store(static_cast<std::uint16_t>(count), std::memory_order_relaxed);
}

SBlockHeader* takeFirst(mem_head& head) {
    SBlockHeader* const block = head.head;
    if (!block) return nullptr;
    head.head = block->next;
    if (!head.head) head.tail = nullptr;
    block->next = nullptr;
    setCount(head, head.count - 1);
    return block;
}

/// Appends a block; returns false if the class holds its maximum.
bool append(mem_head& head, SBlockHeader* block) {
    if (head.count >= head.max_count) return false;
    block->next = nullptr;
    (head.tail ? head.tail->next : head.head) = block;
    head.tail = block;
    setCount(head, head.count + 1);
    return true;
}

void freeBlocks(const mem_head* cache) {
    for (std::size_t i = 0; i < MEM_CLASS_COUNT; ++i) {
        for (SBlockHeader* block = cache[i].head; block;) {
            SBlockHeader* const next = block->next;
            freeBlock(block);
            block = next;
        }
    }
}

void addCached(mem_head* cache, SMemFigures& figures) {
    for (std::size_t i = 0; i < MEM_CLASS_COUNT; ++i) {
        const std::int64_t count = std::atomic_ref(cache[i].count).load(std::memory_order_relaxed);
        figures.cached_blocks += count;
        figures.cached_bytes += count * cache[i].block_size;
    }
}

/// Takes a cache out of the list. @return null if it is in none.
SThreadCache* unlist(const mem_head* heads) {
    Plinth::CLockGuard guard(s_caches_mutex);
    SThreadCache** link = &s_caches;
    while (*link != nullptr && (*link)->heads != heads) link = &(*link)->next;
    SThreadCache* const cache = *link;
    if (cache != nullptr) *link = cache->next;
    return cache;
}

void createSharedCache() {
    Plinth::CLockGuard guard(s_shared_mutex);
    if (s_shared_cache.load(std::memory_order_relaxed)) return;
    std::copy(std::begin(MEM_TEMPLATE.heads), std::end(MEM_TEMPLATE.heads), s_shared_heads);
    s_shared_cache.store(s_shared_heads, std::memory_order_release);
}

void destroySharedCache() {
    SMemTemplate last = {};
    {
        Plinth::CLockGuard guard(s_shared_mutex);
        std::swap(last.heads, s_shared_heads);
        s_shared_cache.store(nullptr, std::memory_order_relaxed);
    }
    freeBlocks(last.heads);
}

}  // namespace

void CTsMemory::InitStaticVal() {
    DestroyMemPool();
}

void CTsMemory::CreateMemPool() {
    Plinth::CLockGuard guard(s_key_mutex);
    if (s_key.load(std::memory_order_relaxed) == NO_KEY) s_key.store(++s_last_key, std::memory_order_relaxed);
    DestroyThreadMemPool();
    auto* cache = new (std::nothrow) SThreadCache;
    if (cache) {
        std::copy(std::begin(MEM_TEMPLATE.heads), std::end(MEM_TEMPLATE.heads), cache->heads);
        t_slot = {cache->heads, s_key.load(std::memory_order_relaxed)};
        Plinth::CLockGuard caches_guard(s_caches_mutex);
        cache->next = s_caches;
        s_caches = cache;
    }
    createSharedCache();
}

void CTsMemory::DestroyThreadMemPool() {
    free_mem_key(t_slot.cache);
    t_slot = {nullptr, NO_KEY};
}

void CTsMemory::DestroyMemPool() {
    {
        Plinth::CLockGuard guard(s_key_mutex);
        s_key.store(NO_KEY, std::memory_order_relaxed);
    }
    destroySharedCache();
}

void* CTsMemory::TsMalloc(unsigned int size) {
    return do_malloc(threadCache(), size, false);
}

void CTsMemory::TsFree(void* block) {
    do_free(threadCache(), block, false);
}

void* CTsMemory::Malloc(unsigned int size) {
    return do_malloc(s_shared_cache.load(std::memory_order_acquire), size, true);
}

void CTsMemory::Free(void* block) {
    do_free(s_shared_cache.load(std::memory_order_acquire), block, true);
}

int CTsMemory::get_index(unsigned int size) {
    if (size == 0) size = 1;
    unsigned index = 0;
    if (size <= 128) {
        index = (size - 1) / 8;
    } else if (size <= 256) {
        index = 16;
    } else if (size <= 512) {
        index = 17;
    } else if (size <= 1500) {
        index = 18;
    } else if (size <= 65536) {
        index = (size - 1) / 4096 + 19;
    } else if (size <= MEM_GREATEST_CACHED_SIZE) {
        index = (size - 1) / 16384 + 31;
    } else {
        return NO_CLASS;
    }
    return static_cast<int>(index);
}

void* CTsMemory::do_malloc(mem_head* cache, unsigned int size, bool lock) {
    const std::size_t wanted = size == 0 ? 1 : size;
    const int index = cache ? get_index(size) : NO_CLASS;
    if (index == NO_CLASS) return newBlock(NO_CLASS, wanted, wanted);
    {
        CLockGuardIf guard(s_shared_mutex, lock);
        if (SBlockHeader* const block = takeFirst(cache[index])) return block + 1;
    }
    const std::size_t class_size = MEM_TEMPLATE.heads[index].block_size;
    return newBlock(index, class_size, class_size);
}

void CTsMemory::do_free(mem_head* cache, void* block, bool lock) {
    if (!block) return;
    SBlockHeader* const header = static_cast<SBlockHeader*>(block) - 1;
    if (cache && header->class_index != NO_CLASS) {
        CLockGuardIf guard(s_shared_mutex, lock);
        if (append(cache[header->class_index], header)) return;
    }
    freeBlock(header);
}

void CTsMemory::free_mem_key(void* cache) {
    if (!cache) return;
    auto* const heads = static_cast<mem_head*>(cache);
    SThreadCache* const listed = unlist(heads);
    freeBlocks(heads);
    if (listed != nullptr) {
        delete listed;
    } else {
        delete[] heads;
    }
}

SMemFigures memFigures() {
    SMemFigures figures;
    {
        Plinth::CLockGuard guard(s_caches_mutex);
        for (SThreadCache* cache = s_caches; cache != nullptr; cache = cache->next) {
            addCached(cache->heads, figures);
            ++figures.thread_caches;
        }
    }
    {
        Plinth::CLockGuard guard(s_shared_mutex);
        addCached(s_shared_heads, figures);
    }
    for (const SHeapUse& use : s_heap_use) {
        figures.in_use_blocks += use.blocks.load(std::memory_order_relaxed);
        figures.in_use_bytes += use.bytes.load(std::memory_order_relaxed);
    }
    figures.in_use_blocks -= figures.cached_blocks;
    figures.in_use_bytes -= figures.cached_bytes;
    return figures;
}

}  // namespace Veltro::Ravelo
