#include "Core/TsMemoryCache.h"

#include <Plinth/Thread.h>
#include <Ravelo/TsMemory.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

#include "Support/ScarceMemory.h"

namespace Veltro::Ravelo {
namespace {

using TestSupport::CScarceMemory;

const SBlockHeader& headerOf(const void* block) {
    return *(static_cast<const SBlockHeader*>(block) - 1);
}

/// Runs a body on a thread of its own, to the end.
void onThread(const std::function<void()>& body) {
    Plinth::CThreadLite thread([&body](Plinth::CThreadLite&) { body(); }, "memory");
    ASSERT_TRUE(thread.createThread());
    thread.destroyThread();
}

/// A cache that belongs to no thread.
struct SOwnCache {
    SOwnCache() { std::copy(std::begin(MEM_TEMPLATE.heads), std::end(MEM_TEMPLATE.heads), heads); }
    ~SOwnCache() { CTsMemory::free_mem_key(heads); }
    SOwnCache(const SOwnCache&) = delete;
    SOwnCache& operator=(const SOwnCache&) = delete;
    mem_head* const heads = new mem_head[MEM_HEAD_COUNT];
};

TEST(TsMemoryTemplate, HasTheSizesAndLimitsOfAllClasses) {
    const auto& heads = MEM_TEMPLATE.heads;
    for (unsigned i = 0; i <= 15; ++i) {
        EXPECT_EQ(heads[i].block_size, 8 * (i + 1));
        EXPECT_EQ(heads[i].max_count, 2048);
    }
    EXPECT_EQ(heads[16].block_size, 256U);
    EXPECT_EQ(heads[17].block_size, 512U);
    EXPECT_EQ(heads[18].block_size, 1500U);
    EXPECT_EQ(heads[16].max_count, 2048);
    EXPECT_EQ(heads[17].max_count, 2048);
    EXPECT_EQ(heads[18].max_count, 4096);
    for (unsigned i = 19; i <= 34; ++i) {
        EXPECT_EQ(heads[i].block_size, 4096 * (i - 18));
        EXPECT_EQ(heads[i].max_count, i <= 20 ? 2048 : 128);
    }
    for (unsigned i = 35; i <= 44; ++i) {
        EXPECT_EQ(heads[i].block_size, 81920 + 16384 * (i - 35));
        EXPECT_EQ(heads[i].max_count, i <= 36 ? 128 : 64);
    }
    EXPECT_EQ(std::size(heads), 46U);
    EXPECT_EQ(heads[45].block_size, 0U);
    EXPECT_EQ(heads[45].max_count, 0);
}

TEST(TsMemoryIndex, IsTheSmallestClassOfTheFormula) {
    struct SCase {
        unsigned size;
        int index;
    };
    constexpr SCase cases[] = {{1, 0},       {8, 0},       {9, 1},       {100, 12},    {128, 15},
                               {129, 16},    {256, 16},    {257, 17},    {512, 17},    {513, 18},
                               {1500, 18},   {1501, 19},   {4096, 19},   {4097, 20},   {65536, 34},
                               {65537, 35},  {81920, 35},  {81921, 36},  {98304, 36},  {98305, 37},
                               {114688, 37}, {114689, 38}, {212992, 43}, {212993, 44}, {229376, 44}};
    for (const SCase& c : cases) EXPECT_EQ(CTsMemory::get_index(c.size), c.index) << c.size;
}

TEST(TsMemoryIndex, EveryCachedSizeFitsItsClass) {
    for (unsigned size = 1; size <= MEM_GREATEST_CACHED_SIZE; ++size) {
        const int index = CTsMemory::get_index(size);
        ASSERT_GE(index, 0);
        ASSERT_LE(size, MEM_TEMPLATE.heads[index].block_size) << size;
    }
}

TEST(TsMemoryIndex, ThereIsNoneAbove229376) {
    EXPECT_EQ(CTsMemory::get_index(229377), -1);
    EXPECT_EQ(CTsMemory::get_index(4294967295U), -1);
}

TEST(TsMemoryIndex, ZeroBytesCountAsOne) {
    EXPECT_EQ(CTsMemory::get_index(0), 0);
}

/// The test's thread has a cache, and there is a shared one.
class TsMemory : public testing::Test {
protected:
    void SetUp() override {
        CTsMemory::InitStaticVal();
        CTsMemory::CreateMemPool();
    }
    void TearDown() override {
        CTsMemory::DestroyThreadMemPool();
        CTsMemory::DestroyMemPool();
    }
};

TEST_F(TsMemory, FreedBlockOfClass12ServesTheNextRequestOfItsClassOnTheSameThread) {
    void* const block = CTsMemory::TsMalloc(100);
    EXPECT_EQ(headerOf(block).class_index, 12);
    EXPECT_EQ(headerOf(block).block_size, 104U);
    CTsMemory::TsFree(block);

    EXPECT_EQ(CTsMemory::TsMalloc(97), block);
    CTsMemory::TsFree(block);
}

TEST_F(TsMemory, SharedCacheCachesUpTo229376Bytes) {
    void* const block = CTsMemory::Malloc(229376);
    EXPECT_EQ(headerOf(block).class_index, 44);
    CTsMemory::Free(block);
    EXPECT_EQ(CTsMemory::Malloc(229376), block);
    CTsMemory::Free(block);
}

TEST_F(TsMemory, Request229377IsAPlainHeapBlock) {
    void* const shared = CTsMemory::Malloc(229377);
    void* const own = CTsMemory::TsMalloc(229377);
    EXPECT_EQ(headerOf(shared).class_index, -1);
    EXPECT_EQ(headerOf(own).class_index, -1);
    std::memset(shared, 1, 229377);
    CTsMemory::Free(shared);
    CTsMemory::TsFree(own);
}

TEST_F(TsMemory, ThreadWithoutACacheGetsPlainHeapBlocksThatAnyThreadFrees) {
    void* block = nullptr;
    onThread([&block] { block = CTsMemory::TsMalloc(100); });

    EXPECT_EQ(headerOf(block).class_index, -1);
    CTsMemory::TsFree(block);
    void* const next = CTsMemory::TsMalloc(100);
    EXPECT_EQ(headerOf(next).class_index, 12) << "the plain block was not cached";
    onThread([next] { CTsMemory::TsFree(next); });
}

TEST_F(TsMemory, BlockOfAClassFreedOnAThreadWithoutACacheGoesToTheHeap) {
    void* const block = CTsMemory::TsMalloc(8);
    ASSERT_EQ(headerOf(block).class_index, 0);
    onThread([block] {
        CTsMemory::TsFree(block);
        void* const plain = CTsMemory::TsMalloc(8);
        EXPECT_EQ(headerOf(plain).class_index, -1);
        CTsMemory::TsFree(plain);
    });
}

TEST_F(TsMemory, BlocksMigrateToTheCacheOfTheThreadThatFreesThem) {
    void* const block = CTsMemory::TsMalloc(300);
    onThread([block] {
        CTsMemory::CreateMemPool();
        CTsMemory::TsFree(block);
        EXPECT_EQ(CTsMemory::TsMalloc(400), block);
        CTsMemory::TsFree(block);
        CTsMemory::DestroyThreadMemPool();
    });
}

TEST_F(TsMemory, ThreadAndSharedCacheAreApart) {
    void* const block = CTsMemory::TsMalloc(64);
    CTsMemory::TsFree(block);
    void* const shared = CTsMemory::Malloc(64);
    EXPECT_NE(shared, block);
    CTsMemory::Free(shared);
}

TEST_F(TsMemory, ListIsTakenAtItsHeadAndFilledAtItsTail) {
    void* blocks[3];
    for (void*& block : blocks) block = CTsMemory::TsMalloc(40);
    for (void* block : blocks) CTsMemory::TsFree(block);
    for (void* block : blocks) EXPECT_EQ(CTsMemory::TsMalloc(40), block);
    for (void* block : blocks) CTsMemory::TsFree(block);
}

TEST_F(TsMemory, BlocksInUseHaveNoLink) {
    void* const first = CTsMemory::TsMalloc(40);
    void* const second = CTsMemory::TsMalloc(40);
    EXPECT_EQ(headerOf(first).next, nullptr);
    CTsMemory::TsFree(first);
    CTsMemory::TsFree(second);
    EXPECT_EQ(headerOf(first).next, &headerOf(second));
    EXPECT_EQ(CTsMemory::TsMalloc(40), first);
    EXPECT_EQ(headerOf(first).next, nullptr);
    CTsMemory::TsFree(first);
}

TEST_F(TsMemory, BlocksAreAlignedTo16BytesAndAsLargeAsAsked) {
    for (unsigned size : {0U, 1U, 8U, 24U, 100U, 1500U, 1501U, 65536U, 229376U, 300000U}) {
        for (const bool shared : {false, true}) {
            void* const block = shared ? CTsMemory::Malloc(size) : CTsMemory::TsMalloc(size);
            ASSERT_NE(block, nullptr);
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % 16, 0U) << size;
            std::memset(block, 0x5a, size);
            shared ? CTsMemory::Free(block) : CTsMemory::TsFree(block);
        }
    }
}

TEST_F(TsMemory, RequestOfZeroBytesIsARequestOfOne) {
    void* const block = CTsMemory::TsMalloc(0);
    EXPECT_EQ(headerOf(block).class_index, 0);
    CTsMemory::TsFree(block);
    EXPECT_EQ(CTsMemory::TsMalloc(1), block);
    CTsMemory::TsFree(block);
}

TEST_F(TsMemory, FreeingNullDoesNothing) {
    CTsMemory::TsFree(nullptr);
    CTsMemory::Free(nullptr);
    CTsMemory::free_mem_key(nullptr);
}

TEST_F(TsMemory, SecondCreateGivesTheThreadAnEmptyCache) {
    void* const block = CTsMemory::TsMalloc(100);
    void* const kept = CTsMemory::TsMalloc(100);
    CTsMemory::TsFree(block);
    CTsMemory::CreateMemPool();
    void* const fresh = CTsMemory::TsMalloc(100);
    EXPECT_EQ(headerOf(fresh).class_index, 12);
    CTsMemory::TsFree(kept);
    EXPECT_EQ(CTsMemory::TsMalloc(100), kept) << "only what was freed since is in the cache";
    CTsMemory::TsFree(kept);
    CTsMemory::TsFree(fresh);
}

TEST_F(TsMemory, DestroyEndsTheUseOfEveryCache) {
    void* const own = CTsMemory::TsMalloc(100);
    void* const shared = CTsMemory::Malloc(100);
    CTsMemory::DestroyMemPool();

    void* const plain = CTsMemory::TsMalloc(100);
    void* const plain_shared = CTsMemory::Malloc(100);
    EXPECT_EQ(headerOf(plain).class_index, -1);
    EXPECT_EQ(headerOf(plain_shared).class_index, -1);
    CTsMemory::TsFree(plain);
    CTsMemory::TsFree(own);
    CTsMemory::Free(plain_shared);
    CTsMemory::Free(shared);
}

TEST_F(TsMemory, CacheOfADestroyedPoolIsNotUsedByTheNextOne) {
    CTsMemory::DestroyMemPool();
    onThread([] {
        CTsMemory::CreateMemPool();
        CTsMemory::DestroyThreadMemPool();
    });
    void* const block = CTsMemory::TsMalloc(100);
    EXPECT_EQ(headerOf(block).class_index, -1) << "this thread's cache was of the key before";
    CTsMemory::TsFree(block);

    CTsMemory::CreateMemPool();
    void* const cached = CTsMemory::TsMalloc(100);
    EXPECT_EQ(headerOf(cached).class_index, 12);
    CTsMemory::TsFree(cached);
}

TEST_F(TsMemory, DestroyedThreadCacheLeavesTheThreadWithTheHeap) {
    CTsMemory::DestroyThreadMemPool();
    CTsMemory::DestroyThreadMemPool();
    void* const block = CTsMemory::TsMalloc(100);
    EXPECT_EQ(headerOf(block).class_index, -1);
    CTsMemory::TsFree(block);
    void* const shared = CTsMemory::Malloc(100);
    EXPECT_EQ(headerOf(shared).class_index, 12) << "the shared cache stays";
    CTsMemory::Free(shared);
}

TEST_F(TsMemory, ThreadWithoutMemoryForACacheGoesOnWithTheHeap) {
    {
        CScarceMemory scarce(0);
        CTsMemory::CreateMemPool();
    }
    void* const block = CTsMemory::TsMalloc(100);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(headerOf(block).class_index, -1);
    CTsMemory::TsFree(block);
}

TEST(TsMemoryCache, The2049thFreeOf8ByteBlocksGoesBackToTheHeap) {
    SOwnCache cache;
    std::vector<void*> blocks;
    for (int i = 0; i < 2049; ++i) blocks.push_back(CTsMemory::do_malloc(cache.heads, 8, false));
    for (int i = 0; i < 2048; ++i) CTsMemory::do_free(cache.heads, blocks[i], false);
    ASSERT_EQ(cache.heads[0].count, 2048);
    const SBlockHeader* const tail = cache.heads[0].tail;
    CTsMemory::do_free(cache.heads, blocks[2048], false);

    EXPECT_EQ(cache.heads[0].count, 2048);
    EXPECT_EQ(cache.heads[0].tail, tail);
    EXPECT_EQ(tail, &headerOf(blocks[2047]));
}

TEST(TsMemoryCache, EveryClassKeepsItsMaximumAndNoMore) {
    SOwnCache cache;
    for (unsigned i = 21; i < MEM_CLASS_COUNT; ++i) {
        std::vector<void*> blocks;
        const mem_head& head = MEM_TEMPLATE.heads[i];
        for (int n = 0; n <= head.max_count; ++n) {
            blocks.push_back(CTsMemory::do_malloc(cache.heads, head.block_size, false));
        }
        for (void* block : blocks) CTsMemory::do_free(cache.heads, block, false);
        EXPECT_EQ(cache.heads[i].count, head.max_count) << i;
    }
}

TEST(TsMemoryCache, EmptiedListHasNeitherHeadNorTail) {
    SOwnCache cache;
    void* const block = CTsMemory::do_malloc(cache.heads, 8, true);
    CTsMemory::do_free(cache.heads, block, true);
    EXPECT_EQ(cache.heads[0].head, cache.heads[0].tail);
    EXPECT_EQ(CTsMemory::do_malloc(cache.heads, 8, true), block);

    EXPECT_EQ(cache.heads[0].head, nullptr);
    EXPECT_EQ(cache.heads[0].tail, nullptr);
    EXPECT_EQ(cache.heads[0].count, 0);
    CTsMemory::do_free(nullptr, block, false);
}

/// Allocates and frees from the shared cache; returns how many blocks another thread had written to.
int churnShared(int rounds, char mark) {
    int spoiled = 0;
    for (int round = 0; round < rounds; ++round) {
        std::vector<char*> blocks;
        for (unsigned size = 1; size < 6000; size = size * 3 + 1) {
            blocks.push_back(static_cast<char*>(CTsMemory::Malloc(size)));
            std::memset(blocks.back(), mark, size);
        }
        for (char* block : blocks) {
            spoiled += *block != mark ? 1 : 0;
            CTsMemory::Free(block);
        }
    }
    return spoiled;
}

TEST_F(TsMemory, SharedCacheServesManyThreadsAndSurvivesItsDestructionMeanwhile) {
    std::atomic<int> spoiled{0};
    std::vector<std::unique_ptr<Plinth::CThreadLite>> threads;
    for (char mark = 'a'; mark < 'e'; ++mark) {
        threads.push_back(std::make_unique<Plinth::CThreadLite>(
            [&spoiled, mark](Plinth::CThreadLite&) { spoiled += churnShared(2000, mark); }, "churn"));
        ASSERT_TRUE(threads.back()->createThread());
    }
    const auto all_over = [&threads] {
        return std::all_of(threads.begin(), threads.end(),
                           [](const auto& thread) { return thread->isThreadOver(); });
    };
    while (!all_over()) {
        CTsMemory::DestroyMemPool();
        CTsMemory::CreateMemPool();
        Plinth::yieldThread();
    }
    for (const auto& thread : threads) thread->destroyThread();
    EXPECT_EQ(spoiled, 0);
}

/// The figures since a moment.
SMemFigures since(const SMemFigures& before) {
    const SMemFigures now = memFigures();
    return {now.in_use_blocks - before.in_use_blocks, now.in_use_bytes - before.in_use_bytes,
            now.cached_blocks - before.cached_blocks, now.cached_bytes - before.cached_bytes,
            now.thread_caches - before.thread_caches};
}

void expectFigures(const SMemFigures& before, std::int64_t used, std::int64_t used_bytes, std::int64_t cached,
                   std::int64_t cached_bytes, int line) {
    const SMemFigures now = since(before);
    EXPECT_EQ(used, now.in_use_blocks) << "line " << line;
    EXPECT_EQ(used_bytes, now.in_use_bytes) << "line " << line;
    EXPECT_EQ(cached, now.cached_blocks) << "line " << line;
    EXPECT_EQ(cached_bytes, now.cached_bytes) << "line " << line;
}

TEST_F(TsMemory, CountsBlocksInUseAndCachedOnes) {
    const SMemFigures before = memFigures();
    void* const own = CTsMemory::TsMalloc(100);
    void* const shared = CTsMemory::Malloc(5000);
    void* const plain = CTsMemory::TsMalloc(300'000);
    expectFigures(before, 3, 104 + 8192 + 300'000, 0, 0, __LINE__);
    CTsMemory::TsFree(own);
    CTsMemory::Free(shared);
    CTsMemory::TsFree(plain);
    expectFigures(before, 0, 0, 2, 104 + 8192, __LINE__);
    CTsMemory::TsFree(CTsMemory::TsMalloc(97));
    expectFigures(before, 0, 0, 2, 104 + 8192, __LINE__);
}

TEST_F(TsMemory, CountsTheCachesOfThreadsAndWhatGoesWithThem) {
    const SMemFigures before = memFigures();
    void* block = nullptr;
    onThread([&] {
        CTsMemory::CreateMemPool();
        EXPECT_EQ(1, since(before).thread_caches);
        CTsMemory::TsFree(CTsMemory::TsMalloc(8));
        block = CTsMemory::TsMalloc(16);
        expectFigures(before, 1, 16, 1, 8, __LINE__);
        CTsMemory::DestroyThreadMemPool();
    });
    EXPECT_EQ(0, since(before).thread_caches);
    expectFigures(before, 1, 16, 0, 0, __LINE__);
    onThread([block] { CTsMemory::TsFree(block); });
    expectFigures(before, 0, 0, 0, 0, __LINE__);
}

TEST_F(TsMemory, MayBeCountedWhileOthersAllocate) {
    const SMemFigures before = memFigures();
    std::atomic<int> running{2};
    const auto use = [&running] {
        CTsMemory::CreateMemPool();
        for (int i = 0; i < 2'000; ++i) {
            void* const own = CTsMemory::TsMalloc(static_cast<unsigned>(i % 700));
            CTsMemory::Free(CTsMemory::Malloc(64));
            CTsMemory::TsFree(own);
        }
        CTsMemory::DestroyThreadMemPool();
        --running;
    };
    Plinth::CThreadLite one([&use](Plinth::CThreadLite&) { use(); }, "memory");
    Plinth::CThreadLite two([&use](Plinth::CThreadLite&) { use(); }, "memory");
    ASSERT_TRUE(one.createThread());
    ASSERT_TRUE(two.createThread());
    while (running > 0) EXPECT_LE(since(before).thread_caches, 2);
    one.destroyThread();
    two.destroyThread();
    const SMemFigures after = since(before);
    EXPECT_EQ(0, after.thread_caches);
    EXPECT_EQ(0, after.in_use_blocks);
    EXPECT_EQ(0, after.in_use_bytes);
}

}  // namespace
}  // namespace Veltro::Ravelo
