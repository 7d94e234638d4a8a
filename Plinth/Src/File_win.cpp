#include <Plinth/File.h>

#include <sys/stat.h>
#include <windows.h>

#include <string>

#include "FileSystem.h"
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

int CFile::status(const char* path, SFileStatus* status) {
    const auto wide = path != nullptr && status != nullptr ? toWide(path) : nullptr;
    if (!wide || wide[0] == L'\0') {
        SetLastError(ERROR_INVALID_NAME);
        return -1;
    }
    struct __stat64 found {};
    if (_wstat64(wide.get(), &found) != 0) return -1;
    status->change_time = static_cast<std::uint64_t>(found.st_ctime);
    status->access_time = static_cast<std::uint64_t>(found.st_atime);
    status->modify_time = static_cast<std::uint64_t>(found.st_mtime);
    status->size = static_cast<std::uint64_t>(found.st_size);
    status->is_folder = (found.st_mode & S_IFDIR) != 0;
    return 0;
}

std::FILE* openFile(const char* path, const char* mode) {
    const auto wide = path != nullptr && mode != nullptr ? toWide(path) : nullptr;
    if (!wide || wide[0] == L'\0') {
        SetLastError(ERROR_INVALID_NAME);
        return nullptr;
    }
    // "b": line ends are left alone, as elsewhere; "N": child processes do not inherit it.
    std::wstring wanted;
    for (const char* c = mode; *c != '\0'; ++c) {
        if (*c != 'b' && *c != 't') wanted += static_cast<wchar_t>(*c);
    }
    return _wfopen(wide.get(), (wanted + L"bN").c_str());
}

int seekFile(std::FILE* stream, std::int64_t offset, int whence) {
    return _fseeki64(stream, offset, whence);
}

void setWrongUse() {
    SetLastError(ERROR_ACCESS_DENIED);
}

}  // namespace Veltro::Plinth
