// The private state of an asynchronous file.
#pragma once

#include <Plinth/Mutex.h>
#include <Ravelo/NFile.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "Tool/FileThreads.h"
#include "Tool/NFileBuf.h"

namespace Veltro::Ravelo {

/// The engine behind CNFile.
///
/// Who owns what:
/// - A buffer belongs to whoever took it by TryLock(): the caller of an operation for the time of the call,
///   and a file thread from Submit() until its job has done with it.
/// - No byte of the file is in two buffers: the spans of buffers never overlap, those of submitted reads
///   included. Where a place is taken by a busy buffer, the operation stops short and waits for a message. So
///   it does not matter in which order buffers are written.
/// - A read-ahead is queued behind the writes that were submitted before it, and jobs of a file run one at a
///   time in the order queued: it finds on the device what was submitted.
/// - Whoever sets a wait queues a job afterwards; whoever runs a job ends the wait, before it sends the
///   message, so that the owner may come back at once.
///
/// Locks, outermost first: m_job_mutex, m_io_mutex, a buffer's mutex or m_message_mutex. Device calls are
/// made under m_job_mutex, never under another; operations of the buffered mode take m_io_mutex alone.
struct SNFileRecord final : CFileJobs {
    static constexpr unsigned DEFAULT_COUNT = 4;
    static constexpr unsigned MAX_COUNT = 65'536;

    CNFile* m_file = nullptr;
    CNStorDev_IF* m_device PLINTH_GUARDED_BY(m_job_mutex);  // null once closed
    NFile_Info m_info PLINTH_GUARDED_BY(m_job_mutex);
    long m_owner = 0;
    // Changed under m_job_mutex and m_io_mutex, read under either.
    std::vector<std::unique_ptr<CNFileBuf>> m_buffers;
    std::vector<CNFileBuf*> m_nodes PLINTH_GUARDED_BY(m_job_mutex);  // room to sort as many
    std::atomic<bool> m_direct{true};                                // no buffers; changed under both locks
    Plinth::CMutex m_job_mutex;                                      // one job at a time; the device
    std::int64_t m_file_offset PLINTH_GUARDED_BY(m_io_mutex) = 0;
    Plinth::CMutex m_message_mutex;  // guards the waits
    bool m_wait_read PLINTH_GUARDED_BY(m_message_mutex) = false;
    bool m_wait_write PLINTH_GUARDED_BY(m_message_mutex) = false;
    std::int64_t m_wait_offset PLINTH_GUARDED_BY(m_message_mutex) = 0;  // where the reader waits
    CNFileBuf* m_read_current PLINTH_GUARDED_BY(m_io_mutex) = nullptr;  // a guess, for speed
    CNFileBuf* m_write_current PLINTH_GUARDED_BY(m_io_mutex) = nullptr;
    std::uint32_t m_write_limit PLINTH_GUARDED_BY(m_io_mutex) = 0;  // how far m_write_current may grow
    Plinth::CMutex m_io_mutex;                                      // one operation at a time
    std::size_t m_read_index PLINTH_GUARDED_BY(m_io_mutex) = 0;     // of the buffer to take next for reading
    std::int64_t m_ahead_end PLINTH_GUARDED_BY(m_io_mutex) = -1;    // of the last read-ahead
    std::size_t m_ahead PLINTH_GUARDED_BY(m_io_mutex) =
        1;  // buffers to read ahead while reads go straight on
    bool m_closed PLINTH_GUARDED_BY(m_io_mutex) = false;
    std::int64_t m_accepted_end PLINTH_GUARDED_BY(m_io_mutex) = 0;  // where all that was written ends
    bool m_has_eof PLINTH_GUARDED_BY(m_io_mutex) = false;           // some buffer knows the file's end
    std::atomic<std::int64_t> m_device_end{0};  // as far as the device is known to have the file
    std::atomic<bool> m_write_failing{false};   // the last attempt to write has failed

    explicit SNFileRecord(CNStorDev_IF* device) : CFileJobs(callsOf<SNFileRecord>()), m_device(device) {}

    // Messages.
    void notify(unsigned type);
    bool isReadAwaited();
    bool isWriteAwaited();
    void wake_reader();
    void wake_writer();
    void give_up_writer();

    // The buffered mode, for the thread that calls an operation.
    int write_behind(const char* data, std::uint32_t len) PLINTH_REQUIRES(m_io_mutex);
    CNFileBuf* find_write_buffer() PLINTH_REQUIRES(m_io_mutex);
    CNFileBuf* current_write_buffer() PLINTH_REQUIRES(m_io_mutex);
    CNFileBuf* new_write_buffer() PLINTH_REQUIRES(m_io_mutex);
    void await_write() PLINTH_REQUIRES(m_io_mutex);
    void accept_end() PLINTH_REQUIRES(m_io_mutex);
    int read_buffers(char* buf, std::uint32_t len, bool& eof) PLINTH_REQUIRES(m_io_mutex);
    CNFileBuf* find_read_buffer() PLINTH_REQUIRES(m_io_mutex);
    CNFileBuf* current_read_buffer() PLINTH_REQUIRES(m_io_mutex);
    CNFileBuf* held_for_reading() PLINTH_REQUIRES(m_io_mutex);
    void start_read_ahead() PLINTH_REQUIRES(m_io_mutex);
    CNFileBuf* take_for_reading() PLINTH_REQUIRES(m_io_mutex);
    void submit_read(CNFileBuf& buffer, std::int64_t offset, std::uint32_t length)
        PLINTH_REQUIRES(m_io_mutex);
    void read_further_ahead() PLINTH_REQUIRES(m_io_mutex);
    void forget_end() PLINTH_REQUIRES(m_io_mutex);
    void await_read() PLINTH_REQUIRES(m_io_mutex);

    // What both directions share.
    bool isHeldByBusy(std::int64_t offset) PLINTH_REQUIRES(m_io_mutex);
    std::int64_t clean_overlap(std::int64_t begin, std::int64_t end) PLINTH_REQUIRES(m_io_mutex);
    bool submit_all_buffer(CNFileBuf::SUBMIT_EVENT type) PLINTH_REQUIRES(m_io_mutex);

    // The direct mode.
    int write_through(const char* data, std::uint32_t len) PLINTH_EXCLUDES(m_job_mutex, m_io_mutex);
    int read_through(char* buf, std::uint32_t len, bool& eof) PLINTH_EXCLUDES(m_job_mutex, m_io_mutex);
    int seek_through(std::int64_t offset, int whence) PLINTH_EXCLUDES(m_job_mutex, m_io_mutex);
    void move_offset(std::int64_t by) PLINTH_EXCLUDES(m_io_mutex);

    // The jobs, on file threads.
    int write_submitted(bool flush) PLINTH_REQUIRES(m_job_mutex);
    void collect_writes() PLINTH_REQUIRES(m_job_mutex);
    bool write_buffer(CNFileBuf& buffer) PLINTH_REQUIRES(m_job_mutex);
    int read_submitted() PLINTH_REQUIRES(m_job_mutex);
    CNFileBuf* next_read() PLINTH_REQUIRES(m_job_mutex);
    bool read_buffer(CNFileBuf& buffer) PLINTH_REQUIRES(m_job_mutex);
    bool publish(CNFileBuf& buffer, std::uint32_t length, bool at_end) PLINTH_EXCLUDES(m_io_mutex);
    void fail_read(CNFileBuf& buffer);

    // Life.
    int resize(std::size_t count) PLINTH_REQUIRES(m_job_mutex);
    bool settle(bool flush) PLINTH_REQUIRES(m_job_mutex);
    std::int64_t offset() PLINTH_EXCLUDES(m_io_mutex);
    bool mark_closed() PLINTH_EXCLUDES(m_io_mutex);
    void close_device() PLINTH_EXCLUDES(m_job_mutex);

    // For the file threads.
    void run(std::uint32_t type, std::int64_t argument);
    void hold() { m_file->AddRef(); }
    void release() { m_file->DecRef(); }
};

}  // namespace Veltro::Ravelo
