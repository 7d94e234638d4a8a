// Walks a send buffer's chain and verifies that it is as its comment says.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "Tool/SendBuffer.h"

namespace Veltro::TestSupport {

/// What a walk found.
struct SWalk {
    std::size_t used = 0;    ///< blocks from the head to the tail
    std::size_t spares = 0;  ///< blocks behind the tail
    std::string error;       ///< empty: all invariants hold
};

inline void walkError(SWalk& walk, bool wrong, const char* what) {
    if (wrong && walk.error.empty()) walk.error = what;
}

/// One block, whatever its place.
inline void walkBlock(SWalk& walk, const Ravelo::SSendBuf& block, const Ravelo::SSendBuf* prev) {
    walkError(walk, block.prev != prev, "a block's prev is not the block before it");
    walkError(walk, block.end != block.data + Ravelo::SSendBuf::BYTES, "a block's end moved");
    walkError(walk, block.read < block.data || block.write < block.read || block.end < block.write,
              "a block's pointers are out of order");
}

/// Verifies every invariant. @param content receives the bytes from head to tail, if it is not null.
inline SWalk walk(const Ravelo::CSendBuffer& buffer, std::string* content = nullptr) {
    using Ravelo::SSendBuf;
    SWalk walk;
    std::size_t length = 0;
    const SSendBuf* prev = nullptr;
    bool behind = false;
    for (const SSendBuf* block = buffer.head(); block != nullptr; prev = block, block = block->next) {
        walkBlock(walk, *block, prev);
        if (behind) {
            walk.spares += 1;
            walkError(walk, block->read != block->data || block->write != block->data,
                      "a spare is not empty");
            continue;
        }
        walk.used += 1;
        length += block->length();
        if (content != nullptr) content->append(block->read, block->length());
        const bool is_head = block == buffer.head();
        behind = block == buffer.tail();
        walkError(walk, !is_head && block->read != block->data, "a block behind the head has lost bytes");
        walkError(walk, !behind && block->write != block->end, "a block before the tail is not full");
        walkError(walk, block->length() == 0 && !(is_head && behind), "a used block is empty");
        walkError(walk, block->length() == 0 && block->read != block->data, "the empty head was not reset");
    }
    walkError(walk, buffer.head() != nullptr && !behind, "the tail is not in the chain");
    walkError(walk, buffer.head() == nullptr && buffer.tail() != nullptr, "a tail without a head");
    walkError(walk, length != buffer.length(), "the blocks do not sum up to the length");
    walkError(walk, buffer.length() > buffer.capacity(), "more than the capacity");
    walkError(walk, walk.used + walk.spares > buffer.blocks() + 1, "more blocks than the capacity can need");
    return walk;
}

/// As an expectation, with the numbers of used and spare blocks.
inline void expectChain(const Ravelo::CSendBuffer& buffer, std::size_t used, std::size_t spares,
                        const std::string& content) {
    std::string found;
    const SWalk seen = walk(buffer, &found);
    EXPECT_EQ("", seen.error);
    EXPECT_EQ(used, seen.used);
    EXPECT_EQ(spares, seen.spares);
    EXPECT_TRUE(content == found) << found.size() << " bytes instead of these " << content.size();
}

/// Bytes that differ from place to place, from a position of an endless text.
inline std::string textFrom(std::uint64_t position, std::size_t length_bytes) {
    std::string text(length_bytes, '\0');
    for (char& c : text) {
        // A different value in each of 2^16 consecutive words, so that no shift by a block looks right.
        const std::uint64_t word = (position >> 2) * 0x9E3779B97F4A7C15U;
        c = static_cast<char>(word >> (32 + 8 * (position & 3U)));
        position += 1;
    }
    return text;
}

}  // namespace Veltro::TestSupport
