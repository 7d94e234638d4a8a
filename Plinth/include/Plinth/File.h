#pragma once

#include <Plinth/Defs.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace Veltro::Plinth {

/// What CFile::access asks for; values may be combined.
enum : int { FILE_ACCESS_EXISTS = 0, FILE_ACCESS_WRITE = 2, FILE_ACCESS_READ = 4 };

/// What CFile::status tells. Times are in seconds since 1970.
struct SFileStatus {
    std::uint64_t change_time = 0;  ///< of the status; on Windows of the file's creation
    std::uint64_t access_time = 0;
    std::uint64_t modify_time = 0;
    std::uint64_t size = 0;  ///< bytes
    bool is_folder = false;
};

/// Questions about files. Any thread may call.
class PLINTH_API CFile {
public:
    /// Whether the path, a file or a folder, exists and allows what is asked for. Blocks for as long as the
    /// file system does. On Windows every file may be read, and the read-only attribute forbids writing; the
    /// access lists are not looked at.
    /// @param path zero-terminated, UTF-8 on every platform, not empty.
    /// @param mode FILE_ACCESS_ values.
    /// @return 0, or -1 with the reason in getLastError().
    static int access(const char* path, int mode);
    /// Fills in what the file system knows of a file or folder. Blocks as access() does.
    /// @param path as in access().
    /// @return 0, or -1 with the reason in getLastError() and the status left alone.
    static int status(const char* path, SFileStatus* status);
};

/// A file of the C library's streams, alike on every platform: bytes are never translated, positions have 64
/// bits, child processes do not inherit it. Nothing is kept back in the stream: what write() took the system
/// has, and a full disk shows there and then.
///
/// One thread at a time. Every operation blocks for as long as the file system does; a failed one leaves the
/// reason in getLastError().
class PLINTH_API CFileStream {
public:
    CFileStream() = default;
    /// close().
    ~CFileStream();
    CFileStream(const CFileStream&) = delete;
    CFileStream& operator=(const CFileStream&) = delete;

    /// Opens a file, in place of the one that was open.
    /// @param path as in CFile::access(); a folder is refused.
    /// @param mode as of fopen: "r", "r+", "w", "w+", "a" or "a+", with or without a "b" behind it.
    /// @return 0, or -1 with no file open.
    int open(const char* path, const char* mode);
    /// Harmless when no file is open.
    void close();
    bool isOpen() const { return m_stream != nullptr; }

    /// Writes at the position, which moves on. @return bytes written, fewer than length when the disk fills;
    /// -1 when none could be.
    int write(const char* bytes, unsigned length);
    /// Reads at the position, which moves on. @return bytes read, fewer than length at the file's end or
    /// before a fault; 0 at the end; -1 when none could be.
    int read(char* buffer, unsigned length);
    /// Moves the position. @param whence SEEK_SET or SEEK_CUR. @return 0 or -1.
    int seek(std::int64_t offset, int whence);

private:
    enum class EUse { None, Read, Write, AtEnd };
    void turn_to(EUse use);

    std::FILE* m_stream = nullptr;
    EUse m_last_use = EUse::None;
    bool m_readable = false;
    bool m_writable = false;
};

}  // namespace Veltro::Plinth
