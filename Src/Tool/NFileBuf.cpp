#include "Tool/NFileBuf.h"

#include <algorithm>
#include <cstring>

#include "Log.h"

namespace Veltro::Ravelo {

CNFileBuf::CNFileBuf() : m_pool(CNBufPool::join()) {}

CNFileBuf::~CNFileBuf() {
    if (m_pool == nullptr) return;
    Free();
    CNBufPool::leave();
}

bool CNFileBuf::TryLock() {
    Plinth::CLockGuard guard(m_mutex);
    if (m_busy != 0) return false;
    m_busy = 1;
    return true;
}

void CNFileBuf::UnLock() {
    Plinth::CLockGuard guard(m_mutex);
    m_busy = 0;
    m_submit_type = SUBMIT_NONE;
}

CNFileBuf::SSpan CNFileBuf::GetSpan() {
    Plinth::CLockGuard guard(m_mutex);
    if (m_file_offset == -1) return {-1, -1, m_busy != 0};
    return {m_file_offset, m_file_offset + std::max(m_buf_offset, m_wanted), m_busy != 0};
}

void CNFileBuf::Submit(SUBMIT_EVENT type) {
    Plinth::CLockGuard guard(m_mutex);
    RAVELO_ASSERT(m_busy == true);
    m_submit_type = type;
}

void CNFileBuf::SubmitRead(std::uint32_t length) {
    Plinth::CLockGuard guard(m_mutex);
    RAVELO_ASSERT(m_busy == true);
    m_wanted = length;
    m_submit_type = SUBMIT_READ;
}

CNFileBuf::SUBMIT_EVENT CNFileBuf::GetSubmitType() {
    Plinth::CLockGuard guard(m_mutex);
    return m_submit_type;
}

void CNFileBuf::Reset() {
    Plinth::CLockGuard guard(m_mutex);
    m_file_offset = -1;
    m_submit_type = SUBMIT_NONE;
    m_buf_offset = 0;
    m_wanted = 0;
    m_dirty = false;
    m_eof = false;
}

void CNFileBuf::Place(std::int64_t file_offset) {
    Plinth::CLockGuard guard(m_mutex);
    m_file_offset = file_offset;
}

bool CNFileBuf::Malloc() {
    if (!m_block && m_pool != nullptr) m_block = m_pool->Pop();
    return m_block != nullptr;
}

void CNFileBuf::Free() {
    if (m_block) m_pool->Push(std::move(m_block));
}

std::uint32_t CNFileBuf::Write(const char* data, std::uint32_t len, bool& full, std::int64_t file_offset,
                               std::uint32_t limit) {
    RAVELO_ASSERT(m_file_offset >= 0 && file_offset >= m_file_offset);
    RAVELO_ASSERT((uint64_t)(file_offset - m_file_offset) <= m_buf_offset);
    const auto start = static_cast<std::uint32_t>(file_offset - m_file_offset);
    const std::uint32_t bound = std::max(std::min(limit, m_size), start);
    const std::uint32_t count = std::min(len, bound - start);
    if (count > 0) {
        std::memcpy(m_block->data + start, data, count);
        m_dirty = true;
    }
    full = start + count == bound;
    if (start + count > m_buf_offset) {
        Plinth::CLockGuard guard(m_mutex);
        m_buf_offset = start + count;
    }
    return count;
}

std::uint32_t CNFileBuf::Read(char* buf, std::uint32_t len, bool& all, bool& eof, std::int64_t file_offset) {
    RAVELO_ASSERT(m_file_offset >= 0 && file_offset >= m_file_offset);
    RAVELO_ASSERT((uint64_t)(file_offset - m_file_offset) <= m_buf_offset);
    const auto start = static_cast<std::uint32_t>(file_offset - m_file_offset);
    const std::uint32_t available = m_buf_offset - start;
    const std::uint32_t count = std::min(len, available);
    if (count > 0) std::memcpy(buf, m_block->data + start, count);
    all = count == available;
    eof = all && m_eof;
    return count;
}

void CNFileBuf::Filled(std::uint32_t length, bool eof) {
    Plinth::CLockGuard guard(m_mutex);
    m_buf_offset = length;
    m_wanted = 0;
    m_dirty = false;
    m_eof = eof;
}

}  // namespace Veltro::Ravelo
