#pragma once

#include <windows.h>

#include <memory>
#include <new>

namespace Veltro::Plinth {

/// UTF-8 to the system's UTF-16, zero-terminated; null when the text is not UTF-8 or memory is short.
inline std::unique_ptr<wchar_t[]> toWide(const char* text) {
    const int length = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text, -1, nullptr, 0);
    if (length <= 0) return nullptr;
    std::unique_ptr<wchar_t[]> wide(new (std::nothrow) wchar_t[static_cast<std::size_t>(length)]);
    if (wide) MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text, -1, wide.get(), length);
    return wide;
}

}  // namespace Veltro::Plinth
