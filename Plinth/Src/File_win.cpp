#include <Plinth/File.h>

#include <windows.h>

#include "Utf8_win.h"

namespace Veltro::Plinth {

int CFile::access(const char* path, int mode) {
    const auto wide = path != nullptr ? toWide(path) : nullptr;
    if (!wide || wide[0] == L'\0') {
        SetLastError(ERROR_INVALID_NAME);
        return -1;
    }
    const DWORD attributes = GetFileAttributesW(wide.get());
    if (attributes == INVALID_FILE_ATTRIBUTES) return -1;
    // On a folder the attribute means something else.
    const bool read_only = (attributes & FILE_ATTRIBUTE_READONLY) && !(attributes & FILE_ATTRIBUTE_DIRECTORY);
    if ((mode & FILE_ACCESS_WRITE) && read_only) {
        SetLastError(ERROR_ACCESS_DENIED);
        return -1;
    }
    return 0;
}

}  // namespace Veltro::Plinth
