// What the C library's streams leave to the platform; bodies in File_linux.cpp and File_win.cpp.
#pragma once

#include <cstdint>
#include <cstdio>

namespace Veltro::Plinth {

/// fopen for binary streams; the path is UTF-8, a folder is refused. Throws std::bad_alloc.
std::FILE* openFile(const char* path, const char* mode);
/// fseek with 64 bits.
int seekFile(std::FILE* stream, std::int64_t offset, int whence);

/// Sets the last error of an operation that the file was not opened for.
void setWrongUse();

}  // namespace Veltro::Plinth
