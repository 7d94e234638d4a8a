#include <algorithm>
#include <limits>

#include "Tool/NFileRecord.h"

namespace Veltro::Ravelo {

int CNFile::Read(char* buf, unsigned int len, bool& eof) {
    SNFileRecord& state = *m_internal;
    eof = false;
    if (state.isReadAwaited()) return 0;
    if (buf == nullptr || len == 0) {
        state.notify(NOTIFY_FILE_ERROR);
        return 0;
    }
    len = std::min(len, static_cast<unsigned>(std::numeric_limits<int>::max()));
    if (state.m_direct) return state.read_through(buf, len, eof);
    Plinth::CLockGuard guard(state.m_io_mutex);
    return state.m_closed ? 0 : state.read_buffers(buf, len, eof);
}

int SNFileRecord::read_buffers(char* buf, std::uint32_t len, bool& eof) {
    std::uint32_t got = 0;
    CNFileBuf* buffer = current_read_buffer();
    while (got < len && !eof) {
        if (buffer == nullptr) buffer = find_read_buffer();
        if (buffer == nullptr) break;
        bool all = false;
        const std::uint32_t count = buffer->Read(buf + got, len - got, all, eof, m_file_offset);
        got += count;
        m_file_offset += count;
        buffer->UnLock();
        m_read_current = all ? nullptr : buffer;
        buffer = nullptr;
    }
    if (m_ahead > 1) read_further_ahead();
    return static_cast<int>(got);
}

/// The buffer of the last read, taken, if this one goes on in it.
CNFileBuf* SNFileRecord::current_read_buffer() {
    CNFileBuf* buffer = m_read_current;
    m_read_current = nullptr;
    if (buffer == nullptr || !buffer->TryLock()) return nullptr;
    if (buffer->Covers(m_file_offset) && m_file_offset < buffer->End()) return buffer;
    buffer->UnLock();
    return nullptr;
}

/// A buffer, taken, that has something to say about the position; null when the owner has to wait for the
/// message.
CNFileBuf* SNFileRecord::find_read_buffer() {
    CNFileBuf* found = held_for_reading();
    if (found != nullptr) return found;
    await_read();
    if (!isHeldByBusy(m_file_offset)) start_read_ahead();
    queue(FILE_JOB_READ, 0);
    return nullptr;
}

/// The buffer that has the byte at the position, or knows that there is none. Others that cover the position
/// without having it are in the way.
CNFileBuf* SNFileRecord::held_for_reading() {
    const std::int64_t offset = m_file_offset;
    CNFileBuf* found = nullptr;
    for (auto& each : m_buffers) {
        CNFileBuf& buffer = *each;
        if (!buffer.TryLock()) continue;
        const bool knows = offset < buffer.End() || (offset == buffer.Offset() && buffer.IsEof());
        if (found == nullptr && buffer.Covers(offset) && knows) {
            found = &buffer;
            continue;
        }
        if (!buffer.Covers(offset)) {
            buffer.UnLock();
        } else if (buffer.IsDirty()) {
            buffer.Submit(CNFileBuf::SUBMIT_WRITE_RELEASE);
            queue(FILE_JOB_WRITE, 0);
        } else {
            buffer.Reset();
            buffer.UnLock();
        }
    }
    return found;
}

void SNFileRecord::start_read_ahead() {
    const std::int64_t offset = m_file_offset;
    // What the device does not have yet it would take for the file's end.
    if (m_accepted_end > m_device_end.load() && submit_all_buffer(CNFileBuf::SUBMIT_WRITE_KEEP)) {
        queue(FILE_JOB_WRITE, 0);
    }
    const std::int64_t end = clean_overlap(offset, offset + CNFileBuf::SIZE);
    CNFileBuf* buffer = take_for_reading();
    if (buffer != nullptr) {
        const std::size_t most = std::max<std::size_t>(m_buffers.size() - 1, 1);
        m_ahead = offset == m_ahead_end ? std::min(m_ahead * 2, most) : 1;
        submit_read(*buffer, offset, static_cast<std::uint32_t>(end - offset));
    } else if (submit_all_buffer(CNFileBuf::SUBMIT_WRITE_RELEASE)) {
        queue(FILE_JOB_WRITE, 0);  // so that there is one when the owner comes back
    }
}

/// The first free buffer, or else the next clean one in turn.
CNFileBuf* SNFileRecord::take_for_reading() {
    for (auto& buffer : m_buffers) {
        if (!buffer->TryLock()) continue;
        if (buffer->IsFree()) return buffer.get();
        buffer->UnLock();
    }
    for (std::size_t i = 0; i < m_buffers.size(); ++i) {
        CNFileBuf& buffer = *m_buffers[(m_read_index + i) % m_buffers.size()];
        if (!buffer.TryLock()) continue;
        if (!buffer.IsDirty()) {
            m_read_index = (m_read_index + 1) % m_buffers.size();
            return &buffer;
        }
        buffer.UnLock();
    }
    return nullptr;
}

void SNFileRecord::submit_read(CNFileBuf& buffer, std::int64_t offset, std::uint32_t length) {
    buffer.Reset();
    buffer.Place(offset);
    buffer.SubmitRead(length);
    m_ahead_end = offset + length;
    m_write_current = nullptr;  // it may have a neighbour now
}

/// While reads go straight on, keeps the device busy with what comes next. Only buffers that nobody is going
/// to miss are used: free ones, and those that lie behind the position.
void SNFileRecord::read_further_ahead() {
    bool submitted = false;
    for (auto& each : m_buffers) {
        CNFileBuf& buffer = *each;
        const std::int64_t begin = m_ahead_end;
        const auto bytes_ahead = static_cast<std::uint64_t>(begin - m_file_offset);
        if (begin < m_file_offset || bytes_ahead >= m_ahead * CNFileBuf::SIZE) break;
        if (begin >= m_device_end.load()) break;
        if (!buffer.TryLock()) continue;
        const bool spare = buffer.IsFree() || (!buffer.IsDirty() && buffer.End() <= m_file_offset);
        const bool room =
            spare && std::none_of(m_buffers.begin(), m_buffers.end(), [&](auto& other) {
                const CNFileBuf::SSpan span = other->GetSpan();
                return other.get() != &buffer && span.begin < begin + CNFileBuf::SIZE && begin < span.end;
            });
        if (!room) {
            buffer.UnLock();
            continue;
        }
        submit_read(buffer, begin, CNFileBuf::SIZE);
        submitted = true;
    }
    if (submitted) queue(FILE_JOB_READ, 0);
}

/// Before anything is submitted, so that a failure finds somebody to tell; a job has to follow.
void SNFileRecord::await_read() {
    Plinth::CLockGuard guard(m_message_mutex);
    m_wait_read = true;
    m_wait_offset = m_file_offset;
}

int SNFileRecord::read_through(char* buf, std::uint32_t len, bool& eof) {
    Plinth::CLockGuard guard(m_job_mutex);
    std::uint32_t got = 0;
    while (m_device != nullptr && got < len) {
        const int count = m_device->Read(buf + got, len - got);
        if (count < 0) notify(NOTIFY_FILE_ERROR);
        if (count == 0) eof = true;
        if (count <= 0) break;
        got += static_cast<std::uint32_t>(count);
    }
    move_offset(got);
    return static_cast<int>(got);
}

int SNFileRecord::read_submitted() {
    bool failed = false;
    while (CNFileBuf* buffer = next_read()) failed |= !read_buffer(*buffer);
    wake_reader();
    return failed ? 0 : 1;
}

/// The submitted read that comes first in the file.
CNFileBuf* SNFileRecord::next_read() {
    CNFileBuf* first = nullptr;
    for (auto& buffer : m_buffers) {
        if (buffer->GetSubmitType() != CNFileBuf::SUBMIT_READ) continue;
        if (first == nullptr || buffer->Offset() < first->Offset()) first = buffer.get();
    }
    return first;
}

bool SNFileRecord::read_buffer(CNFileBuf& buffer) {
    const bool ready = m_device != nullptr && buffer.Malloc() && m_device->Seek(buffer.Offset(), 0) >= 0;
    std::uint32_t length = 0;
    bool at_end = false;
    while (ready && !at_end && length < buffer.WantedLength()) {
        const int count = m_device->Read(buffer.Data() + length, buffer.WantedLength() - length);
        if (count < 0) break;
        at_end = count == 0;
        length += static_cast<std::uint32_t>(count);
    }
    if ((!at_end && length < buffer.WantedLength()) || !publish(buffer, length, at_end)) {
        fail_read(buffer);
        return false;
    }
    return true;
}

/// Hands out what a read has brought; false when that was an end of the file that is none. Under the lock of
/// the operations, so that no write comes between the look at the file's end and the buffer's.
bool SNFileRecord::publish(CNFileBuf& buffer, std::uint32_t length, bool at_end) {
    const std::int64_t begin = buffer.Offset();
    const std::int64_t end = begin + length;
    bool awaited = false;
    {
        Plinth::CLockGuard guard(m_io_mutex);
        if (length > 0 && end > m_device_end.load()) m_device_end.store(end);
        // Bytes that were written further on and are not on the device yet make this no end.
        const bool eof = at_end && m_accepted_end <= std::max(m_device_end.load(), end);
        const bool nothing = length == 0 && !eof;
        if (nothing && m_write_failing.load()) return false;
        if (nothing) {
            buffer.Reset();
        } else {
            buffer.Filled(length, eof);
        }
        m_has_eof |= eof;
        buffer.UnLock();
        Plinth::CLockGuard message_guard(m_message_mutex);
        awaited = m_wait_read && begin <= m_wait_offset && m_wait_offset < end;
    }
    if (awaited) wake_reader();
    return true;
}

/// The next read tries again. A read-ahead that nobody waits for yet fails in silence.
void SNFileRecord::fail_read(CNFileBuf& buffer) {
    const CNFileBuf::SSpan span = buffer.GetSpan();
    buffer.Reset();
    buffer.UnLock();
    {
        Plinth::CLockGuard guard(m_message_mutex);
        if (!m_wait_read || !span.holds(m_wait_offset)) return;
        m_wait_read = false;
    }
    notify(NOTIFY_FILE_ERROR);
}

}  // namespace Veltro::Ravelo
