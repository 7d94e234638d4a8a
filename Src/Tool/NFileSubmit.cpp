#include <algorithm>
#include <limits>

#include "Tool/NFileRecord.h"

namespace Veltro::Ravelo {

int CNFile::Seek(std::int64_t offset, int whence) {
    SNFileRecord& state = *m_internal;
    if (state.m_direct) return state.seek_through(offset, whence);
    Plinth::CLockGuard guard(state.m_io_mutex);
    if (state.m_closed) return -1;
    const std::int64_t base = whence == 1 ? state.m_file_offset : 0;
    // Within what a buffer's end can still be computed of.
    constexpr std::int64_t LAST = std::numeric_limits<std::int64_t>::max() - 2 * CNFileBuf::SIZE;
    if (offset < -base || offset > LAST - base) return -1;
    state.m_file_offset = base + offset;
    state.m_read_current = nullptr;
    state.m_write_current = nullptr;
    state.forget_end();
    if (state.submit_all_buffer(CNFileBuf::SUBMIT_WRITE_RELEASE)) state.queue(FILE_JOB_WRITE, 1);
    return 0;
}

/// Lets the next read at the file's end ask the device: others may have made the file longer.
void SNFileRecord::forget_end() {
    if (!m_has_eof) return;
    for (auto& buffer : m_buffers) {
        if (!buffer->TryLock()) continue;
        if (buffer->IsEof() && buffer->Length() == 0) buffer->Reset();
        buffer->UnLock();
    }
}

int SNFileRecord::seek_through(std::int64_t offset, int whence) {
    Plinth::CLockGuard guard(m_job_mutex);
    if (m_device == nullptr) return -1;
    const int result = m_device->Seek(offset, whence);
    Plinth::CLockGuard io_guard(m_io_mutex);
    if (result >= 0) m_file_offset = whence == 1 ? m_file_offset + offset : offset;
    return result;
}

/// The position as a file that is buffered later goes on from.
void SNFileRecord::move_offset(std::int64_t by) {
    Plinth::CLockGuard guard(m_io_mutex);
    m_file_offset += by;
}

void SNFileRecord::notify(unsigned type) {
    m_file->Notify(m_owner, type, 0);
}

bool SNFileRecord::isReadAwaited() {
    Plinth::CLockGuard guard(m_message_mutex);
    return m_wait_read;
}

bool SNFileRecord::isWriteAwaited() {
    Plinth::CLockGuard guard(m_message_mutex);
    return m_wait_write;
}

void SNFileRecord::wake_reader() {
    {
        Plinth::CLockGuard guard(m_message_mutex);
        if (!m_wait_read) return;
        m_wait_read = false;
    }
    notify(NOTIFY_FILE_READABLE);
}

void SNFileRecord::wake_writer() {
    {
        Plinth::CLockGuard guard(m_message_mutex);
        if (!m_wait_write) return;
        m_wait_write = false;
    }
    notify(NOTIFY_FILE_WRITABLE);
}

/// Ends the wait of a writer that is told of a failure instead.
void SNFileRecord::give_up_writer() {
    Plinth::CLockGuard guard(m_message_mutex);
    m_wait_write = false;
}

bool SNFileRecord::isHeldByBusy(std::int64_t offset) {
    return std::any_of(m_buffers.begin(), m_buffers.end(), [offset](auto& buffer) {
        const CNFileBuf::SSpan span = buffer->GetSpan();
        return span.busy && span.holds(offset);
    });
}

/// Makes room for a buffer that is to cover a part of the file: what others have read of it is forgotten,
/// what others are to write of it is submitted and stays in the way for now.
/// @return how far there is room: the end, or the first byte that another buffer has.
std::int64_t SNFileRecord::clean_overlap(std::int64_t begin, std::int64_t end) {
    std::int64_t room = end;
    for (auto& buffer : m_buffers) {
        const CNFileBuf::SSpan span = buffer->GetSpan();
        if (span.begin >= end || span.end <= begin) continue;
        if (buffer->TryLock()) {
            if (!buffer->IsDirty()) {
                buffer->Reset();
                buffer->UnLock();
                continue;
            }
            buffer->Submit(CNFileBuf::SUBMIT_WRITE_RELEASE);
            queue(FILE_JOB_WRITE, 0);
        }
        room = std::min(room, std::max(span.begin, begin));
    }
    return room;
}

/// Submits every buffer that nobody has and that holds bytes to write; whether there was one.
bool SNFileRecord::submit_all_buffer(CNFileBuf::SUBMIT_EVENT type) {
    bool submitted = false;
    for (auto& buffer : m_buffers) {
        if (!buffer->TryLock()) continue;
        if (buffer->IsDirty()) {
            buffer->Submit(type);
            submitted = true;
        } else {
            buffer->UnLock();
        }
    }
    return submitted;
}

}  // namespace Veltro::Ravelo
