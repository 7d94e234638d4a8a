// The chain of blocks behind a stream sender.
#include "Tool/SendBuffer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Plinth/FailingAllocator.h"
#include "Tool/SendBufferWalk.h"

namespace Veltro::Ravelo {
namespace {

using namespace TestSupport;

constexpr std::uint32_t BLOCK = SSendBuf::BYTES;

/// A buffer of the default size and what it should hold.
struct SendBuffer : ::testing::Test {
    CSendBuffer buffer;
    std::string model;
    std::uint64_t position = 0;

    SendBuffer() { EXPECT_TRUE(buffer.grow(CSendBuffer::DEFAULT_BLOCKS)); }

    bool put(std::size_t length_bytes) {
        const std::string text = textFrom(position, length_bytes);
        if (!buffer.put(text.data(), static_cast<std::uint32_t>(length_bytes))) return false;
        position += length_bytes;
        model += text;
        return true;
    }
    std::uint32_t drop(std::uint32_t length_bytes) {
        const std::uint32_t dropped = buffer.del_buffer_header(length_bytes);
        model.erase(0, dropped);
        return dropped;
    }
    void expect(std::size_t used, std::size_t spares) { expectChain(buffer, used, spares, model); }
    std::string gathered(int* count) {
        std::string text;
        const iovec* elements = buffer.gather(count);
        for (int i = 0; i < *count; ++i) text.append(elements[i].iov_base, elements[i].iov_len);
        return text;
    }
    void expectGathered(int count) {
        int found = 0;
        EXPECT_TRUE(model == gathered(&found));
        EXPECT_EQ(count, found);
    }
};

TEST_F(SendBuffer, ANewOneHasACapacityAndNoBlock) {
    EXPECT_EQ(8U, buffer.blocks());
    EXPECT_EQ(262'144U, buffer.capacity());
    EXPECT_EQ(262'144U, buffer.free());
    expect(0, 0);
}

TEST_F(SendBuffer, ANewBlockIsEmptyAndZero) {
    const SSendBuf block;
    EXPECT_EQ(block.data, block.read);
    EXPECT_EQ(block.data, block.write);
    EXPECT_EQ(std::string(BLOCK, '\0'), std::string(block.data, BLOCK));
}

TEST_F(SendBuffer, TheFirstBytesMakeTheFirstBlock) {
    EXPECT_TRUE(put(5));
    expect(1, 0);
    expectGathered(1);
    EXPECT_EQ(5U, buffer.length());
    EXPECT_EQ(262'139U, buffer.free());
}

TEST_F(SendBuffer, BytesThatEndAtABlocksEndLeaveItTheTail) {
    EXPECT_TRUE(put(BLOCK));
    expect(1, 0);
    EXPECT_EQ(0U, buffer.tail()->room());
    EXPECT_TRUE(put(1));
    expect(2, 0);
    expectGathered(2);
    EXPECT_EQ(1U, buffer.tail()->length());
}

TEST_F(SendBuffer, TheCapacityFillsItsBlocksExactly) {
    EXPECT_TRUE(put(8 * BLOCK));
    expect(8, 0);
    expectGathered(8);
    EXPECT_EQ(0U, buffer.free());
}

TEST_F(SendBuffer, WithAPartOfTheHeadGoneTheCapacityNeedsOneBlockMore) {
    EXPECT_TRUE(put(8 * BLOCK));
    EXPECT_EQ(BLOCK - 1, drop(BLOCK - 1));
    EXPECT_TRUE(put(BLOCK - 1));
    expect(9, 0);
    expectGathered(9);
    EXPECT_EQ(0U, buffer.free());
}

TEST_F(SendBuffer, APartOfTheHeadGoesWithoutMovingTheRest) {
    EXPECT_TRUE(put(100));
    EXPECT_EQ(1U, drop(1));
    EXPECT_EQ(buffer.head()->data + 1, buffer.head()->read);
    EXPECT_EQ(98U, drop(98));
    expect(1, 0);
    expectGathered(1);
}

TEST_F(SendBuffer, TheLastByteResetsTheHead) {
    EXPECT_TRUE(put(100));
    EXPECT_EQ(100U, drop(100));
    expect(1, 0);
    EXPECT_EQ(buffer.head()->data, buffer.head()->write);
}

TEST_F(SendBuffer, AUsedUpHeadBecomesTheLastSpare) {
    EXPECT_TRUE(put(3 * BLOCK));
    const SSendBuf* first = buffer.head();
    const SSendBuf* second = first->next;
    EXPECT_EQ(BLOCK, drop(BLOCK));
    expect(2, 1);
    EXPECT_EQ(first, buffer.tail()->next);
    EXPECT_EQ(BLOCK, drop(BLOCK));
    expect(1, 2);
    EXPECT_EQ(first, buffer.tail()->next);
    EXPECT_EQ(second, first->next);
    EXPECT_EQ(nullptr, second->next);
}

TEST_F(SendBuffer, SparesAreUsedBeforeNewBlocksAreMade) {
    EXPECT_TRUE(put(3 * BLOCK));
    const SSendBuf* first = buffer.head();
    EXPECT_EQ(BLOCK + 10, drop(BLOCK + 10));
    EXPECT_TRUE(put(BLOCK));
    expect(3, 0);
    EXPECT_EQ(first, buffer.tail());
}

TEST_F(SendBuffer, MoreThanThereIsTakesWhatThereIs) {
    EXPECT_TRUE(put(2 * BLOCK + 7));
    EXPECT_EQ(2 * BLOCK + 7, drop(3 * BLOCK));
    expect(1, 2);
}

TEST_F(SendBuffer, EveryPartialWriteLeavesTheRest) {
    // The head, the tail and both ends of each block, to the byte; every 61st size between them.
    const std::uint32_t head_gone = 1000;
    const std::uint32_t total = 3 * BLOCK - head_gone + 500;
    for (std::uint32_t size = 1; size <= total; ++size) {
        const std::uint32_t place = (head_gone + size) % BLOCK;
        const bool is_edge = place < 3 || place > BLOCK - 3 || size < 3 || size > total - 3;
        if (!is_edge && size % 61 != 0) continue;
        ASSERT_TRUE(put(head_gone));
        ASSERT_EQ(head_gone, drop(head_gone));
        ASSERT_TRUE(put(total));
        ASSERT_EQ(size, drop(size));
        ASSERT_EQ("", walk(buffer).error) << size;
        ASSERT_EQ(total - size, buffer.length()) << size;
        int count = 0;
        if (buffer.length() > 0) {
            ASSERT_TRUE(model == gathered(&count)) << size;
        }
        drop(total);
    }
}

TEST_F(SendBuffer, ASteadyStreamAllocatesNothingAfterWarmUp) {
    EXPECT_TRUE(put(8 * BLOCK));
    EXPECT_EQ(1U, drop(1));
    EXPECT_TRUE(put(1));
    const std::vector<char> text(3 * BLOCK, 's');
    const CFailingAllocator none;
    std::uint32_t size = 1;
    for (int i = 0; i < 1000; ++i) {
        size = size * 7 % (3 * BLOCK) + 1;
        ASSERT_EQ(size, buffer.del_buffer_header(size));
        ASSERT_TRUE(buffer.put(text.data(), size));
        ASSERT_EQ("", walk(buffer).error);
    }
}

TEST_F(SendBuffer, ClearEmptiesEveryBlockAndKeepsThem) {
    EXPECT_TRUE(put(4 * BLOCK));
    drop(BLOCK + 5);
    const SSendBuf* head = buffer.head();
    buffer.clear();
    model.clear();
    expect(1, 3);
    EXPECT_EQ(head, buffer.head());
    EXPECT_TRUE(put(2 * BLOCK));
    expect(2, 2);
}

TEST_F(SendBuffer, ClearOfNothingDoesNothing) {
    buffer.clear();
    expect(0, 0);
}

TEST_F(SendBuffer, GrowingKeepsTheBytesAndGathersMore) {
    EXPECT_TRUE(put(8 * BLOCK));
    EXPECT_TRUE(buffer.grow(12));
    EXPECT_EQ(4 * BLOCK, buffer.free());
    EXPECT_TRUE(put(4 * BLOCK));
    expect(12, 0);
    expectGathered(12);
}

TEST_F(SendBuffer, GrowingWithoutMemoryChangesNothing) {
    EXPECT_TRUE(put(10));
    {
        const CFailingAllocator none;
        EXPECT_FALSE(buffer.grow(12));
    }
    EXPECT_EQ(8U, buffer.blocks());
    expectGathered(1);
}

TEST_F(SendBuffer, WithoutMemoryForABlockNothingIsStored) {
    const std::string text = textFrom(0, 3 * BLOCK);
    for (int allocations = 0; allocations < 3; ++allocations) {
        CSendBuffer poor;
        EXPECT_TRUE(poor.grow(8));
        {
            const CFailingAllocator few(allocations);
            EXPECT_FALSE(poor.put(text.data(), 3 * BLOCK)) << allocations;
        }
        EXPECT_EQ("", walk(poor).error) << allocations;
        EXPECT_EQ(0U, poor.length()) << allocations;
        // What could be made is kept as a spare.
        EXPECT_TRUE(poor.put(text.data(), 3 * BLOCK)) << allocations;
        expectChain(poor, 3, 0, text);
    }
}

TEST_F(SendBuffer, WithoutMemoryForMoreTheBytesThereStay) {
    EXPECT_TRUE(put(10));
    const std::string more = textFrom(position, BLOCK);
    {
        const CFailingAllocator none;
        EXPECT_FALSE(buffer.put(more.data(), BLOCK));
        EXPECT_TRUE(buffer.put(more.data(), BLOCK - 10));
    }
    model += more.substr(0, BLOCK - 10);
    expect(1, 0);
    expectGathered(1);
}

TEST_F(SendBuffer, ReleaseGivesEveryBlockBack) {
    EXPECT_TRUE(put(4 * BLOCK));
    drop(2 * BLOCK);
    buffer.release();
    model.clear();
    expect(0, 0);
}

TEST(SendBufferDeathTest, AChainThatLostABlockFailsAnAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string text(3 * BLOCK, 'x');
    const auto break_chain = [&text](CSendBuffer& buffer) {
        EXPECT_TRUE(buffer.grow(8));
        EXPECT_TRUE(buffer.put(text.data(), 3 * BLOCK));
        auto* head = const_cast<SSendBuf*>(buffer.head());
        head->next = head->next->next;
    };
    EXPECT_DEATH(
        {
            CSendBuffer buffer;
            break_chain(buffer);
            int count = 0;
            buffer.gather(&count);
        },
        "Assertion failed: index == iovec_num");
    EXPECT_DEATH(
        {
            CSendBuffer buffer;
            break_chain(buffer);
            buffer.del_buffer_header(3 * BLOCK);
        },
        "Assertion failed: m_data_len == 0");
}

}  // namespace
}  // namespace Veltro::Ravelo
