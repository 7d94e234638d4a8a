#pragma once

#include <Plinth/Defs.h>

namespace Veltro::Plinth {

/// What CFile::access asks for; values may be combined.
enum : int { FILE_ACCESS_EXISTS = 0, FILE_ACCESS_WRITE = 2, FILE_ACCESS_READ = 4 };

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
};

}  // namespace Veltro::Plinth
