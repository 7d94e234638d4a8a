#pragma once

#include <Plinth/Defs.h>

namespace Veltro::Plinth {

/// What CFile::access asks for; values may be combined.
enum : int { FILE_ACCESS_EXISTS = 0, FILE_ACCESS_WRITE = 2, FILE_ACCESS_READ = 4 };

/// Questions about files. Any thread may call.
class PLINTH_API CFile {
public:
    /// Whether the path exists and allows what is asked for.
    /// @param path zero-terminated, UTF-8 on every platform.
    /// @return 0, or -1 with the reason in getLastError().
    static int access(const char* path, int mode);
};

}  // namespace Veltro::Plinth
