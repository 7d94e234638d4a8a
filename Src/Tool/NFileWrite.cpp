#include <algorithm>
#include <limits>

#include "Tool/NFileRecord.h"

namespace Veltro::Ravelo {

int CNFile::Write(const char* data, unsigned int len) {
    SNFileRecord& state = *m_internal;
    if (state.isWriteAwaited()) return 0;
    if (data == nullptr || len == 0) {
        state.notify(NOTIFY_FILE_ERROR);
        return 0;
    }
    len = std::min(len, static_cast<unsigned>(std::numeric_limits<int>::max()));
    if (state.m_direct) return state.write_through(data, len);
    Plinth::CLockGuard guard(state.m_io_mutex);
    return state.m_closed ? 0 : state.write_behind(data, len);
}

int SNFileRecord::write_behind(const char* data, std::uint32_t len) {
    std::uint32_t taken = 0;
    CNFileBuf* buffer = current_write_buffer();
    while (taken < len) {
        if (buffer == nullptr) buffer = find_write_buffer();
        if (buffer == nullptr) break;
        if (!buffer->Malloc()) {
            buffer->Reset();  // one without memory holds nothing
            notify(NOTIFY_FILE_ERROR);
            break;
        }
        bool full = false;
        const std::uint32_t count =
            buffer->Write(data + taken, len - taken, full, m_file_offset, m_write_limit);
        taken += count;
        m_file_offset += count;
        if (!full) continue;
        // One that ends at a neighbour waits for its time as any that is not full.
        if (buffer->Length() == CNFileBuf::SIZE) {
            buffer->Submit(CNFileBuf::SUBMIT_WRITE_RELEASE);
            queue(FILE_JOB_WRITE, 0);
        } else {
            buffer->UnLock();
        }
        buffer = nullptr;
    }
    if (buffer != nullptr) buffer->UnLock();
    m_write_current = buffer;
    if (taken > 0) accept_end();
    return static_cast<int>(taken);
}

/// The buffer of the last write, taken, if this one goes on in it.
CNFileBuf* SNFileRecord::current_write_buffer() {
    CNFileBuf* buffer = m_write_current;
    m_write_current = nullptr;
    if (buffer == nullptr || !buffer->TryLock()) return nullptr;
    if (buffer->Covers(m_file_offset) && m_file_offset <= buffer->End() &&
        m_file_offset - buffer->Offset() < m_write_limit) {
        return buffer;
    }
    buffer->UnLock();
    return nullptr;
}

/// A buffer, taken, that has room at the position, and in m_write_limit how far it may grow; null when the
/// owner has to wait for the message.
CNFileBuf* SNFileRecord::find_write_buffer() {
    const std::int64_t offset = m_file_offset;
    CNFileBuf* holder = nullptr;
    CNFileBuf* before = nullptr;
    bool submitted = false;
    for (auto& each : m_buffers) {
        CNFileBuf& buffer = *each;
        if (!buffer.TryLock()) continue;
        if (buffer.Covers(offset) && offset < buffer.End()) {
            holder = &buffer;
            continue;
        }
        if (buffer.Covers(offset) && offset == buffer.End() && before == nullptr) {
            before = &buffer;
            continue;
        }
        if (!buffer.Covers(offset) || buffer.IsFree()) {
            buffer.UnLock();
        } else if (buffer.IsDirty()) {
            buffer.Submit(CNFileBuf::SUBMIT_WRITE_RELEASE);  // behind a gap
            submitted = true;
        } else {
            buffer.Reset();
            buffer.UnLock();
        }
    }
    if (holder != nullptr && before != nullptr) before->UnLock();
    CNFileBuf* found = holder != nullptr ? holder : before;
    if (holder == nullptr && isHeldByBusy(offset)) {
        if (before != nullptr) before->UnLock();
        await_write();
        return nullptr;
    }
    if (found != nullptr) {
        const std::int64_t end = clean_overlap(found->End(), found->Offset() + CNFileBuf::SIZE);
        m_write_limit = static_cast<std::uint32_t>(end - found->Offset());
    } else {
        found = new_write_buffer();
        if (found == nullptr) return nullptr;
    }
    if (submitted) queue(FILE_JOB_WRITE, 1);
    return found;
}

/// A free buffer or else a clean one, placed at the position.
CNFileBuf* SNFileRecord::new_write_buffer() {
    const std::int64_t offset = m_file_offset;
    const std::int64_t end = clean_overlap(offset, offset + CNFileBuf::SIZE);
    CNFileBuf* found = nullptr;
    for (const bool want_free : {true, false}) {
        for (auto& buffer : m_buffers) {
            if (found != nullptr || !buffer->TryLock()) continue;
            if (want_free ? buffer->IsFree() : !buffer->IsDirty()) {
                found = buffer.get();
            } else {
                buffer->UnLock();
            }
        }
    }
    if (found == nullptr) {
        // None may be under way: those that nobody has submitted yet are what makes room.
        submit_all_buffer(CNFileBuf::SUBMIT_WRITE_RELEASE);
        await_write();
        return nullptr;
    }
    found->Reset();
    found->Place(offset);
    m_write_limit = static_cast<std::uint32_t>(end - offset);
    return found;
}

void SNFileRecord::await_write() {
    {
        Plinth::CLockGuard guard(m_message_mutex);
        m_wait_write = true;
    }
    queue(FILE_JOB_WRITE, 1);
}

/// Lets no buffer believe any more that the file ends where it did before this write.
void SNFileRecord::accept_end() {
    m_accepted_end = std::max(m_accepted_end, m_file_offset);
    if (!m_has_eof) return;
    m_has_eof = false;
    for (auto& buffer : m_buffers) {
        if (!buffer->TryLock()) continue;  // a read under way looks for itself
        if (buffer->IsEof() && buffer->End() < m_file_offset) {
            buffer->SetEof(false);
            if (buffer->Length() == 0) buffer->Reset();
        }
        m_has_eof |= buffer->IsEof();
        buffer->UnLock();
    }
}

int SNFileRecord::write_through(const char* data, std::uint32_t len) {
    Plinth::CLockGuard guard(m_job_mutex);
    std::uint32_t written = 0;
    while (m_device != nullptr && written < len) {
        const int count = m_device->Write(data + written, len - written);
        if (count < 0) notify(NOTIFY_FILE_ERROR);
        if (count <= 0) break;
        written += static_cast<std::uint32_t>(count);
    }
    move_offset(written);
    return static_cast<int>(written);
}

/// Collects the buffers to write, by their places in the file.
void SNFileRecord::collect_writes() {
    m_nodes.clear();
    for (auto& buffer : m_buffers) {
        const auto type = buffer->GetSubmitType();
        if (type == CNFileBuf::SUBMIT_NONE || type == CNFileBuf::SUBMIT_READ) continue;
        const auto after = std::find_if(m_nodes.begin(), m_nodes.end(), [&buffer](const CNFileBuf* node) {
            return node->Offset() > buffer->Offset();
        });
        m_nodes.insert(after, buffer.get());  // within what was reserved
    }
}

int SNFileRecord::write_submitted(bool flush) {
    collect_writes();
    bool failed = false;
    for (CNFileBuf* buffer : m_nodes) {
        if (!write_buffer(*buffer)) {
            failed = true;  // it keeps its bytes; the others are not its fault
        } else if (buffer->GetSubmitType() == CNFileBuf::SUBMIT_WRITE_RELEASE) {
            buffer->Reset();
            buffer->Free();
        } else {
            buffer->SetClean();
        }
        buffer->UnLock();
    }
    if (!m_nodes.empty()) m_write_failing.store(failed);
    if (failed) {
        give_up_writer();
        notify(NOTIFY_FILE_ERROR);
        return 0;
    }
    if (flush) wake_writer();
    return 1;
}

bool SNFileRecord::write_buffer(CNFileBuf& buffer) {
    if (m_device == nullptr || m_device->Seek(buffer.Offset(), 0) < 0) return false;
    for (std::uint32_t written = 0; written < buffer.Length();) {
        const int count = m_device->Write(buffer.Data() + written, buffer.Length() - written);
        if (count <= 0) return false;
        written += static_cast<std::uint32_t>(count);
    }
    if (buffer.End() > m_device_end.load()) m_device_end.store(buffer.End());
    return true;
}

}  // namespace Veltro::Ravelo
