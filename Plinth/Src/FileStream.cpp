#include <Plinth/File.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

#include "FileSystem.h"

namespace Veltro::Plinth {

namespace {

/// What one call moves at most: results are ints.
std::size_t withinInt(unsigned length) {
    return std::min(length, static_cast<unsigned>(std::numeric_limits<int>::max()));
}

/// Not every C library says so itself.
bool mayBeUsed(bool opened_for_it) {
    if (!opened_for_it) setWrongUse();
    return opened_for_it;
}

}  // namespace

CFileStream::~CFileStream() {
    close();
}

int CFileStream::open(const char* path, const char* mode) {
    close();
    try {
        m_stream = openFile(path, mode);
    } catch (const std::bad_alloc&) {
        // Told by the result.
    }
    if (m_stream == nullptr) return -1;
    // A stream's own buffer would hide a full disk until the file is closed, where nobody is told any more.
    std::setvbuf(m_stream, nullptr, _IONBF, 0);
    m_last_use = EUse::None;
    const bool both = std::strchr(mode, '+') != nullptr;
    m_readable = both || mode[0] == 'r';
    m_writable = both || mode[0] != 'r';
    return 0;
}

void CFileStream::close() {
    if (m_stream != nullptr) std::fclose(m_stream);
    m_stream = nullptr;
    m_readable = false;
    m_writable = false;
}

/// Between reading and writing a stream wants to be positioned, and behind an end of the file, which some C
/// libraries remember otherwise, too.
void CFileStream::turn_to(EUse use) {
    if (m_last_use != use && m_last_use != EUse::None) seekFile(m_stream, 0, SEEK_CUR);
    m_last_use = use;
    // A fault or an end of long ago must not end this call: the disk may have room again, the file more.
    std::clearerr(m_stream);
}

int CFileStream::write(const char* bytes, unsigned length) {
    if (!mayBeUsed(m_writable)) return -1;
    turn_to(EUse::Write);
    const std::size_t written = std::fwrite(bytes, 1, withinInt(length), m_stream);
    return written == 0 && length > 0 ? -1 : static_cast<int>(written);
}

int CFileStream::read(char* buffer, unsigned length) {
    if (!mayBeUsed(m_readable)) return -1;
    turn_to(EUse::Read);
    const std::size_t got = std::fread(buffer, 1, withinInt(length), m_stream);
    if (got < length) m_last_use = EUse::AtEnd;
    return got == 0 && std::ferror(m_stream) != 0 ? -1 : static_cast<int>(got);
}

int CFileStream::seek(std::int64_t offset, int whence) {
    if (m_stream == nullptr || seekFile(m_stream, offset, whence) != 0) return -1;
    m_last_use = EUse::None;
    return 0;
}

}  // namespace Veltro::Plinth
