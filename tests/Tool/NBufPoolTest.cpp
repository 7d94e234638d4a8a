// The pool of memory blocks behind file buffers.
#include "Tool/NFilePool.h"

#include <gtest/gtest.h>

#include <set>
#include <utility>
#include <vector>

#include "Support/Gate.h"
#include "Support/ScarceMemory.h"
#include "Tool/Files.h"
#include "Tool/NFileBuf.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;

TEST(NBufPool, BeginsWith64Blocks) {
    CNBufPool pool;
    EXPECT_EQ(64U, pool.Size());
}

TEST(NBufPool, ABlockHas128KiB) {
    EXPECT_EQ(131'072U, sizeof(SNBufBlock::data));
}

TEST(NBufPool, PopTakesTheOldestBlock) {
    CNBufPool pool;
    auto first = pool.Pop();
    auto second = pool.Pop();
    const void* const addresses[] = {first.get(), second.get()};
    for (unsigned i = 0; i < 62; ++i) pool.Pop();
    EXPECT_EQ(0U, pool.Size());
    pool.Push(std::move(first));
    pool.Push(std::move(second));
    EXPECT_EQ(addresses[0], pool.Pop().get());
    EXPECT_EQ(addresses[1], pool.Pop().get());
}

TEST(NBufPool, AnEmptyPoolAllocates) {
    CNBufPool pool;
    std::vector<std::unique_ptr<SNBufBlock>> blocks;
    for (unsigned i = 0; i < 65; ++i) blocks.push_back(pool.Pop());
    EXPECT_NE(nullptr, blocks.back());
    EXPECT_EQ(0U, pool.Size());
}

TEST(NBufPool, KeepsNoMoreThan257Blocks) {
    CNBufPool pool;
    std::vector<std::unique_ptr<SNBufBlock>> blocks;
    for (unsigned i = 0; i < 300; ++i) blocks.push_back(pool.Pop());
    for (auto& block : blocks) pool.Push(std::move(block));
    EXPECT_EQ(257U, pool.Size());
}

TEST(NBufPool, StaysAsLongAsThereAreFileThreads) {
    {
        const CFilePool pool;
        EXPECT_EQ(64U, CNBufPool::join()->Size());
        EXPECT_NE(nullptr, CNBufPool::join()->Pop());
        CNBufPool::leave();
        CNBufPool::leave();
        EXPECT_EQ(63U, CNBufPool::join()->Size()) << "it is the same one";
        CNBufPool::leave();
    }
    EXPECT_EQ(64U, CNBufPool::join()->Size()) << "it is a new one";
    EXPECT_NE(nullptr, CNBufPool::join()->Pop());
    CNBufPool::leave();
    CNBufPool::leave();
    EXPECT_EQ(64U, CNBufPool::join()->Size()) << "without file threads it goes with its last user";
    CNBufPool::leave();
}

TEST(NBufPool, ANullBlockIsLeftAlone) {
    CNBufPool pool;
    pool.Push(nullptr);
    EXPECT_EQ(64U, pool.Size());
}

TEST(NBufPool, WithoutMemoryItHoldsLessAndGivesNull) {
    const CScarceMemory scarce(3);
    CNBufPool pool;
    EXPECT_EQ(3U, pool.Size());
    for (int i = 0; i < 3; ++i) EXPECT_NE(nullptr, pool.Pop());
    EXPECT_EQ(nullptr, pool.Pop());
}

TEST(NBufPool, IsOneForTheProcessWhileABufferLives) {
    CNBufPool* pool = CNBufPool::join();
    EXPECT_EQ(pool, CNBufPool::join());
    CNBufPool::leave();
    const auto block = pool->Pop();
    EXPECT_EQ(63U, pool->Size());
    {
        CNFileBuf buffer;
        EXPECT_TRUE(buffer.Malloc());
        EXPECT_EQ(62U, pool->Size());
    }
    EXPECT_EQ(63U, pool->Size());
    CNBufPool::leave();
    // The next first user finds a new one.
    EXPECT_EQ(64U, CNBufPool::join()->Size());
    CNBufPool::leave();
}

TEST(NBufPool, ThreadsTakeAndReturnAtOnce) {
    CNBufPool pool;
    std::atomic<int> doubled{0};
    {
        std::vector<std::unique_ptr<CRunner>> runners;
        for (int i = 0; i < 4; ++i) {
            runners.push_back(std::make_unique<CRunner>([&] {
                for (int turn = 0; turn < 2'000; ++turn) {
                    auto block = pool.Pop();
                    if (std::exchange(block->data[0], '\1') == '\2') doubled.fetch_add(1);
                    block->data[0] = '\2';
                    block->data[0] = '\0';
                    pool.Push(std::move(block));
                }
            }));
        }
    }
    EXPECT_EQ(0, doubled.load());
    EXPECT_EQ(64U, pool.Size());
}

}  // namespace
}  // namespace Veltro::Ravelo
