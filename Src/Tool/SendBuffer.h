// The bytes that a socket has not taken yet.
#pragma once

#include <Ravelo/Defs.h>

#include <cstdint>
#include <memory>

namespace Veltro::Ravelo {

/// One block of the chain.
struct SSendBuf {
    static constexpr std::uint32_t SHIFT = 15;
    static constexpr std::uint32_t BYTES = 1U << SHIFT;

    char data[BYTES]{};
    char* read = data;   ///< the first byte not sent
    char* write = data;  ///< behind the last byte stored
    char* const end = data + BYTES;
    SSendBuf* next = nullptr;
    SSendBuf* prev = nullptr;

    std::uint32_t length() const { return static_cast<std::uint32_t>(write - read); }
    std::uint32_t room() const { return static_cast<std::uint32_t>(end - write); }
    void reset() { read = write = data; }
    void store(const char* from, std::uint32_t length_bytes);
};

/// A queue of bytes with a bounded capacity, in a chain of blocks: the oldest bytes in the head, new ones go
/// into the tail; every block between them is full, and those behind the tail are empty spares. Used-up
/// blocks become spares, so that a steady stream allocates nothing. Not locked.
class CSendBuffer {
public:
    static constexpr std::uint32_t DEFAULT_BLOCKS = 8;
    /// So that every number of bytes fits an int.
    static constexpr std::uint32_t MAX_BLOCKS = 0xFFFF;

    CSendBuffer() = default;
    ~CSendBuffer();
    CSendBuffer(const CSendBuffer&) = delete;
    CSendBuffer& operator=(const CSendBuffer&) = delete;

    /// Raises the capacity. @return false without memory, and nothing changed.
    bool grow(std::uint32_t blocks);
    std::uint32_t blocks() const { return m_buf_num; }
    std::uint32_t capacity() const { return m_buf_num << SSendBuf::SHIFT; }
    std::uint32_t length() const { return m_data_len; }
    std::uint32_t free() const { return capacity() - m_data_len; }

    /// Adds bytes behind those that are there. @param length_bytes above 0, at most free().
    /// @return false without memory, and nothing stored.
    bool put(const char* data, std::uint32_t length_bytes);
    /// All bytes as a list of elements, which is valid until the next change; not while the queue is empty.
    const iovec* gather(int* count);
    /// Takes bytes off the front. @return how many there were to take.
    std::uint32_t del_buffer_header(std::uint32_t sent);
    void clear();
    /// Gives all memory back.
    void release();

    const SSendBuf* head() const { return m_head; }
    const SSendBuf* tail() const { return m_tail; }

private:
    bool reserve(std::uint32_t length_bytes);
    bool append_block();
    void recycle_head();

    std::uint32_t m_buf_num = 0;
    std::uint32_t m_data_len = 0;
    SSendBuf* m_head = nullptr;
    SSendBuf* m_tail = nullptr;
    SSendBuf* m_last = nullptr;  ///< of the spares; the tail if there are none
    std::unique_ptr<iovec[]> m_iovec;
};

}  // namespace Veltro::Ravelo
