#pragma once

#include <Plinth/Mutex.h>

#include <cstdint>
#include <memory>

#include "Tool/NFilePool.h"

namespace Veltro::Ravelo {

/// One buffer of a file: up to 128 KiB of it from a place on, read ahead or to be written.
///
/// It belongs to nobody, or to one party at a time, which has taken it by TryLock(). Only the owner changes
/// what it holds. Submit() makes a file thread the owner, and UnLock() ends the ownership. Anybody may ask
/// for the span, which the owner's changes never run ahead of.
class CNFileBuf {
public:
    static constexpr std::uint32_t SIZE = SNBufBlock::SIZE;

    /// What a file thread is to do with the buffer.
    enum SUBMIT_EVENT : std::uint32_t {
        SUBMIT_NONE = 0,
        SUBMIT_READ = 1,
        SUBMIT_WRITE_KEEP = 2,
        SUBMIT_WRITE_RELEASE = 3
    };

    /// The bytes of the file that it holds, or will hold when a read that was asked for has come.
    struct SSpan {
        std::int64_t begin = 0;
        std::int64_t end = 0;
        bool busy = false;

        bool holds(std::int64_t offset) const { return begin <= offset && offset < end; }
    };

    CNFileBuf();
    ~CNFileBuf();
    CNFileBuf(const CNFileBuf&) = delete;
    CNFileBuf& operator=(const CNFileBuf&) = delete;

    /// Takes the buffer if nobody has it; returns whether it did. Any thread.
    bool TryLock();
    /// What the buffer covers; any thread.
    SSpan GetSpan();
    SUBMIT_EVENT GetSubmitType();

    /// @name For the owner
    /// @{
    void UnLock();
    void Submit(SUBMIT_EVENT type);
    /// Asks for the file's bytes from an offset on, a number of them at most.
    void SubmitRead(std::uint32_t length);
    /// Forgets what it holds, but not its memory.
    void Reset();
    /// Sees to it that there is memory; false when none is left.
    bool Malloc();
    /// Gives the memory back.
    void Free();
    /// Puts an empty buffer at a place of the file.
    void Place(std::int64_t file_offset);

    /// Copies bytes in, no further than `limit` bytes from the start. @param full whether that or the end was
    /// reached. @return bytes taken.
    std::uint32_t Write(const char* data, std::uint32_t len, bool& full, std::int64_t file_offset,
                        std::uint32_t limit = SIZE);
    /// Copies bytes out. @param all whether nothing is left behind them. @param eof whether the file ends
    /// there, too. @return bytes given.
    std::uint32_t Read(char* buf, std::uint32_t len, bool& all, bool& eof, std::int64_t file_offset);
    /// Tells how a read that was asked for has ended.
    void Filled(std::uint32_t length, bool eof);
    void SetClean() { m_dirty = false; }
    void SetEof(bool eof) { m_eof = eof; }

    bool IsFree() const { return m_file_offset == -1; }
    bool IsDirty() const { return m_dirty; }
    bool IsEof() const { return m_eof; }
    std::int64_t Offset() const { return m_file_offset; }
    /// Where the valid bytes end.
    std::int64_t End() const { return m_file_offset + m_buf_offset; }
    /// Whether a place lies within the 128 KiB that it may hold.
    bool Covers(std::int64_t offset) const {
        return m_file_offset != -1 && m_file_offset <= offset && offset - m_file_offset < SIZE;
    }
    std::uint32_t Length() const { return m_buf_offset; }
    std::uint32_t WantedLength() const { return m_wanted; }
    char* Data() { return m_block->data; }
    /// @}

private:
    Plinth::CMutex m_mutex;                               // guards who owns it, and changes of the span
    std::uint32_t m_busy PLINTH_GUARDED_BY(m_mutex) = 0;  // 1 while somebody owns it
    SUBMIT_EVENT m_submit_type PLINTH_GUARDED_BY(m_mutex) = SUBMIT_NONE;
    // The owner reads the following without the lock, and changes those of the span under it.
    std::int64_t m_file_offset = -1;  // of the first byte; -1 when free
    const std::uint32_t m_size = SIZE;
    std::uint32_t m_buf_offset = 0;  // valid bytes
    std::uint32_t m_wanted = 0;      // asked for and not there yet
    bool m_dirty = false;
    bool m_eof = false;
    CNBufPool* m_pool;  // null without memory
    std::unique_ptr<SNBufBlock> m_block;
};

}  // namespace Veltro::Ravelo
