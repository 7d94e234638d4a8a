#include "Tool/SendBuffer.h"

#include <cstring>
#include <new>
#include <utility>

#include "Log.h"

namespace Veltro::Ravelo {

void SSendBuf::store(const char* from, std::uint32_t length_bytes) {
    std::memcpy(write, from, length_bytes);
    write += length_bytes;
}

CSendBuffer::~CSendBuffer() {
    release();
}

bool CSendBuffer::grow(std::uint32_t blocks) {
    // One more than the capacity needs when neither the head nor the tail is full.
    std::unique_ptr<iovec[]> larger(new (std::nothrow) iovec[blocks + 1]);
    if (!larger) return false;
    m_iovec = std::move(larger);
    m_buf_num = blocks;
    return true;
}

bool CSendBuffer::append_block() {
    auto* block = new (std::nothrow) SSendBuf;
    if (block == nullptr) return false;
    if (m_head == nullptr) {
        m_head = m_tail = block;
    } else {
        m_last->next = block;
        block->prev = m_last;
    }
    m_last = block;
    return true;
}

/// Makes the blocks that so many bytes need, before any is stored.
bool CSendBuffer::reserve(std::uint32_t length_bytes) {
    if (m_head == nullptr && !append_block()) return false;
    const SSendBuf* block = m_tail;
    for (std::uint32_t room = block->room(); room < length_bytes; room += SSendBuf::BYTES) {
        if (block->next == nullptr && !append_block()) return false;
        block = block->next;
    }
    return true;
}

bool CSendBuffer::put(const char* data, std::uint32_t length_bytes) {
    if (!reserve(length_bytes)) return false;
    m_data_len += length_bytes;
    for (std::uint32_t room = m_tail->room(); length_bytes > room; room = m_tail->room()) {
        m_tail->store(data, room);
        data += room;
        length_bytes -= room;
        m_tail = m_tail->next;
    }
    m_tail->store(data, length_bytes);
    return true;
}

const iovec* CSendBuffer::gather(int* count) {
    const std::uint32_t head_len = m_head->length();
    const std::uint32_t tail_len = m_tail != m_head ? m_tail->length() : 0;
    const std::uint32_t iovec_num =
        ((m_data_len - tail_len - head_len) >> SSendBuf::SHIFT) + 1 + (tail_len > 0 ? 1 : 0);
    std::uint32_t index = 0;
    for (const SSendBuf* block = m_head;; block = block->next) {
        if (block->length() > 0) m_iovec[index++] = {block->length(), block->read};
        if (block == m_tail) break;
    }
    RAVELO_ASSERT(index == iovec_num);
    *count = static_cast<int>(index);
    return m_iovec.get();
}

/// Makes the head, used up and not the tail, the last spare.
void CSendBuffer::recycle_head() {
    SSendBuf* block = std::exchange(m_head, m_head->next);
    m_head->prev = nullptr;
    block->next = nullptr;
    block->prev = m_last;
    m_last->next = block;
    m_last = block;
}

std::uint32_t CSendBuffer::del_buffer_header(std::uint32_t sent) {
    std::uint32_t rest = sent;
    do {
        const std::uint32_t head_len = m_head->length();
        if (rest < head_len) {
            m_head->read += rest;
            m_data_len -= rest;
            return sent;
        }
        m_head->reset();
        m_data_len -= head_len;
        rest -= head_len;
        if (m_head == m_tail) {
            RAVELO_ASSERT(m_data_len == 0);
            return sent - rest;
        }
        recycle_head();
    } while (rest > 0);
    return sent;
}

void CSendBuffer::clear() {
    for (SSendBuf* block = m_tail; block != nullptr; block = block->prev) block->reset();
    m_tail = m_head;
    m_data_len = 0;
}

void CSendBuffer::release() {
    while (m_head != nullptr) delete std::exchange(m_head, m_head->next);
    m_tail = m_last = nullptr;
    m_data_len = 0;
    m_iovec.reset();
}

}  // namespace Veltro::Ravelo
