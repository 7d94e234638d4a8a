#include <Plinth/File.h>

#include <windows.h>

#include <string>

namespace Veltro::Plinth {

namespace {
/// UTF-8 to the system's UTF-16; empty when the text is not UTF-8.
std::wstring toWide(const char* text) {
    const int length = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text, -1, nullptr, 0);
    if (length <= 0) return {};
    std::wstring wide(static_cast<std::size_t>(length), L'\0');
    MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text, -1, wide.data(), length);
    return wide;
}
}  // namespace

int CFile::access(const char* path, int mode) {
    const std::wstring wide = path != nullptr ? toWide(path) : std::wstring();
    if (wide.size() <= 1) {
        SetLastError(ERROR_INVALID_NAME);
        return -1;
    }
    const DWORD attributes = GetFileAttributesW(wide.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) return -1;
    const bool read_only = (attributes & FILE_ATTRIBUTE_READONLY) && !(attributes & FILE_ATTRIBUTE_DIRECTORY);
    if ((mode & FILE_ACCESS_WRITE) && read_only) {
        SetLastError(ERROR_ACCESS_DENIED);
        return -1;
    }
    return 0;
}

}  // namespace Veltro::Plinth
