// The parts of a block cache: size classes, list heads and the header in front of every block.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Veltro::Ravelo {

/// In front of every block handed out; keeps the block aligned as the heap aligns.
struct SBlockHeader {
    std::int32_t class_index = 0;  ///< -1: the block belongs to no class
    std::uint32_t block_size = 0;  ///< of its class, without the header, bytes
    SBlockHeader* next = nullptr;  ///< while the block is cached
};
static_assert(sizeof(SBlockHeader) == 16, "blocks handed out are aligned to 16 bytes");
static_assert(alignof(std::max_align_t) >= 16 || sizeof(void*) < 8, "the heap aligns to 16 bytes");

/// One size class of a cache: its limit and its list of free blocks.
struct mem_head {
    std::uint16_t max_count = 0;   ///< cached blocks at most
    std::uint16_t count = 0;       ///< cached blocks
    std::uint32_t block_size = 0;  ///< bytes
    SBlockHeader* head = nullptr;  ///< taken from here
    SBlockHeader* tail = nullptr;  ///< appended here
};

constexpr std::size_t MEM_CLASS_COUNT = 45;
/// One more entry than classes, all zero: it ends the table.
constexpr std::size_t MEM_HEAD_COUNT = MEM_CLASS_COUNT + 1;
/// The largest request that has a class, bytes.
constexpr unsigned MEM_GREATEST_CACHED_SIZE = 229376;

/// A cache's heads as they are at its start.
struct SMemTemplate {
    mem_head heads[MEM_HEAD_COUNT];
};

constexpr SMemTemplate makeMemTemplate() {
    SMemTemplate made;
    std::size_t index = 0;
    const auto add = [&made, &index](std::uint32_t block_size, std::uint16_t max_count) {
        made.heads[index].block_size = block_size;
        made.heads[index].max_count = max_count;
        ++index;
    };
    for (std::uint32_t size = 8; size <= 128; size += 8) add(size, 2048);
    add(256, 2048);
    add(512, 2048);
    add(1500, 4096);
    for (std::uint32_t size = 4096; size <= 8192; size += 4096) add(size, 2048);
    for (std::uint32_t size = 12288; size <= 65536; size += 4096) add(size, 128);
    for (std::uint32_t size = 81920; size <= 98304; size += 16384) add(size, 128);
    for (std::uint32_t size = 114688; size <= MEM_GREATEST_CACHED_SIZE; size += 16384) add(size, 64);
    return made;
}

inline constexpr SMemTemplate MEM_TEMPLATE = makeMemTemplate();
static_assert(MEM_TEMPLATE.heads[MEM_CLASS_COUNT - 1].block_size == MEM_GREATEST_CACHED_SIZE);
static_assert(MEM_TEMPLATE.heads[MEM_CLASS_COUNT].block_size == 0);

/// What the process's caches hold, and what they have handed out.
struct SMemFigures {
    std::int64_t in_use_blocks = 0;  ///< handed out, also to threads without a cache
    std::int64_t in_use_bytes = 0;   ///< of these, as large as their classes
    std::int64_t cached_blocks = 0;  ///< free, in the threads' caches and the shared one
    std::int64_t cached_bytes = 0;
    std::int64_t thread_caches = 0;
};

/// Exact while nobody allocates or frees. Any thread; no allocation of another one waits for it, but those
/// from the shared cache wait for an instant.
SMemFigures memFigures();

}  // namespace Veltro::Ravelo
