#pragma once

#include <Ravelo/NetHandler.h>

namespace Veltro::Ravelo {

struct SNFileRecord;

/// What is known of a file. Times are in seconds since 1970.
struct NFile_Info {
    std::uint64_t create_time = 0;  ///< change of the status; on Windows the creation
    std::uint64_t access_time = 0;
    std::uint64_t modify_time = 0;
    std::uint64_t size = 0;       ///< bytes
    std::uint32_t attribute = 0;  ///< always 0
    char name[256] = {};          ///< the path, cut after 255 bytes; zero-terminated
};

/// Where a file's bytes are kept: derive from it to put CNFile over a device of your own.
///
/// A device belongs to one CNFile, which ends it by Close(), once. Its operations are called one at a time,
/// from whichever file thread is free; Open(), and without file threads all of them, on the threads that use
/// the file. They may block.
class RAVELO_API CNStorDev_IF {
public:
    CNStorDev_IF() = default;
    virtual ~CNStorDev_IF();

    /// Called once, before the others. @return 0, or negative when there is no such file.
    virtual int Open(const char* path, const char* mode) = 0;
    /// The last call: end the device and free it.
    virtual void Close() = 0;
    /// Writes at the position, which moves on. @param len above 0. @return bytes written; 0 or -1 when none
    /// could be.
    virtual int Write(const char* buf, unsigned int len) = 0;
    /// Reads at the position, which moves on. @param len above 0. @return bytes read, also fewer; 0 at the
    /// end of the file; -1 on failure.
    virtual int Read(char* buf, unsigned int len) = 0;
    /// Moves the position. @param whence 0 from the start, 1 from the position. @return negative on failure.
    virtual int Seek(std::int64_t offset, int whence) = 0;
    /// Describes the file as it is on the device. @return 0 or negative.
    virtual int Stat(NFile_Info* info) = 0;
    /// Whether its operations may block, so that they are kept off the caller's thread. Default: true.
    virtual bool NeedAIO();
};

/// A file that is read and written without blocking a thread of the reactor: reads are served from what was
/// read ahead, writes land in buffers of 128 KiB each, and file threads move the bytes. A read and a write
/// that cannot go on return short; the owner hears by message when to try again.
///
/// That takes file threads, see CNetThread::CreateThreadPool. Without them, or over a device that does not
/// need them, every call goes straight to the device and blocks as the device does: the direct mode.
///
/// Reading and writing share one position. What was written is read back at once, and is never overwritten
/// by what was written before it.
///
/// A handler of the public pool. Its life ends through Close(). One thread at a time may use it, as the
/// owner's serial messages or a lock of its own see to.
class RAVELO_API CNFile : public CNetHandler {
public:
    /// Opens a file. Blocks for as long as the device takes to open it. The public pool must exist.
    /// @param owner id of the handler that gets the messages.
    /// @param path, mode given to the device. The default device takes paths in UTF-8 and the modes of fopen,
    /// and never translates bytes; "a" is for writing from start to end only.
    /// @param dev the file's from now on, also when the open fails; null makes a device for the system's
    /// files.
    /// @return the file, which ends through Close(); null when the device could not open it, after it has
    /// been closed, or when memory is short.
    static CNFile* Open(long owner, const char* path, const char* mode, CNStorDev_IF* dev);

    /// Sets how many buffers the file has: 4 at the start. More let more bytes be under way; each takes
    /// 128 KiB while it is used. With bytes in them that are not written yet it writes those first, and
    /// blocks meanwhile.
    /// @param size only whether it is 0 matters: a buffer always has 131072 bytes.
    /// @param count number of buffers, at most 65536; 4 if it, or the size, is 0.
    /// @return 0; -1, with nothing changed, for a higher number, when memory is short, after Close(), or when
    /// the device failed (message 8).
    int SetBufferSize(unsigned int size, unsigned int count);

    /// Writes at the position, which moves on. Never blocks, but in the direct mode.
    /// @param data copied.
    /// @param len bytes. Null or 0 is answered with message 8.
    /// @return bytes taken. When it is less than len, message 6 tells when to try the rest, or message 8 that
    /// the device failed; until either has come every write returns 0. Bytes taken reach the device later: a
    /// failure is told by message 8, they are kept, and the next write that finds no room, Seek() or Close()
    /// tries again.
    int Write(const char* data, unsigned int len);

    /// Reads at the position, which moves on. Never blocks, but in the direct mode.
    /// @param len bytes that buf has room for. Null or 0 is answered with message 8.
    /// @param eof whether the file ends behind the bytes returned.
    /// @return bytes read. When it is less than len and eof is false, message 7 tells when to try again, or
    /// message 8 that the device failed; until either has come every read returns 0.
    int Read(char* buf, unsigned int len, bool& eof);

    /// Moves the position, and lets everything that was written so far go to the device. A read that found
    /// the file's end asks the device again afterwards: Seek(0, 1) lets a reader follow a file that grows.
    /// @param whence 1 adds the offset to the position; any other sets it. In the direct mode given to the
    /// device as it is.
    /// @return 0; -1 for a place before the start, after Close(), or in the direct mode the device's result.
    int Seek(std::int64_t offset, int whence);

    /// What the device told of the file when it was opened; the device is asked again, and may block, as long
    /// as it has told nothing. What was written since does not show.
    /// @return 0; -1 for null, or the device's result.
    int Stat(NFile_Info* info);

    /// Ends the file: what was written goes to the device, the device is closed, handle_close() follows.
    /// Never blocks, but in the direct mode. The object may be gone when this returns. A last failure is
    /// told by message 8. Messages under way may still come.
    void Close() override;

    /// @name The file's own callback
    /// @{
    int handle_close(CNetHandler* self) override;
    /// @}

private:
    friend struct SNFileRecord;

    explicit CNFile(SNFileRecord* record);
    ~CNFile() override;
    CNFile(const CNFile&) = delete;
    CNFile& operator=(const CNFile&) = delete;

    // Run by the file threads.
    int handle_write_file(std::int64_t flush);
    int handle_read_file();
    int handle_close_file();

    SNFileRecord* m_internal;
};

}  // namespace Veltro::Ravelo
