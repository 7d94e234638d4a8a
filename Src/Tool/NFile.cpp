#include <Ravelo/NFile.h>

#include <new>

#include "Tool/DefaultStorDev.h"
#include "Tool/NFileRecord.h"

namespace Veltro::Ravelo {

CNStorDev_IF::~CNStorDev_IF() = default;

bool CNStorDev_IF::NeedAIO() {
    return true;
}

CNFile::CNFile(SNFileRecord* record) : m_internal(record) {
    record->m_file = this;
}

CNFile::~CNFile() {
    delete m_internal;
}

CNFile* CNFile::Open(long owner, const char* path, const char* mode, CNStorDev_IF* dev) {
    if (dev == nullptr) dev = makeDefaultStorDev();
    if (dev == nullptr) return nullptr;
    std::unique_ptr<SNFileRecord> record(new (std::nothrow) SNFileRecord(dev));
    CNFile* file = nullptr;
    try {
        if (record) file = new (std::nothrow) CNFile(record.get());
    } catch (...) {
        // Only lack of memory leads here. If it were named, a DLL would export the type of that exception.
    }
    if (file == nullptr) {
        dev->Close();
        return nullptr;
    }
    SNFileRecord& state = *record.release();
    state.m_owner = owner;
    bool opened = dev->Open(path, mode) >= 0;
    if (opened) {
        Plinth::CLockGuard guard(state.m_job_mutex);
        dev->Stat(&state.m_info);
        state.m_device_end.store(static_cast<std::int64_t>(state.m_info.size));
        opened = !state.m_buffers.empty() || state.resize(SNFileRecord::DEFAULT_COUNT) == 0;
    }
    if (opened) return file;
    file->Close();
    return nullptr;
}

int CNFile::SetBufferSize(unsigned int size, unsigned int count) {
    Plinth::CLockGuard guard(m_internal->m_job_mutex);
    return m_internal->resize(size == 0 || count == 0 ? SNFileRecord::DEFAULT_COUNT : count);
}

int SNFileRecord::resize(std::size_t count) {
    if (m_device == nullptr || count > MAX_COUNT) return -1;
    if (!FileThreads::areRunning() || !m_device->NeedAIO()) count = 0;
    if (m_buffers.size() == count) return 0;
    std::vector<std::unique_ptr<CNFileBuf>> buffers;
    std::vector<CNFileBuf*> nodes;
    try {
        nodes.reserve(count);
        buffers.reserve(count);
    } catch (...) {
        return -1;  // memory is short
    }
    while (buffers.size() < count) {
        auto* buffer = new (std::nothrow) CNFileBuf;
        if (buffer == nullptr) return -1;
        buffers.emplace_back(buffer);
    }
    if (!settle(true)) return -1;
    if (count == 0 && m_device->Seek(offset(), 0) < 0) return -1;
    Plinth::CLockGuard guard(m_io_mutex);
    if (m_closed) return -1;
    m_buffers.swap(buffers);
    m_nodes.swap(nodes);
    m_direct.store(count == 0);
    m_read_current = nullptr;
    m_write_current = nullptr;
    m_read_index = 0;
    return 0;
}

std::int64_t SNFileRecord::offset() {
    Plinth::CLockGuard guard(m_io_mutex);
    return m_file_offset;
}

/// Lets no buffer hold anything that the device does not have, and no read be under way; false, after a
/// message, when the device fails. @param flush whether a writer that waits may go on.
bool SNFileRecord::settle(bool flush) {
    {
        Plinth::CLockGuard guard(m_io_mutex);
        submit_all_buffer(CNFileBuf::SUBMIT_WRITE_RELEASE);
    }
    read_submitted();
    return write_submitted(flush) != 0;
}

int CNFile::Stat(NFile_Info* info) {
    if (info == nullptr) return -1;
    SNFileRecord& state = *m_internal;
    Plinth::CLockGuard guard(state.m_job_mutex);
    if (state.m_info.create_time == 0 && state.m_device != nullptr) {
        const int result = state.m_device->Stat(&state.m_info);
        if (result < 0) return result;
    }
    *info = state.m_info;
    return 0;
}

bool SNFileRecord::mark_closed() {
    Plinth::CLockGuard guard(m_io_mutex);
    if (m_closed) return false;
    m_closed = true;
    return true;
}

void CNFile::Close() {
    SNFileRecord& state = *m_internal;
    if (!state.mark_closed()) return;
    // The close job writes what is left, once; when no file thread runs any more, this thread does.
    if (!state.m_direct && state.queue(FILE_JOB_CLOSE, 1)) return;
    handle_close_file();
}

int CNFile::handle_close_file() {
    SNFileRecord& state = *m_internal;
    {
        Plinth::CLockGuard guard(state.m_job_mutex);
        state.settle(false);
    }
    state.close_device();
    CNetHandler::Close();
    return 1;
}

void SNFileRecord::close_device() {
    CNStorDev_IF* device = nullptr;
    {
        Plinth::CLockGuard guard(m_job_mutex);
        std::swap(device, m_device);
        Plinth::CLockGuard io_guard(m_io_mutex);
        m_buffers.clear();
        m_direct.store(true);
        m_read_current = nullptr;
        m_write_current = nullptr;
    }
    if (device != nullptr) device->Close();
}

/// The last reference has gone; only a file that was closed behind its own back still has its device.
int CNFile::handle_close(CNetHandler*) {
    m_internal->close_device();
    delete this;
    return -1;
}

int CNFile::handle_write_file(std::int64_t flush) {
    Plinth::CLockGuard guard(m_internal->m_job_mutex);
    return m_internal->write_submitted(flush == 1);
}

int CNFile::handle_read_file() {
    Plinth::CLockGuard guard(m_internal->m_job_mutex);
    return m_internal->read_submitted();
}

void SNFileRecord::run(std::uint32_t type, std::int64_t argument) {
    if (type == FILE_JOB_WRITE) {
        m_file->handle_write_file(argument);
    } else if (type == FILE_JOB_READ) {
        m_file->handle_read_file();
    } else {
        m_file->handle_close_file();
    }
}

}  // namespace Veltro::Ravelo
